// The sink's filter, pin and enumerators.
#include "compliance/sink.h"

#include <cstring>

namespace kestra::compliance {
namespace {

double counterMs() {
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

const double g_epochMs = counterMs();

template <class Interface>
STDMETHODIMP give(Interface* object, Interface** out) {
    if (!out) return E_POINTER;
    *out = object;
    if (object) object->AddRef();
    return S_OK;
}

wchar_t* taskText(const wchar_t* text) {
    const size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
    auto* copy = static_cast<wchar_t*>(CoTaskMemAlloc(bytes));
    if (copy) std::memcpy(copy, text, bytes);
    return copy;
}

/// Of one pin.
class OnePin : public IEnumPins {
public:
    explicit OnePin(IPin* pin, bool passed) : m_pin(ComRef<IPin>::share(pin)), m_passed(passed) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IUnknown || riid == IID_IEnumPins ? this : nullptr;
        if (!*object) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override {
        const long left = --m_references;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    STDMETHODIMP Next(ULONG count, IPin** pins, ULONG* fetched) override {
        const bool gives = !m_passed && count > 0;
        if (fetched) *fetched = gives ? 1 : 0;
        if (gives) {
            give(m_pin.get(), pins);
            m_passed = true;
        }
        return gives && count == 1 ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override {
        const bool over = count > (m_passed ? 0u : 1u);
        if (count > 0) m_passed = true;
        return over ? S_FALSE : S_OK;
    }
    STDMETHODIMP Reset() override {
        m_passed = false;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumPins** copy) override {
        *copy = new OnePin(m_pin.get(), m_passed);
        return S_OK;
    }

private:
    virtual ~OnePin() = default;
    std::atomic<long> m_references{1};
    ComRef<IPin> m_pin;
    bool m_passed;
};

} // namespace

/// Counts on its filter.
class SinkPin : public IPin, public IMemInputPin {
public:
    explicit SinkPin(Sink& sink) : m_sink(sink) {}
    virtual ~SinkPin() = default;

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (riid == IID_IUnknown || riid == IID_IPin)
            *object = static_cast<IPin*>(this);
        else if (riid == IID_IMemInputPin && m_sink.hasTransport)
            *object = static_cast<IMemInputPin*>(this);
        else
            return m_sink.besides ? m_sink.besides->QueryInterface(riid, object) : E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return m_sink.AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return m_sink.Release(); }

    STDMETHODIMP Connect(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP ReceiveConnection(IPin* peer, const AM_MEDIA_TYPE* type) override {
        if (!peer || !type) return E_POINTER;
        const std::lock_guard lock(m_sink.m_mutex);
        if (m_sink.m_peer) return VFW_E_ALREADY_CONNECTED;
        if (m_sink.accepts && !m_sink.accepts(*type)) return VFW_E_TYPE_NOT_ACCEPTED;
        m_sink.m_type = Type(*type);
        m_sink.m_peer = ComRef<IPin>::share(peer);
        return S_OK;
    }
    STDMETHODIMP Disconnect() override {
        ComRef<IPin> peer;
        ComRef<IMemAllocator> chosen;
        const std::lock_guard lock(m_sink.m_mutex);
        std::swap(peer, m_sink.m_peer);
        std::swap(chosen, m_sink.m_chosen);
        return peer ? S_OK : S_FALSE;
    }
    STDMETHODIMP ConnectedTo(IPin** peer) override {
        const std::lock_guard lock(m_sink.m_mutex);
        give(m_sink.m_peer.get(), peer);
        return m_sink.m_peer ? S_OK : VFW_E_NOT_CONNECTED;
    }
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* type) override {
        const std::lock_guard lock(m_sink.m_mutex);
        *type = {};
        if (!m_sink.m_peer) return VFW_E_NOT_CONNECTED;
        Type copy(m_sink.m_type);
        std::swap(*type, *copy.get());
        return S_OK;
    }
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override {
        *info = {};
        info->dir = PINDIR_INPUT;
        info->pFilter = &m_sink;
        m_sink.AddRef();
        std::wcscpy(info->achName, L"In");
        return S_OK;
    }
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override {
        *direction = PINDIR_INPUT;
        return S_OK;
    }
    STDMETHODIMP QueryId(LPWSTR* id) override {
        *id = taskText(L"In");
        return *id ? S_OK : E_OUTOFMEMORY;
    }
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* type) override {
        return !m_sink.accepts || m_sink.accepts(*type) ? S_OK : S_FALSE;
    }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes**) override { return E_NOTIMPL; }
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override {
        m_sink.noteClosed();
        ++m_sink.endOfStreams;
        return S_OK;
    }
    STDMETHODIMP BeginFlush() override {
        m_sink.noteClosed();
        ++m_sink.flushes;
        return S_OK;
    }
    STDMETHODIMP EndFlush() override {
        m_sink.noteClosed();
        return S_OK;
    }
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    STDMETHODIMP GetAllocator(IMemAllocator** own) override {
        give(m_sink.allocator, own);
        return m_sink.allocator ? S_OK : VFW_E_NO_ALLOCATOR;
    }
    STDMETHODIMP NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override {
        if (const HRESULT hr = m_sink.notifyAllocatorResult; FAILED(hr)) return hr;
        const std::lock_guard lock(m_sink.m_mutex);
        m_sink.m_chosen = ComRef<IMemAllocator>::share(allocator);
        m_sink.readOnly = readOnly != FALSE;
        return S_OK;
    }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
        if (!m_sink.requirements) return E_NOTIMPL;
        *properties = *m_sink.requirements;
        return S_OK;
    }
    STDMETHODIMP Receive(IMediaSample* sample) override { return m_sink.receive(sample); }
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override {
        for (*processed = 0; *processed < count; ++*processed)
            if (const HRESULT hr = Receive(samples[*processed]); hr != S_OK) return hr;
        return S_OK;
    }
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }

