// A capture filter that keeps every rule, or breaks the one that KESTRA_FAULT names: what kestra-compliance is tested
// on.
#include <streams.h>

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

const CLSID kFaultySource = {0x6b1a7f02, 0x53cd, 0x4d0e, {0x9a, 0x31, 0x20, 0x7e, 0x4c, 0x5b, 0x88, 0x10}};
constexpr HRESULT kSetUnsupported = static_cast<HRESULT>(0x80070492), kIdUnsupported = static_cast<HRESULT>(0x80070490);
constexpr REFERENCE_TIME kFrameTime = 100'000; // 100 Hz
constexpr LONG kWidth = 64, kHeight = 64;      // whole pages in both formats

bool broken(const char* rule) {
    static const std::string fault = [] {
        char name[64] = "";
        GetEnvironmentVariableA("KESTRA_FAULT", name, sizeof name);
        return std::string(name);
    }();
    return fault == rule;
}

/// Where the chosen format is kept, for runs in which it is: the file KESTRA_KEPT_FORMAT, of one digit.
FILE* openKept(const char* mode) {
    static const std::string path = [] {
        char name[MAX_PATH] = "";
        GetEnvironmentVariableA("KESTRA_KEPT_FORMAT", name, sizeof name);
        return std::string(name);
    }();
    return path.empty() ? nullptr : std::fopen(path.c_str(), mode);
}

int keptFormat() {
    FILE* const file = openKept("rb");
    if (!file) return 0;
    const int digit = std::fgetc(file);
    std::fclose(file);
    return digit == '1' ? 1 : 0;
}

void keepFormat(int index) {
    FILE* const file = openKept("wb");
    if (!file) return;
    std::fputc('0' + index, file);
    std::fclose(file);
}

HRESULT makeType(int index, CMediaType& type) {
    FreeMediaType(type);
    type.InitMediaType();
    auto* block = reinterpret_cast<VIDEOINFOHEADER*>(type.AllocFormatBuffer(sizeof(VIDEOINFOHEADER)));
    if (!block) return E_OUTOFMEMORY;
    *block = {};
    BITMAPINFOHEADER& header = block->bmiHeader;
    header.biSize = broken("type-header") ? 12 : sizeof header;
    header.biWidth = kWidth;
    header.biHeight = kHeight;
    header.biPlanes = 1;
    header.biBitCount = index == 0 ? 16 : 24;
    header.biCompression = index == 0 ? MAKEFOURCC('Y', 'U', 'Y', '2') : DWORD{BI_RGB};
    header.biSizeImage = static_cast<DWORD>(kWidth * kHeight * header.biBitCount / 8);
    block->AvgTimePerFrame = kFrameTime;
    const GUID subtype = index == 0 ? MEDIASUBTYPE_YUY2 : MEDIASUBTYPE_RGB24;
    type.SetType(&MEDIATYPE_Video);
    type.SetSubtype(&subtype);
    type.SetFormatType(&FORMAT_VideoInfo);
    type.SetSampleSize(header.biSizeImage);
    type.SetTemporalCompression(FALSE);
    return S_OK;
}

/// An enumerator of the base classes, and rules of its own to break: "types-skip" or "pins-skip", and so on.
template <class Interface, class Element>
class Enumeration : public Interface {
public:
    Enumeration(Interface* inner, const IID& iid, std::string what)
        : m_inner(inner), m_iid(iid), m_what(std::move(what)) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IUnknown || riid == m_iid ? this : nullptr;
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
    STDMETHODIMP Next(ULONG count, Element** elements, ULONG* fetched) override {
        if (breaks("-next-none") && count == 0) return E_INVALIDARG;
        if (breaks("-next-null") && !elements) return S_OK;
        const HRESULT hr = m_inner->Next(count, elements, fetched);
        return breaks("-next-many") && count > 1 && hr == S_FALSE ? S_OK : hr;
    }
    STDMETHODIMP Skip(ULONG count) override { return breaks("-skip") ? S_OK : m_inner->Skip(count); }
    STDMETHODIMP Reset() override { return breaks("-reset") ? S_OK : m_inner->Reset(); }
    STDMETHODIMP Clone(Interface** copy) override {
        if (!copy) return E_POINTER;
        Interface* inner = nullptr;
        const HRESULT hr = m_inner->Clone(&inner);
        *copy = SUCCEEDED(hr) ? new Enumeration(inner, m_iid, m_what) : nullptr;
        if (breaks("-clone") && inner) inner->Reset();
        return hr;
    }

private:
    virtual ~Enumeration() { m_inner->Release(); }
    bool breaks(const char* rule) const { return broken((m_what + rule).c_str()); }
    std::atomic<long> m_references{1};
    Interface* m_inner;
    const IID& m_iid;
    const std::string m_what;
};

