// The region kernels' loops, written once for every register width; see yuv_arithmetic.h for `Ops`. `ByteOps` gives the
// plain build. Private to decode/.
#pragma once

#include "decode/region_kernels.h"

#include <cstddef>
#include <cstring>

#include <xmmintrin.h>

#ifndef KESTRA_INLINE
#define KESTRA_INLINE inline __attribute__((always_inline))
#endif

namespace kestra {

KESTRA_INLINE void copyBytes(const uint8_t* src, uint8_t* dst, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) {
        dst[i] = src[i];
        asm volatile("" ::: "memory"); // not to be turned into a call of memcpy
    }
}

/// From how many bytes on a copied region is stored past the caches: storing into cached lines costs reading them
/// first.
constexpr uint64_t kStreamedRegion = 1u << 20;

/// One line; the first and the last register may overlap the aligned ones between them.
/// @param nextDst where the next line will go: fetched into the cache on the way; null: stored past the caches
template <class Ops>
KESTRA_INLINE void copyLine(const uint8_t* src, uint8_t* dst, size_t bytes, const uint8_t* nextDst) {
    constexpr size_t kBytes = Ops::kBytes;
    if (bytes < kBytes) return copyBytes(src, dst, bytes);
    Ops::store(dst, Ops::load(src));
    size_t i = kBytes - (reinterpret_cast<uintptr_t>(dst) & (kBytes - 1));
    if (nextDst) {
        for (; i + 128 <= bytes; i += 128) {
            __builtin_prefetch(nextDst + i, 1);
            __builtin_prefetch(nextDst + i + 64, 1);
            for (size_t j = 0; j < 128; j += kBytes)
                Ops::store(dst + i + j, Ops::load(src + i + j));
        }
        for (; i + kBytes <= bytes; i += kBytes)
            Ops::store(dst + i, Ops::load(src + i));
    } else {
        for (; i + kBytes <= bytes; i += kBytes)
            Ops::stream(dst + i, Ops::load(src + i));
    }
    if (i < bytes) Ops::store(dst + bytes - kBytes, Ops::load(src + bytes - kBytes));
}

KESTRA_INLINE int32_t checkCopy(const void* src, const void* dst, RegionSize region) {
    if (!src || !dst) return kRegionNullPointer;
    if (region.width < 1 || region.height < 1) return kRegionBadSize;
    return kRegionDone;
}

template <class Ops>
KESTRA_INLINE int32_t copyC3(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    if (const int32_t status = checkCopy(src, dst, region)) return status;
    const size_t bytes = size_t{3} * static_cast<uint32_t>(region.width);
    const bool streamed = uint64_t{bytes} * static_cast<uint32_t>(region.height) >= kStreamedRegion;
    for (int32_t y = 0; y < region.height; ++y, src += ptrdiff_t{srcStep}, dst += ptrdiff_t{dstStep}) {
        const auto next = reinterpret_cast<uintptr_t>(dst) + static_cast<uintptr_t>(ptrdiff_t{dstStep}); // a hint only
        copyLine<Ops>(src, dst, bytes, streamed ? nullptr : reinterpret_cast<const uint8_t*>(next));
    }
    if (streamed) _mm_sfence();
    return kRegionDone;
}

KESTRA_INLINE void copyUnits(const uint8_t* src, uint8_t* dst, size_t bytes) {
    for (size_t i = 0; i < bytes; i += 2) {
        uint16_t unit = 0;
        std::memcpy(&unit, src + i, sizeof unit);
        std::memcpy(dst + i, &unit, sizeof unit);
        asm volatile("" ::: "memory"); // units may overlap: one after the other
    }
}

template <class Ops>
KESTRA_INLINE int32_t copy16C1(const void* source, int32_t srcStep, void* destination, int32_t dstStep,
                               RegionSize region) {
    if (const int32_t status = checkCopy(source, destination, region)) return status;
    constexpr int32_t kWidestByUnits = 6;
    auto src = static_cast<const uint8_t*>(source);
    auto dst = static_cast<uint8_t*>(destination);
    const size_t bytes = size_t{2} * static_cast<uint32_t>(region.width);
    for (int32_t y = 0; y < region.height; ++y, src += ptrdiff_t{srcStep}, dst += ptrdiff_t{dstStep}) {
        const auto from = reinterpret_cast<uintptr_t>(src), to = reinterpret_cast<uintptr_t>(dst);
        const bool overlap = from < to + bytes && to < from + bytes;
        if (Ops::kBytes == 1 || region.width <= kWidestByUnits || overlap || to % 2 != 0)
            copyUnits(src, dst, bytes);
        else
            copyLine<Ops>(src, dst, bytes, dst);
    }
    return kRegionDone;
}

template <class Ops>
KESTRA_INLINE int32_t shiftRight16C1(uint32_t shift, void* image, int32_t step, RegionSize region) {
    if (!image) return kRegionNullPointer;
    if (step < 1) return kRegionBadStep;
    if (region.width < 1 || region.height < 1) return kRegionBadSize;
    if (shift == 0) return kRegionDone;
    auto* line = static_cast<uint8_t*>(image);
    const size_t bytes = size_t{2} * static_cast<uint32_t>(region.width);
    for (int32_t y = 0; y < region.height; ++y, line += ptrdiff_t{step}) {
        size_t i = 0;
        if constexpr (Ops::kBytes > 1)
            for (; i + Ops::kBytes <= bytes; i += Ops::kBytes)
                Ops::store(line + i, shift > 15 ? Ops::zero() : Ops::shiftRight(Ops::load(line + i), shift));
        for (; i < bytes; i += 2) {
            uint16_t sample = 0;
            std::memcpy(&sample, line + i, sizeof sample);
            sample = static_cast<uint16_t>(shift > 15 ? 0 : sample >> shift);
            std::memcpy(line + i, &sample, sizeof sample);
        }
    }
    return kRegionDone;
}

} // namespace kestra
