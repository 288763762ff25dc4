// The plain region kernels.
#include "decode/region_template.h"

namespace kestra {
namespace {

/// One byte at a time.
struct ByteOps {
    static constexpr size_t kBytes = 1;
    static uint8_t load(const uint8_t* p) { return *p; }
    static void store(uint8_t* p, uint8_t v) { *p = v; }
    static void stream(uint8_t* p, uint8_t v) { *p = v; }
};

} // namespace

int32_t copyC3Plain(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    if (const int32_t status = checkCopy(src, dst, region)) return status;
    const size_t bytes = size_t{3} * static_cast<uint32_t>(region.width);
    for (int32_t y = 0; y < region.height; ++y, src += ptrdiff_t{srcStep}, dst += ptrdiff_t{dstStep})
        copyBytes(src, dst, bytes);
    return kRegionDone;
}

int32_t copy16C1Plain(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region) {
    return copy16C1<ByteOps>(src, srcStep, dst, dstStep, region);
}

int32_t shiftRight16C1Plain(uint32_t shift, void* image, int32_t step, RegionSize region) {
    return shiftRight16C1<ByteOps>(shift, image, step, region);
}

} // namespace kestra
