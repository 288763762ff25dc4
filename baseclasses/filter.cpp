// The filter: changes of state under its lock, what the graph gives it under a short one.
#include "filter.h"

#include "enumerators.h"
#include "firewall.h"
#include "held.h"
#include "pin.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

using kestra::com::counted;
using kestra::com::guarded;
using kestra::com::Held;

CBaseFilter::CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid)
    : CUnknown(pName, pUnk), m_clsid(clsid), m_pLock(pLock) {}

CBaseFilter::~CBaseFilter() {
    delete[] m_pName;
    if (m_pClock) m_pClock->Release();
}

HRESULT CBaseFilter::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IBaseFilter || riid == IID_IMediaFilter || riid == IID_IPersist) {
        return GetInterface(static_cast<IBaseFilter*>(this), ppv);
    }
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

// Every connected pin is stopped, whatever the others return; the first failure is returned.
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

STDMETHODIMP CBaseFilter::Run(REFERENCE_TIME) {
    CAutoLock lock(m_pLock);
    const HRESULT hr = m_State == State_Stopped ? guarded([this] { return Pause(); }) : S_OK;
    if (SUCCEEDED(hr)) m_State = State_Running;
    return FAILED(hr) ? hr : S_OK;
}

STDMETHODIMP CBaseFilter::GetState(DWORD, FILTER_STATE* State) {
    CheckPointer(State, E_POINTER);
    *State = m_State;
    return S_OK;
}

STDMETHODIMP CBaseFilter::SetSyncSource(IReferenceClock* pClock) {
    Held<IReferenceClock> clock(counted(pClock));
    CAutoLock lock(&m_joined);
    m_pClock = clock.exchange(m_pClock);
    return S_OK;
}

STDMETHODIMP CBaseFilter::GetSyncSource(IReferenceClock** pClock) {
    CheckPointer(pClock, E_POINTER);
    CAutoLock lock(&m_joined);
    *pClock = counted(m_pClock);
    return S_OK;
}

STDMETHODIMP CBaseFilter::EnumPins(IEnumPins** ppEnum) {
    CheckPointer(ppEnum, E_POINTER);
    *ppEnum = nullptr;
    return guarded([&] {
        *ppEnum = kestra::com::enumerate(*this);
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
            *ppPin = counted(pin);
            return S_OK;
        }
        return VFW_E_NOT_FOUND;
    });
}

STDMETHODIMP CBaseFilter::QueryFilterInfo(FILTER_INFO* pInfo) {
    CheckPointer(pInfo, E_POINTER);
    CAutoLock lock(&m_joined);
    *pInfo = {};
    if (m_pName) std::wcsncpy(pInfo->achName, m_pName, std::size(pInfo->achName) - 1);
    pInfo->pGraph = counted(m_pGraph);
    return S_OK;
}

STDMETHODIMP CBaseFilter::JoinFilterGraph(IFilterGraph* pGraph, LPCWSTR pName) {
    std::unique_ptr<WCHAR[]> name;
    if (pName) {
        const size_t length = std::wcslen(pName) + 1;
        name.reset(new (std::nothrow) WCHAR[length]);
        if (!name) return E_OUTOFMEMORY;
        std::copy_n(pName, length, name.get());
    }
    // The graph holds the filter; holding the graph or its sink in return would keep both forever.
    Held<IMediaEventSink> sink;
    if (pGraph) pGraph->QueryInterface(IID_IMediaEventSink, sink.outVoid());
    CAutoLock lock(m_pLock);
    CAutoLock joining(&m_joined);
    delete[] std::exchange(m_pName, name.release());
    m_pGraph = pGraph;
    m_pSink = sink.get();
    return S_OK;
}

STDMETHODIMP CBaseFilter::QueryVendorInfo(LPWSTR* pVendorInfo) {
    if (pVendorInfo) *pVendorInfo = nullptr;
    return E_NOTIMPL;
}

HRESULT CBaseFilter::NotifyEvent(long EventCode, LONG_PTR EventParam1, LONG_PTR EventParam2) {
    Held<IMediaEventSink> sink; // for the call: the filter may be leaving its graph on another thread
    {
        CAutoLock lock(&m_joined);
        sink.exchange(counted(m_pSink));
    }
    if (!sink) return E_NOTIMPL;
    if (EventCode == EC_COMPLETE) EventParam2 = reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(this));
    return sink->Notify(EventCode, EventParam1, EventParam2);
}

HRESULT CBaseFilter::ReconnectPin(IPin* pPin, AM_MEDIA_TYPE const* pmt) {
    FILTER_INFO info;
    CBaseFilter::QueryFilterInfo(&info);
    const Held<IFilterGraph> graph(info.pGraph);
    if (!graph) return E_NOINTERFACE;
    Held<IFilterGraph2> graph2;
    if (FAILED(graph->QueryInterface(IID_IFilterGraph2, graph2.outVoid()))) return graph->Reconnect(pPin);
    return graph2->ReconnectEx(pPin, pmt);
}
