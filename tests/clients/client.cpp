#include "tests/clients/client.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>
#include <olectl.h>

namespace kestra::test {
namespace {

template <class Interface>
HRESULT create(const CLSID& clsid, REFIID riid, ComRef<Interface>& object) {
    return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, reinterpret_cast<void**>(object.out()));
}

/// Calls for each video device with its name, until it answers false.
template <class Visit>
void forEachDevice(Visit visit) {
    ComRef<ICreateDevEnum> devices;
    ComRef<IEnumMoniker> monikers;
    if (FAILED(create(CLSID_SystemDeviceEnum, IID_ICreateDevEnum, devices)) ||
        devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, monikers.out(), 0) != S_OK)
        return;
    ComRef<IMoniker> moniker;
    while (monikers->Next(1, moniker.out(), nullptr) == S_OK) {
        ComRef<IPropertyBag> bag;
        if (FAILED(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out()))))
            continue;
        VARIANT name;
        VariantInit(&name);
        const bool named = SUCCEEDED(bag->Read(L"FriendlyName", &name, nullptr)) && name.vt == VT_BSTR;
        const bool more = !named || visit(std::wstring(name.bstrVal), *moniker.get());
        VariantClear(&name);
        if (!more) return;
    }
}

/// Wine's graph stops nothing after a Run that failed, and then tries for ever to disconnect what still runs: a real
/// application hangs there. @return whether a filter was not stopped
bool stopOneByOne(IFilterGraph& graph) {
    bool any = false;
    ComRef<IEnumFilters> filters;
    ComRef<IBaseFilter> filter;
    if (FAILED(graph.EnumFilters(filters.out()))) return false;
    while (filters->Next(1, filter.out(), nullptr) == S_OK) {
        FILTER_STATE state = State_Stopped;
        if (FAILED(filter->GetState(0, &state)) || state == State_Stopped) continue;
        filter->Stop();
        any = true;
    }
    return any;
}

} // namespace

std::string formatName(const AM_MEDIA_TYPE& type) {
    if (type.subtype == MEDIASUBTYPE_YUY2) return "YUY2";
    if (type.subtype == MEDIASUBTYPE_RGB24) return "RGB24";
    if (type.subtype == MEDIASUBTYPE_UYVY) return "UYVY";
    if (type.subtype == MEDIASUBTYPE_RGB32) return "RGB32";
    return "?";
}

Client::~Client() = default;

std::vector<std::wstring> Client::listDevices() {
    std::vector<std::wstring> names;
    forEachDevice([&](const std::wstring& name, IMoniker&) {
        names.push_back(name);
        return true;
    });
    return names;
}

ComRef<IBaseFilter> Client::bind(const std::wstring& device) {
    ComRef<IBaseFilter> filter;
    failed("listing the devices", E_FAIL);
    forEachDevice([&](const std::wstring& name, IMoniker& moniker) {
        if (name != device) return true;
        m_bound = failed("BindToObject", moniker.BindToObject(nullptr, nullptr, IID_IBaseFilter,
                                                              reinterpret_cast<void**>(filter.out())));
        return false;
    });
    return filter;
}

std::vector<std::string> Client::plainFormats(const std::wstring& device) {
    std::vector<std::string> names;
    const auto filter = bind(device);
    if (!filter) return names;
    for (const Type& type : capabilities(findPin(filter.get(), PIN_CATEGORY_CAPTURE).get()))
        if (type->formattype == FORMAT_VideoInfo) names.push_back(formatName(*type));
    return names;
}

HRESULT Client::makeGraph(const std::wstring& device) {
    {
        const std::lock_guard lock(m_mutex);
        m_frames.clear();
    }
    m_sink = ComRef<Sink>(new Sink);
    m_sink->onReceive = [this](IMediaSample* sample, int) {
        const std::lock_guard lock(m_mutex);
        if (m_frames.size() >= kKept) return S_OK;
        BYTE* data = nullptr;
        REFERENCE_TIME start = 0, stop = 0;
        sample->GetPointer(&data);
        sample->GetTime(&start, &stop);
        m_frames.push_back({std::vector<uint8_t>(data, data + sample->GetActualDataLength()), start});
        return S_OK;
    };
    m_source = bind(device);
    if (!m_source) return m_bound;
    HRESULT hr = create(CLSID_FilterGraph, IID_IGraphBuilder, m_graph);
    if (SUCCEEDED(hr)) hr = create(CLSID_CaptureGraphBuilder2, IID_ICaptureGraphBuilder2, m_builder);
    if (FAILED(hr)) return failed("CoCreateInstance", hr);
    m_builder->SetFiltergraph(m_graph.get());
    hr = m_graph->AddFilter(m_source.get(), L"Capture");
    if (SUCCEEDED(hr)) hr = m_graph->AddFilter(m_sink.get(), L"Receiver");
    return FAILED(hr) ? failed("AddFilter", hr) : S_OK;
}

