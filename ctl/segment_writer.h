// One recording: pictures in one file and, beside it, the sound that belongs to them. Portable; one thread's.
#pragma once

#include "ctl/byte_sink.h"
#include "ctl/stream_files.h"
#include "protocol/records.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace kestra::ctl {

struct SegmentFormat {
    TarnisCameraStatus input{};
    uint32_t depth = 8;      ///< bits of a picture's sample
    bool raw = false;        ///< frames as the card wrote them, in place of YUV4MPEG2
    uint32_t soundBits = 16; ///< bits of a sample of sound
};

/// What a writer is doing, so that a full ring can say why it is full.
enum class WriterPhase { Idle, Converting, Writing };

class SegmentWriter {
public:
    /// Writes the headers. @param sound  null: none. Throws Failure.
    SegmentWriter(const SegmentFormat& format, std::unique_ptr<ByteSink> picture, std::unique_ptr<ByteSink> sound,
                  std::atomic<WriterPhase>& phase);

    /// @param number  the frame's, as the card counts. Throws Failure; the file then ends with the last whole frame.
    void writeFrame(uint32_t number, const uint8_t* raw, size_t bytes);
    /// A frame's worth of sound, once the first picture is written. Sound from before that picture is left out.
    void writeSound(uint32_t number, const uint8_t* samples, size_t bytes);
    /// Cuts the sound to the pictures' length, completes the headers and closes the files. Throws Failure.
    void close();

    uint64_t frames() const noexcept { return m_frames; }
    /// Sound of so many seconds.
    double soundSeconds() const noexcept;
    /// By how much the first sound is later than the first picture, by the card's numbers, in frames.
    int32_t soundStartFrames() const noexcept { return m_soundStartFrames; }
    bool hasSound() const noexcept { return m_sound != nullptr; }
    uint64_t pictureBytes() const noexcept { return m_picture->bytes(); }
    const SegmentFormat& format() const noexcept { return m_format; }
    const std::string& pictureName() const noexcept { return m_picture->name(); }
    const std::string& soundName() const noexcept { return m_sound->name(); }

private:
    void completeSound();

    const SegmentFormat m_format;
    const std::unique_ptr<ByteSink> m_picture, m_sound;
    std::atomic<WriterPhase>& m_phase;
    std::vector<uint16_t> m_buffer; ///< one frame of YUV4MPEG2; as words, since 10-bit samples are
    uint64_t m_frames = 0, m_wholeBytes = 0, m_soundBytes = 0;
    uint32_t m_firstNumber = 0, m_lastNumber = 0, m_lastSoundNumber = 0;
    size_t m_soundBlockBytes = 0;
    int32_t m_soundStartFrames = 0;
    bool m_hasSound = false;
};

} // namespace kestra::ctl
