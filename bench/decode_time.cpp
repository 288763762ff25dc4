// Microseconds per decoded line of 1920 pixels, one thread, for every layout and kernel set: the same program runs
// natively and under Wine, so that the two can be laid side by side. One line each: layout set in-the-cache cold.
#include "bench/decode_frames.h"
#include "bench/report.h"
#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "decode/parallel.h"

#include <chrono>
#include <cstdio>

namespace {

using namespace kestra;
using namespace kestra::bench;

/// Median over many decodes of the frames in turn.
double microsecondsPerLine(FrameSet& frames) {
    std::vector<double> times;
    const int calls = fullOrShort(frames.data.status.height < kHd.height ? 2000 : 120, 3);
    for (int i = 0; i < calls; ++i) {
        frames.advance();
        int32_t stride = frames.stride();
        const auto begin = std::chrono::steady_clock::now();
        if (TARNIS_Decode(&frames.data, frames.source(), frames.image(), &stride, 2, nullptr, nullptr) != 0) return -1;
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
    }
    return median(times) / frames.data.status.height;
}

} // namespace

int main() {
    g_sharing = Sharing::Never;
    constexpr const char* kNames[] = {"10-bit", "8-bit", "rgb24"};
    for (uint32_t selector = 0; selector < 3; ++selector) {
        FrameSet cached(selector, {1920, 64}, false), cold(selector, kHd, true);
        for (const KernelSet* set : kKernelSets) {
            if (!useKernels(*set)) continue;
            microsecondsPerLine(cached); // pages and clocks settle
            const double inCache = microsecondsPerLine(cached);
            std::printf("%s %s %.4f %.4f\n", kNames[selector], set->name, inCache, microsecondsPerLine(cold));
        }
    }
    return 0;
}