HRESULT Client::run() {
    const auto control = queryFor<IMediaControl>(m_graph.get(), IID_IMediaControl);
    const HRESULT hr = control->Run();
    return FAILED(hr) ? failed("IMediaControl::Run", hr) : S_OK;
}

HRESULT Client::showProperties() {
    const auto specify = queryFor<ISpecifyPropertyPages>(m_source.get(), IID_ISpecifyPropertyPages);
    CAUUID pages{};
    if (!specify || FAILED(specify->GetPages(&pages))) return failed("ISpecifyPropertyPages", E_FAIL);
    IUnknown* object = m_source.get();
    const HRESULT hr = OleCreatePropertyFrame(nullptr, 0, 0, L"The device", 1, &object, pages.cElems, pages.pElems,
                                              GetUserDefaultLCID(), 0, nullptr);
    CoTaskMemFree(pages.pElems);
    return FAILED(hr) ? failed("OleCreatePropertyFrame", hr) : hr;
}

void Client::close() {
    if (const auto control = queryFor<IMediaControl>(m_graph.get(), IID_IMediaControl)) control->Stop();
    m_pin = {};
    m_leftActive = m_graph && stopOneByOne(*m_graph.get());
    if (m_graph && m_source) m_graph->RemoveFilter(m_source.get());
    if (m_graph) m_graph->RemoveFilter(m_sink.get());
    m_source = {};
    m_builder = {};
    m_graph = {};
}

std::vector<Client::Frame> Client::frames() const {
    const std::lock_guard lock(m_mutex);
    return m_frames;
}

size_t Client::received() const {
    return m_sink->samples().size();
}

std::vector<long> Client::events() {
    std::vector<long> codes;
    const auto events = queryFor<IMediaEvent>(m_graph.get(), IID_IMediaEvent);
    long code = 0;
    LONG_PTR one = 0, other = 0;
    while (events && SUCCEEDED(events->GetEvent(&code, &one, &other, 0))) {
        codes.push_back(code);
        events->FreeEventParams(code, one, other);
    }
    return codes;
}

ComRef<IPin> Client::findPin(IBaseFilter* filter, const GUID& category) {
    ComRef<IEnumPins> pins;
    if (FAILED(filter->EnumPins(pins.out()))) return {};
    pins->Reset(); // some do so first
    ComRef<IPin> pin;
    while (pins->Next(1, pin.out(), nullptr) == S_OK) {
        const auto properties = queryFor<IKsPropertySet>(pin.get(), IID_IKsPropertySet);
        GUID found = GUID_NULL;
        DWORD bytes = 0;
        // The size must come back exactly.
        if (properties &&
            properties->Get(AMPROPSETID_Pin, AMPROPERTY_PIN_CATEGORY, nullptr, 0, &found, sizeof found, &bytes) ==
                S_OK &&
            bytes == sizeof found && found == category)
            return pin;
    }
    return {};
}

std::vector<Type> Client::capabilities(IPin* pin) {
    std::vector<Type> types;
    const auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
    int count = 0, size = 0;
    if (!config || FAILED(config->GetNumberOfCapabilities(&count, &size))) return types;
    std::vector<BYTE> caps(static_cast<size_t>(size));
    for (int i = 0; i < count; ++i) {
        AM_MEDIA_TYPE* type = nullptr;
        if (config->GetStreamCaps(i, &type, caps.data()) == S_OK) types.push_back(Type::taken(type));
    }
    return types;
}

std::optional<Type> Client::choose(const std::string& format, Header header) {
    for (const Type& type : capabilities(m_pin.get()))
        if (formatName(*type) == format && (header == Header::Any || type->formattype == FORMAT_VideoInfo)) return type;
    failed("choosing a format", E_FAIL);
    return std::nullopt;
}

} // namespace kestra::test
