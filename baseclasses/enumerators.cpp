#include "firewall.h"
#include "pin.h"

#include <algorithm>
#include <utility>

using kestra::com::guarded;

CEnumPins::CEnumPins(CBaseFilter* pFilter, CEnumPins* other) : m_pFilter(pFilter) {
    m_Position = other ? other->m_Position : 0;
    m_PinCount = other ? other->m_PinCount : m_pFilter->GetPinCount();
    m_Version = other ? other->m_Version : m_pFilter->GetPinVersion();
    m_pFilter->AddRef(); // last: what a derived filter throws above must not cost a reference
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
    if (pcFetched) *pcFetched = 0;
    CheckPointer(ppPins, E_POINTER);
    if (!pcFetched && cPins > 1) return E_INVALIDARG;
    std::fill_n(ppPins, cPins, nullptr);
    ULONG fetched = 0;
    const HRESULT hr = guarded([&]() -> HRESULT {
        if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        while (fetched < cPins && m_Position < m_PinCount) {
            CBasePin* pin = m_pFilter->GetPin(m_Position);
            if (!pin) break;
            pin->AddRef();
            ppPins[fetched++] = pin;
            ++m_Position;
        }
        return fetched == cPins ? S_OK : S_FALSE;
    });
    if (FAILED(hr)) {
        m_Position -= int(fetched);
        while (fetched > 0)
            std::exchange(ppPins[--fetched], nullptr)->Release();
    }
    if (pcFetched) *pcFetched = fetched;
    return hr;
}

STDMETHODIMP CEnumPins::Skip(ULONG cPins) {
    return guarded([&]() -> HRESULT {
        if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        if (cPins > ULONG(std::max(0, m_PinCount - m_Position))) return S_FALSE;
        m_Position += int(cPins);
        return S_OK;
    });
}

STDMETHODIMP CEnumPins::Reset() {
    return guarded([&]() -> HRESULT {
        m_Version = m_pFilter->GetPinVersion();
        m_PinCount = m_pFilter->GetPinCount();
        m_Position = 0;
        return S_OK;
    });
}

STDMETHODIMP CEnumPins::Clone(IEnumPins** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    return guarded([&]() -> HRESULT {
        if (m_Version != m_pFilter->GetPinVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        *ppEnum = new CEnumPins(m_pFilter, this);
        return S_OK;
    });
}

CEnumMediaTypes::CEnumMediaTypes(CBasePin* pPin, CEnumMediaTypes* other) : m_pPin(pPin) {
    m_Position = other ? other->m_Position : 0;
    m_Version = other ? other->m_Version : m_pPin->GetMediaTypeVersion();
    m_pPin->AddRef();
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
    if (pcFetched) *pcFetched = 0;
    CheckPointer(ppTypes, E_POINTER);
    if (!pcFetched && cTypes > 1) return E_INVALIDARG;
    std::fill_n(ppTypes, cTypes, nullptr);
    ULONG fetched = 0;
    const HRESULT hr = guarded([&]() -> HRESULT {
        if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        while (fetched < cTypes) {
            CMediaType type;
            const HRESULT got = m_pPin->GetMediaType(m_Position, &type);
            if (got == E_OUTOFMEMORY) return got; // there may be more, unlike after any other answer
            if (got != S_OK) break;
            ppTypes[fetched] = CreateMediaType(&type);
            if (!ppTypes[fetched]) return E_OUTOFMEMORY;
            ++fetched;
            ++m_Position;
        }
        return fetched == cTypes ? S_OK : S_FALSE;
    });
    if (FAILED(hr)) {
        m_Position -= int(fetched);
        while (fetched > 0)
            DeleteMediaType(std::exchange(ppTypes[--fetched], nullptr));
    }
    if (pcFetched) *pcFetched = fetched;
    return hr;
}

STDMETHODIMP CEnumMediaTypes::Skip(ULONG cTypes) {
    return guarded([&]() -> HRESULT {
        if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        for (ULONG i = 0; i < cTypes; ++i) {
            CMediaType type;
            if (m_pPin->GetMediaType(m_Position, &type) != S_OK) return S_FALSE;
            ++m_Position;
        }
        return S_OK;
    });
}

STDMETHODIMP CEnumMediaTypes::Reset() {
    return guarded([&]() -> HRESULT {
        m_Version = m_pPin->GetMediaTypeVersion();
        m_Position = 0;
        return S_OK;
    });
}

STDMETHODIMP CEnumMediaTypes::Clone(IEnumMediaTypes** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    return guarded([&]() -> HRESULT {
        if (m_Version != m_pPin->GetMediaTypeVersion()) return VFW_E_ENUM_OUT_OF_SYNC;
        *ppEnum = new CEnumMediaTypes(m_pPin, this);
        return S_OK;
    });
}
