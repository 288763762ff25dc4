// Our receiving pin: keeps what it gets and misbehaves as a test asks.
#pragma once

#include "win32/com_ref.h"

#include <windows.h>

#include <dshow.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace kestra::test {

struct ReceivedSample {
    std::vector<uint8_t> bytes;
    REFERENCE_TIME start, stop;
    bool timed, syncPoint;
    DWORD typeSpecificFlags;
};

/// Lives on the stack: its reference count is only counted.
class TestSink : public IPin, public IMemInputPin {
public:
    TestSink() = default;
    virtual ~TestSink();
    TestSink(const TestSink&) = delete;
    TestSink& operator=(const TestSink&) = delete;

    // What a test sets before it connects or while frames come.
    std::atomic<HRESULT> receiveResult{S_OK};
    std::atomic<HRESULT> acceptResult{S_OK};
    std::atomic<HRESULT> notifyAllocatorResult{S_OK};
    std::atomic<HANDLE> blockUntil{nullptr}; ///< Receive waits for this event
    std::atomic<long> leaveActualLength{0};  ///< what Receive sets as each sample's length; 0: nothing
    std::function<bool(const AM_MEDIA_TYPE&)> accepts;
    std::function<void(IMediaSample*)> onReceive;     ///< the first that Receive does
    std::optional<ALLOCATOR_PROPERTIES> requirements; ///< of the buffers; none: it has none
    IMemAllocator* allocator = nullptr;               ///< what it offers; null: none of its own
    size_t keep = 4;                                  ///< samples whose bytes are kept

    // What it saw.
    std::atomic<int> received{0}, endOfStreams{0}, insideReceive{0};
    std::vector<ReceivedSample> samples() const;
    AM_MEDIA_TYPE mediaType{};
    long references() const { return m_references; }
    void forget();

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--m_references); }

    STDMETHODIMP Connect(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP ReceiveConnection(IPin* pin, const AM_MEDIA_TYPE* type) override;
    STDMETHODIMP Disconnect() override;
    STDMETHODIMP ConnectedTo(IPin** pin) override;
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override;
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override;
    STDMETHODIMP QueryId(LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* type) override;
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes**) override { return E_NOTIMPL; }
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override;
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    STDMETHODIMP GetAllocator(IMemAllocator** own) override;
    STDMETHODIMP NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
        if (requirements) *properties = *requirements;
        return requirements ? S_OK : E_NOTIMPL;
    }
    STDMETHODIMP Receive(IMediaSample* sample) override;
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, long count, long* processed) override;
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }

private:
    mutable std::mutex m_mutex;
    std::vector<ReceivedSample> m_samples;
    IPin* m_peer = nullptr; // counted
    std::atomic<long> m_references{0};
};

} // namespace kestra::test
