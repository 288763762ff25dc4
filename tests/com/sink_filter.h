// Our receiving filter, with or without the system's graph: keeps what it gets and misbehaves as a test asks.
#pragma once

#include "ctl/receiving_filter.h"
#include "tests/com/test_sink.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace kestra::test {

class SinkPin : public ctl::ReceivingPin {
public:
    using ReceivingPin::ReceivingPin;

    // What a test sets before it connects or while blocks come.
    std::atomic<HRESULT> receiveResult{S_OK};
    std::atomic<HANDLE> blockUntil{nullptr}; ///< Receive waits for this event
    std::atomic<bool> refuses24{false};
    std::function<void()> onReceive;
    IMemAllocator* allocator = nullptr; ///< offered; the test's
    size_t keep = 1000;                 ///< samples whose bytes are kept

    // What it saw.
    std::atomic<int> received{0}, endOfStreams{0}, insideReceive{0};
    std::vector<ReceivedSample> samples() const;
    void forget();
    const CMediaType& type() const { return m_mt; }

    HRESULT CheckMediaType(const CMediaType* type) override;
    STDMETHODIMP EndOfStream() override;
    STDMETHODIMP GetAllocator(IMemAllocator** offered) override;
    STDMETHODIMP Receive(IMediaSample* sample) override;
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }

private:
    mutable std::mutex m_mutex;
    std::vector<ReceivedSample> m_samples;
};
using SinkFilter = ctl::ReceivingFilter<SinkPin>;

} // namespace kestra::test
