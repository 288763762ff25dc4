// Copies rectangles of three-byte pixels. Portable; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestra {

struct RegionSize {
    int32_t width, height; ///< pixels
};

enum RegionStatus : int32_t {
    kRegionDone = 0,
    kRegionBadSize = -6, ///< width or height below 1
    kRegionNullPointer = -8
};

/// Copies 3 bytes a pixel, line by line, with the process's kernels. The regions must not overlap.
/// @param srcStep, dstStep  bytes from one line to the next; negative: towards lower addresses
/// @param streamed          the region's image has kStreamedBytes; the function issues the fence itself
RegionStatus copyRegionC3(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep, RegionSize region,
                          bool streamed) noexcept;

} // namespace kestra
