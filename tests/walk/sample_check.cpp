// Makes the sample that each frame in question would be. What a frame becomes is tested elsewhere; here it matters that
// a sample is one whole frame of the card's.
#include "tests/walk/sample_check.h"

#include "capture/frame_writer.h"
#include "protocol/raw_frame.h"
#include "simcard/model/sound.h"
#include "tests/walk/card_events.h"

#include <dvdmedia.h>
#include <mmreg.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace kestra::walk {

struct SampleLayout {
    const GUID& subtype;
    uint8_t selector;
    SampleWriter write;
    uint32_t pixelBytes;
};

namespace {

using namespace kestra::simcard;

constexpr uint32_t kFramesBack = 240, kFramesOn = 4;
/// A card that is read as fast as it delivers counts on for one client while another one's receiver takes its time; one
/// that has been pulled meanwhile counts from the beginning again.
constexpr uint32_t kFramesMissed = 3000;

const SampleLayout kLayouts[] = {{MEDIASUBTYPE_YUY2, TARNIS_OUTPUT_YUV422_8, writeYuy2, 2},
                                 {MEDIASUBTYPE_RGB24, TARNIS_OUTPUT_RGB24, writeRgb24, 3},
                                 {MEDIASUBTYPE_UYVY, TARNIS_OUTPUT_YUV422_8, writeUyvy, 2},
                                 {MEDIASUBTYPE_RGB32, TARNIS_OUTPUT_RGB24, writeRgb32, 4}};

/// A type that names no subtype is one of all.
bool isOf(const AM_MEDIA_TYPE& type, const SampleLayout& layout) {
    return type.subtype == layout.subtype || type.subtype == GUID_NULL;
}

/// A picture's worth of nothing: zeros, or black in the two orders of 4:2:2.
bool isBlack(const uint8_t* bytes, uint32_t size) {
    const auto isAll = [&](uint8_t even, uint8_t odd) {
        for (uint32_t i = 0; i < size; ++i)
            if (bytes[i] != (i % 2 == 0 ? even : odd) && bytes[i] != 0) return false;
        return true;
    };
    return isAll(0, 0) || isAll(16, 128) || isAll(128, 16);
}

} // namespace

bool SampleCheck::isPicture(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first,
                            uint32_t& number, bool disturbed) {
    return std::any_of(std::begin(kLayouts), std::end(kLayouts), [&](const SampleLayout& layout) {
        return isOf(type, layout) && isPictureIn(layout, bytes, size, first, number, disturbed);
    });
}

bool SampleCheck::isPictureIn(const SampleLayout& layout, const uint8_t* bytes, uint32_t size, uint32_t first,
                              uint32_t& number, bool disturbed) {
    std::vector<uint8_t> expected(size);
    const auto isFrame = [&](const Signal& signal, const Signal& taken, bool interlaced) {
        TarnisCameraData camera{};
        camera.outputSelector = layout.selector;
        camera.status.width = taken.width;
        camera.status.height = taken.height;
        camera.status.interlaced = interlaced;
        const auto rawBytes = static_cast<uint32_t>(rawFrameBytes(layout.selector, signal.width, signal.height));
        return m_pictures.anyFrame(signal, layout.selector, first, number, [&](const uint8_t* raw, uint32_t found) {
            if (!layout.write(camera, raw, rawBytes, expected.data(), size)) return false;
            if (std::memcmp(expected.data(), bytes, size) != 0) return false;
            number = found;
            return true;
        });
    };
    for (const Signal& signal : kSignals) {
        const uint32_t whole = (signal.width * layout.pixelBytes + 3) / 4 * 4 * signal.height;
        if (number - first > kFramesBack && whole != size) continue; // among so many, only those of its size
        if (isFrame(signal, signal, signal.interlaced != 0)) return true;
    }
    if (!disturbed) return false;
    // A card that has refused a question, or whose input has changed meanwhile: the frames are not what it was taken
    // for.
    for (const Signal& signal : kSignals)
        for (const Signal& taken : kSignals)
            if (isFrame(signal, taken, false) || isFrame(signal, taken, true)) return true;
    return false;
}

