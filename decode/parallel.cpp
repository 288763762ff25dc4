#include "decode/parallel.h"

std::atomic<kestra::Sharing> kestra::g_sharing{kestra::Sharing::WhereItPays};

#if defined(_WIN32) && defined(_OPENMP)
#include "win32/module.h"

void kestra::keepModule() noexcept {
    static const bool kept = pinOwnModule();
    (void)kept;
}
#else
void kestra::keepModule() noexcept {}
#endif
