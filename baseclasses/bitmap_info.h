// What follows from a bitmap header: bytes of the image, media subtype.
#pragma once

#include "objects.h"

/// Bytes of an uncompressed image with lines padded to 4 bytes; 0 if they do not fit 32 bits.
STDAPI_(DWORD) GetBitmapSize(const BITMAPINFOHEADER* pHeader);
/// The subtype that stands for the header's FOURCC or depth; GUID_NULL for an unknown depth and for colour masks.
STDAPI_(const GUID) GetBitmapSubtype(const BITMAPINFOHEADER* pHeader);
