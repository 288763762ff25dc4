# find_package(tarnis) in a build for 64-bit Windows gives the target tarnis::tarnis. The folder may lie anywhere.
get_filename_component(_tarnis_root "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(NOT TARGET tarnis::tarnis)
  add_library(tarnis::tarnis SHARED IMPORTED)
  set_target_properties(tarnis::tarnis PROPERTIES
    IMPORTED_LOCATION "${_tarnis_root}/bin/tarnis.dll"
    INTERFACE_INCLUDE_DIRECTORIES "${_tarnis_root}/include")
  if(MINGW)
    set_target_properties(tarnis::tarnis PROPERTIES IMPORTED_IMPLIB "${_tarnis_root}/lib/libtarnis.dll.a")
  else()
    set_target_properties(tarnis::tarnis PROPERTIES IMPORTED_IMPLIB "${_tarnis_root}/lib/tarnis.lib")
  endif()
endif()
unset(_tarnis_root)
