// Media types: the class that owns its format block, and the functions for plain AM_MEDIA_TYPEs.
#pragma once

#include "objects.h"

/// An AM_MEDIA_TYPE that owns its format block and counts its pUnk. No lock of its own.
class CMediaType : public AM_MEDIA_TYPE {
public:
    CMediaType();
    explicit CMediaType(const GUID* majortype);
    CMediaType(const AM_MEDIA_TYPE& mt, HRESULT* phr = nullptr);
    CMediaType(const CMediaType& mt, HRESULT* phr = nullptr);
    ~CMediaType();
    CMediaType& operator=(const CMediaType& mt);
    CMediaType& operator=(const AM_MEDIA_TYPE& mt);
    BOOL operator==(const CMediaType& mt) const;
    BOOL operator!=(const CMediaType& mt) const { return !(*this == mt); }

    HRESULT Set(const CMediaType& mt);
    HRESULT Set(const AM_MEDIA_TYPE& mt);
    const GUID* Type() const { return &majortype; }
    void SetType(const GUID* type) { majortype = *type; }
    const GUID* Subtype() const { return &subtype; }
    void SetSubtype(const GUID* type) { subtype = *type; }
    BOOL IsFixedSize() const { return bFixedSizeSamples; }
    BOOL IsTemporalCompressed() const { return bTemporalCompression; }
    /// Bytes; 0 if the samples vary.
    ULONG GetSampleSize() const { return IsFixedSize() ? lSampleSize : 0; }
    /// @param size  bytes; 0 makes the size variable.
    void SetSampleSize(ULONG size);
    void SetTemporalCompression(BOOL compressed) { bTemporalCompression = compressed; }
    BYTE* Format() const { return pbFormat; }
    ULONG FormatLength() const { return cbFormat; }
    void SetFormatType(const GUID* type) { formattype = *type; }
    const GUID* FormatType() const { return &formattype; }
    /// @return FALSE if memory runs out; the old block is then kept.
    BOOL SetFormat(BYTE* format, ULONG length);
    void ResetFormatBuffer();
    /// @return the new, uninitialised block; null without memory, the old block is then kept.
    BYTE* AllocFormatBuffer(ULONG length);
    void InitMediaType();
    BOOL MatchesPartial(const CMediaType* partial) const;
    BOOL IsPartiallySpecified() const { return majortype == GUID_NULL || formattype == GUID_NULL; }
};

/// A task-memory copy, to be released with DeleteMediaType; null if memory runs out.
AM_MEDIA_TYPE* WINAPI CreateMediaType(const AM_MEDIA_TYPE* pSrc);
void WINAPI DeleteMediaType(AM_MEDIA_TYPE* pmt);
/// Overwrites *target without freeing its former content. @return S_OK, E_OUTOFMEMORY, or E_INVALIDARG
/// for a format length without a block.
HRESULT WINAPI CopyMediaType(AM_MEDIA_TYPE* pmtTarget, const AM_MEDIA_TYPE* pmtSource);
/// Frees what the structure refers to, not the structure.
void WINAPI FreeMediaType(AM_MEDIA_TYPE& mt);
