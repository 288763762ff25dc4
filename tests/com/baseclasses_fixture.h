// A source filter, a sink filter and a graph for the tests of the base classes: each step can be counted and made to
// fail, and the fixture checks that no object is left at the end.
#pragma once

#include <streams.h>

#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace kestra::test {

CLSID const kTestFilter{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x01}};

/// Owns one reference.
template <class T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T* counted) : m_p(counted) {}
    ~Ref() { reset(); }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    T** put() {
        reset();
        return &m_p;
    }
    void** putVoid() { return reinterpret_cast<void**>(put()); }
    void reset() {
        if (T* p = m_p) {
            m_p = nullptr;
            p->Release();
        }
    }

private:
    T* m_p = nullptr;
};

inline ULONG referencesOf(IUnknown* object) {
    object->AddRef();
    return object->Release();
}

/// What a step returns or throws, and how often it was taken.
struct Step {
    HRESULT result = S_OK;
    int throws = 0;  // 1: std::runtime_error, 2: std::bad_alloc
    int passing = 0; // calls that pass before that
    std::atomic<int> calls{0};
    HRESULT take() {
        ++calls;
        if (passing > 0) {
            --passing;
            return S_OK;
        }
        if (throws == 1) throw std::runtime_error("test");
        if (throws == 2) throw std::bad_alloc();
        return result;
    }
};

inline CMediaType testType(int index = 0) {
    CMediaType type(&MEDIATYPE_Stream);
    const GUID subtype{0x1000u + DWORD(index), 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    type.SetSubtype(&subtype);
    type.SetFormatType(&FORMAT_None);
    return type;
}

/// Pushes samples from its own thread while active. Looks at its types, and is stopped, with the filter's lock held.
class TestStream : public CSourceStream {
public:
    TestStream(HRESULT* phr, CSource* filter, LPCWSTR name = L"Out")
        : CSourceStream(NAME("stream"), phr, filter, name) {}
    ~TestStream() override { endPushing(); }

    Step m_getType, m_bufferSize, m_fill, m_active, m_inactive, m_complete, m_break, m_initAllocator, m_typeVersion;
    int m_types = 3;
    int m_samplesToMake = 0; // then the end of the stream
    LONG m_bufferBytes = 16;
    std::function<void(IMediaSample*)> m_onFill;
    std::function<HRESULT(const CMediaType*)> m_onCheck;
    std::atomic<bool> m_stopping{false}; // since Inactive, to the next Active

    HRESULT GetMediaType(int position, CMediaType* type) override {
        CAutoLock lock(m_pFilter->pStateLock());
        const HRESULT hr = m_getType.take();
        if (FAILED(hr)) return hr;
        if (position < 0) return E_INVALIDARG;
        if (position >= m_types) return VFW_S_NO_MORE_ITEMS;
        *type = testType(position);
        return S_OK;
    }
    LONG GetMediaTypeVersion() override {
        m_typeVersion.take();
        return CSourceStream::GetMediaTypeVersion();
    }
    HRESULT CheckMediaType(const CMediaType* type) override {
        CAutoLock lock(m_pFilter->pStateLock());
        if (m_onCheck) return m_onCheck(type);
        for (int i = 0; i < m_types; ++i) {
            if (testType(i) == *type) return S_OK;
        }
        return E_FAIL;
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* wanted) override {
        const HRESULT hr = m_bufferSize.take();
        if (FAILED(hr)) return hr;
        wanted->cBuffers = 2;
        wanted->cbBuffer = m_bufferBytes;
        ALLOCATOR_PROPERTIES actual;
        return allocator->SetProperties(wanted, &actual);
    }
    HRESULT InitAllocator(IMemAllocator** allocator) override {
        const HRESULT hr = m_initAllocator.take();
        return FAILED(hr) ? hr : CSourceStream::InitAllocator(allocator);
    }
    HRESULT CompleteConnect(IPin* peer) override {
        const HRESULT hr = m_complete.take();
        return FAILED(hr) ? hr : CSourceStream::CompleteConnect(peer);
    }
    HRESULT BreakConnect() override {
        const HRESULT hr = m_break.take();
        const HRESULT broken = CSourceStream::BreakConnect();
        return FAILED(hr) ? hr : broken;
    }
    HRESULT Active() override {
        HRESULT hr = m_active.take();
        if (SUCCEEDED(hr)) hr = CSourceStream::Active();
        if (FAILED(hr)) return hr;
        endPushing();
        m_stopping = false;
        m_pushed = false;
        m_pusher = std::thread([this] {
            push();
            m_pushed = true;
        });
        return S_OK;
    }
    HRESULT Inactive() override {
        m_stopping = true;
        const HRESULT stopped = CSourceStream::Inactive(); // frees a pusher that waits for a buffer
        if (waitUntil([this] { return m_pushed.load(); }, std::chrono::seconds(1))) endPushing();
        const HRESULT hr = m_inactive.take();
        return FAILED(hr) ? hr : stopped;
    }
    bool ThreadExists() const { return m_pusher.joinable(); }

    using CSourceStream::m_bCanReconnectWhenActive;
    using CSourceStream::m_bTryMyTypesFirst;
    using CSourceStream::m_pAllocator;
    using CSourceStream::m_pInputPin;
    using CSourceStream::m_pQSink;

private:
    HRESULT FillBuffer(IMediaSample* sample) override {
        const HRESULT hr = m_fill.take();
        if (hr != S_OK) return hr;
        if (m_fill.calls > m_samplesToMake) return S_FALSE;
        sample->SetActualDataLength(m_bufferBytes);
        if (m_onFill) m_onFill(sample);
        return S_OK;
    }
    void push() {
        while (!m_stopping) {
            Ref<IMediaSample> sample;
            if (FAILED(GetDeliveryBuffer(sample.put(), nullptr, nullptr, 0))) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1)); // decommitted, perhaps for a while only
                continue;
            }
            const HRESULT filled = FillBuffer(sample.get());
            if (filled == S_OK && Deliver(sample.get()) == S_OK) continue;
            if (filled != S_OK) DeliverEndOfStream();
            if (FAILED(filled)) m_pFilter->NotifyEvent(EC_ERRORABORT, filled, 0);
            return;
        }
    }
    void endPushing() {
        m_stopping = true;
        if (m_pusher.joinable()) m_pusher.join();
    }

    std::thread m_pusher;
    std::atomic<bool> m_pushed{true};
};

