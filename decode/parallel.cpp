#include "decode/parallel.h"

#if defined(_WIN32) && defined(_OPENMP)
#include <windows.h>

void kestra::keepModule() noexcept {
    static const bool kept = [] {
        HMODULE module = nullptr;
        return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                                  reinterpret_cast<const wchar_t*>(&keepModule), &module) != 0;
    }();
    (void)kept;
}
#else
void kestra::keepModule() noexcept {}
#endif
