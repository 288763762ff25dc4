#include "tests/com/sink_filter.h"

#include <mmreg.h>

// The base classes want a class table; this program serves none.
CFactoryTemplate g_Templates[1];
int g_cTemplates = 0;

namespace kestra::test {
namespace {

/// A sample without memory. Counts itself in its allocator.
class BareSample : public IMediaSample {
public:
    explicit BareSample(std::atomic<int>& alive) : m_alive(alive) { ++m_alive; }
    virtual ~BareSample() { --m_alive; }
    BareSample(const BareSample&) = delete;
    BareSample& operator=(const BareSample&) = delete;

    STDMETHODIMP QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override {
        const long left = --m_references;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    STDMETHODIMP GetPointer(BYTE** buffer) override {
        *buffer = nullptr;
        return S_OK;
    }
    STDMETHODIMP_(long) GetSize() override { return 0; }
    STDMETHODIMP GetTime(REFERENCE_TIME*, REFERENCE_TIME*) override { return VFW_E_SAMPLE_TIME_NOT_SET; }
    STDMETHODIMP SetTime(REFERENCE_TIME*, REFERENCE_TIME*) override { return S_OK; }
    STDMETHODIMP IsSyncPoint() override { return S_FALSE; }
    STDMETHODIMP SetSyncPoint(BOOL) override { return S_OK; }
    STDMETHODIMP IsPreroll() override { return S_FALSE; }
    STDMETHODIMP SetPreroll(BOOL) override { return S_OK; }
    STDMETHODIMP_(long) GetActualDataLength() override { return 0; }
    STDMETHODIMP SetActualDataLength(long) override { return S_OK; }
    STDMETHODIMP GetMediaType(AM_MEDIA_TYPE**) override { return S_FALSE; }
    STDMETHODIMP SetMediaType(AM_MEDIA_TYPE*) override { return S_OK; }
    STDMETHODIMP IsDiscontinuity() override { return S_FALSE; }
    STDMETHODIMP SetDiscontinuity(BOOL) override { return S_OK; }
    STDMETHODIMP GetMediaTime(LONGLONG*, LONGLONG*) override { return VFW_E_MEDIA_TIME_NOT_SET; }
    STDMETHODIMP SetMediaTime(LONGLONG*, LONGLONG*) override { return S_OK; }

private:
    std::atomic<int>& m_alive;
    std::atomic<long> m_references{1};
};

} // namespace

TestAllocator::TestAllocator() {
    CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                     reinterpret_cast<void**>(m_system.out()));
}

STDMETHODIMP TestAllocator::QueryInterface(REFIID riid, void** object) {
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IMemAllocator) return E_NOINTERFACE;
    *object = static_cast<IMemAllocator*>(this);
    AddRef();
    return S_OK;
}

STDMETHODIMP TestAllocator::SetProperties(ALLOCATOR_PROPERTIES* wanted, ALLOCATOR_PROPERTIES* actual) {
    requested = *wanted;
    return FAILED(setResult) ? setResult.load() : m_system->SetProperties(wanted, actual);
}

STDMETHODIMP TestAllocator::Commit() {
    return FAILED(commitResult) ? commitResult.load() : m_system->Commit();
}

STDMETHODIMP TestAllocator::Decommit() {
    return FAILED(decommitResult) ? decommitResult.load() : m_system->Decommit();
}

STDMETHODIMP TestAllocator::GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* end, DWORD flags) {
    *sample = nullptr;
    if (FAILED(getBufferResult)) return getBufferResult;
    if (!noPointer) return m_system->GetBuffer(sample, start, end, flags);
    *sample = new BareSample(bare);
    return S_OK;
}

SinkPin::SinkPin(SinkFilter* filter, CCritSec* lock, HRESULT* phr)
    : CBasePin(NAME("in"), filter, lock, phr, L"In", PINDIR_INPUT) {}

HRESULT STDMETHODCALLTYPE SinkPin::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IMemInputPin) return GetInterface(static_cast<IMemInputPin*>(this), ppv);
    return CBasePin::NonDelegatingQueryInterface(riid, ppv);
}

std::vector<ReceivedSample> SinkPin::samples() const {
    const std::lock_guard lock(m_mutex);
    return m_samples;
}

void SinkPin::forget() {
    const std::lock_guard lock(m_mutex);
    m_samples.clear();
    received = 0;
    endOfStreams = 0;
}

HRESULT SinkPin::CheckMediaType(const CMediaType* type) {
    if (!refuses24) return S_OK;
    return reinterpret_cast<const PCMWAVEFORMAT*>(type->Format())->wBitsPerSample == 24 ? E_FAIL : S_OK;
}

STDMETHODIMP SinkPin::EndOfStream() {
    ++endOfStreams;
    return S_OK;
}

STDMETHODIMP SinkPin::GetAllocator(IMemAllocator** offered) {
    *offered = allocator;
    if (!allocator) return VFW_E_NO_ALLOCATOR;
    allocator->AddRef();
    return S_OK;
}

STDMETHODIMP SinkPin::Receive(IMediaSample* sample) {
    ++insideReceive;
    if (const HANDLE event = blockUntil) WaitForSingleObject(event, 30000);
    if (onReceive) onReceive();
    BYTE* data = nullptr;
    sample->GetPointer(&data);
    ReceivedSample got{};
    got.timed = sample->GetTime(&got.start, &got.stop) == S_OK;
    got.syncPoint = sample->IsSyncPoint() == S_OK;
    {
        const std::lock_guard lock(m_mutex);
        if (m_samples.size() < keep) {
            got.bytes.assign(data, data + sample->GetActualDataLength());
            m_samples.push_back(std::move(got));
        }
    }
    const HRESULT result = receiveResult;
    if (result == S_OK) ++received;
    --insideReceive;
    return result;
}

STDMETHODIMP SinkPin::ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) {
    for (*processed = 0; *processed < count; ++*processed)
        if (const HRESULT hr = Receive(samples[*processed]); hr != S_OK) return hr;
    return S_OK;
}

SinkFilter::SinkFilter()
    : CBaseFilter(NAME("sink"), nullptr, &m_sinkLock, GUID_NULL), pin(this, &m_sinkLock, &m_created) {}

ComRef<SinkFilter> SinkFilter::create() {
    auto* filter = new SinkFilter;
    filter->AddRef();
    return ComRef<SinkFilter>(filter);
}

} // namespace kestra::test
