// Headers and planes.
#include "ctl/stream_files.h"

#include "ctl/raw_samples.h"
#include "ctl/text.h"
#include "protocol/frame_rate.h"
#include "protocol/raw_frame.h"

#include <limits>

namespace kestra::ctl {

std::string y4mHeader(const TarnisCameraStatus& status, uint32_t depth) {
    const uint32_t rate = framesOfRate(reportedRate(status), status.interlaced != 0);
    return format("YUV4MPEG2 W%u H%u F%u:1 I%c A1:1 C422%s XCOLORRANGE=LIMITED\n", status.width, status.height,
                  rate == 0 ? 25 : rate, status.interlaced ? 't' : 'p', depth == 10 ? "p10 XYSCSS=422P10" : "");
}

size_t y4mPictureBytes(const TarnisCameraStatus& status, uint32_t depth) noexcept {
    const size_t chroma = (size_t{status.width} + 1) / 2;
    return (status.width + 2 * chroma) * status.height * (depth == 10 ? 2 : 1);
}

namespace {

template <class Sample, class Split>
void makePicture(const TarnisCameraStatus& status, uint32_t selector, const uint8_t* raw, Sample* picture,
                 Split split) noexcept {
    const size_t width = status.width, height = status.height, chroma = (width + 1) / 2;
    const uint32_t line = rawLineBytes(selector, status.width);
    Sample* const cb = picture + width * height;
    Sample* const cr = cb + chroma * height;
    for (uint32_t y = 0; y < height; ++y) {
        const uint32_t from = status.interlaced ? rawLineOf(y, firstFieldLines(status.height)) : y;
        split(raw + size_t{from} * line, status.width, picture + y * width, cb + y * chroma, cr + y * chroma);
    }
}

} // namespace

void y4mPicture(const TarnisCameraStatus& status, uint32_t depth, const uint8_t* raw, uint8_t* picture) noexcept {
    if (depth == 10)
        makePicture(status, TARNIS_OUTPUT_YUV422_10, raw, reinterpret_cast<uint16_t*>(picture), splitLine10);
    else
        makePicture(status, TARNIS_OUTPUT_YUV422_8, raw, picture, splitLine8);
}

WavHeader wavHeader(uint32_t bits, uint64_t bytes) noexcept {
    WavHeader file{};
    size_t at = 0;
    const auto put = [&](uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            file[at++] = static_cast<uint8_t>(value >> (8 * i));
    };
    const auto word = [&](const char(&text)[5]) {
        for (int i = 0; i < 4; ++i)
            file[at++] = static_cast<uint8_t>(text[i]);
    };
    constexpr uint32_t kLongBytes = 28; // both kinds of file have a place for 64-bit lengths
    const uint32_t frame = soundFrameBytes(bits);
    const uint64_t riffBytes = file.size() - 8 + bytes + bytes % 2;
    const bool isLong = riffBytes > std::numeric_limits<uint32_t>::max();
    constexpr uint32_t kSeeLong = 0xFFFFFFFF;
    isLong ? word("RF64") : word("RIFF");
    put(isLong ? kSeeLong : riffBytes, 4);
    word("WAVE");
    isLong ? word("ds64") : word("JUNK");
    put(kLongBytes, 4);
    put(isLong ? riffBytes : 0, 8);
    put(isLong ? bytes : 0, 8);
    put(isLong ? bytes / frame : 0, 8);
    put(0, 4); // no table
    word("fmt ");
    put(16, 4);
    put(1, 2); // PCM
    put(2, 2); // channels
    put(kSoundSamplesPerSecond, 4);
    put(uint64_t{kSoundSamplesPerSecond} * frame, 4);
    put(frame, 2);
    put(bits, 2);
    word("data");
    put(isLong ? kSeeLong : bytes, 4);
    return file;
}

} // namespace kestra::ctl
