// The mean of a 1080p image: every kernel of the image library beside the plain one, and beside the time that it takes
// only to read the image. One thread. Prints microseconds per image and how much faster than plain that is.
#include "imagelib/channel_sums.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kWidth = 1920, kHeight = 1080, kStride = kWidth * 3;

template <class Work>
double microseconds(Work work) {
    std::vector<double> times;
    for (int i = 0; i < 60; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main() {
    std::vector<uint8_t> image(kStride * kHeight);
    uint32_t seed = 1;
    for (uint8_t& byte : image)
        byte = static_cast<uint8_t>((seed = seed * 1664525 + 1013904223) >> 24);
    volatile uint64_t sink = 0;
    double plain = 0;
    for (const auto& [name, add] : kestra::addLineVariants()) {
        const auto mean = [&, add = add] {
            uint64_t sums[3] = {};
            for (size_t y = 0; y < kHeight; ++y)
                add(image.data() + y * kStride, kWidth, sums);
            sink = sink + sums[0] + sums[1] + sums[2];
        };
        const double time = microseconds(mean);
        if (plain == 0) plain = time;
        std::printf("  %-6s %8.1f us  %5.2f times as fast as plain\n", name, time, plain / time);
    }
    // A search for what is not there reads every byte once.
    std::replace(image.begin(), image.end(), uint8_t{0}, uint8_t{1});
    const double reading = microseconds([&] { sink = sink + (std::memchr(image.data(), 0, image.size()) != nullptr); });
    std::printf("  %-6s %8.1f us  %5.2f times as fast as plain\n", "memchr", reading, plain / reading);
}
