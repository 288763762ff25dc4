// What a bitmap header says: bytes of the image, subtype of the media type.
#pragma once

#include "objects.h"

/// The GUID that carries a FOURCC in its first four bytes. A value.
class FOURCCMap : public GUID {
public:
    FOURCCMap() : FOURCCMap(DWORD(0)) {}
    FOURCCMap(DWORD fourcc) : GUID{fourcc, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}} {}
    FOURCCMap(const GUID* guid) : GUID(*guid) {}
    DWORD GetFOURCC() const { return Data1; }
    void SetFOURCC(DWORD fourcc) { *this = FOURCCMap(fourcc); }
    void SetFOURCC(const GUID* guid) { *this = FOURCCMap(guid); }
};

// Helpers of the platform's video header that MinGW's lacks.
#ifndef WIDTHBYTES
/// Bytes of a line of so many bits, padded to 4.
#define WIDTHBYTES(bits) ((DWORD)(((bits) + 31) & (~31)) / 8)
#endif
#ifndef DIBWIDTHBYTES
#define DIBWIDTHBYTES(bi) (DWORD) WIDTHBYTES((DWORD)(bi).biWidth*(DWORD)(bi).biBitCount)
#endif
#ifndef DIBSIZE
/// Bytes of an uncompressed image, 32-bit arithmetic: GetBitmapSize minds the overflow.
#define DIBSIZE(bi) (DIBWIDTHBYTES(bi) * (DWORD)((bi).biHeight < 0 ? -(bi).biHeight : (bi).biHeight))
#endif
#ifndef SIZE_PREHEADER
#define SIZE_PREHEADER (FIELD_OFFSET(VIDEOINFOHEADER, bmiHeader))
#endif
#ifndef HEADER
/// The bitmap header within a VIDEOINFOHEADER.
#define HEADER(pVideoInfo) (&(((VIDEOINFOHEADER*)(pVideoInfo))->bmiHeader))
#endif

/// Bytes of an uncompressed image with lines padded to 4 bytes; 0 if they do not fit 32 bits.
DWORD WINAPI GetBitmapSize(const BITMAPINFOHEADER* pHeader);
/// The subtype that stands for the header's depth, masks or FOURCC; GUID_NULL for an unknown depth.
const GUID WINAPI GetBitmapSubtype(const BITMAPINFOHEADER* pHeader);
/// As GetBitmapSubtype, for 16 and 32 bits with or without masks after the header.
const GUID WINAPI GetTrueColorType(const BITMAPINFOHEADER* pHeader);
