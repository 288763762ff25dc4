// A frame is made in memory and written in one piece, so that a failure can leave only its tail behind.
#include "ctl/segment_writer.h"

#include "ctl/exit_code.h"

#include <cstring>

namespace kestra::ctl {

namespace {

constexpr size_t kFrameWordBytes = sizeof kY4mFrame - 1; // an even number: the samples behind it stay aligned
static_assert(kFrameWordBytes % 2 == 0);

/// The writer is in a phase for the life of this.
class PhaseGuard {
public:
    PhaseGuard(std::atomic<WriterPhase>& phase, WriterPhase now) noexcept : m_phase(phase) { m_phase = now; }
    ~PhaseGuard() { m_phase = WriterPhase::Idle; }
    PhaseGuard(const PhaseGuard&) = delete;
    PhaseGuard& operator=(const PhaseGuard&) = delete;

private:
    std::atomic<WriterPhase>& m_phase;
};

} // namespace

SegmentWriter::SegmentWriter(const SegmentFormat& format, std::unique_ptr<ByteSink> picture,
                             std::unique_ptr<ByteSink> sound, std::atomic<WriterPhase>& phase)
    : m_format(format), m_picture(std::move(picture)), m_sound(std::move(sound)), m_phase(phase) {
    if (!format.raw) {
        const std::string header = y4mHeader(format.input, format.depth);
        m_picture->write(header.data(), header.size());
        m_buffer.resize((kFrameWordBytes + y4mPictureBytes(format.input, format.depth) + 1) / 2);
        std::memcpy(m_buffer.data(), kY4mFrame, kFrameWordBytes);
    }
    m_wholeBytes = m_picture->bytes();
    if (m_sound) {
        const WavHeader header = wavHeader(format.soundBits, 0);
        m_sound->write(header.data(), header.size());
    }
}

void SegmentWriter::writeFrame(uint32_t number, const uint8_t* raw, size_t bytes) {
    const void* frame = raw;
    size_t size = bytes;
    if (!m_format.raw) {
        const PhaseGuard phase(m_phase, WriterPhase::Converting);
        auto* const memory = reinterpret_cast<uint8_t*>(m_buffer.data());
        y4mPicture(m_format.input, m_format.depth, raw, memory + kFrameWordBytes);
        frame = memory;
        size = kFrameWordBytes + y4mPictureBytes(m_format.input, m_format.depth);
    }
    try {
        const PhaseGuard phase(m_phase, WriterPhase::Writing);
        m_picture->write(frame, size);
    } catch (const Failure&) {
        m_picture->truncate(m_wholeBytes);
        throw;
    }
    m_wholeBytes = m_picture->bytes();
    if (m_frames++ == 0) m_firstNumber = number;
    m_lastNumber = number;
}

void SegmentWriter::writeSound(uint32_t number, const uint8_t* samples, size_t bytes) {
    const auto late = static_cast<int32_t>(number - m_firstNumber);
    if (late < 0) return;
    try {
        const PhaseGuard phase(m_phase, WriterPhase::Writing);
        m_sound->write(samples, bytes);
    } catch (const Failure&) {
        m_sound->truncate(sizeof(WavHeader) + m_soundBytes);
        throw;
    }
    if (!m_hasSound) m_soundStartFrames = late;
    m_hasSound = true;
    m_lastSoundNumber = number;
    m_soundBlockBytes = bytes;
    m_soundBytes += bytes;
}

void SegmentWriter::completeSound() {
    const auto excess = static_cast<int32_t>(m_lastSoundNumber - m_lastNumber);
    if (m_hasSound && excess > 0 && m_soundBytes >= m_soundBlockBytes * uint64_t(excess)) {
        m_soundBytes -= m_soundBlockBytes * uint64_t(excess);
        m_sound->truncate(sizeof(WavHeader) + m_soundBytes);
    }
    const WavHeader header = wavHeader(m_format.soundBits, m_soundBytes);
    m_sound->rewrite(0, header.data(), header.size());
    m_sound->close();
}

void SegmentWriter::close() {
    // One that fails must not leave the other open.
    try {
        m_picture->close();
    } catch (const Failure&) {
        if (m_sound) completeSound();
        throw;
    }
    if (m_sound) completeSound();
}

double SegmentWriter::soundSeconds() const noexcept {
    const uint64_t samples = m_soundBytes / soundFrameBytes(m_format.soundBits);
    return static_cast<double>(samples) / kSoundSamplesPerSecond;
}

} // namespace kestra::ctl
