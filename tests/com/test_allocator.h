// Our allocator for a receiving pin: wraps the system's and fails as a test asks. Any thread.
#pragma once

#include "win32/com_ref.h"

#include <windows.h>

#include <dshow.h>

#include <atomic>

namespace kestra::test {

/// Lives on the stack: its reference count is only counted.
class TestAllocator : public IMemAllocator {
public:
    TestAllocator() {
        CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                         reinterpret_cast<void**>(m_inner.out()));
    }
    virtual ~TestAllocator() = default;
    TestAllocator(const TestAllocator&) = delete;
    TestAllocator& operator=(const TestAllocator&) = delete;

    // A failure set here is returned in place of doing the work.
    std::atomic<HRESULT> setPropertiesResult{S_OK}, commitResult{S_OK}, decommitResult{S_OK}, getBufferResult{S_OK};
    std::atomic<bool> withoutMemory{false}; ///< samples have no pointer
    std::atomic<long> claimedLength{0};     ///< what samples say is their length, whatever their size; 0: the truth
    AM_MEDIA_TYPE* attached = nullptr;      ///< to every sample that it gives
    std::atomic<int> buffersGiven{0}, buffersReturned{0};
    long references() const { return m_references; }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--m_references); }
    STDMETHODIMP SetProperties(ALLOCATOR_PROPERTIES* wanted, ALLOCATOR_PROPERTIES* actual) override {
        return FAILED(setPropertiesResult) ? setPropertiesResult.load() : m_inner->SetProperties(wanted, actual);
    }
    STDMETHODIMP GetProperties(ALLOCATOR_PROPERTIES* properties) override { return m_inner->GetProperties(properties); }
    STDMETHODIMP Commit() override { return FAILED(commitResult) ? commitResult.load() : m_inner->Commit(); }
    STDMETHODIMP Decommit() override { return FAILED(decommitResult) ? decommitResult.load() : m_inner->Decommit(); }
    STDMETHODIMP GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* end, DWORD flags) override;
    STDMETHODIMP ReleaseBuffer(IMediaSample* sample) override { return m_inner->ReleaseBuffer(sample); }

private:
    ComRef<IMemAllocator> m_inner;
    std::atomic<long> m_references{0};
};

} // namespace kestra::test
