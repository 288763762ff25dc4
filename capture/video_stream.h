// The video pin: formats on the application's threads, frames on the grab engine's.
#pragma once

#include "capture/color_interfaces.h"
#include "capture/frame_writer.h"
#include "device/tarnis.h"

#include <streams.h>

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <atomic>

class CKestraCapture;

class CKestraStream : public CSourceStream,
                      public IKsPropertySet,
                      public IAMStreamConfig,
                      public ISpecifyPropertyPages {
public:
    CKestraStream(HRESULT* phr, CKestraCapture* pFilter);
    ~CKestraStream() override;

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    /// The filter's, once it has chosen a card: before anybody else can reach the pin.
    void setCard(TARNIS_HANDLE grabber, int8_t port) {
        m_hGrabber = grabber;
        m_port = port;
    }

    /// Gets the card's buffers ready if the pin is connected in that graph and has not started. Takes no lock: the
    /// audio pin calls, under the lock of its own filter, and what is read here changes only while no graph starts.
    void prepareFor(const IFilterGraph* graph) noexcept;

    // For the filter's analysis, under the state lock.
    bool isRgbOut() const { return outputSelector() == TARNIS_OUTPUT_RGB24; }
    bool isGrabbing() const { return m_ownerReferences > 0; }
    const TarnisCameraData& cameraData() const { return m_cameraData; }

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
    HRESULT GetMediaType(int iPosition, CMediaType* pmt) override;
    HRESULT CheckMediaType(const CMediaType* pmt) override;
    HRESULT DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) override;
    HRESULT Active() override;
    HRESULT Inactive() override;
    HRESULT FillBuffer(IMediaSample*) override { return E_UNEXPECTED; } // the grab engine's thread fills

private:
    static void onFrame(uint64_t context, const TarnisFrameInfo* pFrameInfo) noexcept;
    void SDIGrabVideoCallback(const TarnisFrameInfo* pFrameInfo);
    void deliverFrame(const TarnisFrameInfo& frame);
    bool fillSample(IMediaSample& sample, const TarnisFrameInfo& frame);
    void endStreamOfLostDevice();
    HRESULT readPosition(int iPosition, CMediaType& type);

    CKestraCapture* const m_capture;
    kestra::ColorInterfaces m_colors;
    TARNIS_HANDLE m_hGrabber = nullptr;
    int8_t m_port = 0;
    std::atomic<uint32_t> m_videoFormat{0}; ///< as persisted; frames are made of effectiveFormat()
    bool m_formatSet = false;
    CMediaType m_setFormat;
    TarnisCameraData m_cameraData{};
    LONGLONG m_timeStampFrames = 0, m_deliveredFrames = 0;
    int32_t m_timeStampRate = 25;       ///< frames per second
    std::atomic<int> m_accessClaims{0}; ///< DMA accesses to be released; changed under the state lock
    int m_ownerReferences = 0;          ///< taken by Active, given back by Inactive; under the state lock

    kestra::VideoFormat effectiveFormat() const {
        const uint32_t format = m_videoFormat;
        return format < kestra::kVideoFormats ? static_cast<kestra::VideoFormat>(format) : kestra::kYuy2;
    }
    /// What the card is to make for the effective format.
    uint32_t outputSelector() const {
        const kestra::VideoFormat format = effectiveFormat();
        return format == kestra::kRgb24 || format == kestra::kRgb32 ? TARNIS_OUTPUT_RGB24 : TARNIS_OUTPUT_YUV422_8;
    }
};
