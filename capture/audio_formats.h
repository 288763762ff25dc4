// The media types that the audio pin offers, and how much sound belongs to a frame. No state; any thread.
#pragma once

#include "protocol/records.h"

#include <streams.h>

#include <mmreg.h>

namespace kestra {

/// The audio formats of the pin, as "AudioFormat" stores them: 48000 Hz, two channels.
enum AudioFormat : uint32_t { kAudio16 = 0, kAudio24 = 1, kAudioFormats = 2 };

/// Makes the complete media type of one format. @return E_OUTOFMEMORY without memory for the format block
HRESULT makeAudioType(AudioFormat format, CMediaType& type);

/// The format block as far as a PCMWAVEFORMAT goes; null if the block is shorter than that.
const PCMWAVEFORMAT* waveFormatOf(const AM_MEDIA_TYPE& type) noexcept;

/// 24 bits if the format block says so, else 16.
AudioFormat audioFormatOf(const AM_MEDIA_TYPE& type) noexcept;

/// True if the two agree in major type, subtype, format type and sample rate. The depths are not compared.
bool matchesAudioType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept;

/// Frames per second in which a channel's sound arrives: one block a frame. 25 without a known rate.
int32_t framesPerSecond(const TarnisCameraStatus& status) noexcept;

/// Bytes of a buffer that takes the sound of one frame, in a stream of so many bytes a second.
long audioBufferBytes(const TarnisCameraStatus& status, uint32_t bytesPerSecond) noexcept;

} // namespace kestra
