#include "pin.h"

#include <algorithm>
#include <new>

CEnumPins::CEnumPins(CBaseFilter* pFilter, CEnumPins* other) : m_pFilter(pFilter) {
    m_pFilter->AddRef();
    m_Position = other ? other->m_Position : 0;
    m_PinCount = other ? other->m_PinCount : m_pFilter->GetPinCount();
    m_Version = other ? other->m_Version : m_pFilter->GetPinVersion();
}

CEnumPins::~CEnumPins() {
    m_pFilter->Release();
}

STDMETHODIMP CEnumPins::QueryInterface(REFIID riid, void** ppv) {
    CheckPointer(ppv, E_POINTER);
    if (riid == IID_IUnknown || riid == IID_IEnumPins) return GetInterface(this, ppv);
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CEnumPins::AddRef() {
    return ULONG(InterlockedIncrement(&m_cRef));
}

STDMETHODIMP_(ULONG) CEnumPins::Release() {
    const LONG left = InterlockedDecrement(&m_cRef);
    if (left == 0) delete this;
    return ULONG(left);
}

STDMETHODIMP CEnumPins::Next(ULONG cPins, IPin** ppPins, ULONG* pcFetched) {
    CheckPointer(ppPins, E_POINTER);
    if (!pcFetched && cPins > 1) return E_INVALIDARG;
    if (pcFetched) *pcFetched = 0;
    std::fill_n(ppPins, cPins, nullptr);
    if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    ULONG fetched = 0;
    while (fetched < cPins && m_Position < m_PinCount) {
        CBasePin* pin = m_pFilter->GetPin(m_Position);
        if (!pin) break;
        pin->AddRef();
        ppPins[fetched++] = pin;
        ++m_Position;
    }
    if (pcFetched) *pcFetched = fetched;
    return fetched == cPins ? S_OK : S_FALSE;
}

STDMETHODIMP CEnumPins::Skip(ULONG cPins) {
    if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    if (cPins > ULONG(std::max(0, m_PinCount - m_Position))) return S_FALSE;
    m_Position += int(cPins);
    return S_OK;
}

STDMETHODIMP CEnumPins::Reset() {
    m_Version = m_pFilter->GetPinVersion();
    m_PinCount = m_pFilter->GetPinCount();
    m_Position = 0;
    return S_OK;
}

STDMETHODIMP CEnumPins::Clone(IEnumPins** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    *ppEnum = new (std::nothrow) CEnumPins(m_pFilter, this);
    return *ppEnum ? S_OK : E_OUTOFMEMORY;
}

CEnumMediaTypes::CEnumMediaTypes(CBasePin* pPin, CEnumMediaTypes* other) : m_pPin(pPin) {
    m_pPin->AddRef();
    m_Position = other ? other->m_Position : 0;
    m_Version = other ? other->m_Version : m_pPin->GetMediaTypeVersion();
}

CEnumMediaTypes::~CEnumMediaTypes() {
    m_pPin->Release();
}

STDMETHODIMP CEnumMediaTypes::QueryInterface(REFIID riid, void** ppv) {
    CheckPointer(ppv, E_POINTER);
    if (riid == IID_IUnknown || riid == IID_IEnumMediaTypes) return GetInterface(this, ppv);
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CEnumMediaTypes::AddRef() {
    return ULONG(InterlockedIncrement(&m_cRef));
}

STDMETHODIMP_(ULONG) CEnumMediaTypes::Release() {
    const LONG left = InterlockedDecrement(&m_cRef);
    if (left == 0) delete this;
    return ULONG(left);
}

STDMETHODIMP CEnumMediaTypes::Next(ULONG cTypes, AM_MEDIA_TYPE** ppTypes, ULONG* pcFetched) {
    CheckPointer(ppTypes, E_POINTER);
    if (!pcFetched && cTypes > 1) return E_INVALIDARG;
    if (pcFetched) *pcFetched = 0;
    std::fill_n(ppTypes, cTypes, nullptr);
    if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    ULONG fetched = 0;
    while (fetched < cTypes) {
        CMediaType type;
        if (m_pPin->GetMediaType(m_Position, &type) != S_OK) break;
        ppTypes[fetched] = CreateMediaType(&type);
        if (!ppTypes[fetched]) break;
        ++fetched;
        ++m_Position;
    }
    if (pcFetched) *pcFetched = fetched;
    return fetched == cTypes ? S_OK : S_FALSE;
}

STDMETHODIMP CEnumMediaTypes::Skip(ULONG cTypes) {
    if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    for (ULONG i = 0; i < cTypes; ++i) {
        CMediaType type;
        if (m_pPin->GetMediaType(m_Position, &type) != S_OK) return S_FALSE;
        ++m_Position;
    }
    return S_OK;
}

STDMETHODIMP CEnumMediaTypes::Reset() {
    m_Position = 0;
    m_Version = m_pPin->GetMediaTypeVersion();
    return S_OK;
}

STDMETHODIMP CEnumMediaTypes::Clone(IEnumMediaTypes** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
    *ppEnum = new (std::nothrow) CEnumMediaTypes(m_pPin, this);
    return *ppEnum ? S_OK : E_OUTOFMEMORY;
}
