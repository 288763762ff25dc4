// The filter: states, graph, clock, pins.
#pragma once

#include "media_type.h"

class CBasePin;

/// Base of every filter. Holds its clock; holds neither its graph, which owns it, nor the graph's event sink. Its lock
/// is the derived class's, lives as long, and guards the state; Stop and Pause hold it while they call the pins, so
/// that a worker must never wait for it. What a worker or a receiver may ask meanwhile (GetState, the clock, the graph,
/// the pins, NotifyEvent) takes a short lock of its own at most. Any thread.
class CBaseFilter : public CUnknown, public IBaseFilter {
public:
    CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid);
    ~CBaseFilter() override;

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    STDMETHODIMP GetClassID(CLSID* pClsID) override;
    STDMETHODIMP Stop() override;
    STDMETHODIMP Pause() override;
    STDMETHODIMP Run(REFERENCE_TIME tStart) override;
    STDMETHODIMP GetState(DWORD dwMSecs, FILTER_STATE* State) override;
    STDMETHODIMP SetSyncSource(IReferenceClock* pClock) override;
    STDMETHODIMP GetSyncSource(IReferenceClock** pClock) override;
    STDMETHODIMP EnumPins(IEnumPins** ppEnum) override;
    STDMETHODIMP FindPin(LPCWSTR Id, IPin** ppPin) override;
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* pInfo) override;
    STDMETHODIMP JoinFilterGraph(IFilterGraph* pGraph, LPCWSTR pName) override;
    STDMETHODIMP QueryVendorInfo(LPWSTR* pVendorInfo) override;

    virtual int GetPinCount() = 0;
    /// Pin n, not counted; null if there is none.
    virtual CBasePin* GetPin(int n) = 0;
    virtual LONG GetPinVersion() { return m_PinVersion; }
    void IncrementPinVersion() { InterlockedIncrement(&m_PinVersion); }
    BOOL IsActive() { return m_State != State_Stopped; }
    BOOL IsStopped() { return m_State == State_Stopped; }
    /// Sends an event to the graph; the second parameter of EC_COMPLETE is the filter.
    /// @return E_NOTIMPL outside a graph or in one that takes no events.
    HRESULT NotifyEvent(long EventCode, LONG_PTR EventParam1, LONG_PTR EventParam2);
    /// Not counted; null outside a graph.
    IFilterGraph* GetFilterGraph() { return m_pGraph; }
    /// Lets the graph reconnect the pin, with the media type if one is given and the graph supports it. @return
    /// E_NOINTERFACE outside a graph.
    HRESULT ReconnectPin(IPin* pPin, AM_MEDIA_TYPE const* pmt);

protected:
    FILTER_STATE m_State = State_Stopped;
    IReferenceClock* m_pClock = nullptr;
    CLSID m_clsid;
    CCritSec* m_pLock;
    WCHAR* m_pName = nullptr;
    IFilterGraph* m_pGraph = nullptr;   // not counted: the graph owns the filter
    IMediaEventSink* m_pSink = nullptr; // not counted either
    LONG m_PinVersion = 1;

    friend class CBasePin;

private:
    template <class Action>
    HRESULT forConnectedPins(int* visited, Action action);

    CCritSec m_joined; // guards clock, graph, sink and name; held briefly, independently of m_pLock
};
