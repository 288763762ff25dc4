// Which of five builds of each pixel kernel runs: chosen once from what the processor has and the system saves.
// Portable; any thread.
//
// A kernel is a table of five entry points, plain first, widest last, called through the one process-wide index:
//   constexpr VariantTable<CopyLine> kCopyLine = {copyLinePlain, copyLineSse2, ...};
//   kCopyLine[cpuVariant()](...);
#pragma once

#include <array>
#include <atomic>

namespace kestra {

enum CpuVariant : int {
    kPlain = 0,
    kSse2 = 1,
    kSse41 = 2,  ///< SSSE3 and SSE4.1
    kAvx2 = 3,   //
    kAvx512 = 4, ///< AVX-512 F, BW, VL and VBMI
    kCpuVariants = 5
};

template <class Entry>
using VariantTable = std::array<Entry, kCpuVariants>;

/// "plain", "sse2", "sse4.1", "avx2" or "avx512".
const char* cpuVariantName(int variant) noexcept;

/// True if this processor has the variant's instructions and the system saves their registers.
bool cpuRuns(int variant) noexcept;

extern std::atomic<int> g_cpuVariant; ///< use cpuVariant()

/// The variant that every kernel call of this process uses: the widest that runs, unless another was forced.
inline int cpuVariant() noexcept {
    return g_cpuVariant.load(std::memory_order_relaxed);
}

/// Makes every later kernel call of the process use this variant: for tests, benchmarks and for a processor on which a
/// wider one misbehaves. Results never differ, only the time taken.
/// @return false, and nothing is changed, if the variant does not exist or does not run here.
bool forceCpuVariant(int variant) noexcept;

} // namespace kestra
