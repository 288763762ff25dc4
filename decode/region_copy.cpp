// A copy of an image region: one kernel call a line.
#include "decode/region_copy.h"

#include "decode/kernel_set.h"

#include <xmmintrin.h>

kestra::RegionStatus kestra::copyRegionC3(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep,
                                          RegionSize region, bool streamed) noexcept {
    if (!src || !dst) return kRegionNullPointer;
    if (region.width < 1 || region.height < 1) return kRegionBadSize;
    const SampleLine copyLine = kernels().copyLine;
    for (ptrdiff_t y = 0; y < region.height; ++y)
        copyLine(src + y * srcStep, dst + y * dstStep, size_t{3} * static_cast<uint32_t>(region.width), streamed);
    if (streamed) _mm_sfence();
    return kRegionDone;
}
