// Whether a media sample holds one of the simulated cards' pictures, or its sound, in the sample's format. Any thread.
#pragma once

#include "tests/walk/card_pictures.h"

#include <windows.h>

#include <dshow.h>

#include <atomic>
#include <string>

namespace kestra::walk {

struct SampleLayout;

class SampleCheck {
public:
    explicit SampleCheck(CardPictures& pictures) : m_pictures(pictures) {}
    /// @param type    of the connection
    /// @param last    number of the frame before, 0: not known; receives this frame's
    /// @return empty: the cards have made it, or it is black because it could not be made; else what it is
    std::string whyNot(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, std::atomic<uint32_t>& last);

    uint64_t frames() const { return m_frames; }
    uint64_t blocks() const { return m_blocks; }
    uint64_t black() const { return m_black; }

private:
    bool isPicture(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first, uint32_t& number,
                   bool disturbed);
    bool isPictureIn(const SampleLayout& layout, const uint8_t* bytes, uint32_t size, uint32_t first, uint32_t& number,
                     bool disturbed);
    std::string nearestPicture(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first,
                               uint32_t last);
    static bool isSound(const AM_MEDIA_TYPE& type, const uint8_t* bytes, uint32_t size, uint32_t first,
                        uint32_t& number);

    CardPictures& m_pictures;
    std::atomic<uint64_t> m_frames{0}, m_blocks{0}, m_black{0};
};

} // namespace kestra::walk
