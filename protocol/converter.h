// Converts the converter's parameters between the form that programs see and the card's. Portable; pure functions.
#pragma once

#include "protocol/records.h"
#include "protocol/wire.h"

#include <cstdint>
#include <limits>

namespace kestra::wire {

/// Bit 7 is the sign, bits 0..6 the magnitude. The card has no -128; it arrives there as 0.
constexpr uint8_t offsetToWire(int8_t v) noexcept {
    return uint8_t(v < 0 ? 0x80 | -v : v);
}
constexpr int8_t offsetFromWire(uint8_t b) noexcept {
    return int8_t(b & 0x80 ? -(b & 0x7F) : b);
}
static_assert(offsetToWire(-5) == 0x85 && offsetFromWire(0x85) == -5 && offsetToWire(-128) == 0x80);

/// 8.8 fixed point, truncated toward zero. Values outside 32 bits, and NaN, become INT32_MIN, as in the processor's
/// conversion.
constexpr int32_t fixedToWire(float v) noexcept {
    const float scaled = v * 256.0f;
    if (!(scaled >= -2147483648.0f && scaled < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(scaled);
}
constexpr float fixedFromWire(int32_t v) noexcept {
    return static_cast<float>(v) * 0.00390625f;
}
static_assert(fixedToWire(1.164f) == 297 && fixedFromWire(297) == 1.16015625f);

constexpr Converter toWire(const TarnisConverterParams& p) noexcept {
    return {p.YOff,
            p.CrOff,
            p.CbOff,
            fixedToWire(p.Y1),
            fixedToWire(p.R1),
            fixedToWire(p.G1),
            fixedToWire(p.G2),
            fixedToWire(p.B1),
            p.RMin,
            p.RMax,
            p.GMin,
            p.GMax,
            p.BMin,
            p.BMax,
            fixedToWire(p.RedGain),
            fixedToWire(p.GreenGain),
            fixedToWire(p.BlueGain),
            offsetToWire(p.RedOffset),
            offsetToWire(p.GreenOffset),
            offsetToWire(p.BlueOffset)};
}

constexpr TarnisConverterParams fromWire(const Converter& w) noexcept {
    return {w.yOff,
            w.crOff,
            w.cbOff,
            fixedFromWire(w.y1),
            fixedFromWire(w.r1),
            fixedFromWire(w.g1),
            fixedFromWire(w.g2),
            fixedFromWire(w.b1),
            w.rMin,
            w.rMax,
            w.gMin,
            w.gMax,
            w.bMin,
            w.bMax,
            offsetFromWire(w.redOffset),
            offsetFromWire(w.greenOffset),
            offsetFromWire(w.blueOffset),
            0,
            fixedFromWire(w.redGain),
            fixedFromWire(w.greenGain),
            fixedFromWire(w.blueGain)};
}

/// The converter parameters of a fresh card and of the software decoder (ITU-R BT.601, studio to full range).
constexpr TarnisConverterParams kDefaultConverter = {
    64, 512, 512, 1.164f, 1.596f, 0.813f, 0.392f, 2.017f, 0, 255, 0, 255, 0, 255, 0, 0, 0, 0, 1.0f, 1.0f, 1.0f};

} // namespace kestra::wire
