// Media types: copies that own their blocks, and comparison.
#include "media_type.h"

#include <algorithm>
#include <cstring>

CMediaType::CMediaType() {
    InitMediaType();
}

CMediaType::CMediaType(const GUID* type) {
    InitMediaType();
    majortype = *type;
}

CMediaType::CMediaType(const AM_MEDIA_TYPE& mt, HRESULT* phr) {
    InitMediaType();
    const HRESULT hr = Set(mt);
    if (FAILED(hr) && phr) *phr = hr;
}

CMediaType::CMediaType(const CMediaType& mt, HRESULT* phr) : CMediaType(static_cast<const AM_MEDIA_TYPE&>(mt), phr) {}

CMediaType::~CMediaType() {
    FreeMediaType(*this);
}

CMediaType& CMediaType::operator=(const CMediaType& mt) {
    Set(mt);
    return *this;
}

CMediaType& CMediaType::operator=(const AM_MEDIA_TYPE& mt) {
    Set(mt);
    return *this;
}

BOOL CMediaType::operator==(const CMediaType& mt) const {
    return majortype == mt.majortype && subtype == mt.subtype && formattype == mt.formattype &&
           cbFormat == mt.cbFormat && (cbFormat == 0 || std::memcmp(pbFormat, mt.pbFormat, cbFormat) == 0);
}

HRESULT CMediaType::Set(const CMediaType& mt) {
    return Set(static_cast<const AM_MEDIA_TYPE&>(mt));
}

HRESULT CMediaType::Set(const AM_MEDIA_TYPE& mt) {
    if (&mt == this) return S_OK;
    AM_MEDIA_TYPE copy;
    const HRESULT hr = CopyMediaType(&copy, &mt);
    if (FAILED(hr)) return hr;
    FreeMediaType(*this);
    static_cast<AM_MEDIA_TYPE&>(*this) = copy;
    return S_OK;
}

void CMediaType::SetSampleSize(ULONG size) {
    bFixedSizeSamples = size != 0;
    if (size) lSampleSize = size;
}

BOOL CMediaType::SetFormat(BYTE* format, ULONG length) {
    if (length == 0) {
        ResetFormatBuffer();
        return TRUE;
    }
    auto* block = static_cast<BYTE*>(CoTaskMemAlloc(length));
    if (!block) return FALSE;
    std::memcpy(block, format, length); // before the old block is freed: it may be part of it
    ResetFormatBuffer();
    pbFormat = block;
    cbFormat = length;
    return TRUE;
}

void CMediaType::ResetFormatBuffer() {
    CoTaskMemFree(pbFormat);
    pbFormat = nullptr;
    cbFormat = 0;
}

BYTE* CMediaType::AllocFormatBuffer(ULONG length) {
    if (length == cbFormat) return pbFormat;
    auto* block = length ? static_cast<BYTE*>(CoTaskMemAlloc(length)) : nullptr;
    if (length && !block) return nullptr;
    ResetFormatBuffer();
    pbFormat = block;
    cbFormat = length;
    return block;
}

void CMediaType::InitMediaType() {
    static_cast<AM_MEDIA_TYPE&>(*this) = {};
    bFixedSizeSamples = TRUE;
    lSampleSize = 1;
}

// A null GUID in the partial type stands for any; a format type that is given covers its block too.
BOOL CMediaType::MatchesPartial(const CMediaType* partial) const {
    if (partial->majortype != GUID_NULL && partial->majortype != majortype) return FALSE;
    if (partial->subtype != GUID_NULL && partial->subtype != subtype) return FALSE;
    if (partial->formattype == GUID_NULL) return TRUE;
    return partial->formattype == formattype && partial->cbFormat == cbFormat &&
           (cbFormat == 0 || std::memcmp(pbFormat, partial->pbFormat, cbFormat) == 0);
}

AM_MEDIA_TYPE* WINAPI CreateMediaType(const AM_MEDIA_TYPE* pSrc) {
    auto* copy = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
    if (copy && FAILED(CopyMediaType(copy, pSrc))) {
        CoTaskMemFree(copy);
        return nullptr;
    }
    return copy;
}

void WINAPI DeleteMediaType(AM_MEDIA_TYPE* pmt) {
    if (!pmt) return;
    FreeMediaType(*pmt);
    CoTaskMemFree(pmt);
}

HRESULT WINAPI CopyMediaType(AM_MEDIA_TYPE* pmtTarget, const AM_MEDIA_TYPE* pmtSource) {
    *pmtTarget = *pmtSource;
    pmtTarget->pbFormat = nullptr;
    if (pmtSource->cbFormat) {
        // A careless caller may send a length without a block: do not read it.
        if (pmtSource->pbFormat) pmtTarget->pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(pmtSource->cbFormat));
        if (!pmtTarget->pbFormat) {
            pmtTarget->cbFormat = 0;
            pmtTarget->pUnk = nullptr;
            return pmtSource->pbFormat ? E_OUTOFMEMORY : E_INVALIDARG;
        }
        std::memcpy(pmtTarget->pbFormat, pmtSource->pbFormat, pmtSource->cbFormat);
    }
    if (pmtTarget->pUnk) pmtTarget->pUnk->AddRef();
    return S_OK;
}

void WINAPI FreeMediaType(AM_MEDIA_TYPE& mt) {
    CoTaskMemFree(mt.pbFormat);
    mt.pbFormat = nullptr;
    mt.cbFormat = 0;
    if (mt.pUnk) mt.pUnk->Release();
    mt.pUnk = nullptr;
}
