// The video pin: four formats, and one sample for each frame.
#pragma once

#include "capture/capture_pin.h"
#include "capture/color_interfaces.h"

class CKestraStream final : public kestra::CapturePin {
public:
    CKestraStream(HRESULT* phr, CKestraCapture* pFilter);
    ~CKestraStream() override;

    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    /// Gets the card's buffers ready if the pin is connected in that graph and has not claimed its channel yet (its own
    /// start begins by starting the sound). Takes no lock: an audio pin calls it with its own filter's lock held.
    void prepareFor(const IFilterGraph* graph) noexcept;
    HRESULT SetMediaType(const CMediaType* pmt) override;

    // For the filter's analysis, under the state lock.
    bool isRgbOut() const;
    /// What the card is grabbing; null if it is not.
    const TarnisCameraData* cameraData() const;

protected:
    HRESULT makeType(uint32_t index, CMediaType& type) override;
    void describe(const CMediaType& type, BYTE* capabilities) const override;
    void requestBuffers(ALLOCATOR_PROPERTIES& properties) override;
    HRESULT begin() override;
    std::shared_ptr<kestra::CaptureRun> makeRun(kestra::CaptureRun::Receiver receiver,
                                                kestra::CaptureRun::State state) const override;

private:
    kestra::ColorInterfaces m_colors;
    std::atomic<uint32_t> m_promisedSelector = TARNIS_OUTPUT_YUV422_8; ///< of the connection
};
