// The byte-level work of a sample beside memcpy, libyuv and libswscale, in one run, one thread, 1080p, frames cold.
// Speeds are relative to a memcpy of as many bytes as are read and written.
#include "bench/decode_frames.h"
#include "capture/frame_writer.h"
#include "decode/kernel_set.h"
#include "decode/parallel.h"

#include <libyuv.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace kestra;
using namespace kestra::bench;

const int kRounds = fullOrShort(15, 2);
constexpr uint32_t kWidth = kHd.width, kHeight = kHd.height;

/// Raw frames and samples of one format, more than any cache holds.
class Frames {
public:
    Frames(uint32_t selector, SampleWriter write, uint32_t sampleBytesPerPixel) : m_write(write) {
        m_camera.outputSelector = selector;
        m_camera.status.width = kWidth;
        m_camera.status.height = kHeight;
        m_rawBytes = rawFrameBytes(selector, kWidth, kHeight);
        m_sampleBytes = kWidth * sampleBytesPerPixel * kHeight;
        const size_t count = kColdBytes / (m_rawBytes + m_sampleBytes) + 1;
        for (size_t i = 0; i < count; ++i) {
            m_raw.emplace_back(m_rawBytes);
            m_samples.emplace_back(m_sampleBytes);
            m_copies.emplace_back(2 * copyBytes());
        }
    }
    size_t count() const { return m_raw.size(); }
    void advance() { m_next = (m_next + 1) % count(); }
    const uint8_t* raw() const { return m_raw[m_next].data(); }
    uint8_t* sample() const { return m_samples[m_next].data(); }
    void ours() { m_write(m_camera, raw(), m_rawBytes, sample(), m_sampleBytes); }
    void plainCopy() { std::memcpy(m_copies[m_next].data() + copyBytes(), m_copies[m_next].data(), copyBytes()); }

private:
    size_t copyBytes() const { return (size_t{m_rawBytes} + m_sampleBytes) / 2; }

    const SampleWriter m_write;
    TarnisCameraData m_camera{};
    uint32_t m_rawBytes = 0, m_sampleBytes = 0;
    std::vector<Block> m_raw, m_samples, m_copies;
    size_t m_next = 0;
};

struct Way {
    std::string name;
    Role role;
    std::function<void()> work;
    std::vector<double> milliseconds{};
};

/// Runs the ways in turn, so that what else the machine does meets all of them.
void compare(Report& report, const char* title, Frames& frames, std::vector<Way> ways) {
    for (int round = 0; round < kRounds; ++round)
        for (Way& way : ways)
            for (size_t i = 0; i < frames.count(); ++i) {
                frames.advance();
                const auto begin = std::chrono::steady_clock::now();
                way.work();
                const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
                if (round > 0) way.milliseconds.push_back(took.count());
            }
    std::printf("%s\n", title);
    const double plain = median(ways.front().milliseconds);
    for (const Way& way : ways) {
        const double ms = median(way.milliseconds);
        std::printf("  %-28s %6.3f ms a frame  %5.2f of memcpy's speed\n", way.name.c_str(), ms, plain / ms);
        report.add({title, way.name, way.role, ms, "ms"});
    }
}

std::vector<Way> copyAndOurs(Frames& frames) {
    std::vector<Way> ways{{"memcpy", Role::Limit, [&frames] { frames.plainCopy(); }}};
    for (const KernelSet* set : kKernelSets)
        if (set->runsHere())
            ways.push_back({std::string("ours, ") + set->name, Role::Ours, [&frames, set] {
                                useKernels(*set);
                                frames.ours();
                            }});
    return ways;
}

} // namespace

int main() {
    g_sharing = Sharing::Never;
    Report report("samples");
    constexpr int kRgbLine = kWidth * 3, kYuvLine = kWidth * 2, kArgbLine = kWidth * 4;
    constexpr int kFlipped = -static_cast<int>(kHeight);
    {
        Frames frames(TARNIS_OUTPUT_YUV422_8, writeUyvy, 2);
        auto ways = copyAndOurs(frames);
        ways.push_back({"libyuv ARGBShuffle", Role::Peer, [&] {
                            static const uint8_t order[16] = {1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14};
                            libyuv::ARGBShuffle(frames.raw(), kYuvLine, frames.sample(), kYuvLine, order, kWidth / 2,
                                                kHeight);
                        }});
        compare(report, "YUY2 to UYVY", frames, std::move(ways));
    }
    {
        Frames frames(TARNIS_OUTPUT_RGB24, writeRgb32, 4);
        auto ways = copyAndOurs(frames);
        ways.push_back({"libyuv RGB24ToARGB", Role::Peer, [&] {
                            libyuv::RGB24ToARGB(frames.raw(), kRgbLine, frames.sample(), kArgbLine, kWidth, kFlipped);
                        }});
        const std::unique_ptr<SwsContext, decltype(&sws_freeContext)> scaler(
            sws_getContext(kWidth, kHeight, AV_PIX_FMT_BGR24, kWidth, kHeight, AV_PIX_FMT_BGR0, SWS_POINT, nullptr,
                           nullptr, nullptr),
            sws_freeContext);
        ways.push_back({"libswscale", Role::Peer, [&] {
                            const uint8_t* in[] = {frames.raw()};
                            uint8_t* out[] = {frames.sample() + size_t{kArgbLine} * (kHeight - 1)};
                            const int inStride[] = {kRgbLine}, outStride[] = {-kArgbLine};
                            sws_scale(scaler.get(), in, inStride, 0, kHeight, out, outStride);
                        }});
        compare(report, "RGB24 to flipped RGB32", frames, std::move(ways));
    }
    {
        Frames frames(TARNIS_OUTPUT_RGB24, writeRgb24, 3);
        auto ways = copyAndOurs(frames);
        ways.push_back({"libyuv CopyPlane", Role::Peer, [&] {
                            libyuv::CopyPlane(frames.raw(), kRgbLine, frames.sample(), kRgbLine, kRgbLine, kFlipped);
                        }});
        compare(report, "RGB24, flipped", frames, std::move(ways));
    }
    return 0;
}
