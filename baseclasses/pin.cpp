// What every pin answers, and how two pins connect.
#include "pin.h"

#include "enumerators.h"
#include "firewall.h"
#include "held.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <new>
#include <utility>

using kestra::com::counted;
using kestra::com::guarded;
using kestra::com::Held;
using kestra::com::Question;

Question::Question(CBasePin& pin) {
    constexpr DWORD kPatienceMs = 10; // nobody holds the lock for long
    if (pin.m_deliverer != GetCurrentThreadId()) return;
    const DWORD start = GetTickCount();
    while (m_allowed && !TryEnterCriticalSection(&pin.m_pLock->m_CritSec)) {
        Sleep(1);
        m_allowed = GetTickCount() - start < kPatienceMs;
    }
    if (m_allowed) m_held = pin.m_pLock;
}

Question::~Question() {
    if (m_held) m_held->Unlock();
}

CBasePin::CBasePin(LPCTSTR pObjectName, CBaseFilter* pFilter, CCritSec* pLock, HRESULT* phr, LPCWSTR pName,
                   PIN_DIRECTION dir)
    : CUnknown(pObjectName, nullptr), m_dir(dir), m_pLock(pLock), m_pFilter(pFilter) {
    const size_t length = pName ? std::wcslen(pName) : 0;
    m_pName = new (std::nothrow) WCHAR[length + 1];
    if (!m_pName) {
        if (phr) *phr = E_OUTOFMEMORY;
        return;
    }
    std::copy_n(pName, length, m_pName);
    m_pName[length] = 0;
}

CBasePin::~CBasePin() {
    delete[] m_pName;
    if (m_Connected) m_Connected->Release();
}

HRESULT CBasePin::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IPin) return GetInterface(static_cast<IPin*>(this), ppv);
    if (riid == IID_IQualityControl) return GetInterface(static_cast<IQualityControl*>(this), ppv);
    return CUnknown::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CBasePin::Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) {
    CheckPointer(pReceivePin, E_POINTER);
    CAutoLock lock(m_pLock);
    HRESULT hr = checkConnectable();
    if (FAILED(hr)) return hr;
    CMediaType type;
    if (pmt) hr = type.Set(*pmt);
    if (SUCCEEDED(hr)) hr = guarded([&] { return AgreeMediaType(pReceivePin, pmt ? &type : nullptr); });
    if (FAILED(hr)) breakQuietly();
    return FAILED(hr) ? hr : S_OK;
}

HRESULT CBasePin::checkConnectable() {
    if (m_Connected) return VFW_E_ALREADY_CONNECTED;
    return IsStopped() || m_bCanReconnectWhenActive ? S_OK : VFW_E_NOT_STOPPED;
}

// Releases the former one last: this may be its only reference.
void CBasePin::setConnected(IPin* pin) {
    Held<IPin> other(counted(pin));
    CAutoLock lock(&m_connection);
    m_Connected = other.exchange(m_Connected);
}

// Undoes a failed attempt; its failure is already the result.
void CBasePin::breakQuietly() {
    guarded([this] { return BreakConnect(); });
    setConnected(nullptr);
}

// A generic failure counts as a refused type.
HRESULT CBasePin::checkType(const CMediaType* pmt) {
    const HRESULT hr = guarded([&] { return CheckMediaType(pmt); });
    if (hr == S_OK) return S_OK;
    return FAILED(hr) && hr != E_FAIL && hr != E_INVALIDARG ? hr : VFW_E_TYPE_NOT_ACCEPTED;
}

HRESULT CBasePin::AttemptConnection(IPin* pReceivePin, const CMediaType* pmt) {
    HRESULT hr = guarded([&] { return CheckConnect(pReceivePin); });
    if (SUCCEEDED(hr)) hr = checkType(pmt);
    if (SUCCEEDED(hr)) {
        setConnected(pReceivePin);
        hr = guarded([&] { return SetMediaType(pmt); });
        if (SUCCEEDED(hr)) {
            hr = pReceivePin->ReceiveConnection(this, pmt);
            if (SUCCEEDED(hr)) {
                hr = guarded([&] { return CompleteConnect(pReceivePin); });
                if (SUCCEEDED(hr)) return S_OK;
                pReceivePin->Disconnect();
            }
        }
    }
    breakQuietly();
    return hr;
}

HRESULT CBasePin::TryMediaTypes(IPin* pReceivePin, const CMediaType* pmt, IEnumMediaTypes* pEnum) {
    HRESULT hr = pEnum->Reset();
    if (FAILED(hr)) return hr;
    HRESULT result = VFW_E_NO_ACCEPTABLE_TYPES;
    AM_MEDIA_TYPE* offered = nullptr;
    while ((hr = pEnum->Next(1, &offered, nullptr)) == S_OK) {
        CMediaType type;
        hr = type.Set(*offered);
        DeleteMediaType(offered);
        if (SUCCEEDED(hr)) {
            if (pmt && !type.MatchesPartial(pmt)) continue;
            hr = AttemptConnection(pReceivePin, &type);
            if (hr == S_OK) return S_OK;
        }
        // A refused type says little; any other failure is the more useful result.
        if (result == VFW_E_NO_ACCEPTABLE_TYPES && FAILED(hr) && hr != E_FAIL && hr != E_INVALIDARG &&
            hr != VFW_E_TYPE_NOT_ACCEPTED) {
            result = hr;
        }
    }
    return FAILED(hr) && result == VFW_E_NO_ACCEPTABLE_TYPES ? hr : result; // some types may not have been fetched
}

