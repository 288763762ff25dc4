// Where the doctor lets a filter's samples end: counted, and dropped.
#pragma once

#include "ctl/receiving_filter.h"

#include <atomic>

namespace kestra::ctl {

class CountingPin : public ReceivingPin {
public:
    using ReceivingPin::ReceivingPin;

    std::atomic<uint32_t> samples{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<bool> streamHasEnded{false};

    STDMETHODIMP EndOfStream() override {
        streamHasEnded = true;
        return S_OK;
    }
    STDMETHODIMP Receive(IMediaSample* sample) override {
        bytes += static_cast<uint64_t>(sample->GetActualDataLength());
        ++samples;
        return S_OK;
    }
    STDMETHODIMP ReceiveCanBlock() override { return S_FALSE; }
};
using CountingSink = ReceivingFilter<CountingPin>;

} // namespace kestra::ctl
