// The formats that the audio pin offers, their media types, and how much sound belongs to a frame. No state; any
// thread.
#pragma once

#include "protocol/records.h"

#include <streams.h>

#include <mmreg.h>

namespace kestra {

/// What distinguishes the formats; all have 48000 Hz and two channels.
struct AudioFormat {
    WORD bits;
    ULONG blockBytes;      ///< of a WAVEFORMATEX or a WAVEFORMATEXTENSIBLE
    uint32_t sampleFormat; ///< what the card calls it
};
/// By index, as "AudioFormat" stores it.
extern const AudioFormat kAudioFormats[2];

/// Makes the complete media type of one format. @return E_OUTOFMEMORY if the format block cannot be allocated
HRESULT makeAudioType(const AudioFormat& format, CMediaType& type);

/// The format block, read as a PCMWAVEFORMAT; null if it is shorter than that.
const PCMWAVEFORMAT* waveFormatOf(const AM_MEDIA_TYPE& type) noexcept;

/// The index of the format that a type's block describes: 24-bit if it says so, otherwise 16-bit.
uint32_t audioIndexOf(const AM_MEDIA_TYPE& type) noexcept;

/// True if the two agree in major type, subtype, format type and sample rate. The depths are not compared.
bool matchesAudioType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept;

/// Bytes of a buffer for the sound of one frame, at the given bytes per second.
long audioBufferBytes(const TarnisCameraStatus& status, uint32_t bytesPerSecond) noexcept;

} // namespace kestra
