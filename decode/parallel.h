// The decoder's parallel loop over lines: OpenMP, static scheduling, one contiguous block of lines for each thread of
// the default team. Private to decode/.
#pragma once

#include <cstdint>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace kestra {

/// Keeps the module in its process from the first parallel loop on. The OpenMP runtime keeps a pool of threads for each
/// thread that ran such a loop; unloading the module under them would crash the process.
void keepModule() noexcept;

/// From how many bytes read and written on a loop is shared with other threads. Below, the start and the end of a
/// parallel region cost more than the others save.
constexpr uint64_t kParallelBytes = 3u << 20;

/// Calls block(first, count) on each thread for its lines, which altogether are 0..lines-1.
/// @param bytes what the loop reads and writes altogether
template <class Block>
void forEachBlock(uint32_t lines, uint64_t bytes, Block block) {
#ifdef _OPENMP
    if (bytes >= kParallelBytes) {
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
    (void)bytes;
#endif
    block(0, lines);
}

} // namespace kestra
