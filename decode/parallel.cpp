// The team of threads for a frame, and when it pays.
#include "decode/parallel.h"

std::atomic<kestra::Sharing> kestra::g_sharing{kestra::Sharing::WhereItPays};

bool kestra::isShared(uint64_t nanoseconds) noexcept {
    const Sharing sharing = g_sharing.load(std::memory_order_relaxed);
    return sharing == Sharing::WhereItPays ? nanoseconds >= kSharedNanoseconds : sharing == Sharing::Always;
}

#if defined(_WIN32) && defined(_OPENMP)
#include "win32/module.h"

void kestra::keepModule() noexcept {
    static const bool kept = pinOwnModule();
    (void)kept;
}
#else
void kestra::keepModule() noexcept {}
#endif
