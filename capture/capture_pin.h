// What the video and audio pins share: a list of formats to choose from, a connection, and runs. Each class of pins
// adds its formats, its samples and its trace texts.
#pragma once

#include "capture/capture_run.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

namespace kestra {

/// The trace texts of a pin, given whole in its class.
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
        const wchar_t *start, *none, *failed, *done; ///< none: null: writes nothing
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

/// The constants of a class of pins.
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

/// Methods are called on the application's threads. The filter's state lock, which is also m_pLock, guards every member
/// without a note of its own. Frames arrive on the grabbing threads and reach only the run.
class CapturePin : public CSourceStream, public IKsPropertySet, public IAMStreamConfig, public ISpecifyPropertyPages {
public:
    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    /// Called by the filter once it has chosen a card, before anyone else can reach the pin: from now on the pin offers
    /// the format that the user chose last.
    void useCard(TARNIS_HANDLE grabber);
    /// Passes the filter's state to the run, if there is one.
    void setRunState(CaptureRun::State state) const;
    /// True from a start, even one that failed halfway, until takeBack.
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
    /// Takes no state lock: a receiver asks from inside its Receive, while a stop holds the lock and waits for that
    /// call to end.
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* pmt) override;
    HRESULT BreakConnect() override;
    HRESULT GetMediaType(int iPosition, CMediaType* pmt) override;
    HRESULT CheckMediaType(const CMediaType* pmt) override;
    HRESULT DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) override;
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT FillBuffer(IMediaSample*) override { return E_UNEXPECTED; } // samples are filled on the grabbing thread

protected:
    CapturePin(LPCTSTR name, HRESULT* phr, CaptureFilter* filter, LPCWSTR pinName, const PinKind& kind);

    /// Makes the media type of a format. @return S_OK or E_OUTOFMEMORY
    virtual HRESULT makeType(uint32_t index, CMediaType& type) = 0;
    /// Writes the capability record (capabilityBytes long) of a type.
    virtual void describe(const CMediaType& type, BYTE* capabilities) const = 0;
    /// Sets the number and size of the buffers for the connection's type.
    virtual void requestBuffers(ALLOCATOR_PROPERTIES& properties) = 0;
    /// @return a failure, after tracing it: without a card no type is accepted
    virtual HRESULT checkCard() { return S_OK; }
    /// Starts, once the allocator is committed. Traces its own outcome.
    virtual HRESULT begin() = 0;
    /// Makes a run for the connection's type and sets what the card is to produce.
    virtual std::shared_ptr<CaptureRun> makeRun(CaptureRun::Receiver receiver, CaptureRun::State state) const = 0;

    /// Claims the channel and starts a run. @return S_OK, or E_UNEXPECTED after tracing it; a claim is kept until
    /// takeBack
    HRESULT startRun();
    /// Undoes every start since the last call. The caller holds a reference of its own.
    virtual void takeBack();
    /// Whether the channel is claimed for a run. Any thread.
    bool holdsAccess() const { return m_accessClaims > 0; }
    /// The type at a position. @param set the only type offered; null: all are
    HRESULT offer(int position, CMediaType* pmt, const CMediaType* set);

    CaptureFilter& m_capture;
    const PinKind& m_kind;
    TARNIS_HANDLE m_hGrabber = nullptr;
    uint32_t m_format = 0;             ///< index, as persisted; what is delivered follows from the connection's type
    std::shared_ptr<CaptureRun> m_run; ///< the latest; kept until the next, so that its late frames are recognised

private:
    std::shared_ptr<const CMediaType> setFormat() const;
    HRESULT accept(const AM_MEDIA_TYPE* pmt, const CMediaType* set);

    mutable std::mutex m_setFormatMutex;
    std::shared_ptr<const CMediaType> m_setFormat; ///< null if none was set; guarded by m_setFormatMutex
    bool m_begun = false;
    std::atomic<int> m_accessClaims = 0; ///< claims to be released; changed with the state lock held
};

} // namespace kestra
