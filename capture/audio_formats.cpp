// The audio formats as media types, and the capabilities that the pin answers.
#include "capture/audio_formats.h"

#include "protocol/frame_rate.h"

#include <ks.h>

#include <ksmedia.h>

#include <algorithm>
#include <climits>

namespace kestra {
namespace {

constexpr DWORD kSamplesPerSecond = 48000;
constexpr WORD kChannels = 2;
constexpr int32_t kUnknownRate = 25; // frames per second, if the card reports none

} // namespace

const AudioFormat kAudioFormats[2] = {{16, sizeof(WAVEFORMATEX), 1}, {24, sizeof(WAVEFORMATEXTENSIBLE), 0}};

HRESULT makeAudioType(const AudioFormat& format, CMediaType& type) {
    static_assert(sizeof(WAVEFORMATEX) == 18 && sizeof(WAVEFORMATEXTENSIBLE) == 40);
    FreeMediaType(type); // may be a reused one
    type.InitMediaType();
    auto* wave = reinterpret_cast<WAVEFORMATEX*>(type.AllocFormatBuffer(format.blockBytes));
    if (!wave) return E_OUTOFMEMORY;
    const auto align = static_cast<WORD>(kChannels * format.bits / 8);
    *wave = {WAVE_FORMAT_PCM, kChannels, kSamplesPerSecond, kSamplesPerSecond * align, align, format.bits, 0};
    if (format.blockBytes == sizeof(WAVEFORMATEXTENSIBLE)) {
        auto* extensible = reinterpret_cast<WAVEFORMATEXTENSIBLE*>(wave);
        wave->wFormatTag = WAVE_FORMAT_EXTENSIBLE;
        wave->cbSize = sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX);
        extensible->Samples.wValidBitsPerSample = format.bits;
        extensible->dwChannelMask = SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT;
        extensible->SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
    }
    type.SetSampleSize(format.bits / 8u); // one channel's sample, not the block: see docs/compatibility.md
    type.SetType(&MEDIATYPE_Audio);
    type.SetSubtype(&MEDIASUBTYPE_PCM);
    type.SetFormatType(&FORMAT_WaveFormatEx);
    type.SetTemporalCompression(FALSE);
    return S_OK;
}

const PCMWAVEFORMAT* waveFormatOf(const AM_MEDIA_TYPE& type) noexcept {
    if (!type.pbFormat || type.cbFormat < sizeof(PCMWAVEFORMAT)) return nullptr;
    return reinterpret_cast<const PCMWAVEFORMAT*>(type.pbFormat);
}

uint32_t audioIndexOf(const AM_MEDIA_TYPE& type) noexcept {
    const PCMWAVEFORMAT* format = waveFormatOf(type);
    return format && format->wBitsPerSample == kAudioFormats[1].bits ? 1 : 0;
}

bool matchesAudioType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept {
    const PCMWAVEFORMAT* wantedFormat = waveFormatOf(wanted);
    const PCMWAVEFORMAT* offeredFormat = waveFormatOf(offered);
    return wanted.majortype == offered.majortype && wanted.subtype == offered.subtype &&
           wanted.formattype == offered.formattype && wantedFormat && offeredFormat &&
           wantedFormat->wf.nSamplesPerSec == offeredFormat->wf.nSamplesPerSec;
}

long audioBufferBytes(const TarnisCameraStatus& status, uint32_t bytesPerSecond) noexcept {
    const uint32_t rate = reportedRate(status);
    const uint64_t bytes = rate == 0 ? bytesPerSecond / uint32_t{kUnknownRate}
                                     : uint64_t{bytesPerSecond / rate} * (status.interlaced == 1 ? 2 : 1);
    return static_cast<long>(std::min<uint64_t>(bytes, LONG_MAX));
}

} // namespace kestra
