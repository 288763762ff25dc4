// A filter with one input pin, which takes every format: the plain receiver, whose kinds only say what they do with
// samples.
#pragma once

#include "win32/com_ref.h"

#include <streams.h>

namespace kestra::ctl {

/// Offers no allocator, so that the source's is taken. Derive and say what Receive does.
class ReceivingPin : public CBasePin, public IMemInputPin {
public:
    ReceivingPin(CBaseFilter* filter, CCritSec* lock, HRESULT* phr)
        : CBasePin(NAME("in"), filter, lock, phr, L"In", PINDIR_INPUT) {}

    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IMemInputPin) return GetInterface(static_cast<IMemInputPin*>(this), ppv);
        return CBasePin::NonDelegatingQueryInterface(riid, ppv);
    }

    HRESULT CheckMediaType(const CMediaType*) override { return S_OK; }
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }
    STDMETHODIMP GetAllocator(IMemAllocator** offered) override {
        if (!offered) return E_POINTER;
        *offered = nullptr;
        return VFW_E_NO_ALLOCATOR;
    }
    STDMETHODIMP NotifyAllocator(IMemAllocator*, BOOL) override { return S_OK; }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override {
        for (*processed = 0; *processed < count; ++*processed)
            if (const HRESULT hr = Receive(samples[*processed]); hr != S_OK) return hr;
        return S_OK;
    }
};

/// @tparam Pin  of the constructor of ReceivingPin
template <class Pin>
class ReceivingFilter : public CBaseFilter {
public:
    static ComRef<ReceivingFilter> create() {
        auto* filter = new ReceivingFilter;
        filter->AddRef();
        return ComRef<ReceivingFilter>(filter);
    }
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? &pin : nullptr; }

private:
    ReceivingFilter()
        : CBaseFilter(NAME("receiver"), nullptr, &m_sinkLock, GUID_NULL), pin(this, &m_sinkLock, &m_created) {}
    HRESULT m_created = S_OK;
    CCritSec m_sinkLock;

public:
    Pin pin;
};

} // namespace kestra::ctl
