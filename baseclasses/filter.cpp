#include "filter.h"

#include "firewall.h"
#include "held.h"
#include "pin.h"
#include "registration.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <new>

using kestra::com::guarded;
using kestra::com::Held;

CBaseFilter::CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid)
    : CUnknown(pName, pUnk), m_clsid(clsid), m_pLock(pLock) {}

CBaseFilter::CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid, HRESULT*)
    : CBaseFilter(pName, pUnk, pLock, clsid) {}

CBaseFilter::~CBaseFilter() {
    delete[] m_pName;
    if (m_pClock) m_pClock->Release();
}

HRESULT CBaseFilter::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IBaseFilter || riid == IID_IMediaFilter || riid == IID_IPersist) {
        return GetInterface(static_cast<IBaseFilter*>(this), ppv);
    }
    if (riid == IID_IAMovieSetup) return GetInterface(static_cast<IAMovieSetup*>(this), ppv);
    return CUnknown::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CBaseFilter::GetClassID(CLSID* pClsID) {
    CheckPointer(pClsID, E_POINTER);
    *pClsID = m_clsid;
    return S_OK;
}

// Calls `action` on every connected pin until one fails. @return how many pins were visited without a failure.
template <class Action>
HRESULT CBaseFilter::forConnectedPins(int* visited, Action action) {
    return guarded([&]() -> HRESULT {
        const int count = GetPinCount();
        for (*visited = 0; *visited < count; ++*visited) {
            CBasePin* pin = GetPin(*visited);
            if (!pin || !pin->IsConnected()) continue;
            const HRESULT hr = action(*pin);
            if (FAILED(hr)) return hr;
        }
        return S_OK;
    });
}

// Every connected pin is stopped, whatever another says; the first failure is the answer.
STDMETHODIMP CBaseFilter::Stop() {
    CAutoLock lock(m_pLock);
    HRESULT result = S_OK;
    if (m_State != State_Stopped) {
        int visited = 0;
        const HRESULT hr = forConnectedPins(&visited, [&](CBasePin& pin) {
            const HRESULT stopped = guarded([&] { return pin.Inactive(); });
            if (FAILED(stopped) && SUCCEEDED(result)) result = stopped;
            return S_OK;
        });
        if (SUCCEEDED(result)) result = hr;
    }
    m_State = State_Stopped;
    return result;
}

// A filter that cannot pause stays stopped, so Stop would not visit the pins that had been activated before the
// failure.
STDMETHODIMP CBaseFilter::Pause() {
    CAutoLock lock(m_pLock);
    if (m_State == State_Stopped) {
        int activated = 0;
        const HRESULT hr = forConnectedPins(&activated, [](CBasePin& pin) { return pin.Active(); });
        if (FAILED(hr)) {
            int visited = 0;
            forConnectedPins(&visited, [&](CBasePin& pin) {
                if (visited < activated) guarded([&] { return pin.Inactive(); });
                return S_OK;
            });
            return hr;
        }
    }
    m_State = State_Paused;
    return S_OK;
}

STDMETHODIMP CBaseFilter::Run(REFERENCE_TIME tStart) {
    CAutoLock lock(m_pLock);
    m_tStart = tStart;
    if (m_State == State_Stopped) {
        const HRESULT hr = guarded([this] { return Pause(); });
        if (FAILED(hr)) return hr;
    }
    if (m_State != State_Running) {
        int visited = 0;
        const HRESULT hr = forConnectedPins(&visited, [tStart](CBasePin& pin) { return pin.Run(tStart); });
        if (FAILED(hr)) return hr;
    }
    m_State = State_Running;
    return S_OK;
}

STDMETHODIMP CBaseFilter::GetState(DWORD, FILTER_STATE* State) {
    CheckPointer(State, E_POINTER);
    *State = m_State;
    return S_OK;
}

STDMETHODIMP CBaseFilter::SetSyncSource(IReferenceClock* pClock) {
    CAutoLock lock(m_pLock);
    if (pClock) pClock->AddRef();
    if (m_pClock) m_pClock->Release();
    m_pClock = pClock;
    return S_OK;
}

STDMETHODIMP CBaseFilter::GetSyncSource(IReferenceClock** pClock) {
    CheckPointer(pClock, E_POINTER);
    CAutoLock lock(m_pLock);
    if (m_pClock) m_pClock->AddRef();
    *pClock = m_pClock;
    return S_OK;
}