/// Taken away while the file KESTRA_GONE is there.
bool isGone() {
    static const std::string path = [] {
        char name[MAX_PATH] = "";
        GetEnvironmentVariableA("KESTRA_GONE", name, sizeof name);
        return std::string(name);
    }();
    static std::atomic<bool> wasGone{false};
    const bool gone = !path.empty() && GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    wasGone = wasGone || gone;
    return broken("loss-forever") ? wasGone.load() : gone;
}

/// Whether another process had this filter running before.
bool isSecondProcess() {
    static const bool second = [] {
        const HANDLE kept = CreateMutexW(nullptr, FALSE, L"kestra-faulty-source");
        return kept && GetLastError() == ERROR_ALREADY_EXISTS;
    }();
    return second;
}

class Source;

class Stream : public CSourceStream, public IKsPropertySet, public IAMStreamConfig {
public:
    Stream(HRESULT* phr, Source* source);
    ~Stream() override {
        end();
        CloseHandle(m_stop);
    }
    DECLARE_IUNKNOWN

    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override {
        if (broken("pin-null") && !ppv) return S_OK;
        if (riid == IID_IKsPropertySet) return GetInterface(static_cast<IKsPropertySet*>(this), ppv);
        if (riid == IID_IAMStreamConfig) {
            if (broken("pin-count")) AddRef();
            if (broken("pin-fickle") && m_asked++ % 2 == 1) return E_NOINTERFACE;
            return GetInterface(static_cast<IAMStreamConfig*>(this), ppv);
        }
        return CSourceStream::NonDelegatingQueryInterface(riid, ppv);
    }

    // IKsPropertySet
    STDMETHODIMP Set(REFGUID, DWORD, void*, DWORD, void*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Get(REFGUID set, DWORD id, void*, DWORD, void* data, DWORD size, DWORD* returned) override {
        if (const HRESULT hr = supported(set, id); hr != S_OK) return hr;
        if (!data && !returned) return E_POINTER;
        if (returned) *returned = sizeof(GUID);
        if (!data) return broken("category-size-query") ? E_POINTER : S_OK;
        if (size < sizeof(GUID) && !broken("category-short")) return E_UNEXPECTED;
        if (broken("category-exact") && size != sizeof(GUID)) return E_UNEXPECTED;
        std::memcpy(data, &PIN_CATEGORY_CAPTURE, std::min<size_t>(size, sizeof(GUID)));
        return S_OK;
    }
    STDMETHODIMP QuerySupported(REFGUID set, DWORD id, DWORD* support) override {
        const HRESULT hr = supported(set, id);
        if (hr == S_OK && support) *support = KSPROPERTY_SUPPORT_GET;
        return hr;
    }

    // IAMStreamConfig
    STDMETHODIMP SetFormat(AM_MEDIA_TYPE* wanted) override;
    STDMETHODIMP GetFormat(AM_MEDIA_TYPE** type) override;
    STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override {
        if (!count || !size) return E_POINTER;
        *count = 2;
        *size = broken("caps-size") ? 120 : sizeof(VIDEO_STREAM_CONFIG_CAPS);
        return S_OK;
    }
    STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** type, BYTE* record) override {
        if (index < 0) return broken("caps-negative") ? S_FALSE : E_INVALIDARG;
        if (index > 1) return broken("caps-past-end") ? E_INVALIDARG : S_FALSE;
        if (!type || !record) return E_POINTER;
        CMediaType made;
        if (makeType(index, made) != S_OK) return E_OUTOFMEMORY;
        *type = CreateMediaType(&made);
        VIDEO_STREAM_CONFIG_CAPS caps{};
        caps.guid = FORMAT_VideoInfo;
        caps.InputSize = caps.MinOutputSize = caps.MaxOutputSize = caps.MinCroppingSize =
            caps.MaxCroppingSize = {kWidth, kHeight};
        caps.MinFrameInterval = caps.MaxFrameInterval = broken("caps-interval") ? kFrameTime / 2 : kFrameTime;
        std::memcpy(record, &caps, broken("caps-size") ? 120 : sizeof caps);
        if (broken("caps-leak")) CoTaskMemAlloc(65536);
        return *type ? S_OK : E_OUTOFMEMORY;
    }

