// The decoder's loop over lines, shared by the threads of the OpenMP team where that pays: static scheduling, one
// contiguous block of lines per thread. Private to decode/.
#pragma once

#include <atomic>
#include <cstdint>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace kestra {

/// A loop is shared if one thread would take at least this long. Below that, starting and ending a parallel region and
/// waiting for a descheduled helper cost as much as sharing saves. Measured with paced streams (bench/decode_pace.cpp;
/// figures in docs/decoder.md).
constexpr uint64_t kSharedNanoseconds = 10'000'000;

enum class Sharing { WhereItPays, Never, Always };
/// For tests and benchmarks.
extern std::atomic<Sharing> g_sharing;

/// Whether to share a loop that takes one thread this long.
bool isShared(uint64_t nanoseconds) noexcept;

/// Pins the module in its process at the first parallel loop. The OpenMP runtime keeps a pool of threads for each
/// thread that ran such a loop; unloading the module under them would crash the process.
void keepModule() noexcept;

/// Calls block(first, count) on each thread for its share of the lines 0..lines-1.
/// @param nanoseconds  expected time on one thread
template <class Block>
void forEachBlock(uint32_t lines, uint64_t nanoseconds, Block block) {
#ifdef _OPENMP
    if (isShared(nanoseconds)) {
        keepModule();
#pragma omp parallel
        {
            const auto threads = static_cast<uint64_t>(omp_get_num_threads());
            const auto self = static_cast<uint64_t>(omp_get_thread_num());
            const auto first = static_cast<uint32_t>(lines * self / threads);
            block(first, static_cast<uint32_t>(lines * (self + 1) / threads) - first);
        }
        return;
    }
#else
    (void)nanoseconds;
#endif
    block(0, lines);
}

} // namespace kestra
