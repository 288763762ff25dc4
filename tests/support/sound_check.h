// Finds out which of the simulated card's sound a recording holds. Portable.
#pragma once

#include "simcard/model/sound.h"

#include <cstdint>
#include <cstring>
#include <optional>

namespace kestra::test {

/// The frame whose block a recording begins with.
/// @param sound  little-endian stereo samples, at least samplesPerBlock(framesPerSecond) of them
/// @param sampleFormat 1: 16 bits; 0: 24 bits
/// @return nothing if no frame from firstFrame to lastFrame begins like that
inline std::optional<uint32_t> soundFrameOf(const uint8_t* sound, uint32_t framesPerSecond, uint32_t sampleFormat,
                                            uint32_t firstFrame, uint32_t lastFrame) {
    constexpr uint32_t kCompared = 16; // samples; the pattern below the tone makes them unique
    const uint32_t bytes = simcard::sampleFrameBytes(sampleFormat) / 2;
    for (uint32_t frame = firstFrame; frame <= lastFrame; ++frame) {
        const bool beep = simcard::isFlashFrame(frame, framesPerSecond);
        const uint64_t first = uint64_t{frame} * simcard::samplesPerBlock(framesPerSecond);
        bool same = true;
        for (uint32_t i = 0; same && i < kCompared; ++i) {
            const auto sample = static_cast<uint32_t>(simcard::soundSample(first + i / 2, i % 2, beep));
            for (uint32_t byte = 0; byte < bytes; ++byte)
                same = same && sound[i * bytes + byte] == static_cast<uint8_t>(sample >> 8 * (byte + 3 - bytes));
        }
        if (same) return frame;
    }
    return std::nullopt;
}

} // namespace kestra::test