    // IPin
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override {
        if (broken("direction-null")) {
            *direction = PINDIR_OUTPUT;
            return S_OK;
        }
        return CSourceStream::QueryDirection(direction);
    }
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override {
        const HRESULT hr = CSourceStream::QueryPinInfo(info);
        if (broken("pin-info-direction") && hr == S_OK) info->dir = PINDIR_INPUT;
        return hr;
    }
    STDMETHODIMP EndOfStream() override { return broken("output-end") ? S_OK : CSourceStream::EndOfStream(); }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** types) override {
        const HRESULT hr = CSourceStream::EnumMediaTypes(types);
        if (SUCCEEDED(hr))
            *types = new Enumeration<IEnumMediaTypes, AM_MEDIA_TYPE>(*types, IID_IEnumMediaTypes, "types");
        return hr;
    }
    STDMETHODIMP Connect(IPin* receiver, const AM_MEDIA_TYPE* type) override;
    STDMETHODIMP Disconnect() override;

    HRESULT GetMediaType(int position, CMediaType* type) override {
        CAutoLock lock(m_pFilter->pStateLock());
        if (position < 0) return E_INVALIDARG;
        if (position >= (m_isSet ? 1 : 2)) return VFW_S_NO_MORE_ITEMS;
        return makeType(m_isSet ? m_format : position, *type);
    }
    HRESULT CheckMediaType(const CMediaType* type) override {
        if (broken("accept-reads-block"))
            return accept(*type, reinterpret_cast<VIDEOINFOHEADER*>(type->pbFormat)->bmiHeader);
        if (type->majortype != MEDIATYPE_Video || type->formattype != FORMAT_VideoInfo || !type->pbFormat ||
            type->cbFormat < sizeof(VIDEOINFOHEADER))
            return E_FAIL;
        return accept(*type, reinterpret_cast<VIDEOINFOHEADER*>(type->pbFormat)->bmiHeader);
    }
    HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* wanted) override {
        wanted->cBuffers = std::max(wanted->cBuffers, 2L) + (broken("sample-kept") ? 1 : 0);
        wanted->cbBuffer = static_cast<long>(m_mt.GetSampleSize());
        if (broken("buffer-small")) wanted->cbBuffer /= 2;
        if (broken("buffer-alignment")) wanted->cbAlign = 1;
        ALLOCATOR_PROPERTIES actual{};
        return allocator->SetProperties(wanted, &actual);
    }
    HRESULT Active() override {
        end(); // a thread that a refusal ended
        const HRESULT hr = CSourceStream::Active();
        if (FAILED(hr)) return hr;
        ResetEvent(m_stop);
        m_thread = std::thread([this] { push(); });
        if (broken("two-threads")) m_second = std::thread([this] { pushBeside(); });
        return S_OK;
    }
    HRESULT Inactive() override {
        SetEvent(m_stop);
        const HRESULT hr = broken("not-decommitted") ? S_OK : CSourceStream::Inactive();
        end();
        if (broken("end-after-stop")) {
            m_Connected->AddRef();
            std::thread([peer = m_Connected] {
                Sleep(30);
                peer->EndOfStream();
                peer->Release();
            }).detach();
        }
        if (broken("thread-leak")) std::thread([] { Sleep(INFINITE); }).detach();
        return hr;
    }

    std::atomic<bool> m_running{false};