HRESULT CBasePin::AgreeMediaType(IPin* pReceivePin, const CMediaType* pmt) {
    if (pmt && !pmt->IsPartiallySpecified()) return AttemptConnection(pReceivePin, pmt);
    HRESULT result = VFW_E_NO_ACCEPTABLE_TYPES;
    IPin* const order[] = {m_bTryMyTypesFirst ? this : pReceivePin, m_bTryMyTypesFirst ? pReceivePin : this};
    for (IPin* pin : order) {
        Held<IEnumMediaTypes> types;
        HRESULT hr = pin->EnumMediaTypes(types.out());
        if (SUCCEEDED(hr) && types) {
            hr = TryMediaTypes(pReceivePin, pmt, types.get());
        } else if (hr != E_OUTOFMEMORY) {
            continue; // a pin need not name types
        }
        if (hr == S_OK) return S_OK;
        if (result == VFW_E_NO_ACCEPTABLE_TYPES) result = hr;
    }
    return result;
}

STDMETHODIMP CBasePin::ReceiveConnection(IPin* pConnector, const AM_MEDIA_TYPE* pmt) {
    CheckPointer(pConnector, E_POINTER);
    CheckPointer(pmt, E_POINTER);
    CAutoLock lock(m_pLock);
    HRESULT hr = checkConnectable();
    if (FAILED(hr)) return hr;
    CMediaType type;
    hr = guarded([&] { return CheckConnect(pConnector); });
    if (SUCCEEDED(hr)) hr = type.Set(*pmt);
    if (SUCCEEDED(hr)) hr = checkType(&type);
    if (SUCCEEDED(hr)) {
        setConnected(pConnector);
        hr = guarded([&] { return SetMediaType(&type); });
        if (SUCCEEDED(hr)) hr = guarded([&] { return CompleteConnect(pConnector); });
        if (SUCCEEDED(hr)) return S_OK;
    }
    breakQuietly();
    return hr;
}

STDMETHODIMP CBasePin::Disconnect() {
    CAutoLock lock(m_pLock);
    return IsStopped() ? DisconnectInternal() : VFW_E_NOT_STOPPED;
}

HRESULT CBasePin::DisconnectInternal() {
    if (!m_Connected) return S_FALSE;
    const HRESULT hr = guarded([this] { return BreakConnect(); });
    if (FAILED(hr)) return hr;
    setConnected(nullptr);
    return S_OK;
}

STDMETHODIMP CBasePin::ConnectedTo(IPin** pPin) {
    CheckPointer(pPin, E_POINTER);
    CAutoLock lock(&m_connection);
    *pPin = counted(m_Connected);
    return *pPin ? S_OK : VFW_E_NOT_CONNECTED;
}

STDMETHODIMP CBasePin::ConnectionMediaType(AM_MEDIA_TYPE* pmt) {
    CheckPointer(pmt, E_POINTER);
    CAutoLock lock(&m_connection);
    if (IsConnected()) return CopyMediaType(pmt, &m_mt);
    *pmt = CMediaType(); // initialised, and without a block that two would own
    return VFW_E_NOT_CONNECTED;
}

STDMETHODIMP CBasePin::QueryPinInfo(PIN_INFO* pInfo) {
    CheckPointer(pInfo, E_POINTER);
    *pInfo = {};
    pInfo->pFilter = counted(m_pFilter);
    pInfo->dir = m_dir;
    std::wcsncpy(pInfo->achName, m_pName, std::size(pInfo->achName) - 1);
    return S_OK;
}

STDMETHODIMP CBasePin::QueryDirection(PIN_DIRECTION* pPinDir) {
    CheckPointer(pPinDir, E_POINTER);
    *pPinDir = m_dir;
    return S_OK;
}

STDMETHODIMP CBasePin::QueryId(LPWSTR* Id) {
    CheckPointer(Id, E_POINTER);
    const size_t length = std::wcslen(m_pName) + 1;
    *Id = static_cast<LPWSTR>(CoTaskMemAlloc(length * sizeof(WCHAR)));
    if (!*Id) return E_OUTOFMEMORY;
    std::copy_n(m_pName, length, *Id);
    return S_OK;
}

// Anything but S_OK means no: S_FALSE from CheckMediaType is a refusal, too. A pin that is being stopped accepts no
// other type.
STDMETHODIMP CBasePin::QueryAccept(const AM_MEDIA_TYPE* pmt) {
    CheckPointer(pmt, E_POINTER);
    HRESULT hr = S_OK;
    const CMediaType type(*pmt, &hr);
    if (hr == E_OUTOFMEMORY) return hr;
    const Question question(*this);
    if (FAILED(hr) || !question.isAllowed()) return S_FALSE;
    return guarded([&] { return CheckMediaType(&type); }) == S_OK ? S_OK : S_FALSE;
}

STDMETHODIMP CBasePin::EnumMediaTypes(IEnumMediaTypes** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    return guarded([&] {
        *ppEnum = kestra::com::enumerate(*this);
        return S_OK;
    });
}

STDMETHODIMP CBasePin::QueryInternalConnections(IPin**, ULONG*) {
    return E_NOTIMPL;
}

STDMETHODIMP CBasePin::Notify(IBaseFilter*, Quality) {
    return E_NOTIMPL;
}

STDMETHODIMP CBasePin::SetSink(IQualityControl* piqc) {
    m_pQSink = piqc; // not counted, as the interface requires
    return S_OK;
}

HRESULT CBasePin::SetMediaType(const CMediaType* pmt) {
    CAutoLock lock(&m_connection);
    return m_mt.Set(*pmt);
}

HRESULT CBasePin::CheckConnect(IPin* pPin) {
    PIN_DIRECTION other;
    const HRESULT hr = pPin->QueryDirection(&other);
    if (FAILED(hr)) return hr;
    return other == m_dir ? VFW_E_INVALID_DIRECTION : S_OK;
}
