// Small signals for a walk, and what the simulated card makes of them: whatever arrives from a card is found here, byte
// for byte, or the card never made it. Any thread.
#pragma once

#include "simcard/model/picture.h"
#include "simcard/model/signal.h"
#include "tests/walk/lock.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace kestra::walk {

/// No two of them have raw frames of one size, in any layout, or blocks of sound of one size and another rate.
inline constexpr std::array<simcard::Signal, 6> kSignals = {
    simcard::Signal{1, 0, 1, 9, 0, 0, 160, 120, 0, 60, 1, 0},
    simcard::Signal{1, 0, 1, 8, 0, 0, 176, 144, 0, 50, 1, 0},
    simcard::Signal{1, 1, 1, 7, 0, 0, 208, 120, 0, 30, 1, 0},
    simcard::Signal{1, 1, 1, 6, 0, 1, 192, 112, 0, 25, 1, 0},
    simcard::Signal{1, 0, 1, kVideoMode24, 0, 0, 240, 136, 0, 24, 1, 0},
    simcard::Signal{1, 0, 0, 9, 0, 0, 150, 98, 0, 60, 1, 0}, // no sound
};

/// Converters that a walk sets, the default one first.
const std::vector<TarnisConverterParams>& converters();

/// The same as the card holds them.
std::vector<wire::Converter> wireConverters();

class CardPictures {
public:
    /// @param converters  that the cards may have; more can be added
    explicit CardPictures(std::vector<wire::Converter> converters) : m_converters(std::move(converters)) {}
    void add(const wire::Converter& converter);
    /// Gives back the memory of the pictures that it has drawn.
    void forget();
    /// The frame that a signal's card makes, to be used until the next call. @param use  with the frame; ends the
    /// search by true @return false: none did
    template <class Use>
    bool anyFrame(const simcard::Signal& signal, uint8_t selector, uint32_t first, uint32_t last, Use use) {
        const std::lock_guard lock(m_lock);
        const auto index = static_cast<size_t>(&signal - kSignals.data());
        const auto tried = [&](const Key& key) {
            for (uint32_t number = first; number <= last; ++number)
                if (use(frame(key, number), number)) {
                    m_last = key;
                    return true;
                }
            return false;
        };
        if (std::get<0>(m_last) == index && std::get<1>(m_last) == selector && tried(m_last)) return true;
        for (uint32_t kind = 0; kind < kKinds; ++kind)
            for (size_t converter = usedConverters(selector); converter-- > 0;)
                if (const Key key{index, selector, kind, converter}; key != m_last && tried(key)) return true;
        return false;
    }
    /// @return empty: the frame is one that the card makes under this number; else why it is not
    std::string whyNoFrame(const uint8_t* bytes, uint32_t size, uint32_t frameNumber);
    /// The same with a number from `first` to `last`.
    std::string whyNoFrame(const uint8_t* bytes, uint32_t size, uint32_t first, uint32_t last);
    std::string whyNoBlock(const uint8_t* bytes, uint32_t size, uint32_t frameNumber);

    uint64_t frames() const { return m_frames; }
    uint64_t blocks() const { return m_blocks; }

private:
    static constexpr uint32_t kKinds = 3;
    size_t usedConverters(uint8_t selector) const {
        return selector == TARNIS_OUTPUT_RGB24 ? m_converters.size() : 1; // the other layouts do not use it
    }

    using Key = std::tuple<size_t, uint8_t, uint32_t, size_t>; // signal, selector, kind, converter
    struct Source {
        std::vector<uint8_t> memory;
        simcard::PictureSource source;
    };
    const uint8_t* frame(const Key& key, uint32_t frameNumber);
    template <class Test>
    bool any(uint32_t size, Test test);

    Lock m_lock; ///< guards all
    std::vector<wire::Converter> m_converters;
    std::map<Key, std::unique_ptr<Source>> m_sources;
    Key m_last{};
    std::atomic<uint64_t> m_frames{0}, m_blocks{0};
};

/// "19200 bytes, 19200 of them zero, 19170 unlike the nearest"
std::string describeBytes(const uint8_t* bytes, uint32_t size);

} // namespace kestra::walk