private:
    HRESULT supported(REFGUID set, DWORD id) const {
        if (broken("category-any")) return S_OK;
        if (set != AMPROPSETID_Pin) return kSetUnsupported;
        return id == AMPROPERTY_PIN_CATEGORY ? S_OK : kIdUnsupported;
    }
    HRESULT accept(const AM_MEDIA_TYPE& type, const BITMAPINFOHEADER& header) {
        if (broken("accept-anything")) return S_OK;
        const bool packed = type.subtype == MEDIASUBTYPE_YUY2, rgb = type.subtype == MEDIASUBTYPE_RGB24;
        const bool sized =
            header.biWidth == kWidth && header.biHeight == kHeight && type.lSampleSize >= header.biSizeImage;
        const bool whole = header.biSizeImage == static_cast<DWORD>(kWidth * kHeight * header.biBitCount / 8);
        return (packed || rgb) && header.biBitCount == (packed ? 16 : 24) && sized && whole ? S_OK : E_FAIL;
    }
    HRESULT FillBuffer(IMediaSample*) override { return E_UNEXPECTED; }
    void end() {
        SetEvent(m_stop);
        for (std::thread* thread : {&m_thread, &m_second})
            if (thread->joinable()) thread->join();
    }
    void push();
    void pushBeside();
    HRESULT deliver(IMediaSample* sample, int number);

    HANDLE m_stop = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    std::thread m_thread, m_second;
    int m_format = keptFormat();
    bool m_isSet = false;
    std::atomic<int> m_asked{0};
    std::atomic<int> m_inside{0}; ///< number of the sample that the receiver has, from 1
    REFERENCE_TIME m_stamp = 0;
    IMediaSample* m_kept = nullptr;
};

class Source : public CSource, public ISpecifyPropertyPages {
public:
    DECLARE_IUNKNOWN
    explicit Source(LPUNKNOWN outer) : CSource(NAME("faulty"), outer, kFaultySource) {
        HRESULT hr = S_OK;
        m_stream = new Stream(&hr, this);
        if (broken("handle-leak")) CreateEventW(nullptr, FALSE, FALSE, nullptr);
        if (broken("never-unloaded")) new CUnknown(NAME("left"), nullptr);
    }
    static CUnknown* CALLBACK create(LPUNKNOWN outer, HRESULT* result) {
        if (broken("never-created") || isGone()) *result = E_FAIL;
        if (broken("crash-created")) RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
        return new Source(outer);
    }

    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override {
        if (broken("filter-identity") && riid == IID_IMediaFilter) {
            if (!m_other) (m_other = new Source(nullptr))->NonDelegatingAddRef();
            return m_other->CSource::NonDelegatingQueryInterface(riid, ppv);
        }
        if (riid == IID_ISpecifyPropertyPages && (broken("pages-none") || broken("pages-null")))
            return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
        void* const before = ppv ? *ppv : nullptr;
        const HRESULT hr = CSource::NonDelegatingQueryInterface(riid, ppv);
        if (broken("filter-pointer-left") && ppv && hr == E_NOINTERFACE) *ppv = before;
        return hr;
    }
    STDMETHODIMP GetPages(CAUUID* pages) override { // of which there are none
        if (!pages) return broken("pages-null") ? S_OK : E_POINTER;
        *pages = {};
        return S_OK;
    }
    STDMETHODIMP EnumPins(IEnumPins** pins) override {
        const HRESULT hr = CSource::EnumPins(pins);
        if (SUCCEEDED(hr)) *pins = new Enumeration<IEnumPins, IPin>(*pins, IID_IEnumPins, "pins");
        return hr;
    }
    STDMETHODIMP GetClassID(CLSID* clsid) override {
        const HRESULT hr = CSource::GetClassID(clsid);
        if (broken("class-id") && hr == S_OK) *clsid = GUID_NULL;
        return hr;
    }
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override {
        const HRESULT hr = CSource::QueryFilterInfo(info);
        if (broken("filter-name") && hr == S_OK) info->achName[0] = 0;
        return hr;
    }
    STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override {
        if (broken("graph-counted") && graph) graph->AddRef();
        return CSource::JoinFilterGraph(graph, name);
    }
    STDMETHODIMP GetSyncSource(IReferenceClock** clock) override {
        if (!broken("clock-forgotten") || !clock) return CSource::GetSyncSource(clock);
        *clock = nullptr;
        return S_OK;
    }
    STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override {
        if (!broken("find-pin") || !pin) return CSource::FindPin(id, pin);
        (*pin = m_stream)->AddRef();
        return S_OK;
    }
    STDMETHODIMP GetState(DWORD milliseconds, FILTER_STATE* state) override {
        if (broken("state-lock")) {
            CAutoLock lock(&m_cStateLock);
            return answerState(milliseconds, state);
        }
        return answerState(milliseconds, state);
    }
    STDMETHODIMP Pause() override {
        m_stream->m_running = broken("delivers-paused");
        return CSource::Pause();
    }
    STDMETHODIMP Run(REFERENCE_TIME start) override {
        if (broken("second-dies") && isSecondProcess()) TerminateProcess(GetCurrentProcess(), 77);
        const HRESULT hr = CSource::Run(start);
        m_stream->m_running = true;
        return hr;
    }
    STDMETHODIMP Stop() override {
        const HRESULT hr = CSource::Stop();
        m_stream->m_running = false;
        return hr;
    }

private:
    ~Source() override {
        if (m_other) m_other->NonDelegatingRelease();
    }
    HRESULT answerState(DWORD milliseconds, FILTER_STATE* state) {
        const HRESULT hr = CSource::GetState(milliseconds, state);
        if (broken("state-wrong") && hr == S_OK && *state == State_Running) *state = State_Paused;
        return hr == S_OK && *state == State_Paused && !broken("cues-paused") && !broken("state-wrong") ? VFW_S_CANT_CUE
                                                                                                        : hr;
    }
    Stream* m_stream;
    Source* m_other = nullptr;
};

