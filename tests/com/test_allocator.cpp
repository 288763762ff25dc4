// An allocator whose answers a test chooses.
#include "tests/com/test_allocator.h"

namespace kestra::test {
namespace {

/// A sample of another allocator, which counts its return and may hide its memory.
class WatchedSample : public IMediaSample {
public:
    WatchedSample(IMediaSample* inner, TestAllocator& owner) : m_inner(inner), m_owner(owner) {}
    virtual ~WatchedSample() { ++m_owner.buffersReturned; }
    WatchedSample(const WatchedSample&) = delete;
    WatchedSample& operator=(const WatchedSample&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = nullptr;
        if (riid != IID_IUnknown && riid != IID_IMediaSample) return E_NOINTERFACE;
        *object = static_cast<IMediaSample*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override {
        const long left = --m_references;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    STDMETHODIMP GetPointer(BYTE** memory) override {
        if (!m_owner.withoutMemory) return m_inner->GetPointer(memory);
        *memory = nullptr;
        return S_OK;
    }
    STDMETHODIMP_(long) GetSize() override { return m_inner->GetSize(); }
    STDMETHODIMP GetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) override { return m_inner->GetTime(start, end); }
    STDMETHODIMP SetTime(REFERENCE_TIME* start, REFERENCE_TIME* end) override { return m_inner->SetTime(start, end); }
    STDMETHODIMP IsSyncPoint() override { return m_inner->IsSyncPoint(); }
    STDMETHODIMP SetSyncPoint(BOOL set) override { return m_inner->SetSyncPoint(set); }
    STDMETHODIMP IsPreroll() override { return m_inner->IsPreroll(); }
    STDMETHODIMP SetPreroll(BOOL set) override { return m_inner->SetPreroll(set); }
    STDMETHODIMP_(long) GetActualDataLength() override {
        return !m_written && m_owner.claimedLength != 0 ? m_owner.claimedLength.load() : m_inner->GetActualDataLength();
    }
    STDMETHODIMP SetActualDataLength(long length) override {
        m_written = true;
        return m_inner->SetActualDataLength(length);
    }
    STDMETHODIMP GetMediaType(AM_MEDIA_TYPE** type) override { return m_inner->GetMediaType(type); }
    STDMETHODIMP SetMediaType(AM_MEDIA_TYPE* type) override { return m_inner->SetMediaType(type); }
    STDMETHODIMP IsDiscontinuity() override { return m_inner->IsDiscontinuity(); }
    STDMETHODIMP SetDiscontinuity(BOOL set) override { return m_inner->SetDiscontinuity(set); }
    STDMETHODIMP GetMediaTime(LONGLONG* start, LONGLONG* end) override { return m_inner->GetMediaTime(start, end); }
    STDMETHODIMP SetMediaTime(LONGLONG* start, LONGLONG* end) override { return m_inner->SetMediaTime(start, end); }

private:
    ComRef<IMediaSample> m_inner;
    TestAllocator& m_owner;
    bool m_written = false;
    std::atomic<long> m_references{1};
};

} // namespace

STDMETHODIMP TestAllocator::QueryInterface(REFIID riid, void** object) {
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IMemAllocator) return E_NOINTERFACE;
    *object = static_cast<IMemAllocator*>(this);
    AddRef();
    return S_OK;
}

STDMETHODIMP TestAllocator::GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* end, DWORD flags) {
    *sample = nullptr;
    if (FAILED(getBufferResult)) return getBufferResult;
    IMediaSample* inner = nullptr;
    const HRESULT hr = m_inner->GetBuffer(&inner, start, end, flags);
    if (FAILED(hr)) return hr;
    ++buffersGiven;
    if (attached) inner->SetMediaType(attached);
    *sample = new WatchedSample(inner, *this);
    return S_OK;
}

} // namespace kestra::test
