// A frame's size says which signal and layout it has; picture and converter are tried in turn, the last one found
// first.
#include "tests/walk/card_pictures.h"

#include "protocol/raw_frame.h"
#include "simcard/model/sound.h"

#include <algorithm>
#include <cstring>

namespace kestra::walk {
namespace {

using namespace kestra::simcard;

constexpr bool sizesDiffer() {
    for (size_t i = 0; i < kSignals.size(); ++i)
        for (uint32_t a = 0; a < 3; ++a)
            for (size_t j = 0; j < kSignals.size(); ++j)
                for (uint32_t b = 0; b < 3; ++b)
                    if ((i != j || a != b) && rawFrameBytes(a, kSignals[i].width, kSignals[i].height) ==
                                                  rawFrameBytes(b, kSignals[j].width, kSignals[j].height))
                        return false;
    return true;
}
static_assert(sizesDiffer());

} // namespace

const std::vector<TarnisConverterParams>& converters() {
    static const std::vector<TarnisConverterParams> all = [] {
        std::vector<TarnisConverterParams> made(4, wire::kDefaultConverter);
        made[1].RedGain = 1.5f;
        made[1].BlueOffset = 12;
        made[2].Y1 = 0.9f;
        made[2].GMax = 200;
        made[3].YOff = 100;
        made[3].GreenGain = 0.5f;
        made[3].RedOffset = -20;
        return made;
    }();
    return all;
}

std::vector<wire::Converter> wireConverters() {
    std::vector<wire::Converter> all;
    for (const TarnisConverterParams& params : converters())
        all.push_back(wire::toWire(params));
    return all;
}

void CardPictures::forget() {
    const std::lock_guard lock(m_lock);
    m_sources.clear();
}

void CardPictures::add(const wire::Converter& converter) {
    const std::lock_guard lock(m_lock);
    for (const wire::Converter& known : m_converters)
        if (std::memcmp(&known, &converter, sizeof known) == 0) return;
    m_converters.push_back(converter);
}

const uint8_t* CardPictures::frame(const Key& key, uint32_t frameNumber) {
    std::unique_ptr<Source>& made = m_sources[key];
    if (made) return made->source.advance(frameNumber);
    const auto& [signal, selector, kind, converter] = key;
    const Signal& s = kSignals[signal];
    const PictureFormat format = {s.width,
                                  s.height,
                                  s.interlaced != 0,
                                  selector,
                                  uint8_t(s.nominalFrameRate()),
                                  static_cast<PictureKind>(kind),
                                  m_converters[converter]};
    made = std::make_unique<Source>();
    made->memory.resize(frameSizeBytes(format));
    made->source.prepare(format, made->memory.data(), made->memory.size(), frameNumber);
    return made->memory.data();
}

/// Whether the test is passed by any picture of frames of this size.
template <class Test>
bool CardPictures::any(uint32_t size, Test test) {
    const auto sizeOf = [](const Key& key) {
        const Signal& signal = kSignals[std::get<0>(key)];
        return rawFrameBytes(std::get<1>(key), signal.width, signal.height);
    };
    if (sizeOf(m_last) == size && test(m_last)) return true;
    for (size_t signal = 0; signal < kSignals.size(); ++signal)
        for (uint8_t selector = 0; selector < 3; ++selector) {
            if (sizeOf({signal, selector, 0, 0}) != size) continue;
            for (uint32_t kind = 0; kind < kKinds; ++kind)
                for (size_t converter = 0; converter < usedConverters(selector); ++converter)
                    if (const Key key{signal, selector, kind, converter}; test(key)) {
                        m_last = key;
                        return true;
                    }
        }
    return false;
}

std::string CardPictures::whyNoFrame(const uint8_t* bytes, uint32_t size, uint32_t frameNumber) {
    ++m_frames;
    return whyNoFrame(bytes, size, frameNumber, frameNumber);
}

std::string CardPictures::whyNoFrame(const uint8_t* bytes, uint32_t size, uint32_t first, uint32_t last) {
    const std::lock_guard lock(m_lock);
    std::string nearest = "a size that no signal has";
    size_t least = size + 1;
    if (any(size, [&](const Key& key) {
            for (uint32_t number = first; number <= last; ++number) {
                const uint8_t* expected = frame(key, number);
                if (std::memcmp(bytes, expected, size) == 0) return true;
                size_t differing = 0, at = 0;
                for (uint32_t i = size; i-- > 0;)
                    if (bytes[i] != expected[i]) ++differing, at = i;
                if (differing >= least) continue;
                least = differing;
                nearest = "nearest to picture " + std::to_string(std::get<2>(key)) + " in layout " +
                          std::to_string(std::get<1>(key)) + " under number " + std::to_string(number) +
                          ", from which " + std::to_string(differing) + " bytes differ, the first at " +
                          std::to_string(at);
            }
            return false;
        }))
        return {};
    return "frame " + std::to_string(first) + ": " + describeBytes(bytes, size) + ", " + nearest;
}

std::string CardPictures::whyNoBlock(const uint8_t* bytes, uint32_t size, uint32_t frameNumber) {
    ++m_blocks;
    std::vector<uint8_t> expected(size);
    for (const Signal& signal : kSignals)
        for (uint32_t format = 0; format < 2; ++format) {
            if (audioBlockBytes(format, signal.nominalFrameRate()) != size) continue;
            soundBlock(frameNumber, signal.nominalFrameRate(), format, expected.data());
            if (std::memcmp(bytes, expected.data(), size) == 0) return {};
        }
    return "block " + std::to_string(frameNumber) + ": " + describeBytes(bytes, size);
}

std::string describeBytes(const uint8_t* bytes, uint32_t size) {
    return std::to_string(size) + " bytes, " + std::to_string(std::count(bytes, bytes + size, 0)) + " of them zero";
}

} // namespace kestra::walk
