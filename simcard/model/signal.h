// What arrives at the card's input, and what the card's registers say about it. Portable; plain data.
#pragma once

#include "protocol/frame_rate.h"
#include "protocol/registers.h"

#include <cstdint>

namespace kestra::simcard {

/// Rounds a fractional rate (30000/1001) to whole frames per second.
constexpr uint32_t nominalRate(uint32_t numerator, uint32_t denominator) noexcept {
    return denominator == 0 ? 0 : (numerator + denominator / 2) / denominator;
}

/// One SDI signal. A rate is frames per second, never fields.
struct Signal {
    uint8_t present;
    uint8_t interlaced;
    uint8_t audio;
    uint8_t videoMode;                ///< see frame_rate.h
    uint8_t formatByte;               ///< reported beside it
    uint8_t audioInAlternateRegister; ///< audio shows in kRegisterAudioAlternate
    uint16_t width;                   ///< active pixels a line
    uint16_t height;                  ///< active lines a frame, both fields together
    uint16_t reserved;
    uint32_t rateNumerator;
    uint32_t rateDenominator;
    uint32_t measuredRate; ///< what the statistics report; 0: the rate above, rounded

    bool operator==(const Signal&) const = default;

    constexpr uint32_t nominalFrameRate() const noexcept { return nominalRate(rateNumerator, rateDenominator); }
    constexpr uint32_t reportedFrameRate() const noexcept {
        if (!present) return 0;
        return measuredRate != 0 ? measuredRate : nominalFrameRate();
    }
    /// True if a channel prepared for one of the two can go on with the other.
    constexpr bool sameFormat(const Signal& other) const noexcept {
        return present == other.present && interlaced == other.interlaced && width == other.width &&
               height == other.height && nominalFrameRate() == other.nominalFrameRate();
    }
    /// False for what no card could receive: no size, no rate, more than 240 frames per second.
    constexpr bool isValid() const noexcept {
        if (!present) return true;
        return width != 0 && height != 0 && width <= 8192 && height <= 8192 && rateNumerator <= 1000000 &&
               rateDenominator != 0 && rateDenominator <= 100000 && nominalFrameRate() >= 1 &&
               nominalFrameRate() <= 240;
    }
};
static_assert(sizeof(Signal) == 24);

/// 1920 x 1080, progressive, 60 frames per second, with audio: what a fresh card receives.
constexpr Signal kDefaultSignal = {1, 0, 1, 9, 0, 0, 1920, 1080, 0, 60, 1, 0};

/// Value of a receiver register; registers that the card lacks read 0.
constexpr uint16_t receiverRegister(const Signal& signal, uint16_t number) noexcept {
    if (!signal.present) return 0;
    switch (number) {
    case kRegisterInput:
        return uint16_t((signal.interlaced ? kInputInterlaced : 0u) |
                        (signal.nominalFrameRate() == 24 ? kInputRateIs24 : 0u) |
                        (signal.audioInAlternateRegister ? kInputAudioAlternate : 0u));
    case kRegisterAudio:
        return signal.audio && !signal.audioInAlternateRegister ? kAudioMask : 0;
    case kRegisterAudioAlternate:
        return signal.audio && signal.audioInAlternateRegister ? kAudioAlternateMask : 0;
    default:
        return 0;
    }
}

constexpr uint32_t kAudioSamplesPerSecond = 48000;

/// Bytes of one audio buffer: one video frame's worth of stereo samples. Selector 1: 16 bit, 0: 24 bit.
constexpr uint32_t audioBlockBytes(uint32_t selector, uint32_t framesPerSecond) noexcept {
    if (selector > 1 || framesPerSecond == 0) return 0;
    return kAudioSamplesPerSecond / framesPerSecond * (selector == 1 ? 4 : 6);
}
static_assert(audioBlockBytes(1, 60) == 3200 && audioBlockBytes(0, 24) == 12000);

} // namespace kestra::simcard