private:
    Sink& m_sink;
};

Sink::Sink() : m_pin(std::make_unique<SinkPin>(*this)) {}
Sink::~Sink() = default;

IPin* Sink::pin() {
    return m_pin.get();
}

double Sink::nowMs() const {
    return counterMs() - g_epochMs;
}

std::vector<Received> Sink::samples() const {
    const std::lock_guard lock(m_mutex);
    return m_samples;
}

Type Sink::type() const {
    const std::lock_guard lock(m_mutex);
    return m_type;
}

ComRef<IMemAllocator> Sink::chosen() const {
    const std::lock_guard lock(m_mutex);
    return ComRef<IMemAllocator>::share(m_chosen.get());
}

void Sink::forget() {
    const std::lock_guard lock(m_mutex);
    m_samples.clear();
    received = endOfStreams = flushes = 0;
}

HRESULT Sink::receive(IMediaSample* sample) {
    noteClosed();
    if (++inside > 1) ++reentered;
    Received got{};
    got.timed = SUCCEEDED(sample->GetTime(&got.start, &got.stop));
    got.syncPoint = sample->IsSyncPoint() == S_OK;
    got.length = sample->GetActualDataLength();
    got.size = sample->GetSize();
    BYTE* data = nullptr;
    sample->GetPointer(&data);
    got.data = data;
    got.wallMs = nowMs();
    got.thread = GetCurrentThreadId();
    AM_MEDIA_TYPE* type = nullptr;
    if (sample->GetMediaType(&type) == S_OK) {
        got.hasType = true;
        Type::taken(type);
    }
    int number = 0;
    {
        const std::lock_guard lock(m_mutex);
        number = static_cast<int>(m_samples.size());
        m_samples.push_back(got);
    }
    const HRESULT hr = onReceive ? onReceive(sample, number) : S_OK;
    if (hr == S_OK) ++received;
    --inside;
    return hr;
}

HRESULT Sink::setState(FILTER_STATE state) {
    m_state = state;
    return S_OK;
}

STDMETHODIMP Sink::QueryInterface(REFIID riid, void** object) {
    if (!object) return E_POINTER;
    const bool known =
        riid == IID_IUnknown || riid == IID_IPersist || riid == IID_IMediaFilter || riid == IID_IBaseFilter;
    *object = known ? this : nullptr;
    if (!known) return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) Sink::Release() {
    const long left = --m_references;
    if (left == 0) delete this;
    return static_cast<ULONG>(left);
}

STDMETHODIMP Sink::GetClassID(CLSID* clsid) {
    *clsid = GUID_NULL;
    return S_OK;
}

STDMETHODIMP Sink::GetState(DWORD, FILTER_STATE* state) {
    *state = m_state;
    return S_OK;
}

STDMETHODIMP Sink::SetSyncSource(IReferenceClock* clock) {
    m_clock = ComRef<IReferenceClock>::share(clock);
    return S_OK;
}

STDMETHODIMP Sink::GetSyncSource(IReferenceClock** clock) {
    return give(m_clock.get(), clock);
}

STDMETHODIMP Sink::EnumPins(IEnumPins** pins) {
    *pins = new OnePin(m_pin.get(), false);
    return S_OK;
}

STDMETHODIMP Sink::FindPin(LPCWSTR id, IPin** found) {
    *found = nullptr;
    return std::wcscmp(id, L"In") == 0 ? give<IPin>(m_pin.get(), found) : VFW_E_NOT_FOUND;
}

STDMETHODIMP Sink::QueryFilterInfo(FILTER_INFO* info) {
    *info = {};
    std::wcscpy(info->achName, L"Sink");
    info->pGraph = m_graph;
    if (m_graph) m_graph->AddRef();
    return S_OK;
}

STDMETHODIMP Sink::JoinFilterGraph(IFilterGraph* graph, LPCWSTR) {
    m_graph = graph;
    return S_OK;
}

} // namespace kestra::compliance