STDMETHODIMP CBaseFilter::EnumPins(IEnumPins** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    return guarded([&] {
        *ppEnum = new CEnumPins(this, nullptr);
        return S_OK;
    });
}

STDMETHODIMP CBaseFilter::FindPin(LPCWSTR Id, IPin** ppPin) {
    CheckPointer(ppPin, E_POINTER);
    *ppPin = nullptr;
    CheckPointer(Id, E_POINTER);
    CAutoLock lock(m_pLock);
    return guarded([&]() -> HRESULT {
        const int count = GetPinCount();
        for (int i = 0; i < count; ++i) {
            CBasePin* pin = GetPin(i);
            if (!pin || std::wcscmp(pin->Name(), Id) != 0) continue;
            pin->AddRef();
            *ppPin = pin;
            return S_OK;
        }
        return VFW_E_NOT_FOUND;
    });
}

STDMETHODIMP CBaseFilter::QueryFilterInfo(FILTER_INFO* pInfo) {
    CheckPointer(pInfo, E_POINTER);
    CAutoLock lock(m_pLock);
    *pInfo = {};
    if (m_pName) std::wcsncpy(pInfo->achName, m_pName, std::size(pInfo->achName) - 1);
    pInfo->pGraph = m_pGraph;
    if (m_pGraph) m_pGraph->AddRef();
    return S_OK;
}

STDMETHODIMP CBaseFilter::JoinFilterGraph(IFilterGraph* pGraph, LPCWSTR pName) {
    CAutoLock lock(m_pLock);
    WCHAR* name = nullptr;
    if (pName) {
        const size_t length = std::wcslen(pName) + 1;
        name = new (std::nothrow) WCHAR[length];
        if (!name) return E_OUTOFMEMORY;
        std::copy_n(pName, length, name);
    }
    delete[] m_pName;
    m_pName = name;
    m_pGraph = pGraph;
    // The graph holds the filter; holding the graph or its sink in return would keep both for ever.
    Held<IMediaEventSink> sink;
    if (pGraph) pGraph->QueryInterface(IID_IMediaEventSink, sink.outVoid());
    m_pSink = sink.get();
    return S_OK;
}

STDMETHODIMP CBaseFilter::QueryVendorInfo(LPWSTR* pVendorInfo) {
    if (pVendorInfo) *pVendorInfo = nullptr;
    return E_NOTIMPL;
}

HRESULT CBaseFilter::StreamTime(CRefTime& rtStream) {
    CAutoLock lock(m_pLock);
    if (!m_pClock) return VFW_E_NO_CLOCK;
    REFERENCE_TIME now = 0;
    const HRESULT hr = m_pClock->GetTime(&now);
    if (FAILED(hr)) return hr;
    rtStream = now - m_tStart;
    return S_OK;
}

BOOL CBaseFilter::IsActive() {
    CAutoLock lock(m_pLock);
    return m_State == State_Paused || m_State == State_Running;
}

HRESULT CBaseFilter::NotifyEvent(long EventCode, LONG_PTR EventParam1, LONG_PTR EventParam2) {
    IMediaEventSink* sink = m_pSink; // without the lock: Stop holds it while it waits for a worker that is here
    if (!sink) return E_NOTIMPL;
    if (EventCode == EC_COMPLETE) EventParam2 = reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(this));
    return sink->Notify(EventCode, EventParam1, EventParam2);
}

HRESULT CBaseFilter::ReconnectPin(IPin* pPin, AM_MEDIA_TYPE const* pmt) {
    if (!m_pGraph) return E_NOINTERFACE;
    Held<IFilterGraph2> graph2;
    if (FAILED(m_pGraph->QueryInterface(IID_IFilterGraph2, graph2.outVoid()))) return m_pGraph->Reconnect(pPin);
    return graph2->ReconnectEx(pPin, pmt);
}

STDMETHODIMP CBaseFilter::Register() {
    return setup(TRUE);
}

STDMETHODIMP CBaseFilter::Unregister() {
    return setup(FALSE);
}

HRESULT CBaseFilter::setup(BOOL registered) {
    return guarded([&]() -> HRESULT {
        const AMOVIESETUP_FILTER* data = GetSetupData();
        if (!data) return S_FALSE;
        return kestra::com::registerFilter(*data, registered);
    });
}
