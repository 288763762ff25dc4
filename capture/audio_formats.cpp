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
constexpr int32_t kUnknownRate = 25; // frames per second, where the card tells none

WAVEFORMATEX waveFormat(WORD tag, WORD bits, WORD extraBytes) noexcept {
    const auto block = static_cast<WORD>(kChannels * bits / 8);
    return {tag, kChannels, kSamplesPerSecond, kSamplesPerSecond * block, block, bits, extraBytes};
}

} // namespace

HRESULT makeAudioType(AudioFormat format, CMediaType& type) {
    static_assert(sizeof(WAVEFORMATEX) == 18 && sizeof(WAVEFORMATEXTENSIBLE) == 40);
    type.InitMediaType();
    if (format == kAudio24) {
        auto* block = reinterpret_cast<WAVEFORMATEXTENSIBLE*>(type.AllocFormatBuffer(sizeof(WAVEFORMATEXTENSIBLE)));
        if (!block) return E_OUTOFMEMORY;
        *block = {};
        block->Format = waveFormat(WAVE_FORMAT_EXTENSIBLE, 24, sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX));
        block->Samples.wValidBitsPerSample = 24;
        block->dwChannelMask = SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT;
        block->SubFormat = KSDATAFORMAT_SUBTYPE_PCM;
        type.SetSampleSize(3);
    } else {
        auto* block = reinterpret_cast<WAVEFORMATEX*>(type.AllocFormatBuffer(sizeof(WAVEFORMATEX)));
        if (!block) return E_OUTOFMEMORY;
        *block = waveFormat(WAVE_FORMAT_PCM, 16, 0);
        type.SetSampleSize(2); // one sample of one channel on purpose, as above: not the block alignment
    }
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

AudioFormat audioFormatOf(const AM_MEDIA_TYPE& type) noexcept {
    const PCMWAVEFORMAT* format = waveFormatOf(type);
    return format && format->wBitsPerSample == 24 ? kAudio24 : kAudio16;
}

bool matchesAudioType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept {
    const PCMWAVEFORMAT* wantedFormat = waveFormatOf(wanted);
    const PCMWAVEFORMAT* offeredFormat = waveFormatOf(offered);
    return wanted.majortype == offered.majortype && wanted.subtype == offered.subtype &&
           wanted.formattype == offered.formattype && wantedFormat && offeredFormat &&
           wantedFormat->wf.nSamplesPerSec == offeredFormat->wf.nSamplesPerSec;
}

int32_t framesPerSecond(const TarnisCameraStatus& status) noexcept {
    const uint32_t rate = framesOfRate(reportedRate(status), status.interlaced == 1);
    return rate == 0 ? kUnknownRate : static_cast<int32_t>(rate);
}

long audioBufferBytes(const TarnisCameraStatus& status, uint32_t bytesPerSecond) noexcept {
    const uint32_t rate = reportedRate(status);
    const uint64_t bytes = rate == 0 ? bytesPerSecond / uint32_t{kUnknownRate}
                                     : uint64_t{bytesPerSecond / rate} * (status.interlaced == 1 ? 2 : 1);
    return static_cast<long>(std::min<uint64_t>(bytes, LONG_MAX));
}

} // namespace kestra
