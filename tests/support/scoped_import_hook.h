// Replaces one imported system function of the test program, or of a module that it has loaded, for the life of an
// object, by patching the import address table: for errors that cannot be provoked otherwise. Not for concurrent use on
// the same function; calls that other modules make of the function are not seen. A compiler may keep the imported
// address over several calls within one function: install the hook before the function under test is entered.
#pragma once

#include <windows.h>

namespace kestra::test {

/// Address-table slot of an imported function, or null if the module (null: this program) does not import it.
void** findImport(const char* dll, const char* function, HMODULE module = nullptr) noexcept;

/// Usage:
///   static ScopedImportHook<decltype(&CreateEventW)>* hook;
///   ScopedImportHook<decltype(&CreateEventW)> h("kernel32.dll", "CreateEventW", [](auto...) -> HANDLE { ... });
///   h.original()(...) calls the real function.
template <class Function>
class ScopedImportHook {
public:
    /// @param dll       as the program's import table names it, in any case
    /// @param function  the imported name
    /// @param substitute what the program calls until this object ends; captures nothing
    /// @param module    whose calls are replaced; null: the program's
    ScopedImportHook(const char* dll, const char* function, Function substitute, HMODULE module = nullptr)
        : m_slot(findImport(dll, function, module)) {
        if (!m_slot) return;
        m_original = reinterpret_cast<Function>(*m_slot);
        write(reinterpret_cast<void*>(substitute));
    }
    ~ScopedImportHook() {
        if (m_slot) write(reinterpret_cast<void*>(m_original));
    }
    ScopedImportHook(const ScopedImportHook&) = delete;
    ScopedImportHook& operator=(const ScopedImportHook&) = delete;

    /// False if the program does not import the function: a test must assert this first.
    bool installed() const noexcept { return m_slot != nullptr; }
    Function original() const noexcept { return m_original; }

private:
    void write(void* target) noexcept {
        DWORD old = 0;
        VirtualProtect(m_slot, sizeof *m_slot, PAGE_READWRITE, &old);
        InterlockedExchangePointer(m_slot, target);
        VirtualProtect(m_slot, sizeof *m_slot, old, &old);
    }

    void** m_slot;
    Function m_original = nullptr;
};

} // namespace kestra::test
