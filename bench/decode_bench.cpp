// The decoder beside libyuv, libavcodec + libyuv and libswscale, and beside memcpy of as many bytes as are read and
// written, in one run. Prints milliseconds per frame and the ratios; see docs/decoder.md for how to read them.
#include "bench/decode_frames.h"
#include "bench/report.h"
#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "decode/parallel.h"

#include <benchmark/benchmark.h>
#include <libyuv.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/cpu.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace {

using namespace kestra;
using namespace kestra::bench;

/// Which instructions peers may use, as their own switches take it: those of a kernel set of ours, or all.
struct PeerMask {
    const char* set; ///< its name; null: all
    int libyuv, libavcodec;
};
constexpr int kYuvSse41 = libyuv::kCpuHasX86 | libyuv::kCpuHasSSE2 | libyuv::kCpuHasSSSE3 | libyuv::kCpuHasSSE41;
constexpr int kAvSse41 = AV_CPU_FLAG_MMX | AV_CPU_FLAG_MMXEXT | AV_CPU_FLAG_SSE | AV_CPU_FLAG_SSE2 | AV_CPU_FLAG_SSE3 |
                         AV_CPU_FLAG_SSSE3 | AV_CPU_FLAG_SSE4;
constexpr PeerMask kPeerMasks[] = {
    {"sse4.1", kYuvSse41, kAvSse41},
    {"avx2", kYuvSse41 | libyuv::kCpuHasAVX | libyuv::kCpuHasAVX2, kAvSse41 | AV_CPU_FLAG_AVX | AV_CPU_FLAG_AVX2},
    {nullptr, -1, -1}};

constexpr const char* kLayouts[] = {"10-bit", "8-bit", "rgb24"};

struct Case {
    uint32_t selector;
    Size size;
    bool cold;
    std::string key() const {
        return std::string(kLayouts[selector]) + (size.width == kHd.width ? " 1080p" : " 2160p") +
               (cold ? " cold" : " hot");
    }
};

/// One frame by a peer or by us.
using Work = std::function<void(FrameSet&)>;

void decodeOnce(FrameSet& frames) {
    int32_t stride = frames.stride();
    TARNIS_Decode(&frames.data, frames.source(), frames.image(), &stride, 2, nullptr, nullptr);
}

/// The mean of what is read and what is written, between blocks of its own: so much from one, so much into the other.
void copyOnce(FrameSet& frames) {
    std::memcpy(frames.copyTarget(), frames.copySource(), frames.copyBytes());
}

/// libyuv has no direct way to 24 bits: through a line of ARGB, or through a whole frame of it.
void yuy2ByLines(FrameSet& frames) {
    static std::vector<uint8_t> argb(4 * 4096);
    const int width = frames.data.status.width;
    for (int y = 0; y < frames.data.status.height; ++y) {
        libyuv::YUY2ToARGB(frames.source() + size_t{2} * width * y, 2 * width, argb.data(), 4 * width, width, 1);
        libyuv::ARGBToRGB24(argb.data(), 4 * width, frames.image() + size_t{3} * width * y, 3 * width, width, 1);
    }
}
void yuy2WholeFrame(FrameSet& frames) {
    const int width = frames.data.status.width, height = frames.data.status.height;
    static std::vector<uint8_t> argb;
    argb.resize(size_t{4} * width * height);
    libyuv::YUY2ToARGB(frames.source(), 2 * width, argb.data(), 4 * width, width, height);
    libyuv::ARGBToRGB24(argb.data(), 4 * width, frames.image(), 3 * width, width, height);
}

