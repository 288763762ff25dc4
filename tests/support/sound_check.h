// Compares recorded sound with the simulated card's, and finds flashes and beeps. Portable; no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestra::test {

/// The frame whose block a recording begins with.
/// @param sound  little-endian stereo samples, at least eight of each channel
/// @param sampleFormat 1: 16 bits; 0: 24 bits
/// @return nothing if no frame from firstFrame to lastFrame begins like that
std::optional<uint32_t> soundFrameOf(const uint8_t* sound, uint32_t framesPerSecond, uint32_t sampleFormat,
                                     uint32_t firstFrame, uint32_t lastFrame) noexcept;

/// What a recording of 16-bit sound holds; all counts in samples of one channel.
struct SoundReport {
    size_t samples = 0; ///< in the recording
    size_t lost = 0;    ///< missing between two blocks
    size_t doubled = 0; ///< there more than once
    size_t unlike = 0;  ///< in blocks that the card never made
    uint32_t firstFrame = 0;
    bool isWhole() const { return samples != 0 && lost == 0 && doubled == 0 && unlike == 0; }
};
/// Compares every sample with the card's, block after block as they come.
class SoundCheck {
public:
    /// @param framesPerSecond nominal, of the video that the sound belongs to
    explicit SoundCheck(uint32_t framesPerSecond);
    /// @param sound whole blocks of 16-bit samples from the first byte on; only the very last may be cut short
    void take(const uint8_t* sound, size_t bytes);
    const SoundReport& report() const noexcept { return m_report; }

private:
    void takeBlock(const uint8_t* block, size_t bytes);

    const uint32_t m_framesPerSecond, m_blockSamples;
    std::vector<uint8_t> m_expected;
    SoundReport m_report;
    uint32_t m_next = 0;
    bool m_isKnown = false; ///< where in the card's sound it is
};
/// All of a recording.
SoundReport compareSound(const std::vector<uint8_t>& sound, uint32_t framesPerSecond);

/// The sample at which each beep begins, to two samples, in a recording of 16-bit stereo sound.
std::vector<size_t> beepsOf(const std::vector<uint8_t>& sound);

} // namespace kestra::test
