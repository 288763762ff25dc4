// Makes the simulated card's sound.
#include "simcard/model/sound.h"

namespace kestra::simcard {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr uint32_t kLeftPeriod = 48;  // samples: 1000 Hz
constexpr uint32_t kRightPeriod = 64; // 750 Hz
constexpr uint32_t kBeepPeriod = 16;  // 3000 Hz
constexpr double kToneAmplitude = 0.1 * 8388607, kBeepAmplitude = 0.5 * 8388607;

constexpr double sine(double angle) noexcept {
    if (angle > kPi) return -sine(angle - kPi);
    double power = angle, sum = angle;
    for (int n = 1; n < 12; ++n) {
        power *= -angle * angle / ((2 * n) * (2 * n + 1));
        sum += power;
    }
    return sum;
}

template <uint32_t Period>
struct Wave {
    int32_t samples[Period];
    constexpr explicit Wave(double amplitude) : samples{} {
        for (uint32_t i = 0; i < Period; ++i)
            samples[i] = static_cast<int32_t>(amplitude * sine(2 * kPi * i / Period));
    }
    constexpr int32_t at(uint64_t index) const noexcept { return samples[index % Period]; }
};

constexpr Wave<kLeftPeriod> kLeft(kToneAmplitude);
constexpr Wave<kRightPeriod> kRight(kToneAmplitude);
constexpr Wave<kBeepPeriod> kBeep(kBeepAmplitude);

/// 0 .. 4095, without a period that a lost or doubled run of samples could hide in.
constexpr int32_t pattern(uint64_t index, uint32_t channel) noexcept {
    uint64_t x = index * 2 + channel + 0x9E3779B97F4A7C15;
    x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
    x = (x ^ x >> 27) * 0x94D049BB133111EB;
    return static_cast<int32_t>((x ^ x >> 31) & 0xFFF);
}

} // namespace

int32_t soundSample(uint64_t index, uint32_t channel, bool beep) noexcept {
    const int32_t tone = beep ? kBeep.at(index) : channel == 0 ? kLeft.at(index) : kRight.at(index);
    return tone + pattern(index, channel);
}

void soundBlock(uint32_t frameNumber, uint32_t framesPerSecond, uint32_t sampleFormat, uint8_t* out) noexcept {
    const uint32_t count = samplesPerBlock(framesPerSecond);
    const bool beep = isFlashFrame(frameNumber, framesPerSecond);
    const uint64_t first = uint64_t{frameNumber} * count;
    for (uint32_t i = 0; i < count; ++i)
        for (uint32_t channel = 0; channel < 2; ++channel) {
            const auto sample = static_cast<uint32_t>(soundSample(first + i, channel, beep));
            if (sampleFormat != 1) *out++ = uint8_t(sample);
            *out++ = uint8_t(sample >> 8);
            *out++ = uint8_t(sample >> 16);
        }
}

} // namespace kestra::simcard