/// v210 holds the same samples in the same number of bytes, four words of 32 bits for six pixels.
class V210 {
public:
    V210(Size size, int cpuFlags) {
        av_force_cpu_flags(cpuFlags); // the decoder chooses its code when it is opened
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_V210);
        m_context = avcodec_alloc_context3(codec);
        m_context->width = size.width;
        m_context->height = size.height;
        m_context->thread_count = 1;
        if (avcodec_open2(m_context, codec, nullptr) < 0) throw std::runtime_error("no v210 decoder");
        av_force_cpu_flags(-1);
        m_packet = av_packet_alloc();
        m_frame = av_frame_alloc();
        m_argb.resize(size_t{4} * size.width * size.height);
    }
    ~V210() {
        av_frame_free(&m_frame);
        av_packet_free(&m_packet);
        avcodec_free_context(&m_context);
    }
    V210(const V210&) = delete;
    V210& operator=(const V210&) = delete;

    void operator()(FrameSet& frames) {
        const int width = frames.data.status.width, height = frames.data.status.height;
        m_packet->data = const_cast<uint8_t*>(frames.source());
        m_packet->size = static_cast<int>(frames.rawBytes);
        if (avcodec_send_packet(m_context, m_packet) < 0 || avcodec_receive_frame(m_context, m_frame) < 0) std::abort();
        const auto plane = [&](int i) { return reinterpret_cast<const uint16_t*>(m_frame->data[i]); };
        libyuv::I210ToARGB(plane(0), m_frame->linesize[0] / 2, plane(1), m_frame->linesize[1] / 2, plane(2),
                           m_frame->linesize[2] / 2, m_argb.data(), 4 * width, width, height);
        libyuv::ARGBToRGB24(m_argb.data(), 4 * width, frames.image(), 3 * width, width, height);
        av_frame_unref(m_frame);
    }

private:
    AVCodecContext* m_context;
    AVPacket* m_packet;
    AVFrame* m_frame;
    std::vector<uint8_t> m_argb;
};

/// libswscale from 16-bit packed 4:2:2: more bytes to read than our words, its nearest format.
class Y210 {
public:
    explicit Y210(Size size)
        : m_source(size_t{4} * size.width * size.height),
          m_context(sws_getContext(size.width, size.height, AV_PIX_FMT_Y210LE, size.width, size.height,
                                   AV_PIX_FMT_BGR24, SWS_POINT, nullptr, nullptr, nullptr)) {
        if (!m_context) throw std::runtime_error("no y210 conversion");
    }
    ~Y210() { sws_freeContext(m_context); }
    Y210(const Y210&) = delete;
    Y210& operator=(const Y210&) = delete;
    void operator()(FrameSet& frames) {
        const uint8_t* in[] = {m_source.data()};
        uint8_t* out[] = {frames.image()};
        const int inStride[] = {4 * frames.data.status.width}, outStride[] = {frames.stride()};
        sws_scale(m_context, in, inStride, 0, frames.data.status.height, out, outStride);
    }

private:
    Block m_source;
    SwsContext* m_context;
};

void copyPlane(FrameSet& frames) {
    libyuv::CopyPlane(frames.source(), frames.stride(), frames.image(), frames.stride(), frames.stride(),
                      frames.data.status.height);
}

/// Reads the whole image once, as a client does.
void decodeAndRead(FrameSet& frames) {
    decodeOnce(frames);
    uint64_t sum = 0;
    for (size_t i = 0; i < frames.rgbBytes; i += 64) {
        uint64_t word;
        std::memcpy(&word, frames.image() + i, sizeof word);
        sum += word;
    }
    benchmark::DoNotOptimize(sum);
}

/// Keeps each benchmark's medians. The processor time is what is compared: whoever else uses the machine does not
/// count.
class Medians : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                times[run.run_name.function_name] = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime()};
    }
    struct Times {
        double processor, wall; ///< milliseconds
    };
    std::map<std::string, Times> times; ///< by the name as it was registered
};

struct Row {
    std::string name;
    const char* ours; ///< our kernel set's name; null: a peer
    const char* mask; ///< the set whose instructions a peer was held to
};

