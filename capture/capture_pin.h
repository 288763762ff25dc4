// What the pins of picture and sound have in common: one list of formats of which the user chooses, a connection, and
// runs. A class of pins has its formats, its samples and its lines.
#pragma once

#include "capture/capture_run.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

namespace kestra {

/// The lines of a pin, which stand whole in its class.
struct PinTexts {
    struct Connect {
        const wchar_t *start, *alreadyConnected, *notStopped, *failed, *done;
    } connect;
    struct GetMediaType {
        const wchar_t *start, *noMoreItems, *noMemory, *done;
    } getMediaType;
    struct CheckMediaType {
        const wchar_t *start, *failed, *done;
    } checkMediaType;
    struct SetFormat {
        const wchar_t *start, *notStopped, *invalid, *noMemory, *notReconnected, *done;
    } setFormat;
    struct GetStreamCaps {
        const wchar_t *start, *none, *failed, *done; ///< none: null where it leaves no line
    } getStreamCaps;
    struct Simple {
        const wchar_t *start, *done;
    } getFormat, getNumberOfCapabilities, getPages;
    struct DecideBufferSize {
        const wchar_t *start, *failed, *done;
    } decideBufferSize;
    struct Active {
        const wchar_t *start, *isActive, *notConnected, *failed, *noAccess, *notStarted, *done;
    } active;
    struct Inactive {
        const wchar_t *start, *notConnected, *failed, *done;
    } inactive;
};

/// What never changes of a class of pins.
struct PinKind {
    PinTexts texts;
    bool (*matches)(const AM_MEDIA_TYPE& wanted, const AM_MEDIA_TYPE& offered) noexcept; ///< may be incomplete
    uint32_t (*indexOf)(const AM_MEDIA_TYPE& type) noexcept; ///< of the format that a type stands for
    const wchar_t* setting;                                  ///< where the index of the format is remembered
    int formats;
    int capabilityBytes; ///< of the record that describes one
    const CLSID& page;
    int8_t port; ///< of the card
};

/// Methods are called on the application's threads; m_pFilter's state lock, which is m_pLock too, guards the members
/// that say nothing else. Frames come on the grab engine's threads, and to the run only.
class CapturePin : public CSourceStream, public IKsPropertySet, public IAMStreamConfig, public ISpecifyPropertyPages {
public:
    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    /// The filter's, once it has chosen a card, before anybody else can reach the pin: the format that the user chose
    /// last is offered from now on.
    void useCard(TARNIS_HANDLE grabber);
    /// What the filter is, for a run that there may be.
    void setRunState(CaptureRun::State state) const;
    /// From a start, which may have failed halfway, until it has been taken back.
    bool hasBegun() const { return m_begun; }
    int8_t port() const { return m_kind.port; }

    // IKsPropertySet: the pin's category.
    STDMETHODIMP Set(REFGUID guidPropSet, DWORD dwPropID, void* pInstanceData, DWORD cbInstanceData, void* pPropData,
                     DWORD cbPropData) override;
    STDMETHODIMP Get(REFGUID guidPropSet, DWORD dwPropID, void* pInstanceData, DWORD cbInstanceData, void* pPropData,
                     DWORD cbPropData, DWORD* pcbReturned) override;
    STDMETHODIMP QuerySupported(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) override;

    // IAMStreamConfig
    STDMETHODIMP SetFormat(AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP GetFormat(AM_MEDIA_TYPE** ppmt) override;
    STDMETHODIMP GetNumberOfCapabilities(int* piCount, int* piSize) override;
    STDMETHODIMP GetStreamCaps(int iIndex, AM_MEDIA_TYPE** ppmt, BYTE* pSCC) override;

    // ISpecifyPropertyPages
    STDMETHODIMP GetPages(CAUUID* pPages) override;

    // IPin and the base pin's operations.
    STDMETHODIMP Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) override;
    STDMETHODIMP QueryId(LPWSTR* Id) override;
    /// Without the state lock: a receiver asks from inside its Receive, for whose end a stop waits under that lock.
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* pmt) override;
    HRESULT BreakConnect() override;
    HRESULT GetMediaType(int iPosition, CMediaType* pmt) override;
    HRESULT CheckMediaType(const CMediaType* pmt) override;
    HRESULT DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) override;
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT FillBuffer(IMediaSample*) override { return E_UNEXPECTED; } // the grab engine's thread fills

protected:
    CapturePin(LPCTSTR name, HRESULT* phr, CaptureFilter* filter, LPCWSTR pinName, const PinKind& kind);

    /// Makes the type of a format, of index 0 below formats. @return E_OUTOFMEMORY
    virtual HRESULT makeType(uint32_t index, CMediaType& type) = 0;
    /// Writes the record of capabilityBytes that goes with a type.
    virtual void describe(const CMediaType& type, BYTE* capabilities) const = 0;
    /// Sets number and size of the buffers for the connection's type.
    virtual void requestBuffers(ALLOCATOR_PROPERTIES& properties) = 0;
    /// @return a failure, after its own line: without the card no type is accepted
    virtual HRESULT checkCard() { return S_OK; }
    /// Starts, once the allocator is committed. @return after its own line
    virtual HRESULT begin() = 0;
    /// Makes a run for the connection's type, and says what the card is to produce.
    virtual std::shared_ptr<CaptureRun> makeRun(CaptureRun::Receiver receiver, CaptureRun::State state) const = 0;

    /// Claims the channel and starts a run. @return S_OK, or E_UNEXPECTED after its line; what has been claimed stays
    /// so until takeBack
    HRESULT startRun();
    /// Undoes every start since the last time. Whoever calls holds a reference of his own.
    virtual void takeBack();
    /// Whether the channel is claimed for a run. Any thread.
    bool holdsAccess() const { return m_accessClaims > 0; }
    /// The type at a position. @param set  the only one that is offered; null: all are
    HRESULT offer(int position, CMediaType* pmt, const CMediaType* set);

    CaptureFilter& m_capture;
    const PinKind& m_kind;
    TARNIS_HANDLE m_hGrabber = nullptr;
    uint32_t m_format = 0;             ///< index, as persisted; what is delivered follows from the connection's type
    std::shared_ptr<CaptureRun> m_run; ///< the last one; replaced by the next, so that late frames of it are named

private:
    std::shared_ptr<const CMediaType> setFormat() const;
    HRESULT accept(const AM_MEDIA_TYPE* pmt, const CMediaType* set);

    mutable std::mutex m_setFormatMutex;
    std::shared_ptr<const CMediaType> m_setFormat; ///< null: none was set. Under m_setFormatMutex
    bool m_begun = false;
    std::atomic<int> m_accessClaims = 0; ///< DMA accesses to be released; changed under the state lock
};

} // namespace kestra
