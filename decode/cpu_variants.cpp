#include "decode/cpu_variants.h"

namespace kestra {
namespace {

int widest() noexcept {
    for (int variant = kCpuVariants - 1; variant > kPlain; --variant)
        if (cpuRuns(variant)) return variant;
    return kPlain;
}

} // namespace

std::atomic<int> g_cpuVariant{widest()};

const char* cpuVariantName(int variant) noexcept {
    constexpr const char* kNames[kCpuVariants] = {"plain", "sse2", "sse4.1", "avx2", "avx512"};
    return variant >= 0 && variant < kCpuVariants ? kNames[variant] : "unknown";
}

bool cpuRuns(int variant) noexcept {
    __builtin_cpu_init(); // this runs before main
    switch (variant) {
    case kPlain:
        return true;
    case kSse2:
        return __builtin_cpu_supports("sse2") != 0;
    case kSse41:
        return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1");
    case kAvx2:
        return __builtin_cpu_supports("avx2") != 0;
    case kAvx512:
        return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
               __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi");
    default:
        return false;
    }
}

bool forceCpuVariant(int variant) noexcept {
    if (!cpuRuns(variant)) return false;
    g_cpuVariant = variant;
    return true;
}

} // namespace kestra
