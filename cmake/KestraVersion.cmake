# The one place for the version: project(VERSION) names the last release; git tells how many commits have followed it.
# A commit changes the generated kestra_version.h, so only what includes that is built again:
#   KESTRA_VERSION_TEXT      "1.2.0", or as `git describe` has it: "1.2.0-7-g0123abc"
#   KESTRA_VERSION_NUMBERS   1,2,0,7: of version resources; the fourth counts the commits since the release
set(kestra_version_folder ${PROJECT_BINARY_DIR}/version)
add_custom_target(kestra_version_header
  COMMAND ${CMAKE_COMMAND} -DSOURCE=${PROJECT_SOURCE_DIR} -DVERSION=${PROJECT_VERSION}
    -DHEADER=${kestra_version_folder}/kestra_version.h -P ${PROJECT_SOURCE_DIR}/cmake/version.cmake
  BYPRODUCTS ${kestra_version_folder}/kestra_version.h
  COMMENT "Asking for the version" VERBATIM)
add_library(kestra_version INTERFACE)
target_include_directories(kestra_version INTERFACE ${kestra_version_folder})
add_dependencies(kestra_version kestra_version_header)

# kestra_version_resource(TARGET "description" [RELEASE]): what the system shows of this file: product, version, licence. Every
# binary that ships has one, and the tests of shipped files look at each of them. RELEASE: the version of the last release, not
# of the commit.
function(kestra_version_resource target description)
  set(version_text KESTRA_VERSION_TEXT)
  set(version_numbers KESTRA_VERSION_NUMBERS)
  if("RELEASE" IN_LIST ARGN)
    set(version_text "\"${PROJECT_VERSION}\"")
    string(REPLACE "." "," version_numbers ${PROJECT_VERSION}.0)
  endif()
  get_target_property(type ${target} TYPE)
  get_target_property(suffix ${target} SUFFIX)
  set(file_type VFT_APP)
  set(extension .exe)
  if(suffix STREQUAL ".sys")
    set(file_type VFT_DRV)
    set(extension .sys)
  elseif(type STREQUAL "SHARED_LIBRARY")
    set(file_type VFT_DLL)
    set(extension .dll)
  endif()
  get_target_property(internal_name ${target} OUTPUT_NAME)
  if(NOT internal_name)
    set(internal_name ${target})
  endif()
  set(file_name ${internal_name}${extension})
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
  # windres does not report what it included.
  set_source_files_properties(${resource} PROPERTIES OBJECT_DEPENDS ${kestra_version_folder}/kestra_version.h)
  target_sources(${target} PRIVATE ${resource})
  target_link_libraries(${target} PRIVATE kestra_version)
  set_property(GLOBAL APPEND PROPERTY KESTRA_SHIPPED ${target})
endfunction()
