#include "capture/video_formats.h"

#include "protocol/frame_rate.h"

#include <dvdmedia.h>

#include <cmath>

namespace kestra {
namespace {

constexpr REFERENCE_TIME kSecond = 10'000'000;

struct Layout {
    WORD bitCount;
    DWORD compression;
    bool secondHeader; ///< VIDEOINFOHEADER2
};
constexpr DWORD fourcc(const char (&text)[5]) {
    return DWORD(uint8_t(text[0])) | DWORD(uint8_t(text[1])) << 8 | DWORD(uint8_t(text[2])) << 16 |
           DWORD(uint8_t(text[3])) << 24;
}
constexpr Layout kLayouts[kVideoFormats] = {
    {16, fourcc("YUY2"), false}, {24, BI_RGB, false}, {16, fourcc("UYVY"), true}, {32, BI_RGB, true}};

/// The least n from 2 on for which n * height / width is whole, and that product.
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
    x = width; // rounding kept even this from being whole
    y = height;
}

void fillBitmapHeader(BITMAPINFOHEADER& header, const Layout& layout, const PictureTiming& timing) noexcept {
    header.biSize = sizeof header;
    header.biWidth = static_cast<LONG>(timing.width);
    header.biHeight = static_cast<LONG>(timing.height);
    header.biPlanes = 1;
    header.biBitCount = layout.bitCount;
    header.biCompression = layout.compression;
    header.biSizeImage = GetBitmapSize(&header);
}

} // namespace

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

HRESULT makeVideoType(VideoFormat format, const PictureTiming& timing, CMediaType& type) {
    const Layout& layout = kLayouts[format];
    type.InitMediaType();
    BITMAPINFOHEADER* header = nullptr;
    if (layout.secondHeader) {
        auto* block = reinterpret_cast<VIDEOINFOHEADER2*>(type.AllocFormatBuffer(sizeof(VIDEOINFOHEADER2)));
        if (!block) return E_OUTOFMEMORY;
        *block = {};
        header = &block->bmiHeader;
        fillBitmapHeader(*header, layout, timing);
        block->rcSource = block->rcTarget = {0, 0, header->biWidth, header->biHeight};
        block->dwInterlaceFlags = timing.interlaced ? AMINTERLACE_IsInterlaced : 0;
        pictureAspect(timing.width, timing.height, block->dwPictAspectRatioX, block->dwPictAspectRatioY);
        block->dwBitRate = timing.bitRate(header->biSizeImage);
        block->AvgTimePerFrame = timing.averageTimePerFrame();
        type.SetFormatType(&FORMAT_VideoInfo2);
    } else {
        auto* block = reinterpret_cast<VIDEOINFOHEADER*>(type.AllocFormatBuffer(sizeof(VIDEOINFOHEADER)));
        if (!block) return E_OUTOFMEMORY;
        *block = {};
        header = &block->bmiHeader;
        fillBitmapHeader(*header, layout, timing);
        block->dwBitRate = timing.bitRate(header->biSizeImage);
        block->AvgTimePerFrame = timing.averageTimePerFrame();
        type.SetFormatType(&FORMAT_VideoInfo);
    }
    const GUID subtype = GetBitmapSubtype(header);
    type.SetType(&MEDIATYPE_Video);
    type.SetSubtype(&subtype);
    type.SetTemporalCompression(FALSE);
    type.SetSampleSize(header->biSizeImage);
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

VideoFormat videoFormatOf(const AM_MEDIA_TYPE& type) noexcept {
    const BITMAPINFOHEADER* header = bitmapHeaderOf(type);
    switch (header ? header->biBitCount : 0) {
    case 16:
        return type.formattype == FORMAT_VideoInfo ? kYuy2 : kUyvy;
    case 24:
        return kRgb24;
    case 32:
        return kRgb32;
    default:
        return kYuy2;
    }
}

bool matchesVideoType(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept {
    return wanted.majortype == offered.majortype &&
           (wanted.subtype == GUID_NULL || wanted.subtype == offered.subtype) &&
           wanted.formattype == offered.formattype;
}

} // namespace kestra
