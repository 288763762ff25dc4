// Makes COM task memory scarce for the calling thread, in every module of the process.
#pragma once

#include <windows.h>

#include <objidl.h>

namespace kestra::test {

/// Lives for the whole program once it is made: the system keeps it while memory that it saw is allocated.
class FailingTaskMemory : public IMallocSpy {
public:
    static FailingTaskMemory& instance() {
        static FailingTaskMemory spy;
        return spy;
    }
    virtual ~FailingTaskMemory() = default;
    FailingTaskMemory(const FailingTaskMemory&) = delete;
    FailingTaskMemory& operator=(const FailingTaskMemory&) = delete;

    /// From now on the n-th allocation of this thread (1: the next) and all after it fail, until allow().
    void failFrom(int n) {
        m_thread = GetCurrentThreadId();
        m_left = n;
    }
    /// @return true: an allocation has failed since failFrom.
    bool allow() {
        m_thread = 0;
        return m_left <= 0;
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = nullptr;
        if (riid != IID_IUnknown && riid != IID_IMallocSpy) return E_NOINTERFACE;
        *object = static_cast<IMallocSpy*>(this);
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T bytes) override {
        if (m_thread != GetCurrentThreadId()) return bytes;
        return --m_left <= 0 ? 0 : bytes; // 0: the allocation fails
    }
    STDMETHODIMP_(void*) PostAlloc(void* memory) override { return memory; }
    STDMETHODIMP_(void*) PreFree(void* memory, BOOL) override { return memory; }
    STDMETHODIMP_(void) PostFree(BOOL) override {}
    STDMETHODIMP_(SIZE_T) PreRealloc(void* memory, SIZE_T bytes, void** actual, BOOL) override {
        *actual = memory;
        return bytes;
    }
    STDMETHODIMP_(void*) PostRealloc(void* memory, BOOL) override { return memory; }
    STDMETHODIMP_(void*) PreGetSize(void* memory, BOOL) override { return memory; }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T bytes, BOOL) override { return bytes; }
    STDMETHODIMP_(void*) PreDidAlloc(void* memory, BOOL) override { return memory; }
    STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int actual) override { return actual; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}

private:
    FailingTaskMemory() { CoRegisterMallocSpy(this); }

    DWORD m_thread = 0;
    int m_left = 0;
};

} // namespace kestra::test
