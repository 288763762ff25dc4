#include "bitmap_info.h"

#include <cstdint>
#include <cstring>
#include <limits>

DWORD WINAPI GetBitmapSize(const BITMAPINFOHEADER* pHeader) {
    // Widths and depths are at most 32 and 16 bits, so that a line's size cannot overflow 64.
    const uint64_t lineBits = uint64_t(pHeader->biWidth < 0 ? 0 : pHeader->biWidth) * pHeader->biBitCount;
    const uint64_t lineBytes = (lineBits + 31) / 32 * 4;
    const uint64_t lines = uint64_t(pHeader->biHeight < 0 ? -int64_t(pHeader->biHeight) : pHeader->biHeight);
    constexpr uint64_t kMost = std::numeric_limits<DWORD>::max();
    if (lines && lineBytes > kMost / lines) return 0;
    return DWORD(lineBytes * lines);
}

namespace {

// 16 and 32 bits, with or without masks after the header.
GUID trueColorType(const BITMAPINFOHEADER* pHeader) {
    DWORD masks[3] = {};
    const bool masked = pHeader->biCompression == BI_BITFIELDS;
    if (masked) std::memcpy(masks, reinterpret_cast<const BYTE*>(pHeader) + sizeof *pHeader, sizeof masks);
    const auto are = [&masks](DWORD red, DWORD green, DWORD blue) {
        return masks[0] == red && masks[1] == green && masks[2] == blue;
    };
    if (pHeader->biBitCount == 16) {
        if (!masked || are(0x7C00, 0x03E0, 0x001F)) return MEDIASUBTYPE_RGB555;
        if (are(0xF800, 0x07E0, 0x001F)) return MEDIASUBTYPE_RGB565;
    }
    if (pHeader->biBitCount == 32 && (!masked || are(0xFF0000, 0xFF00, 0xFF))) return MEDIASUBTYPE_RGB32;
    return GUID_NULL;
}

} // namespace

const GUID WINAPI GetBitmapSubtype(const BITMAPINFOHEADER* pHeader) {
    if (pHeader->biCompression != BI_RGB && pHeader->biCompression != BI_BITFIELDS) {
        return FOURCCMap(pHeader->biCompression);
    }
    switch (pHeader->biBitCount) {
    case 1:
        return MEDIASUBTYPE_RGB1;
    case 4:
        return MEDIASUBTYPE_RGB4;
    case 8:
        return MEDIASUBTYPE_RGB8;
    case 16:
    case 32:
        return trueColorType(pHeader);
    case 24:
        return MEDIASUBTYPE_RGB24;
    default:
        return GUID_NULL;
    }
}