Stream::Stream(HRESULT* phr, Source* source) : CSourceStream(NAME("out"), phr, source, L"Out") {}

STDMETHODIMP Stream::SetFormat(AM_MEDIA_TYPE* wanted) {
    CMediaType type;
    {
        CAutoLock lock(m_pFilter->pStateLock());
        if (!wanted) return E_POINTER;
        if (broken("refuses-to-go-back") && keptFormat() == 0 && wanted->subtype == MEDIASUBTYPE_RGB24)
            return VFW_E_INVALIDMEDIATYPE;
        if (!IsStopped() && !broken("set-running")) return VFW_E_NOT_STOPPED;
        if ((wanted->cbFormat != 0 && !wanted->pbFormat) || FAILED(type.Set(*wanted)) || FAILED(CheckMediaType(&type)))
            return broken("set-anything") ? S_OK : VFW_E_INVALIDMEDIATYPE;
        if (broken("set-ignored")) return S_OK;
        m_format = type.subtype == MEDIASUBTYPE_YUY2 ? 0 : 1;
        m_isSet = true;
        keepFormat(m_format);
        if (broken("crash-once-set") && m_format == 0) RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
        if (broken("hang-once-set") && m_format == 0) Sleep(INFINITE);
        IncrementTypeVersion();
        if (!IsConnected() || broken("set-not-reconnected")) return S_OK;
    }
    return SUCCEEDED(m_pFilter->ReconnectPin(this, &type)) ? S_OK : VFW_E_INVALIDMEDIATYPE;
}

