// The decoder's parallel loop over lines: OpenMP, static scheduling, one contiguous block of lines for each thread of
// the default team. Private to decode/.
#pragma once

#include <cstdint>

namespace kestra {

/// Keeps the module in its process from the first parallel loop on. The OpenMP runtime keeps a pool of threads for each
/// thread that ran such a loop; unloading the module under them would crash the process.
void keepModule() noexcept;

/// From how many bytes read and written on a loop is shared with other threads. Below, the start and the end of a
/// parallel region cost more than the others save.
constexpr uint64_t kParallelBytes = 3u << 20;

/// Calls line(i) for i in 0..lines-1.
/// @param bytes what the loop reads and writes altogether
template <class Line>
void forEachLine(uint32_t lines, uint64_t bytes, Line line) {
    const bool parallel = bytes >= kParallelBytes;
    if (parallel) keepModule();
    const auto count = static_cast<int64_t>(lines);
#ifdef _OPENMP
#pragma omp parallel for schedule(static) if (parallel)
#endif
    for (int64_t i = 0; i < count; ++i)
        line(static_cast<uint32_t>(i));
}

} // namespace kestra