void add(const Case& c, const std::string& row, const KernelSet& set, int libyuvMask, Work work) {
    static std::map<std::string, std::shared_ptr<FrameSet>> sets; // made once, shared by all rows of a case
    const std::string setKey = std::to_string(c.selector) + "/" + std::to_string(c.size.width) + (c.cold ? "c" : "h");
    auto& frames = sets[setKey];
    if (!frames) frames = std::make_shared<FrameSet>(c.selector, c.size, c.cold);
    benchmark::RegisterBenchmark((c.key() + "|" + row).c_str(),
                                 [&set, libyuvMask, work, frames](benchmark::State& state) {
                                     useKernels(set);
                                     libyuv::MaskCpuFlags(libyuvMask);
                                     for (auto _ : state) {
                                         frames->advance();
                                         work(*frames);
                                     }
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

std::vector<Row> addCase(const Case& c) {
    std::vector<Row> rows{{"memcpy", nullptr, nullptr}};
    add(c, "memcpy", kPlainKernels, -1, copyOnce);
    const auto peer = [&](const std::string& name, const PeerMask& mask, Work work) {
        rows.push_back({name + (mask.set ? std::string(", ") + mask.set : ""), nullptr, mask.set});
        add(c, rows.back().name, kPlainKernels, mask.libyuv, std::move(work));
    };
    for (const PeerMask& mask : kPeerMasks) {
        if (c.selector == TARNIS_OUTPUT_YUV422_8) {
            peer("libyuv YUY2, by lines", mask, yuy2ByLines);
            if (!mask.set) peer("libyuv YUY2, by frames", mask, yuy2WholeFrame);
        } else if (c.selector == TARNIS_OUTPUT_YUV422_10) {
            const auto v210 = std::make_shared<V210>(c.size, mask.libavcodec);
            peer("libavcodec v210 + libyuv", mask, [v210](FrameSet& frames) { (*v210)(frames); });
            const auto y210 = std::make_shared<Y210>(c.size);
            if (!mask.set) peer("libswscale y210", mask, [y210](FrameSet& frames) { (*y210)(frames); });
        } else {
            peer("libyuv CopyPlane", mask, copyPlane);
        }
    }
    for (const KernelSet* set : kKernelSets) {
        if (!set->runsHere()) continue;
        rows.push_back({std::string("ours ") + set->name, set->name, nullptr});
        add(c, rows.back().name, *set, -1, decodeOnce);
    }
    if (c.cold && c.size.width == kHd.width) {
        rows.push_back({"ours best, and one read", kernels().name, nullptr});
        add(c, rows.back().name, kernels(), -1, decodeAndRead);
    }
    return rows;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    std::string defaults[] = {isShort() ? "--benchmark_repetitions=2" : "--benchmark_repetitions=7",
                              "--benchmark_enable_random_interleaving=true",
                              isShort() ? "--benchmark_min_time=0.0001" : "--benchmark_min_time=0.04"};
    for (std::string& text : defaults)
        arguments.insert(arguments.begin() + 1, text.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    g_sharing = Sharing::Never;
    std::vector<std::pair<Case, std::vector<Row>>> cases;
    for (const uint32_t selector : {1u, 0u, 2u}) {
        for (const Size size : {kHd, kUhd})
            cases.emplace_back(Case{selector, size, true}, std::vector<Row>());
        cases.emplace_back(Case{selector, kHd, false}, std::vector<Row>());
    }
    for (auto& [c, rows] : cases)
        rows = addCase(c);
    Report report("decoder, one thread");
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    for (const auto& [c, rows] : cases) {
        const auto ms = [&, &key = c](const std::string& row) {
            return medians.times[key.key() + "|" + row].processor;
        };
        if (ms("memcpy") == 0) continue; // filtered out
        /// The fastest peer that may use what a set of that name has, or all.
        const auto bestPeer = [&, &all = rows](const char* set) {
            double best = 0;
            for (const Row& row : all)
                if (const bool same = set ? row.mask && std::strcmp(row.mask, set) == 0 : !row.mask;
                    same && !row.ours && row.name != "memcpy" && ms(row.name) != 0 &&
                    (best == 0 || ms(row.name) < best))
                    best = ms(row.name);
            return best;
        };
        std::printf("\n%s\n  %-34s %9s %9s %12s %12s %22s\n", c.key().c_str(), "", "ms/frame", "wall", "of memcpy",
                    "of best peer", "of peer with that set");
        for (const Row& row : rows) {
            if (ms(row.name) == 0) continue;
            const Medians::Times& times = medians.times[c.key() + "|" + row.name];
            std::printf("  %-34s %9.3f %9.3f %12.2f", row.name.c_str(), times.processor, times.wall,
                        ms("memcpy") / ms(row.name));
            const Role role = row.ours ? Role::Ours : row.name == "memcpy" ? Role::Limit : Role::Peer;
            report.add({c.key(), row.name, role, times.wall, "ms", times.processor});
            if (const double best = bestPeer(nullptr)) std::printf(" %12.2f", best / ms(row.name));
            if (const double best = row.ours ? bestPeer(row.ours) : 0) std::printf(" %22.2f", best / ms(row.name));
            std::printf("\n");
        }
    }
    return 0;
}
