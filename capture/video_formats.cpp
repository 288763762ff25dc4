// The video formats as media types, and the capabilities that the pin answers.
#include "capture/video_formats.h"

#include "protocol/frame_rate.h"

#include <dvdmedia.h>

#include <cmath>
#include <iterator>

namespace kestra {
namespace {

constexpr REFERENCE_TIME kSecond = 10'000'000;

constexpr DWORD fourcc(const char (&text)[5]) {
    return DWORD(uint8_t(text[0])) | DWORD(uint8_t(text[1])) << 8 | DWORD(uint8_t(text[2])) << 16 |
           DWORD(uint8_t(text[3])) << 24;
}

/// The smallest n >= 2 for which n * height / width is an integer, and that quotient.
void pictureAspect(uint32_t width, uint32_t height, DWORD& x, DWORD& y) noexcept {
    x = y = 1;
    if (width == height) return;
    const double ratio = static_cast<double>(height) / width;
    for (uint32_t n = 2; n <= width; ++n) {
        const double product = n * ratio;
        if (product != std::floor(product)) continue;
        x = n;
        y = static_cast<DWORD>(product);
        return;
    }
    x = width; // rounding kept even this from being an integer
    y = height;
}

void fillBitmapHeader(BITMAPINFOHEADER& header, const VideoFormat& format, const PictureTiming& timing) noexcept {
    header.biSize = sizeof header;
    header.biWidth = static_cast<LONG>(timing.width);
    header.biHeight = static_cast<LONG>(timing.height);
    header.biPlanes = 1;
    header.biBitCount = format.bitCount;
    header.biCompression = format.compression;
    header.biSizeImage = GetBitmapSize(&header);
}

/// Makes the part that both kinds of block share. @return null if memory runs out
template <class Block>
Block* makeBlock(const VideoFormat& format, const PictureTiming& timing, CMediaType& type) noexcept {
    auto* block = reinterpret_cast<Block*>(type.AllocFormatBuffer(sizeof(Block)));
    if (!block) return nullptr;
    *block = {};
    fillBitmapHeader(block->bmiHeader, format, timing);
    const GUID subtype = GetBitmapSubtype(&block->bmiHeader);
    type.SetSubtype(&subtype);
    type.SetSampleSize(block->bmiHeader.biSizeImage);
    block->dwBitRate = timing.bitRate(block->bmiHeader.biSizeImage);
    block->AvgTimePerFrame = timing.averageTimePerFrame();
    return block;
}

} // namespace

// clang-format off
const VideoFormat kVideoFormats[4] = {
    {MEDIASUBTYPE_YUY2,  FORMAT_VideoInfo,  16, fourcc("YUY2"), TARNIS_OUTPUT_YUV422_8, writeYuy2},
    {MEDIASUBTYPE_RGB24, FORMAT_VideoInfo,  24, BI_RGB,         TARNIS_OUTPUT_RGB24,    writeRgb24},
    {MEDIASUBTYPE_UYVY,  FORMAT_VideoInfo2, 16, fourcc("UYVY"), TARNIS_OUTPUT_YUV422_8, writeUyvy},
    {MEDIASUBTYPE_RGB32, FORMAT_VideoInfo2, 32, BI_RGB,         TARNIS_OUTPUT_RGB24,    writeRgb32}};
// clang-format on

REFERENCE_TIME PictureTiming::averageTimePerFrame() const noexcept {
    const uint32_t framesPerSecond = framesOfRate(frameRate, interlaced);
    return framesPerSecond == 0 ? kSecond : kSecond / framesPerSecond;
}

uint32_t PictureTiming::bitRate(uint32_t imageBytes) const noexcept {
    return static_cast<uint32_t>(uint64_t{imageBytes} * frameRate * 8 / (interlaced ? 2 : 1));
}

PictureTiming timingOf(const TarnisCameraStatus& status) noexcept {
    if (status.width == 0) return {1280, 720, 60, false};
    PictureTiming timing{status.width, status.height, reportedRate(status), status.interlaced == 1};
    if (timing.frameRate == 0) timing.frameRate = 25;
    return timing;
}

HRESULT makeVideoType(const VideoFormat& format, const PictureTiming& timing, CMediaType& type) {
    FreeMediaType(type); // may be a reused one
    type.InitMediaType();
    if (format.formatType == FORMAT_VideoInfo2) {
        auto* block = makeBlock<VIDEOINFOHEADER2>(format, timing, type);
        if (!block) return E_OUTOFMEMORY;
        block->rcSource = block->rcTarget = {0, 0, block->bmiHeader.biWidth, block->bmiHeader.biHeight};
        block->dwInterlaceFlags = timing.interlaced ? AMINTERLACE_IsInterlaced : 0;
        pictureAspect(timing.width, timing.height, block->dwPictAspectRatioX, block->dwPictAspectRatioY);
    } else if (!makeBlock<VIDEOINFOHEADER>(format, timing, type)) {
        return E_OUTOFMEMORY;
    }
    type.SetType(&MEDIATYPE_Video);
    type.SetFormatType(&format.formatType);
    type.SetTemporalCompression(FALSE);
    return S_OK;
}

const BITMAPINFOHEADER* bitmapHeaderOf(const AM_MEDIA_TYPE& type) noexcept {
    if (!type.pbFormat) return nullptr;
    if (type.formattype == FORMAT_VideoInfo)
        return type.cbFormat < sizeof(VIDEOINFOHEADER) ? nullptr
                                                       : &reinterpret_cast<VIDEOINFOHEADER*>(type.pbFormat)->bmiHeader;
    return type.cbFormat < sizeof(VIDEOINFOHEADER2) ? nullptr
                                                    : &reinterpret_cast<VIDEOINFOHEADER2*>(type.pbFormat)->bmiHeader;
}

uint32_t videoIndexOf(const AM_MEDIA_TYPE& type) noexcept {
    const BITMAPINFOHEADER* header = bitmapHeaderOf(type);
    for (uint32_t i = 0; header && i < std::size(kVideoFormats); ++i) {
        const VideoFormat& format = kVideoFormats[i];
        // Two formats of one depth differ in the kind of their block.
        if (header->biBitCount == format.bitCount &&
            (format.compression == BI_RGB ||
             (type.formattype == FORMAT_VideoInfo) == (format.formatType == FORMAT_VideoInfo)))
            return i;
    }
    return 0;
}

const VideoFormat& promisedFormat(const AM_MEDIA_TYPE& type) noexcept {
    for (const VideoFormat& format : kVideoFormats)
        if (type.subtype == format.subtype) return format;
    return kVideoFormats[videoIndexOf(type)];
}

bool matchesVideoType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept {
    return wanted.majortype == offered.majortype &&
           (wanted.subtype == GUID_NULL || wanted.subtype == offered.subtype) &&
           wanted.formattype == offered.formattype;
}

} // namespace kestra
