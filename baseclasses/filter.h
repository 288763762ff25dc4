// The filter and the enumerators of its pins and their media types.
#pragma once

#include "media_type.h"
#include "setup_data.h"

class CBasePin;

/// Base of every filter. Holds its clock; holds neither its graph, which owns it, nor the graph's event sink. Its lock
/// is the derived class's, lives as long, and guards state, graph and clock; Stop, Pause and Run hold it while they
/// call the pins, so that a worker must never wait for it. The application's and the graph's threads enter; NotifyEvent
/// is the workers' too, which end before the filter leaves its graph.
class CBaseFilter : public CUnknown, public IBaseFilter, public IAMovieSetup {
public:
    CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid);
    CBaseFilter(LPCTSTR pName, LPUNKNOWN pUnk, CCritSec* pLock, REFCLSID clsid, HRESULT* phr);
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

    /// Enters the filter of GetSetupData with the system. @return S_FALSE if there are no such data.
    STDMETHODIMP Register() override;
    STDMETHODIMP Unregister() override;
    /// What Register tells the system; null: nothing. Not freed.
    virtual LPAMOVIESETUP_FILTER GetSetupData() { return nullptr; }

    virtual int GetPinCount() = 0;
    /// Pin n, not counted; null if there is none.
    virtual CBasePin* GetPin(int n) = 0;
    virtual LONG GetPinVersion() { return m_PinVersion; }
    void IncrementPinVersion() { InterlockedIncrement(&m_PinVersion); }
    /// Time since the start of the run. @return VFW_E_NO_CLOCK without a clock.
    virtual HRESULT StreamTime(CRefTime& rtStream);
    BOOL IsActive();
    BOOL IsStopped() { return m_State == State_Stopped; }
    /// Tells the graph; with EC_COMPLETE, whose second parameter is the filter, that too. Any thread, takes no lock.
    /// @return E_NOTIMPL outside a graph or in one that takes no events.
    HRESULT NotifyEvent(long EventCode, LONG_PTR EventParam1, LONG_PTR EventParam2);
    /// Not counted; null outside a graph.
    IFilterGraph* GetFilterGraph() { return m_pGraph; }
    /// Has the graph connect the pin again, with the media type if there is one and the graph can. @return
    /// E_NOINTERFACE outside a graph.
    HRESULT ReconnectPin(IPin* pPin, AM_MEDIA_TYPE const* pmt);

protected:
    FILTER_STATE m_State = State_Stopped;
    IReferenceClock* m_pClock = nullptr;
    CRefTime m_tStart;
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
    HRESULT setup(BOOL registered);
};

/// Enumerates a filter's pins; once they have changed it is out of sync until Reset. Owned by its references, the first
/// of which is its maker's; holds the filter. No lock: one thread at a time.
class CEnumPins : public IEnumPins {
public:
    CEnumPins(CBaseFilter* pFilter, CEnumPins* pEnumPins);
    virtual ~CEnumPins();
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP Next(ULONG cPins, IPin** ppPins, ULONG* pcFetched) override;
    STDMETHODIMP Skip(ULONG cPins) override;
    STDMETHODIMP Reset() override;
    STDMETHODIMP Clone(IEnumPins** ppEnum) override;

private:
    LONG m_cRef = 1;
    CBaseFilter* m_pFilter;
    int m_Position;
    int m_PinCount;
    LONG m_Version;
};

/// Enumerates a pin's media types, likewise; holds the pin.
class CEnumMediaTypes : public IEnumMediaTypes {
public:
    CEnumMediaTypes(CBasePin* pPin, CEnumMediaTypes* pEnumMediaTypes);
    virtual ~CEnumMediaTypes();
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP Next(ULONG cTypes, AM_MEDIA_TYPE** ppTypes, ULONG* pcFetched) override;
    STDMETHODIMP Skip(ULONG cTypes) override;
    STDMETHODIMP Reset() override;
    STDMETHODIMP Clone(IEnumMediaTypes** ppEnum) override;

private:
    LONG m_cRef = 1;
    CBasePin* m_pPin;
    int m_Position;
    LONG m_Version;
};
