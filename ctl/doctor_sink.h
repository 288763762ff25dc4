// Where the doctor lets a filter's samples end: counted, and dropped. Takes every format.
#pragma once

#include "win32/com_ref.h"

#include <streams.h>

#include <atomic>

namespace kestra::ctl {

class CountingSink;

class CountingPin : public CBasePin, public IMemInputPin {
public:
    CountingPin(CountingSink* filter, CCritSec* lock, HRESULT* phr);

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    std::atomic<uint32_t> samples{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<bool> streamHasEnded{false};

    HRESULT CheckMediaType(const CMediaType*) override { return S_OK; }
    STDMETHODIMP EndOfStream() override;
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }
    STDMETHODIMP GetAllocator(IMemAllocator** offered) override;
    STDMETHODIMP NotifyAllocator(IMemAllocator*, BOOL) override { return S_OK; }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
    STDMETHODIMP Receive(IMediaSample* sample) override;
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override;
    STDMETHODIMP ReceiveCanBlock() override { return S_FALSE; }
};

class CountingSink : public CBaseFilter {
public:
    static ComRef<CountingSink> create();
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? &pin : nullptr; }

private:
    CountingSink();
    HRESULT m_created = S_OK;
    CCritSec m_sinkLock;

public:
    CountingPin pin;
};

} // namespace kestra::ctl
