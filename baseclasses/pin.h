// Pins: what every pin answers, and the output pin with its allocator.
#pragma once

#include "filter.h"

class CBasePin;

namespace kestra::com {

/// Held while a pin's derived class is asked about its media types, which it may answer with m_pLock held. Whoever
/// stops the stream holds that lock while waiting for the delivering thread; so a receiver that asks from inside
/// Receive acquires it here first or is told that it cannot ask now.
class Question {
public:
    explicit Question(CBasePin& pin);
    ~Question();
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    bool isAllowed() const { return m_allowed; }

private:
    CCritSec* m_held = nullptr;
    bool m_allowed = true;
};

} // namespace kestra::com

/// Base of every pin. Its filter owns it, and a reference to the pin is one to the filter. Holds the pin that it is
/// connected to. m_pLock, usually the filter's, guards connecting and disconnecting and may be held while waiting for a
/// worker; what a receiver may ask from inside Receive (ConnectedTo, ConnectionMediaType, QueryPinInfo, QueryDirection,
/// QueryId, QueryAccept, EnumMediaTypes) does not wait for it.
class CBasePin : public CUnknown, public IPin, public IQualityControl {
public:
    CBasePin(LPCTSTR pObjectName, CBaseFilter* pFilter, CCritSec* pLock, HRESULT* phr, LPCWSTR pName,
             PIN_DIRECTION dir);
    ~CBasePin() override;

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE NonDelegatingAddRef() override { return m_pFilter->AddRef(); }
    ULONG STDMETHODCALLTYPE NonDelegatingRelease() override { return m_pFilter->Release(); }

    STDMETHODIMP Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP ReceiveConnection(IPin* pConnector, const AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP Disconnect() override;
    STDMETHODIMP ConnectedTo(IPin** pPin) override;
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP QueryPinInfo(PIN_INFO* pInfo) override;
    STDMETHODIMP QueryDirection(PIN_DIRECTION* pPinDir) override;
    STDMETHODIMP QueryId(LPWSTR* Id) override;
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** ppEnum) override;
    STDMETHODIMP QueryInternalConnections(IPin** apPin, ULONG* nPin) override;
    STDMETHODIMP EndOfStream() override { return S_OK; }
    STDMETHODIMP BeginFlush() override = 0;
    STDMETHODIMP EndFlush() override = 0;
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }
    STDMETHODIMP Notify(IBaseFilter* pSender, Quality q) override;
    STDMETHODIMP SetSink(IQualityControl* piqc) override;

    BOOL IsConnected() { return m_Connected != nullptr; }
    IPin* GetConnected() { return m_Connected; }
    BOOL IsStopped() { return m_pFilter->IsStopped(); }
    LPWSTR Name() { return m_pName; }
    bool CanReconnectWhenActive() { return m_bCanReconnectWhenActive; }
    virtual LONG GetMediaTypeVersion() { return m_TypeVersion; }
    /// The pin offers other types from now on: open enumerators are out of sync.
    void IncrementTypeVersion() { InterlockedIncrement(&m_TypeVersion); }

    virtual HRESULT CheckMediaType(const CMediaType*) = 0;
    virtual HRESULT SetMediaType(const CMediaType*);
    virtual HRESULT CheckConnect(IPin*);
    virtual HRESULT BreakConnect() { return S_OK; }
    virtual HRESULT CompleteConnect(IPin*) { return S_OK; }
    virtual HRESULT GetMediaType(int, CMediaType*) { return E_UNEXPECTED; }
    virtual HRESULT Active() { return S_OK; }
    virtual HRESULT Inactive() { return S_OK; }

protected:
    HRESULT AttemptConnection(IPin* pReceivePin, const CMediaType* pmt);
    HRESULT TryMediaTypes(IPin* pReceivePin, const CMediaType* pmt, IEnumMediaTypes* pEnum);
    /// Connects with pmt if it is complete, else with the first type of either pin that matches and is accepted.
    HRESULT AgreeMediaType(IPin* pReceivePin, const CMediaType* pmt);
    HRESULT DisconnectInternal();

    WCHAR* m_pName = nullptr;
    IPin* m_Connected = nullptr;
    PIN_DIRECTION m_dir;
    CCritSec* m_pLock;
    bool m_bCanReconnectWhenActive = false;
    bool m_bTryMyTypesFirst = false;
    CBaseFilter* m_pFilter; // not counted: owns the pin
    IQualityControl* m_pQSink = nullptr;
    LONG m_TypeVersion = 1;
    CMediaType m_mt;

private:
    friend class CBaseOutputPin;
    friend class kestra::com::Question;
    HRESULT checkConnectable();
    void setConnected(IPin* pin);
    void breakQuietly();
    HRESULT checkType(const CMediaType* pmt);

    CCritSec m_connection;          // guards the other pin and the media type while they change; held briefly
    volatile DWORD m_deliverer = 0; // the thread that is inside the receiver's Receive
};

/// An output pin: agrees on an allocator when it connects, and delivers samples. Holds the allocator and the receiver's
/// input interface while connected. GetDeliveryBuffer and the Deliver methods take no lock: they are the streaming
/// thread's, one at a time, which ends before the pin is disconnected.
class CBaseOutputPin : public CBasePin {
public:
    CBaseOutputPin(LPCTSTR pObjectName, CBaseFilter* pFilter, CCritSec* pLock, HRESULT* phr, LPCWSTR pName);
    ~CBaseOutputPin() override;

    STDMETHODIMP EndOfStream() override { return E_UNEXPECTED; }
    STDMETHODIMP BeginFlush() override { return E_UNEXPECTED; }
    STDMETHODIMP EndFlush() override { return E_UNEXPECTED; }
    HRESULT CompleteConnect(IPin* pReceivePin) override;
    HRESULT CheckConnect(IPin* pPin) override;
    HRESULT BreakConnect() override;
    HRESULT Active() override;
    HRESULT Inactive() override;

    /// Agrees on the receiver's allocator or, if that fails, one of ours. @param pAlloc  counted; null on failure
    virtual HRESULT DecideAllocator(IMemInputPin* pPin, IMemAllocator** pAlloc);
    /// Sets the number and size of the buffers. @param ppropInputRequest  in: what the receiver asks for
    virtual HRESULT DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* ppropInputRequest) = 0;
    virtual HRESULT InitAllocator(IMemAllocator** ppAlloc);
    /// Waits for a free buffer, counted. @return VFW_E_NOT_COMMITTED while stopped, E_NOINTERFACE unconnected; null
    /// then
    virtual HRESULT GetDeliveryBuffer(IMediaSample** ppSample, REFERENCE_TIME* pStartTime, REFERENCE_TIME* pEndTime,
                                      DWORD dwFlags);
    virtual HRESULT Deliver(IMediaSample* pSample);
    virtual HRESULT DeliverEndOfStream();

protected:
    IMemAllocator* m_pAllocator = nullptr;
    IMemInputPin* m_pInputPin = nullptr;
};
