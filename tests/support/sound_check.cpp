// Compares received sound with what the card sent.
#include "tests/support/sound_check.h"

#include "simcard/model/sound.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr uint32_t kBits16 = 1;      // the card's name for that format
constexpr uint32_t kSearched = 4000; // frames before and after a gap

} // namespace

std::optional<uint32_t> soundFrameOf(const uint8_t* sound, uint32_t framesPerSecond, uint32_t sampleFormat,
                                     uint32_t firstFrame, uint32_t lastFrame) noexcept {
    constexpr uint32_t kCompared = 16; // samples of both channels; the pattern below the tone makes them unique
    const uint32_t bytes = sampleFrameBytes(sampleFormat) / 2;
    for (uint32_t frame = firstFrame; frame <= lastFrame; ++frame) {
        const bool beep = isFlashFrame(frame, framesPerSecond);
        const uint64_t first = uint64_t{frame} * samplesPerBlock(framesPerSecond);
        bool same = true;
        for (uint32_t i = 0; same && i < kCompared; ++i) {
            const auto sample = static_cast<uint32_t>(soundSample(first + i / 2, i % 2, beep));
            for (uint32_t byte = 0; byte < bytes; ++byte)
                same = same && sound[i * bytes + byte] == static_cast<uint8_t>(sample >> 8 * (byte + 3 - bytes));
        }
        if (same) return frame;
    }
    return std::nullopt;
}

SoundCheck::SoundCheck(uint32_t framesPerSecond)
    : m_framesPerSecond(framesPerSecond),
      m_blockSamples(samplesPerBlock(framesPerSecond)),
      m_expected(size_t{m_blockSamples} * sampleFrameBytes(kBits16)) {}

void SoundCheck::take(const uint8_t* sound, size_t bytes) {
    for (size_t at = 0; at < bytes; at += m_expected.size())
        takeBlock(sound + at, std::min(m_expected.size(), bytes - at));
}

void SoundCheck::takeBlock(const uint8_t* block, size_t bytes) {
    const size_t sampleBytes = sampleFrameBytes(kBits16);
    const auto isFrame = [&](uint32_t frame) {
        soundBlock(frame, m_framesPerSecond, kBits16, m_expected.data());
        return std::memcmp(m_expected.data(), block, bytes) == 0;
    };
    m_report.samples += bytes / sampleBytes;
    if (!m_isKnown || !isFrame(m_next)) {
        const uint32_t from = m_isKnown && m_next > kSearched ? m_next - kSearched : 0;
        const uint32_t to = m_isKnown ? m_next + kSearched : 100 * kSearched;
        const auto frame =
            bytes < 8 * sampleBytes ? std::nullopt : soundFrameOf(block, m_framesPerSecond, kBits16, from, to);
        if (!frame || !isFrame(*frame)) {
            m_report.unlike += bytes / sampleBytes;
            ++m_next;
            return;
        }
        if (!m_isKnown)
            m_report.firstFrame = *frame;
        else if (*frame > m_next)
            m_report.lost += size_t{*frame - m_next} * m_blockSamples;
        else
            m_report.doubled += size_t{m_next - *frame} * m_blockSamples;
        m_isKnown = true;
        m_next = *frame;
    }
    ++m_next;
}

SoundReport compareSound(const std::vector<uint8_t>& sound, uint32_t framesPerSecond) {
    SoundCheck check(framesPerSecond);
    check.take(sound.data(), sound.size());
    return check.report();
}

std::vector<size_t> beepsOf(const std::vector<uint8_t>& sound) {
    constexpr int kLoud = 32768 / 4; // a beep is half of full scale, the tone a tenth
    constexpr size_t kApart = kSamplesPerSecond / 2;
    std::vector<size_t> beeps;
    size_t lastLoud = 0;
    for (size_t i = 0; i + 3 < sound.size(); i += 4) {
        const auto left = static_cast<int16_t>(sound[i] | sound[i + 1] << 8);
        if (std::abs(int{left}) < kLoud) continue;
        const size_t sample = i / 4;
        if (beeps.empty() || sample - lastLoud > kApart) beeps.push_back(sample);
        lastLoud = sample;
    }
    return beeps;
}

} // namespace kestra::test
