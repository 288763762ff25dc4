// Bitmap headers: pure functions.
#include "bitmap_info.h"

#include <cstdint>
#include <limits>

STDAPI_(DWORD) GetBitmapSize(const BITMAPINFOHEADER* pHeader) {
    // Widths and depths are at most 32 and 16 bits, so that a line's size cannot overflow 64.
    const uint64_t lineBits = uint64_t(pHeader->biWidth < 0 ? 0 : pHeader->biWidth) * pHeader->biBitCount;
    const uint64_t lineBytes = (lineBits + 31) / 32 * 4;
    const uint64_t lines = uint64_t(pHeader->biHeight < 0 ? -int64_t(pHeader->biHeight) : pHeader->biHeight);
    constexpr uint64_t kMost = std::numeric_limits<DWORD>::max();
    if (lines && lineBytes > kMost / lines) return 0;
    return DWORD(lineBytes * lines);
}

STDAPI_(const GUID) GetBitmapSubtype(const BITMAPINFOHEADER* pHeader) {
    if (pHeader->biCompression == BI_BITFIELDS) return GUID_NULL;
    if (pHeader->biCompression != BI_RGB) {
        GUID fourcc = MEDIASUBTYPE_YUY2; // they differ only in their first four bytes
        fourcc.Data1 = pHeader->biCompression;
        return fourcc;
    }
    const struct {
        WORD bits;
        const GUID& subtype;
    } depths[] = {{1, MEDIASUBTYPE_RGB1},    {4, MEDIASUBTYPE_RGB4},   {8, MEDIASUBTYPE_RGB8},
                  {16, MEDIASUBTYPE_RGB555}, {24, MEDIASUBTYPE_RGB24}, {32, MEDIASUBTYPE_RGB32}};
    for (const auto& depth : depths) {
        if (depth.bits == pHeader->biBitCount) return depth.subtype;
    }
    return GUID_NULL;
}
