// Frames for the decoder's benchmarks: one that stays in the cache, or so many that none does.
#pragma once

#include "bench/report.h"
#include "protocol/raw_frame.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#ifdef _WIN32
#include <malloc.h>
#endif

namespace kestra::bench {

struct Size {
    uint16_t width, height;
};
constexpr Size kHd{1920, 1080}, kUhd{3840, 2160};

/// More than any cache holds: so much memory cold frames take altogether.
inline const size_t kColdBytes = fullOrShort(size_t{300}, size_t{20}) << 20;

/// Page-aligned memory.
class Block {
public:
    explicit Block(size_t size) : m_size(size) {
#ifdef _WIN32
        m_data = static_cast<uint8_t*>(_aligned_malloc(size, 4096));
#else
        m_data = static_cast<uint8_t*>(std::aligned_alloc(4096, (size + 4095) / 4096 * 4096));
#endif
        if (!m_data) throw std::bad_alloc();
        std::mt19937 random(1);
        for (size_t i = 0; i + 4 <= size; i += 4) {
            const auto value = static_cast<uint32_t>(random());
            for (size_t j = 0; j < 4; ++j)
                m_data[i + j] = static_cast<uint8_t>(value >> 8 * j);
        }
    }
    Block(Block&& other) noexcept : m_size(other.m_size), m_data(other.m_data) {
        other.m_data = nullptr;
    }
    Block& operator=(Block&&) = delete;
    ~Block() {
#ifdef _WIN32
        _aligned_free(m_data);
#else
        std::free(m_data);
#endif
    }
    uint8_t* data() const {
        return m_data;
    }
    size_t size() const {
        return m_size;
    }

private:
    size_t m_size;
    uint8_t* m_data;
};

/// Raw frames of one layout with an image for each.
class FrameSet {
public:
    /// @param cold kColdBytes altogether, taken in turn; else one frame
    FrameSet(uint32_t selector, Size size, bool cold) {
        data.outputSelector = selector;
        data.status.width = size.width;
        data.status.height = size.height;
        rawBytes = size_t{rawLineBytes(selector, size.width)} * size.height;
        rgbBytes = size_t{rgbLineBytes(size.width)} * size.height;
        const size_t count = cold ? kColdBytes / (rawBytes + rgbBytes) + 1 : 1;
        for (size_t i = 0; i < count; ++i) {
            raw.emplace_back(rawBytes);
            rgb.emplace_back(rgbBytes);
            copies.emplace_back(2 * copyBytes());
        }
    }
    void advance() { m_next = (m_next + 1) % raw.size(); }
    const uint8_t* source() const { return raw[m_next].data(); }
    uint8_t* image() const { return rgb[m_next].data(); }
    size_t copyBytes() const { return (rawBytes + rgbBytes) / 2; }
    const uint8_t* copySource() const { return copies[m_next].data(); }
    uint8_t* copyTarget() const { return copies[m_next].data() + copyBytes(); }
    int32_t stride() const { return static_cast<int32_t>(rgbLineBytes(data.status.width)); }

    TarnisCameraData data{};
    size_t rawBytes = 0, rgbBytes = 0;
    std::vector<Block> raw, rgb, copies; ///< as many bytes for a plain copy as a decode reads and writes

private:
    size_t m_next = 0;
};

} // namespace kestra::bench
