// Region kernels: copies and shifts of rectangles of pixels. Five builds of each, bit-identical. Portable.
#pragma once

#include "decode/cpu_variants.h"

#include <cstdint>

namespace kestra {

struct RegionSize {
    int32_t width, height; ///< pixels
};

/// Status values of the region kernels.
enum RegionStatus : int32_t {
    kRegionDone = 0,
    kRegionBadSize = -6,     ///< width or height below 1
    kRegionNullPointer = -8, //
    kRegionBadStep = -14     ///< a line step below 1, where that is not allowed
};

/// Copies 3 bytes a pixel, line by line. The regions must not overlap.
/// @param srcStep, dstStep bytes from one line to the next; negative: towards lower addresses
using CopyC3 = int32_t (*)(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region);
/// Copies one 16-bit unit a pixel. Ranges of a line may overlap: units are then copied one by one, upwards.
using Copy16C1 = int32_t (*)(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region);
/// Shifts every 16-bit sample right in place; a shift above 15 makes all of them 0. The step must be positive.
using ShiftRight16C1 = int32_t (*)(uint32_t shift, void* image, int32_t step, RegionSize region);

int32_t copyC3Plain(const uint8_t*, int32_t, uint8_t*, int32_t, RegionSize);
int32_t copyC3Sse2(const uint8_t*, int32_t, uint8_t*, int32_t, RegionSize);
int32_t copyC3Sse41(const uint8_t*, int32_t, uint8_t*, int32_t, RegionSize);
int32_t copyC3Avx2(const uint8_t*, int32_t, uint8_t*, int32_t, RegionSize);
int32_t copyC3Avx512(const uint8_t*, int32_t, uint8_t*, int32_t, RegionSize);
constexpr VariantTable<CopyC3> kCopyC3 = {copyC3Plain, copyC3Sse2, copyC3Sse41, copyC3Avx2, copyC3Avx512};

int32_t copy16C1Plain(const void*, int32_t, void*, int32_t, RegionSize);
int32_t copy16C1Sse2(const void*, int32_t, void*, int32_t, RegionSize);
int32_t copy16C1Sse41(const void*, int32_t, void*, int32_t, RegionSize);
int32_t copy16C1Avx2(const void*, int32_t, void*, int32_t, RegionSize);
int32_t copy16C1Avx512(const void*, int32_t, void*, int32_t, RegionSize);
constexpr VariantTable<Copy16C1> kCopy16C1 = {copy16C1Plain, copy16C1Sse2, copy16C1Sse41, copy16C1Avx2, copy16C1Avx512};

int32_t shiftRight16C1Plain(uint32_t, void*, int32_t, RegionSize);
int32_t shiftRight16C1Sse2(uint32_t, void*, int32_t, RegionSize);
int32_t shiftRight16C1Sse41(uint32_t, void*, int32_t, RegionSize);
int32_t shiftRight16C1Avx2(uint32_t, void*, int32_t, RegionSize);
int32_t shiftRight16C1Avx512(uint32_t, void*, int32_t, RegionSize);
constexpr VariantTable<ShiftRight16C1> kShiftRight16C1 = {shiftRight16C1Plain, shiftRight16C1Sse2, shiftRight16C1Sse41,
                                                          shiftRight16C1Avx2, shiftRight16C1Avx512};

inline int32_t copyRegionC3(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    return kCopyC3[static_cast<size_t>(cpuVariant())](src, srcStep, dst, dstStep, region);
}
inline int32_t copyRegion16C1(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region) {
    return kCopy16C1[static_cast<size_t>(cpuVariant())](src, srcStep, dst, dstStep, region);
}
inline int32_t shiftRightRegion16C1(uint32_t shift, void* image, int32_t step, RegionSize region) {
    return kShiftRight16C1[static_cast<size_t>(cpuVariant())](shift, image, step, region);
}

} // namespace kestra
