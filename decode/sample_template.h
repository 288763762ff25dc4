// The kernels that copy a line without changing its colours, written once for every register width; see
// yuv_arithmetic.h for `Ops`. Private to decode/.
#pragma once

#include "decode/plain_lines.h"
#include "decode/yuv_arithmetic.h"

namespace kestra {

/// Writes map(register) for a whole line, in registers whose stores are aligned wherever the address of the line allows
/// it; the first and the last may overlap the aligned ones between them.
/// @param bytes  of the source
/// @param kUnit  bytes of the image that belong together: a register may only begin at a multiple of them
/// @param kIn    bytes of a source register consumed per image register; if fewer than all, `rest` does the end of the
/// line
/// @param rest   the plain kernel of the same mapping
template <class Ops, size_t kUnit, size_t kIn, class Map>
KESTRA_INLINE void mapLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed, SampleLine rest, Map map) {
    constexpr size_t kOut = Ops::kBytes;
    if (bytes < kOut) return rest(src, dst, bytes, streamed);
    size_t in = 0, out = 0;
    const size_t head = (0 - reinterpret_cast<uintptr_t>(dst)) % kOut;
    const bool alignable = head % kUnit == 0;
    if (alignable && head != 0) {
        Ops::store(dst, map(Ops::load(src)));
        out = head;
        in = head * kIn / kOut;
    }
    if (streamed && alignable)
        for (; in + kOut <= bytes; in += kIn, out += kOut)
            Ops::stream(dst + out, map(Ops::load(src + in)));
    else
        for (; in + kOut <= bytes; in += kIn, out += kOut)
            Ops::store(dst + out, map(Ops::load(src + in)));
    if (in == bytes) return;
    if constexpr (kIn == kOut)
        Ops::store(dst + bytes - kOut, map(Ops::load(src + bytes - kOut)));
    else
        rest(src + in, dst + out, bytes - in, streamed);
}

template <class Ops>
void copyLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    mapLine<Ops, 1, Ops::kBytes>(src, dst, bytes, streamed, copyLinePlain, [](typename Ops::Vec v) { return v; });
}

template <class Ops>
void swapLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    mapLine<Ops, 2, Ops::kBytes>(src, dst, bytes & ~size_t{1}, streamed, swapLinePlain,
                                 [](typename Ops::Vec v) { return Ops::swapBytes(v); });
}

/// Ops::expand makes a register of 32-bit pixels of the first three quarters of one of 24-bit pixels.
template <class Ops>
void expandLine(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    mapLine<Ops, 4, Ops::kBytes / 4 * 3>(src, dst, bytes, streamed, expandLinePlain,
                                         [](typename Ops::Vec v) { return Ops::expand(v); });
}

} // namespace kestra