class TestSource : public CSource {
public:
    explicit TestSource(LPUNKNOWN outer = nullptr, int pins = 1) : CSource(NAME("source"), outer, kTestFilter) {
        for (int i = 0; i < pins; ++i) {
            auto* stream = new TestStream(&m_created, this);
            if (FindPinNumber(stream) < 0) delete stream; // not taken, hence not owned
        }
    }
    ~TestSource() override { ++destroyed; }
    TestStream& stream(int n = 0) { return static_cast<TestStream&>(*m_paStreams[n]); }
    int GetPinCount() override {
        m_pinCount.take();
        return CSource::GetPinCount();
    }
    CBasePin* GetPin(int n) override {
        m_getPin.take();
        return CSource::GetPin(n);
    }

    Step m_pinCount, m_getPin;
    HRESULT m_created = S_OK;
    static inline int destroyed = 0;
    using CSource::m_iPins;
};

class TestSink;

/// An input pin as a filter's author writes it on CBasePin.
class TestInput : public CBasePin, public IMemInputPin {
public:
    TestInput(TestSink* filter, CCritSec* lock, HRESULT* phr);
    ~TestInput() override {
        if (m_allocator) m_allocator->Release();
    }
    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IMemInputPin && m_hasTransport) return GetInterface(static_cast<IMemInputPin*>(this), ppv);
        return CBasePin::NonDelegatingQueryInterface(riid, ppv);
    }

    Step m_check, m_set, m_complete, m_break, m_active, m_inactive, m_getAllocator, m_receive, m_enumerate, m_direction,
        m_require;
    std::atomic<int> m_eos{0}, m_notified{0};
    std::function<void()> m_onReceive;
    int m_refusals = 0; // allocators that are refused
    bool m_hasTransport = true, m_offersAllocator = false, m_offersNothing = false;
    ALLOCATOR_PROPERTIES m_required{};
    IMemAllocator* m_allocator = nullptr;
    IMemAllocator* m_own = nullptr;          // offered instead of the system's; the test's
    IEnumMediaTypes* m_enumerator = nullptr; // of its types, in place of its own; the test's
    int m_types = 0;
    bool m_block = false; // its types have a format block

    HRESULT CheckMediaType(const CMediaType*) override { return m_check.take(); }
    HRESULT SetMediaType(const CMediaType* type) override {
        const HRESULT hr = m_set.take();
        return FAILED(hr) ? hr : CBasePin::SetMediaType(type);
    }
    HRESULT GetMediaType(int position, CMediaType* type) override {
        if (position < 0) return E_INVALIDARG;
        if (position >= m_types) return VFW_S_NO_MORE_ITEMS;
        *type = testType(2 - position); // other order than the source's
        BYTE block[4] = {};
        return !m_block || type->SetFormat(block, sizeof block) ? S_OK : E_OUTOFMEMORY;
    }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** out) override {
        *out = m_enumerator;
        if (m_enumerator) {
            m_enumerator->AddRef();
            return S_OK;
        }
        const HRESULT hr = m_enumerate.take();
        return FAILED(hr) ? hr : CBasePin::EnumMediaTypes(out);
    }
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override {
        const HRESULT hr = m_direction.take();
        return FAILED(hr) ? hr : CBasePin::QueryDirection(direction);
    }
    HRESULT CompleteConnect(IPin*) override { return m_complete.take(); }
    HRESULT BreakConnect() override { return m_break.take(); }
    HRESULT Active() override { return m_active.take(); }
    HRESULT Inactive() override {
        CBasePin::Inactive();
        return m_inactive.take();
    }

    STDMETHODIMP EndOfStream() override {
        ++m_eos;
        return S_OK;
    }
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }

    STDMETHODIMP GetAllocator(IMemAllocator** out) override {
        *out = nullptr;
        const HRESULT hr = m_getAllocator.take();
        if (FAILED(hr) || m_offersNothing) return hr;
        if (m_own) {
            m_own->AddRef();
            *out = m_own;
            return S_OK;
        }
        if (!m_offersAllocator) return VFW_E_NO_ALLOCATOR;
        return CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                                reinterpret_cast<void**>(out));
    }
    STDMETHODIMP NotifyAllocator(IMemAllocator* allocator, BOOL) override {
        if (++m_notified <= m_refusals) return E_FAIL;
        allocator->AddRef();
        if (m_allocator) m_allocator->Release();
        m_allocator = allocator;
        return S_OK;
    }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
        *properties = m_required;
        return m_require.take();
    }
    STDMETHODIMP Receive(IMediaSample*) override {
        if (m_onReceive) m_onReceive();
        return m_receive.take();
    }
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* done) override {
        for (*done = 0; *done < count; ++*done) {
            const HRESULT hr = Receive(samples[*done]);
            if (hr != S_OK) return hr;
        }
        return S_OK;
    }
    STDMETHODIMP ReceiveCanBlock() override { return S_FALSE; }
};

