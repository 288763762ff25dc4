// What a bitmap header says: bytes of the image, subtype of the media type.
#pragma once

#include "objects.h"

/// The GUID that carries a FOURCC in its first four bytes. A value.
class FOURCCMap : public GUID {
public:
    FOURCCMap(DWORD fourcc) : GUID{fourcc, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}} {}
    FOURCCMap(const GUID* guid) : GUID(*guid) {}
    DWORD GetFOURCC() const { return Data1; }
};

/// Bytes of an uncompressed image with lines padded to 4 bytes; 0 if they do not fit 32 bits.
DWORD WINAPI GetBitmapSize(const BITMAPINFOHEADER* pHeader);
/// The subtype that stands for the header's depth, masks or FOURCC; GUID_NULL for an unknown depth.
const GUID WINAPI GetBitmapSubtype(const BITMAPINFOHEADER* pHeader);
