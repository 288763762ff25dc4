// The sample kernels' loops, written once for every register width; see yuv_arithmetic.h for `Ops`. Private to decode/.
#pragma once

#include "decode/sample_kernels.h"
#include "decode/yuv_arithmetic.h"

namespace kestra {

/// Stores map(src + i) for whole registers of a line of `bytes`, the last one over the one before.
/// @return false: the line is shorter than a register, nothing is done
template <class Ops, class Map>
KESTRA_INLINE bool mapLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed, Map map) {
    constexpr size_t kBytes = Ops::kBytes;
    if (bytes < kBytes) return false;
    size_t i = 0;
    if (streamed && reinterpret_cast<uintptr_t>(dst) % kBytes == 0)
        for (; i + kBytes <= bytes; i += kBytes)
            Ops::stream(dst + i, map(Ops::load(src + i)));
    else
        for (; i + kBytes <= bytes; i += kBytes)
            Ops::store(dst + i, map(Ops::load(src + i)));
    if (i < bytes) Ops::store(dst + bytes - kBytes, map(Ops::load(src + bytes - kBytes)));
    return true;
}

template <class Ops>
KESTRA_INLINE void copySampleLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    if (!mapLine<Ops>(src, dst, bytes, streamed, [](typename Ops::Vec v) { return v; }))
        copyLinePlain(src, dst, bytes, streamed);
}

template <class Ops>
KESTRA_INLINE void swapSampleLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    bytes &= ~size_t{1};
    if (!mapLine<Ops>(src, dst, bytes, streamed, [](typename Ops::Vec v) { return Ops::swapBytes(v); }))
        swapLinePlain(src, dst, bytes, streamed);
}

/// Ops::expand makes a register of 32-bit pixels of the first three quarters of one of 24-bit pixels.
template <class Ops>
KESTRA_INLINE void expandSampleLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    constexpr size_t kOut = Ops::kBytes, kIn = kOut / 4 * 3;
    size_t in = 0, out = 0;
    if (streamed && reinterpret_cast<uintptr_t>(dst) % kOut == 0)
        for (; in + kOut <= bytes; in += kIn, out += kOut)
            Ops::stream(dst + out, Ops::expand(Ops::load(src + in)));
    else
        for (; in + kOut <= bytes; in += kIn, out += kOut)
            Ops::store(dst + out, Ops::expand(Ops::load(src + in)));
    expandLinePlain(src + in, dst + out, bytes - in, streamed);
}

} // namespace kestra
