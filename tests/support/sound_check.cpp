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

SoundReport compareSound(const std::vector<uint8_t>& sound, uint32_t framesPerSecond) {
    const uint32_t blockSamples = samplesPerBlock(framesPerSecond), sampleBytes = sampleFrameBytes(kBits16);
    const size_t blockBytes = size_t{blockSamples} * sampleBytes;
    std::vector<uint8_t> expected(blockBytes);
    SoundReport report;
    report.samples = sound.size() / sampleBytes;
    uint32_t next = 0;
    bool known = false;
    for (size_t at = 0; at < sound.size(); at += blockBytes) {
        const size_t bytes = std::min(blockBytes, sound.size() - at);
        soundBlock(next, framesPerSecond, kBits16, expected.data());
        if (!known || std::memcmp(expected.data(), &sound[at], bytes) != 0) {
            const uint32_t from = known && next > kSearched ? next - kSearched : 0;
            const uint32_t to = known ? next + kSearched : 100 * kSearched;
            const auto frame = bytes < size_t{8} * sampleBytes
                                   ? std::nullopt
                                   : soundFrameOf(&sound[at], framesPerSecond, kBits16, from, to);
            if (frame) soundBlock(*frame, framesPerSecond, kBits16, expected.data());
            if (!frame || std::memcmp(expected.data(), &sound[at], bytes) != 0) {
                report.unlike += bytes / sampleBytes;
                ++next;
                continue;
            }
            if (!known)
                report.firstFrame = *frame;
            else if (*frame > next)
                report.lost += size_t{*frame - next} * blockSamples;
            else
                report.doubled += size_t{next - *frame} * blockSamples;
            known = true;
            next = *frame;
        }
        ++next;
    }
    return report;
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
