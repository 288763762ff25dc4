// Our receiving filter, with or without the system's graph: keeps what it gets and misbehaves as a test asks.
#pragma once

#include <streams.h>

#include "tests/com/test_sink.h"
#include "win32/com_ref.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace kestra::test {

class SinkFilter;

class SinkPin : public CBasePin, public IMemInputPin {
public:
    SinkPin(SinkFilter* filter, CCritSec* lock, HRESULT* phr);

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

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
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }
    STDMETHODIMP GetAllocator(IMemAllocator** offered) override;
    STDMETHODIMP NotifyAllocator(IMemAllocator*, BOOL) override { return S_OK; }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
    STDMETHODIMP Receive(IMediaSample* sample) override;
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override;
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }

private:
    mutable std::mutex m_mutex;
    std::vector<ReceivedSample> m_samples;
};

class SinkFilter : public CBaseFilter {
public:
    static ComRef<SinkFilter> create();
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? &pin : nullptr; }

private:
    SinkFilter();
    HRESULT m_created = S_OK;
    CCritSec m_sinkLock;

public:
    SinkPin pin;
};

} // namespace kestra::test
