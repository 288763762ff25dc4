// The audio pin: formats on the application's threads, sound on the grab engine's.
#pragma once

#include "capture/audio_formats.h"
#include "device/tarnis.h"

#include <streams.h>

#include <kestra_interfaces.h>
#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <atomic>

class CKestraAudioCapture;

class CKestraAudioStream final : public CSourceStream,
                                 public IKsPropertySet,
                                 public IAMStreamConfig,
                                 public ISpecifyPropertyPages,
                                 public IKestraAudioPropertyPage,
                                 public IAMBufferNegotiation {
public:
    /// True from a successful first start of any audio pin of the module to the next deactivation of one.
    static std::atomic<bool> m_bactive;

    CKestraAudioStream(HRESULT* phr, CKestraAudioCapture* pFilter);
    ~CKestraAudioStream() override;

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    /// The filter's, once it has chosen a card: before anybody else can reach the pin.
    void setCard(TARNIS_HANDLE grabber, int8_t port) {
        m_hGrabber = grabber;
        m_port = port;
    }
    /// Whether an Active is not undone yet, wholly or in part. Under the state lock.
    bool isGrabbing() const { return m_accessClaims > 0 || m_ownerReferences > 0; }

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

    // IKestraAudioPropertyPage: the audio format index, 0 for 16 bits, 1 for 24. Setting it stops a graph that is not
    // stopped and runs it afterwards; a refused width leaves it stopped. The pin must be in a graph.
    STDMETHODIMP get_BitDepth(unsigned char* index) override;
    STDMETHODIMP put_BitDepth(unsigned char index) override;

    // IAMBufferNegotiation: a block is what the card makes of a frame, so suggestions change nothing.
    STDMETHODIMP SuggestAllocatorProperties(const ALLOCATOR_PROPERTIES* pprop) override;
    STDMETHODIMP GetAllocatorProperties(ALLOCATOR_PROPERTIES* pprop) override;

    // IPin and the base pin's operations.
    STDMETHODIMP Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) override;
    HRESULT BreakConnect() override;
    HRESULT GetMediaType(int iPosition, CMediaType* pmt) override;
    HRESULT CheckMediaType(const CMediaType* pmt) override;
    HRESULT SetMediaType(const CMediaType* pmt) override;
    HRESULT DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) override;
    /// Called by the own filter's Pause and by every video pin that starts.
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT FillBuffer(IMediaSample*) override { return E_UNEXPECTED; } // the grab engine's thread fills

private:
    static void onBlock(uint64_t context, const TarnisFrameInfo* pFrameInfo) noexcept;
    void SDIGrabAudioCallback(const TarnisFrameInfo* pFrameInfo);
    void deliverBlock(const TarnisFrameInfo& block);
    HRESULT startGrabbing();
    void stopGrabbing();
    void fitBuffers(const TarnisCameraStatus& status);

    CKestraAudioCapture* const m_capture;
    TARNIS_HANDLE m_hGrabber = nullptr;
    int8_t m_port = 1;
    uint32_t m_audioFormat = kestra::kAudio16; ///< as persisted, below kAudioFormats
    bool m_formatSet = false;
    CMediaType m_setFormat;
    TarnisCameraData m_cameraData{};
    LONGLONG m_timeStampSamples = 0;                ///< delivered since the activation
    LONGLONG m_blocks = 0, m_bytesDelivered = 0;    ///< since the activation, for whoever debugs
    REFERENCE_TIME m_lastStart = 0;                 ///< of the last sample, in units of 100 ns
    std::atomic<int32_t> m_timeStampRate{25};       ///< frames per second; never 0
    std::atomic<uint32_t> m_bytesPerSecond{192000}; ///< of the connection
    int m_accessClaims = 0;                         ///< DMA accesses to be released; under the state lock
    int m_ownerReferences = 0;                      ///< taken by Active, given back by Inactive; under the state lock
};