/// For the report of one that is wrong.
std::string SampleCheck::nearestPicture(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first,
                                        uint32_t last) {
    const auto layout = std::find_if(std::begin(kLayouts), std::end(kLayouts),
                                     [&](const SampleLayout& each) { return isOf(type, each); });
    if (layout == std::end(kLayouts)) return {};
    std::vector<uint8_t> expected(size);
    std::string found = ", no frame is like it";
    uint32_t least = size;
    for (const Signal& signal : kSignals) {
        TarnisCameraData camera{};
        camera.outputSelector = layout->selector;
        camera.status.width = signal.width;
        camera.status.height = signal.height;
        camera.status.interlaced = signal.interlaced;
        const auto rawBytes = static_cast<uint32_t>(rawFrameBytes(layout->selector, signal.width, signal.height));
        m_pictures.anyFrame(signal, layout->selector, first, last, [&](const uint8_t* raw, uint32_t number) {
            if (!layout->write(camera, raw, rawBytes, expected.data(), size)) return false;
            uint32_t differing = 0, from = 0, to = 0;
            for (uint32_t i = 0; i < size; ++i)
                if (bytes[i] != expected[i]) from = differing++ == 0 ? i : from, to = i;
            if (differing >= least) return false;
            least = differing;
            found = ", nearest to frame " + std::to_string(number) + ", from which " + std::to_string(differing) +
                    " bytes differ, from " + std::to_string(from) + " to " + std::to_string(to);
            return false;
        });
    }
    return found;
}

bool SampleCheck::isSound(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first,
                          uint32_t& number) {
    const auto* wave = reinterpret_cast<const PCMWAVEFORMAT*>(type.pbFormat);
    const uint32_t format = wave->wBitsPerSample == 24 ? 0 : 1;
    std::vector<uint8_t> expected;
    for (const Signal& signal : kSignals) {
        const uint32_t rate = signal.nominalFrameRate();
        expected.assign(audioBlockBytes(format, rate), 0);
        for (uint32_t tried = first; tried <= number; ++tried) {
            soundBlock(tried, rate, format, expected.data());
            const auto made = std::min<size_t>(size, expected.size());
            if (std::memcmp(bytes, expected.data(), made) == 0 &&
                std::all_of(bytes + made, bytes + size, [](uint8_t byte) { return byte == 0; })) {
                number = tried;
                return true;
            }
        }
    }
    return false;
}

std::string SampleCheck::whyNot(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size,
                                std::atomic<uint32_t>& last) {
    const bool isVideo = type.majortype == MEDIATYPE_Video;
    ++(isVideo ? m_frames : m_blocks);
    const auto isOne = [&](uint32_t first, uint32_t number, bool disturbed) {
        if (!(isVideo ? isPicture(type, bytes, size, first, number, disturbed)
                      : isSound(type, bytes, size, first, number)))
            return false;
        last = number;
        return true;
    };
    if (last != 0 && isOne(last, last + kFramesOn, false)) return {};
    if (isVideo && isBlack(bytes, size)) {
        ++m_black;
        return {};
    }
    const uint32_t before = last;
    uint32_t now[kCards]{};
    for (uint32_t card = 0; card < kCards; ++card)
        now[card] = CardControl(card).state().frameNumber;
    for (const bool disturbed : {false, true})
        for (const uint32_t number : now) {
            const uint32_t back = disturbed ? kFramesBack / 4 : kFramesBack;
            if (isOne(number < back ? 0 : number - back, number, disturbed)) return {};
        }
    for (const uint32_t number : now)
        if (isOne(number, std::max(number, before) + kFramesMissed, false)) return {};
    for (const uint32_t number : now)
        if (number > kFramesBack && isOne(before, number, false)) return {};
    return describeBytes(bytes, size) + ", after frame " + std::to_string(before) + ", the cards are at " +
           std::to_string(now[0]) + " and " + std::to_string(now[1]) +
           (isVideo ? nearestPicture(type, bytes, size, before, before + kFramesBack / 4) : std::string());
}

} // namespace kestra::walk
