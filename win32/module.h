// The module that contains this code, and owners of modules. Any thread.
#pragma once

#include "win32/handle.h"

#include <cwchar>

extern "C" IMAGE_DOS_HEADER __ImageBase; // the linker's symbol at the module's base address, which is its handle

namespace kestra {

/// The module that contains this code; adds no reference.
inline HMODULE ownModule() noexcept {
    return reinterpret_cast<HMODULE>(&__ImageBase);
}

/// Keeps the module loaded until the process ends.
inline bool pinOwnModule() noexcept {
    HMODULE module = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                              reinterpret_cast<LPCWSTR>(&__ImageBase), &module) != 0;
}

struct LibraryTraits {
    static HMODULE none() noexcept { return nullptr; }
    static void close(HMODULE module) noexcept { FreeLibrary(module); }
};
/// A reference to a loaded module.
using UniqueLibrary = UniqueHandle<LibraryTraits>;

/// Loads a library from this module's own folder only, and what that needs from there or from the system: never from
/// the host's folder, the current one or the search path. @return null if it is not there
inline UniqueLibrary loadFromOwnFolder(const wchar_t* fileName) noexcept {
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(ownModule(), path, MAX_PATH);
    wchar_t* slash = length > 0 && length < MAX_PATH ? std::wcsrchr(path, L'\\') : nullptr;
    if (!slash || slash + 2 + std::wcslen(fileName) > path + MAX_PATH) return UniqueLibrary();
    std::wcscpy(slash + 1, fileName);
    return UniqueLibrary(
        LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32));
}

/// Keeps the module that contains this code from being unloaded.
class ModuleReference {
public:
    ModuleReference() noexcept {
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&__ImageBase),
                           m_module.out());
    }
    /// Ends the calling thread, which may be the last one to run the module's code. Objects on its stack are not
    /// destroyed.
    [[noreturn]] void releaseAndExitThread(DWORD code) noexcept { FreeLibraryAndExitThread(m_module.release(), code); }

private:
    UniqueLibrary m_module;
};

} // namespace kestra
