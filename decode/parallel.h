// The decoder's loop over lines, shared with the threads of the OpenMP team where that pays: static scheduling, one
// contiguous block of lines for each. Private to decode/.
#pragma once

#include <atomic>
#include <cstdint>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace kestra {

/// From which time of one thread on a loop is shared: the start and the end of a parallel region, and the wait for a
/// helper that the system has put aside, cost more below. Measured with paced streams (bench/decode_pace.cpp; figures
/// in docs/decoder.md).
constexpr uint64_t kSharedNanoseconds = 6'000'000;

enum class Sharing { WhereItPays, Never, Always };
/// For tests and benchmarks.
extern std::atomic<Sharing> g_sharing;

/// Whether a loop is shared that takes one thread so long.
bool isShared(uint64_t nanoseconds) noexcept;

/// Keeps the module in its process from the first parallel loop on. The OpenMP runtime keeps a pool of threads for each
/// thread that ran such a loop; unloading the module under them would crash the process.
void keepModule() noexcept;

/// Calls block(first, count) on each thread for its lines, which altogether are 0..lines-1.
/// @param nanoseconds  what one thread is expected to take
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