STDMETHODIMP Stream::GetFormat(AM_MEDIA_TYPE** type) {
    CAutoLock lock(m_pFilter->pStateLock());
    if (!type) return E_POINTER;
    CMediaType own;
    makeType(m_format, own);
    *type = CreateMediaType(IsConnected() && !broken("get-connected") ? &m_mt : &own);
    if (broken("get-connected") && *type)
        (*type)->lSampleSize = 1, reinterpret_cast<VIDEOINFOHEADER*>((*type)->pbFormat)->dwBitRate = IsConnected();
    return *type ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP Stream::Connect(IPin* receiver, const AM_MEDIA_TYPE* type) {
    CAutoLock lock(m_pLock);
    if (type && type->cbFormat != 0 && !type->pbFormat) return VFW_E_INVALIDMEDIATYPE;
    if (broken("connect-active")) m_bCanReconnectWhenActive = true;
    const HRESULT hr = CSourceStream::Connect(receiver, type);
    if (FAILED(hr) && receiver && receiver != this && broken("connect-leak")) receiver->AddRef();
    return hr;
}

STDMETHODIMP Stream::Disconnect() {
    if (broken("disconnect-active") && IsConnected() && !IsStopped()) return S_FALSE;
    const HRESULT hr = CSourceStream::Disconnect();
    return hr == S_FALSE && broken("unconnected") ? S_OK : hr;
}

HRESULT Stream::deliver(IMediaSample* sample, int number) {
    BYTE* data = nullptr;
    sample->GetPointer(&data);
    const long bytes = std::min(sample->GetSize(), static_cast<long>(m_mt.GetSampleSize()));
    std::memset(data, number, static_cast<size_t>(bytes));
    sample->SetActualDataLength(broken("short-samples") ? bytes - 2 : bytes);
    REFERENCE_TIME start = m_stamp, stop = m_stamp + (broken("duration") ? kFrameTime * 2 : kFrameTime);
    if (broken("stamps-back") && number % 4 == 3) start -= 3 * kFrameTime, stop -= 3 * kFrameTime;
    if (broken("stamps-none"))
        sample->SetTime(nullptr, nullptr);
    else
        sample->SetTime(&start, &stop);
    sample->SetSyncPoint(!broken("no-sync-point"));
    if (broken("type-on-samples")) sample->SetMediaType(&m_mt);
    m_stamp += kFrameTime;
    m_inside = number + 1;
    const HRESULT hr = m_pInputPin->Receive(sample);
    m_inside = 0;
    return hr;
}

/// A second sample while the receiver is still at one.
void Stream::pushBeside() {
    for (int before = 0; WaitForSingleObject(m_stop, 8) == WAIT_TIMEOUT;) {
        const int now = m_inside;
        IMediaSample* sample = nullptr;
        if (now != 0 && now == before && SUCCEEDED(GetDeliveryBuffer(&sample, nullptr, nullptr, AM_GBF_NOWAIT))) {
            m_pInputPin->Receive(sample);
            sample->Release();
        }
        before = now;
    }
}

void Stream::push() {
    const ULONGLONG began = GetTickCount64();
    if (!broken("stamps-go-on")) m_stamp = broken("stamps-negative") ? -kFrameTime * 5 : 0;
    if (broken("stamps-go-on") && m_stamp > 0) m_stamp += 36'000'000'000;
    bool told = false;
    for (int number = 0;; ++number) {
        // Due by the clock, so that stamps and wall keep together.
        const ULONGLONG due = began + static_cast<ULONGLONG>(number) * 10, now = GetTickCount64();
        if (WaitForSingleObject(m_stop, due > now ? static_cast<DWORD>(due - now) : 0) == WAIT_OBJECT_0) return;
        if (!m_running) {
            m_stamp = number * kFrameTime; // stream time goes on
            if (broken("stamps-negative")) m_stamp = -kFrameTime * 5;
            continue;
        }
        if (isGone()) {
            if (!std::exchange(told, true)) m_pFilter->NotifyEvent(EC_DEVICE_LOST, 0, 0);
            continue;
        }
        IMediaSample* sample = nullptr;
        if (FAILED(GetDeliveryBuffer(&sample, nullptr, nullptr, broken("not-decommitted") ? AM_GBF_NOWAIT : 0))) {
            if (broken("not-decommitted")) continue;
            return;
        }
        const HRESULT hr = deliver(sample, number);
        if (broken("sample-kept") && !m_kept) (m_kept = sample)->AddRef();
        sample->Release();
        if (hr != S_OK && !broken("delivers-after-refusal")) return;
        if (broken("ends-running") && number % 8 == 4) DeliverEndOfStream();
    }
}

} // namespace

CFactoryTemplate g_Templates[] = {{L"Faulty source", &kFaultySource, Source::create, nullptr, nullptr}};
int g_cTemplates = 1;

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE, ULONG, LPVOID); // of the base classes, in no header of theirs
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    return DllEntryPoint(instance, reason, reserved);
}
