// The other side of the connection: a filter with one input pin that records what it is sent, and misbehaves as
// a test asks. Methods come on any thread; samples on the tested filter's.
#pragma once

#include "compliance/subject.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace kestra::compliance {

struct Received {
    REFERENCE_TIME start, stop;
    bool timed, syncPoint, hasType;
    long length, size;
    const BYTE* data;
    double wallMs; ///< since the sink was made
    DWORD thread;
};

class SinkPin;

/// Made with `new` and counted like any filter.
class Sink : public IBaseFilter {
public:
    Sink();

    // What a test sets before it connects or while samples come.
    std::function<bool(const AM_MEDIA_TYPE&)> accepts;    ///< none: every type
    std::function<HRESULT(IMediaSample*, int)> onReceive; ///< its number, from 0; none: S_OK
    std::optional<ALLOCATOR_PROPERTIES> requirements;     ///< none: E_NOTIMPL
    IMemAllocator* allocator = nullptr;                   ///< its own, the test's; null: VFW_E_NO_ALLOCATOR
    std::atomic<HRESULT> notifyAllocatorResult{S_OK};
    bool hasTransport = true;    ///< IMemInputPin
    IUnknown* besides = nullptr; ///< the test's; answers for interfaces that the pin itself does not have

    // What it saw.
    std::atomic<int> received{0}, endOfStreams{0}, flushes{0}, inside{0}, reentered{0};
    std::atomic<bool> closed{false};  ///< the test's, once the sender has stopped
    std::atomic<int> afterClosing{0}; ///< samples, ends and flushes since then
    std::vector<Received> samples() const;
    Type type() const;
    ComRef<IMemAllocator> chosen() const; ///< the connection's; null before NotifyAllocator
    bool readOnly = false;
    void forget();
    double nowMs() const;

    IPin* pin();
    long references() const { return m_references; }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP GetClassID(CLSID* clsid) override;
    STDMETHODIMP Stop() override { return setState(State_Stopped); }
    STDMETHODIMP Pause() override { return setState(State_Paused); }
    STDMETHODIMP Run(REFERENCE_TIME) override { return setState(State_Running); }
    STDMETHODIMP GetState(DWORD, FILTER_STATE* state) override;
    STDMETHODIMP SetSyncSource(IReferenceClock* clock) override;
    STDMETHODIMP GetSyncSource(IReferenceClock** clock) override;
    STDMETHODIMP EnumPins(IEnumPins** pins) override;
    STDMETHODIMP FindPin(LPCWSTR id, IPin** found) override;
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override;
    STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override;
    STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }

private:
    friend class SinkPin;
    virtual ~Sink();
    HRESULT setState(FILTER_STATE state);
    HRESULT receive(IMediaSample* sample);
    void noteClosed() {
        if (closed) ++afterClosing;
    }

    std::unique_ptr<SinkPin> m_pin;
    std::atomic<long> m_references{1};
    std::atomic<FILTER_STATE> m_state{State_Stopped};
    IFilterGraph* m_graph = nullptr; // not counted: it owns the filter
    ComRef<IReferenceClock> m_clock;
    mutable std::mutex m_mutex; // guards what follows
    std::vector<Received> m_samples;
    Type m_type;
    ComRef<IPin> m_peer;
    ComRef<IMemAllocator> m_chosen;
};

} // namespace kestra::compliance