class TestSink : public CBaseFilter {
public:
    TestSink() : CBaseFilter(NAME("sink"), nullptr, &m_lock, GUID_NULL), m_input(this, &m_lock, &m_created) {}
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? &m_input : nullptr; }

    HRESULT m_created = S_OK;
    CCritSec m_lock;
    TestInput m_input;
};

inline TestInput::TestInput(TestSink* filter, CCritSec* lock, HRESULT* phr)
    : CBasePin(NAME("input"), filter, lock, phr, L"In", PINDIR_INPUT) {}

/// A graph that only listens. Lives on the stack: its reference count is only counted.
class TestGraph : public IFilterGraph, public IMediaEventSink {
public:
    LONG m_references = 1;
    int m_reconnects = 0;
    bool m_hasSink = true;
    std::atomic<int> m_events{0};
    std::atomic<long> m_code{0};
    LONG_PTR m_first = 0, m_second = 0;
    LONG m_referencesInNotify = 0;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = nullptr;
        if (riid == IID_IUnknown || riid == IID_IFilterGraph) *ppv = static_cast<IFilterGraph*>(this);
        if (riid == IID_IMediaEventSink && m_hasSink) *ppv = static_cast<IMediaEventSink*>(this);
        if (!*ppv) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&m_references)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&m_references)); }
    STDMETHODIMP AddFilter(IBaseFilter*, LPCWSTR) override { return E_NOTIMPL; }
    STDMETHODIMP RemoveFilter(IBaseFilter*) override { return E_NOTIMPL; }
    STDMETHODIMP EnumFilters(IEnumFilters**) override { return E_NOTIMPL; }
    STDMETHODIMP FindFilterByName(LPCWSTR, IBaseFilter**) override { return E_NOTIMPL; }
    STDMETHODIMP ConnectDirect(IPin*, IPin*, const AM_MEDIA_TYPE*) override { return E_NOTIMPL; }
    STDMETHODIMP Reconnect(IPin*) override {
        ++m_reconnects;
        return S_OK;
    }
    STDMETHODIMP Disconnect(IPin*) override { return E_NOTIMPL; }
    STDMETHODIMP SetDefaultSyncSource() override { return E_NOTIMPL; }
    STDMETHODIMP Notify(LONG code, LONG_PTR first, LONG_PTR second) override {
        m_first = first;
        m_second = second;
        m_referencesInNotify = m_references;
        m_code = code;
        ++m_events;
        return S_OK;
    }
};

/// COM on the test's thread, one source and one sink; checks that no object of the module is left.
class BaseClassesTest : public testing::Test {
protected:
    BaseClassesTest() : m_objects(CBaseObject::ObjectsActive()), m_com(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {
        m_source = new TestSource;
        m_source->AddRef();
        m_sink = new TestSink;
        m_sink->AddRef();
    }
    ~BaseClassesTest() override {
        if (m_source) {
            m_source->Stop();
            m_sink->Stop();
            disconnect();
            EXPECT_EQ(m_source->Release(), 0u) << "somebody still holds the source";
            EXPECT_EQ(m_sink->Release(), 0u) << "somebody still holds the sink";
        }
        EXPECT_EQ(CBaseObject::ObjectsActive(), m_objects);
        if (SUCCEEDED(m_com)) CoUninitialize();
    }
    TestStream& out() { return m_source->stream(); }
    TestInput& in() { return m_sink->m_input; }
    HRESULT connect(const AM_MEDIA_TYPE* type = nullptr) { return out().Connect(&in(), type); }
    void disconnect() {
        out().Disconnect();
        in().Disconnect();
    }
    FILTER_STATE stateOf(CBaseFilter* filter) {
        FILTER_STATE state = FILTER_STATE(-1);
        EXPECT_EQ(filter->GetState(0, &state), S_OK);
        return state;
    }

    const LONG m_objects;
    const HRESULT m_com;
    TestSource* m_source = nullptr;
    TestSink* m_sink = nullptr;
};

} // namespace kestra::test
