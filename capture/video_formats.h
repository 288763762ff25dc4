// The formats that the video pin offers, and their media types. No state; any thread.
#pragma once

#include "capture/frame_writer.h"

#include <streams.h>

namespace kestra {

/// Everything that distinguishes the formats; a new one is a row and a writer.
struct VideoFormat {
    const GUID& subtype;
    const GUID& formatType; ///< FORMAT_VideoInfo or FORMAT_VideoInfo2, whose samples name the first field
    WORD bitCount;
    DWORD compression;
    uint32_t outputSelector; ///< TarnisOutputSelector of the frames
    SampleWriter write;
};
/// By index, as "VideoFormat" stores it.
extern const VideoFormat kVideoFormats[4];

/// Size and rate of a card's input; without a signal 1280 x 720, progressive, 60 frames per second.
struct PictureTiming {
    uint32_t width, height;
    uint32_t frameRate; ///< as the card reports it: fields per second when interlaced
    bool interlaced;
    REFERENCE_TIME averageTimePerFrame() const noexcept; ///< 100-ns units
    uint32_t bitRate(uint32_t imageBytes) const noexcept;
};
PictureTiming timingOf(const TarnisCameraStatus& status) noexcept;

/// Makes the complete media type of one format. @return E_OUTOFMEMORY if the format block cannot be allocated
HRESULT makeVideoType(const VideoFormat& format, const PictureTiming& timing, CMediaType& type);

/// The bitmap header of a VIDEOINFOHEADER or VIDEOINFOHEADER2 block; null if the block is too short for it.
const BITMAPINFOHEADER* bitmapHeaderOf(const AM_MEDIA_TYPE& type) noexcept;

/// The index of the format that a type's depth and format block describe; YUY2 if none fits.
uint32_t videoIndexOf(const AM_MEDIA_TYPE& type) noexcept;
/// The format that a receiver of this type expects: decided by the subtype or, without one, by the block.
const VideoFormat& promisedFormat(const AM_MEDIA_TYPE& type) noexcept;

/// True if the two agree in major type, subtype (an empty one agrees with any) and format type. Frame sizes, rates and
/// depths are not compared.
bool matchesVideoType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept;

} // namespace kestra
