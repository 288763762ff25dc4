// The audio pin: two formats, one sample per frame's block of sound. Video pins start it, too.
#pragma once

#include "capture/capture_pin.h"

#include <kestra_interfaces.h>

class CKestraAudioCapture;

class CKestraAudioStream final : public kestra::CapturePin,
                                 public IKestraAudioPropertyPage,
                                 public IAMBufferNegotiation {
public:
    /// True from the first successful start of any audio pin of the module until one is deactivated.
    static std::atomic<bool> m_bactive;

    CKestraAudioStream(HRESULT* phr, CKestraAudioCapture* pFilter);
    ~CKestraAudioStream() override;

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    // IKestraAudioPropertyPage: the audio format index, 0 for 16 bits, 1 for 24. Setting it stops a graph that is not
    // stopped and runs it afterwards; a refused width leaves it stopped. The pin must be in a graph.
    STDMETHODIMP get_BitDepth(unsigned char* index) override;
    STDMETHODIMP put_BitDepth(unsigned char index) override;

    // IAMBufferNegotiation: the card fixes the size of a block, so suggestions change nothing.
    STDMETHODIMP SuggestAllocatorProperties(const ALLOCATOR_PROPERTIES* pprop) override;
    STDMETHODIMP GetAllocatorProperties(ALLOCATOR_PROPERTIES* pprop) override;

protected:
    HRESULT makeType(uint32_t index, CMediaType& type) override;
    void describe(const CMediaType& type, BYTE* capabilities) const override;
    HRESULT checkCard() override;
    void requestBuffers(ALLOCATOR_PROPERTIES& properties) override;
    HRESULT begin() override;
    std::shared_ptr<kestra::CaptureRun> makeRun(kestra::CaptureRun::Receiver receiver,
                                                kestra::CaptureRun::State state) const override;
    void takeBack() override;

private:
    uint32_t promisedBytesPerSecond() const;
    void fitBuffers(const TarnisCameraStatus& status);

    int m_joins = 0; ///< starts while it was already running; each took a reference on the owner
};
