// One input pin, which takes what comes.
#include "ctl/doctor_sink.h"

// The base classes want a class table; this program serves none.
CFactoryTemplate g_Templates[1];
int g_cTemplates = 0;

namespace kestra::ctl {

CountingPin::CountingPin(CountingSink* filter, CCritSec* lock, HRESULT* phr)
    : CBasePin(NAME("in"), filter, lock, phr, L"In", PINDIR_INPUT) {}

HRESULT STDMETHODCALLTYPE CountingPin::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IMemInputPin) return GetInterface(static_cast<IMemInputPin*>(this), ppv);
    return CBasePin::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CountingPin::EndOfStream() {
    streamHasEnded = true;
    return S_OK;
}

STDMETHODIMP CountingPin::GetAllocator(IMemAllocator** offered) {
    if (!offered) return E_POINTER;
    *offered = nullptr;
    return VFW_E_NO_ALLOCATOR;
}

STDMETHODIMP CountingPin::Receive(IMediaSample* sample) {
    bytes += static_cast<uint64_t>(sample->GetActualDataLength());
    ++samples;
    return S_OK;
}

STDMETHODIMP CountingPin::ReceiveMultiple(IMediaSample** received, LONG count, LONG* processed) {
    for (*processed = 0; *processed < count; ++*processed)
        Receive(received[*processed]);
    return S_OK;
}

CountingSink::CountingSink()
    : CBaseFilter(NAME("counting sink"), nullptr, &m_sinkLock, GUID_NULL), pin(this, &m_sinkLock, &m_created) {}

ComRef<CountingSink> CountingSink::create() {
    auto* filter = new CountingSink;
    filter->AddRef();
    return ComRef<CountingSink>(filter);
}

} // namespace kestra::ctl
