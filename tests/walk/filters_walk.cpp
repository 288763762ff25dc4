// Walks over all COM calls of the filters, pins, enumerators and pages: four filters at once, up to four threads, sinks
// and allocators that behave oddly, settings that change, and cards that are pulled, change their input, and answer as
// no card should.
#include "simcard/ctl/control.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/wait_until.h"
#include "tests/walk/card_events.h"
#include "tests/walk/page_session.h"
#include "tests/walk/plug_notices.h"
#include "tests/walk/rig.h"
#include "tests/walk/sample_check.h"
#include "tests/walk/walk.h"

#include <dvdmedia.h>
#include <ks.h>

#include <kestra_interfaces.h>
#include <ksmedia.h>
#include <ksproxy.h>

#include <cstdio>
#include <mutex>
#include <optional>

namespace kestra::walk {
namespace {

using namespace kestra::simcard;

constexpr size_t kSlots = 4; ///< the first two for video filters, the others for audio filters
constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
const CLSID* const kClasses[] = {&CLSID_KestraCapture, &CLSID_KestraAudioCapture, &CLSID_KestraStreamPropCSC,
                                 &CLSID_KestraStreamPropRGB, &CLSID_KestraAudioPropertyPage};

enum : uint16_t {
    kCreate,
    kRelease,
    kStop,
    kPause,
    kRun,
    kGetState,
    kSyncSource,
    kEnumPins,
    kFindPin,
    kFilterInfo,
    kJoin,
    kQuery,
    kClassAndVendor,
    kPages,
    kConnect,
    kDisconnect,
    kConnectedTo,
    kMediaType,
    kPinQuestions,
    kQueryAccept,
    kEnumTypes,
    kReceiveConnection,
    kStreamCalls,
    kPropertySet,
    kSetFormat,
    kGetFormat,
    kCapabilities,
    kNegotiation,
    kGetColours,
    kPutColours,
    kWhiteBalance,
    kBitDepth,
    kPage,
    kFactory,
    kGraph,
    kRegistry,
    kAwaitSamples,
    kSleep,
    kCardSteps
};
const std::vector<Call> kCalls = withCardCalls({
    {"CreateInstance", 16, 12},
    {"Release", 3, 3},
    {"Stop", 7, 7},
    {"Pause", 5, 5},
    {"Run", 14, 14},
    {"GetState", 3, 3},
    {"SetSyncSource, GetSyncSource", 2, 2},
    {"EnumPins", 3, 3},
    {"FindPin", 2, 2},
    {"QueryFilterInfo", 2, 2},
    {"JoinFilterGraph", 2, 2},
    {"QueryInterface", 4, 4},
    {"GetClassID, QueryVendorInfo", 1, 1},
    {"GetPages", 2, 2},
    {"Connect", 16, 16},
    {"Disconnect", 3, 3},
    {"ConnectedTo", 2, 2},
    {"ConnectionMediaType", 2, 2},
    {"QueryPinInfo, -Direction, -Id", 3, 3},
    {"QueryAccept", 4, 4},
    {"EnumMediaTypes", 4, 4},
    {"ReceiveConnection", 1, 1},
    {"EndOfStream, flushes, NewSegment", 2, 2},
    {"IKsPropertySet", 3, 3},
    {"SetFormat", 6, 6},
    {"GetFormat", 4, 4},
    {"GetNumberOfCapabilities, GetStreamCaps", 4, 4},
    {"IAMBufferNegotiation", 2, 2},
    {"colours: get", 3, 3},
    {"colours: put", 4, 4},
    {"WhiteBalance", 1, 1},
    {"BitDepth", 3, 3},
    {"property page", 1, 1},
    {"class factory", 2, 2},
    {"graph", 8, 8},
    {"registry", 2, 2},
    {"wait for samples", 12, 14},
    {"wait", 8, 8},
});

/// The module. It stays loaded: what its compiler's libraries keep of a load is not the filters' doing.
class Module {
public:
    Module() : m_module(LoadLibraryW(KESTRA_MODULE)) {
        if (!m_module) fail("module", "it cannot be loaded");
        m_class = find<decltype(m_class)>("DllGetClassObject");
        m_canUnload = find<decltype(m_canUnload)>("DllCanUnloadNow");
    }
    ~Module() { FreeLibrary(m_module); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    HRESULT factory(const CLSID& clsid, REFIID riid, void** object) const { return m_class(clsid, riid, object); }
    HRESULT create(const CLSID& clsid, IUnknown* outer, REFIID riid, void** object) const {
        *object = nullptr;
        ComRef<IClassFactory> factory;
        const HRESULT hr = m_class(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        return FAILED(hr) ? hr : factory->CreateInstance(outer, riid, object);
    }
    bool canUnload() const { return m_canUnload() == S_OK; }

private:
    template <class Function>
    Function find(const char* name) const {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(m_module, name)));
    }
    const HMODULE m_module;
    HRESULT(STDAPICALLTYPE* m_class)(REFCLSID, REFIID, void**) = nullptr;
    HRESULT(STDAPICALLTYPE* m_canUnload)() = nullptr;
};

/// What an aggregated object belongs to. Lives on the stack.
class Outer : public IUnknown {
public:
    virtual ~Outer() = default;
    STDMETHODIMP QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

/// What a thread keeps between its steps.
struct Mine {
    ComRef<IEnumPins> pins;
    ComRef<IEnumMediaTypes> types;
    std::optional<PageFrame> frame;
};
thread_local Mine* t_mine = nullptr; // made and deleted by the thread: MinGW may end what is thread_local too late

void free(AM_MEDIA_TYPE* type) {
    compliance::Type::taken(type);
}

class FiltersWorld final : public World {
public:
    const std::vector<Call>& calls() const override { return kCalls; }
    void begin(const Act& act) override;
    uint32_t step(const Step& step) override;
    void end() override;
    void rescue() override;
    std::string summary() const override;
    int handlesOfTheSystem() const override { return Rig::graphsMade(); }
    void threadBegins() override {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        t_mine = new Mine;
    }
    void threadEnds() override {
        delete t_mine;
        CoUninitialize();
    }
    std::string resultText(uint32_t result) const override {
        char text[16];
        std::snprintf(text, sizeof text, "%lX", static_cast<unsigned long>(result));
        return text;
    }

private:
    using RigPointer = std::shared_ptr<Rig>;

    RigPointer rigOf(uint32_t a, int isVideo = -1);
    HRESULT create(uint32_t a, uint32_t b);
    HRESULT onFilter(Rig& rig, uint16_t call, uint32_t b);
    HRESULT onPin(Rig& rig, uint16_t call, uint32_t b);
    HRESULT connect(Rig& rig, uint32_t b);
    HRESULT enumeratePins(Rig& rig, uint32_t b);
    HRESULT enumerateTypes(Rig& rig, uint32_t b);
    HRESULT questions(Rig& rig, uint32_t b);
    HRESULT propertySet(Rig& rig, uint32_t b);
    HRESULT capabilities(Rig& rig, uint32_t b);
    HRESULT getColours(Rig& rig, uint32_t b);
    HRESULT putColours(Rig& rig, uint32_t b);
    HRESULT bitDepth(Rig& rig, uint32_t b);
    HRESULT page(Rig& rig, uint32_t b);
    HRESULT factory(uint32_t b);
    HRESULT onGraph(Rig& rig, uint32_t b);
    void registry(uint32_t b);
    compliance::Type oddType(Rig& rig, uint32_t b);
    static uint32_t awaitSamples(Rig& rig, uint32_t b);
    uint32_t onRig(Rig& rig, uint16_t call, uint32_t b);
    /// What a thread that is alone sees before and after a call must fit the call's result.
    struct Seen {
        bool connected;
        FILTER_STATE state;
    };
    static Seen look(const Rig& rig);
    static void judge(const Rig& rig, uint16_t call, HRESULT hr, const Seen& before, const Seen& after);
    /// The converters that the cards have now may be in the pictures to come.
    void noteConverters();

    /// A result that the call may give.
    static HRESULT allowed(HRESULT hr, std::initializer_list<HRESULT> results, const char* call) {
        for (const HRESULT result : results)
            if (hr == result) return hr;
        char text[100];
        std::snprintf(text, sizeof text, "%s gave 0x%08lX", call, static_cast<unsigned long>(hr));
        fail("result", text);
    }

    bool m_calm = false, m_alone = false;
    std::mutex m_mutex; ///< guards the slots
    RigPointer m_rigs[kSlots];
    std::optional<Module> m_module;
    CardPictures m_pictures{wireConverters()};
    SampleCheck m_check{m_pictures};
    std::mutex m_colours; ///< one change at a time, so that each is seen
    PlugNotices m_notices;
    test::RegistrySandbox m_registry;
    std::atomic<uint64_t> m_rescues{0};
};

void FiltersWorld::begin(const Act& act) {
    m_calm = act.calm;
    m_alone = act.threads == 1;
    for (uint32_t card = 0; card < kCards; ++card) {
        const CardControl control(card);
        control.reset();
        control.setSignal(kSignals[(act.seed + card) % 5]); // with sound
        Options options = kDefaultOptions;
        if (act.seed / 2 % 2 == card) options.pace = Pace::AsTaken;
        control.setOptions(options);
    }
    m_notices.await();
    if (!m_module) m_module.emplace();
}

/// A filter of that kind (1 video, 0 audio, -1 any), if there is one.
FiltersWorld::RigPointer FiltersWorld::rigOf(uint32_t a, int isVideo) {
    const std::lock_guard lock(m_mutex);
    for (size_t i = 0; i < kSlots; ++i)
        if (const RigPointer& rig = m_rigs[(a + i) % kSlots]; rig && (isVideo < 0 || rig->isVideo == (isVideo == 1)))
            return rig;
    return nullptr;
}

HRESULT FiltersWorld::create(uint32_t a, uint32_t b) {
    const size_t slot = a % kSlots;
    const bool isVideo = slot < kSlots / 2;
    {
        const std::lock_guard lock(m_mutex);
        if (m_rigs[slot]) return static_cast<HRESULT>(kNotMade);
    }
    ComRef<IBaseFilter> filter;
    const HRESULT hr = m_module->create(isVideo ? CLSID_KestraCapture : CLSID_KestraAudioCapture, nullptr,
                                        IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
    if (FAILED(hr) != !filter) fail("result", "CreateInstance gave a filter and a failure, or neither");
    if (m_calm && FAILED(hr)) fail("result", "no filter on a card with a signal");
    if (filter) {
        const auto rig = std::make_shared<Rig>(std::move(filter), isVideo, b, m_check);
        if (b >> 20 & 3) rig->pin->Connect(rig->sinks[0]->pin(), nullptr); // most are of use at once
        const std::lock_guard lock(m_mutex);
        if (!m_rigs[slot]) m_rigs[slot] = rig;
    }
    return allowed(hr, {S_OK, E_FAIL}, "CreateInstance");
}

// Filters.

HRESULT FiltersWorld::onFilter(Rig& rig, uint16_t call, uint32_t b) {
    IBaseFilter* filter = rig.filter.get();
    switch (call) {
    case kStop:
        return allowed(rig.stop([&] { return filter->Stop(); }), {S_OK}, "Stop");
    case kPause:
        return allowed(rig.start([&] { return filter->Pause(); }), {S_OK, E_FAIL, E_UNEXPECTED, VFW_E_NO_ALLOCATOR},
                       "Pause");
    case kRun:
        return allowed(rig.start([&] { return filter->Run(b); }), {S_OK, E_FAIL, E_UNEXPECTED, VFW_E_NO_ALLOCATOR},
                       "Run");
    case kGetState: {
        FILTER_STATE state{};
        if (b % 8 == 0) return allowed(filter->GetState(0, nullptr), {E_POINTER}, "GetState(null)");
        return allowed(filter->GetState(b % 50, &state), {S_OK}, "GetState");
    }
    case kSyncSource: {
        ComRef<IReferenceClock> clock;
        if (b % 3 == 0) {
            CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock,
                             reinterpret_cast<void**>(clock.out()));
            return allowed(filter->SetSyncSource(clock.get()), {S_OK}, "SetSyncSource");
        }
        if (b % 3 == 1) return allowed(filter->SetSyncSource(nullptr), {S_OK}, "SetSyncSource(null)");
        return allowed(filter->GetSyncSource(clock.out()), {S_OK}, "GetSyncSource");
    }
    case kEnumPins:
        return enumeratePins(rig, b);
    case kFindPin: {
        ComRef<IPin> found;
        static const wchar_t* const kIds[] = {L"1", L"Video Capture", L"Audio Capture", L"", L"no such pin"};
        if (b % 16 == 0) return allowed(filter->FindPin(L"1", nullptr), {E_POINTER}, "FindPin");
        const HRESULT hr = filter->FindPin(kIds[b % 5], found.out());
        if (SUCCEEDED(hr) != bool(found)) fail("result", "FindPin gave a pin and a failure, or neither");
        return allowed(hr, {S_OK, VFW_E_NOT_FOUND}, "FindPin");
    }
    case kFilterInfo: {
        FILTER_INFO info{};
        const HRESULT hr = filter->QueryFilterInfo(b % 16 == 0 ? nullptr : &info);
        const ComRef<IFilterGraph> graph(info.pGraph);
        return allowed(hr, {b % 16 == 0 ? E_POINTER : S_OK}, "QueryFilterInfo");
    }
    case kJoin:
        if (rig.graph) return static_cast<HRESULT>(kNotMade); // the graph's own matter
        return allowed(filter->JoinFilterGraph(nullptr, b % 2 == 0 ? nullptr : L"a name"), {S_OK}, "JoinFilterGraph");
    case kClassAndVendor: {
        CLSID clsid{};
        LPWSTR vendor = nullptr;
        allowed(filter->QueryVendorInfo(&vendor), {E_NOTIMPL}, "QueryVendorInfo");
        return allowed(filter->GetClassID(&clsid), {S_OK}, "GetClassID");
    }
    default: {
        static const IID* const kInterfaces[] = {&IID_IUnknown,
                                                 &IID_IBaseFilter,
                                                 &IID_IPersist,
                                                 &IID_ISpecifyPropertyPages,
                                                 &IID_IKestraStreamPropCSC,
                                                 &IID_IKestraStreamPropRGBGainOffset,
                                                 &IID_IKestraAudioPropertyPage,
                                                 &IID_IAMStreamConfig,
                                                 &IID_IKsPropertySet,
                                                 &IID_IPin,
                                                 &IID_IQualityControl,
                                                 &IID_IAMBufferNegotiation,
                                                 &IID_IMediaSeeking};
        ComRef<IUnknown> found;
        IUnknown* asked = b % 2 == 0 ? static_cast<IUnknown*>(filter) : rig.pin.get();
        const HRESULT hr =
            asked->QueryInterface(*kInterfaces[b / 2 % std::size(kInterfaces)], reinterpret_cast<void**>(found.out()));
        if (SUCCEEDED(hr) != bool(found)) fail("result", "QueryInterface gave an interface and a failure, or neither");
        return allowed(hr, {S_OK, E_NOINTERFACE}, "QueryInterface");
    }
    }
}

HRESULT FiltersWorld::enumeratePins(Rig& rig, uint32_t b) {
    if (!t_mine->pins || b % 4 == 0) return allowed(rig.filter->EnumPins(t_mine->pins.out()), {S_OK}, "EnumPins");
    IEnumPins* pins = t_mine->pins.get();
    switch (b / 4 % 5) {
    case 0: {
        ComRef<IPin> pin;
        ULONG fetched = 7;
        const HRESULT hr = allowed(pins->Next(1, pin.out(), &fetched), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next");
        if (SUCCEEDED(hr) && (fetched == 1) != bool(pin)) fail("result", "Next counts pins that it does not give");
        return hr;
    }
    case 1:
        return allowed(pins->Skip(b / 32 % 3), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Skip");
    case 2:
        return allowed(pins->Reset(), {S_OK}, "Reset");
    case 3: {
        ComRef<IEnumPins> copy;
        const HRESULT hr = allowed(pins->Clone(copy.out()), {S_OK, VFW_E_ENUM_OUT_OF_SYNC}, "Clone");
        if (copy) t_mine->pins = std::move(copy);
        return hr;
    }
    default: {
        IPin* some[3] = {};
        ULONG fetched = 0;
        const HRESULT hr = allowed(pins->Next(3, some, &fetched), {S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next(3)");
        for (IPin* pin : some)
            if (pin) pin->Release();
        return hr;
    }
    }
}

// Pins.

HRESULT FiltersWorld::onPin(Rig& rig, uint16_t call, uint32_t b) {
    IPin* pin = rig.pin.get();
    switch (call) {
    case kConnect:
        return connect(rig, b);
    case kDisconnect: {
        if (b % 2 == 0)
            for (const auto& sink : rig.sinks)
                sink->pin()->Disconnect();
        return allowed(pin->Disconnect(), {S_OK, S_FALSE, VFW_E_NOT_STOPPED}, "Disconnect");
    }
    case kConnectedTo: {
        ComRef<IPin> other;
        if (b % 16 == 0) return allowed(pin->ConnectedTo(nullptr), {E_POINTER}, "ConnectedTo(null)");
        return allowed(pin->ConnectedTo(other.out()), {S_OK, VFW_E_NOT_CONNECTED}, "ConnectedTo");
    }
    case kMediaType: {
        compliance::Type type;
        if (b % 16 == 0) return allowed(pin->ConnectionMediaType(nullptr), {E_POINTER}, "ConnectionMediaType(null)");
        return allowed(pin->ConnectionMediaType(type.get()), {S_OK, VFW_E_NOT_CONNECTED}, "ConnectionMediaType");
    }
    case kPinQuestions:
        return questions(rig, b);
    case kQueryAccept: {
        if (b % 16 == 0) return allowed(pin->QueryAccept(nullptr), {E_POINTER}, "QueryAccept(null)");
        const compliance::Type type = oddType(rig, b);
        return allowed(pin->QueryAccept(&*type), {S_OK, S_FALSE}, "QueryAccept");
    }
    case kEnumTypes:
        return enumerateTypes(rig, b);
    case kReceiveConnection: { // it is an output pin
        const compliance::Type type = oddType(rig, b);
        const HRESULT hr = pin->ReceiveConnection(b % 8 == 0 ? nullptr : rig.sinks[1]->pin(), &*type);
        if (SUCCEEDED(hr)) return hr;
        return allowed(hr,
                       {E_POINTER, VFW_E_ALREADY_CONNECTED, VFW_E_NOT_STOPPED, VFW_E_TYPE_NOT_ACCEPTED, E_FAIL,
                        VFW_E_NO_CAPTURE_HARDWARE, VFW_E_INVALIDMEDIATYPE, E_OUTOFMEMORY},
                       "ReceiveConnection");
    }
    case kStreamCalls:
        switch (b % 4) {
        case 0:
            return allowed(pin->EndOfStream(), {S_OK, E_UNEXPECTED}, "EndOfStream");
        case 1:
            return allowed(pin->BeginFlush(), {S_OK, E_UNEXPECTED}, "BeginFlush");
        case 2:
            return allowed(pin->EndFlush(), {S_OK, E_UNEXPECTED}, "EndFlush");
        default:
            return allowed(pin->NewSegment(0, b, 1), {S_OK}, "NewSegment");
        }
    case kPropertySet:
        return propertySet(rig, b);
    case kSetFormat: {
        const auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
        if (b % 16 == 0) return allowed(config->SetFormat(nullptr), {E_POINTER}, "SetFormat(null)");
        compliance::Type type = oddType(rig, b);
        return allowed(config->SetFormat(type.get()), {S_OK, VFW_E_NOT_STOPPED, VFW_E_INVALIDMEDIATYPE}, "SetFormat");
    }
    case kGetFormat: {
        const auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
        if (b % 16 == 0) return allowed(config->GetFormat(nullptr), {E_POINTER}, "GetFormat(null)");
        AM_MEDIA_TYPE* type = nullptr;
        const HRESULT hr = allowed(config->GetFormat(&type), {S_OK}, "GetFormat");
        if (!type) fail("result", "GetFormat gave no type");
        free(type);
        return hr;
    }
    case kCapabilities:
        return capabilities(rig, b);
    case kNegotiation: {
        const auto negotiation = queryFor<IAMBufferNegotiation>(pin, IID_IAMBufferNegotiation);
        if (bool(negotiation) == rig.isVideo) fail("result", "IAMBufferNegotiation is the audio pin's");
        if (!negotiation) return static_cast<HRESULT>(kNotMade);
        ALLOCATOR_PROPERTIES properties{};
        if (b % 2 == 0)
            return allowed(negotiation->SuggestAllocatorProperties(&properties), {S_OK}, "SuggestAllocatorProperties");
        return allowed(negotiation->GetAllocatorProperties(b % 16 == 1 ? nullptr : &properties),
                       {S_OK, E_POINTER, VFW_E_NO_ALLOCATOR}, "GetAllocatorProperties");
    }
    default: { // kPages
        CAUUID pages{};
        const auto specify = queryFor<ISpecifyPropertyPages>(
            b % 2 == 0 ? static_cast<IUnknown*>(rig.filter.get()) : pin, IID_ISpecifyPropertyPages);
        if (!specify) return E_NOINTERFACE; // the audio filter has none
        const HRESULT hr =
            allowed(specify->GetPages(b % 16 == 2 ? nullptr : &pages), {S_OK, E_POINTER}, "ISpecifyPropertyPages");
        CoTaskMemFree(pages.pElems);
        return hr;
    }
    }
}

HRESULT FiltersWorld::connect(Rig& rig, uint32_t b) {
    if (b % 16 == 0) return allowed(rig.pin->Connect(nullptr, nullptr), {E_POINTER}, "Connect(null)");
    IPin* other = b % 32 == 1 ? rig.pin.get() : rig.sinks[b / 32 % 4 == 0 ? 1 : 0]->pin();
    const compliance::Type type = b / 128 % 3 == 0 ? oddType(rig, b / 512) : compliance::Type();
    return allowed(rig.pin->Connect(other, b / 128 % 3 == 0 ? &*type : nullptr),
                   {S_OK, E_FAIL, VFW_E_ALREADY_CONNECTED, VFW_E_NOT_STOPPED, VFW_E_NO_ACCEPTABLE_TYPES,
                    VFW_E_TYPE_NOT_ACCEPTED, VFW_E_INVALIDMEDIATYPE, VFW_E_NO_CAPTURE_HARDWARE, VFW_E_INVALID_DIRECTION,
                    VFW_E_NO_ALLOCATOR},
                   "Connect");
}

HRESULT FiltersWorld::questions(Rig& rig, uint32_t b) {
    IPin* pin = rig.pin.get();
    switch (b % 4) {
    case 0: {
        PIN_INFO info{};
        const HRESULT hr = pin->QueryPinInfo(b % 16 == 0 ? nullptr : &info);
        const ComRef<IBaseFilter> filter(info.pFilter);
        return allowed(hr, {b % 16 == 0 ? E_POINTER : S_OK}, "QueryPinInfo");
    }
    case 1: {
        PIN_DIRECTION direction = PINDIR_INPUT;
        const HRESULT hr = allowed(pin->QueryDirection(&direction), {S_OK}, "QueryDirection");
        if (direction != PINDIR_OUTPUT) fail("result", "a pin of the wrong direction");
        return hr;
    }
    case 2: {
        LPWSTR id = nullptr;
        const HRESULT hr = allowed(pin->QueryId(&id), {S_OK}, "QueryId");
        CoTaskMemFree(id);
        return hr;
    }
    default: {
        ULONG count = 0;
        return allowed(pin->QueryInternalConnections(nullptr, &count), {E_NOTIMPL}, "QueryInternalConnections");
    }
    }
}

HRESULT FiltersWorld::enumerateTypes(Rig& rig, uint32_t b) {
    if (!t_mine->types || b % 4 == 0)
        return allowed(rig.pin->EnumMediaTypes(t_mine->types.out()), {S_OK}, "EnumMediaTypes");
    IEnumMediaTypes* types = t_mine->types.get();
    switch (b / 4 % 4) {
    case 0: {
        AM_MEDIA_TYPE* some[8] = {};
        ULONG fetched = 0;
        const HRESULT hr =
            allowed(types->Next(1 + b / 16 % 8, some, &fetched), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next");
        for (ULONG i = 0; i < fetched; ++i)
            free(some[i]);
        return hr;
    }
    case 1:
        return allowed(types->Skip(b / 16 % 6), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Skip");
    case 2:
        return allowed(types->Reset(), {S_OK}, "Reset");
    default: {
        ComRef<IEnumMediaTypes> copy;
        const HRESULT hr = allowed(types->Clone(copy.out()), {S_OK, VFW_E_ENUM_OUT_OF_SYNC}, "Clone");
        if (copy) t_mine->types = std::move(copy);
        return hr;
    }
    }
}

HRESULT FiltersWorld::propertySet(Rig& rig, uint32_t b) {
    const auto set = queryFor<IKsPropertySet>(rig.pin.get(), IID_IKsPropertySet);
    const GUID& which = b % 4 == 0 ? GUID_NULL : AMPROPSETID_Pin;
    const DWORD id = b / 4 % 4 == 0 ? 1 : DWORD{AMPROPERTY_PIN_CATEGORY};
    const auto kNoSet = static_cast<HRESULT>(0x80070492), kNoId = static_cast<HRESULT>(0x80070490);
    GUID category{};
    DWORD bytes = 0;
    switch (b / 16 % 4) {
    case 0:
        return allowed(set->QuerySupported(which, id, b / 64 % 4 == 0 ? nullptr : &bytes), {S_OK, kNoSet, kNoId},
                       "QuerySupported");
    case 1:
        return allowed(set->Set(which, id, nullptr, 0, &category, sizeof category), {E_NOTIMPL}, "Set");
    default:
        return allowed(set->Get(which, id, nullptr, 0, b / 64 % 4 == 0 ? nullptr : &category,
                                b / 256 % 4 == 0 ? 3 : DWORD{sizeof category}, b / 1024 % 4 == 0 ? nullptr : &bytes),
                       {S_OK, E_POINTER, E_UNEXPECTED, kNoSet, kNoId}, "Get");
    }
}

HRESULT FiltersWorld::capabilities(Rig& rig, uint32_t b) {
    const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig);
    int count = 0, size = 0;
    if (b % 16 == 0)
        return allowed(config->GetNumberOfCapabilities(nullptr, &size), {E_POINTER}, "GetNumberOfCapabilities(null)");
    allowed(config->GetNumberOfCapabilities(&count, &size), {S_OK}, "GetNumberOfCapabilities");
    if (count != (rig.isVideo ? 4 : 2)) fail("result", "another number of formats");
    std::vector<BYTE> capability(static_cast<size_t>(size));
    AM_MEDIA_TYPE* type = nullptr;
    const int index = static_cast<int>(b / 16 % 8) - (b / 128 % 16 == 0 ? 8 : 0);
    if (b / 2048 % 16 == 0) return allowed(config->GetStreamCaps(0, nullptr, nullptr), {E_POINTER}, "GetStreamCaps");
    const HRESULT hr = config->GetStreamCaps(index, &type, capability.data());
    if ((hr == S_OK) != (type != nullptr)) fail("result", "GetStreamCaps gave a type and a failure, or neither");
    free(type);
    return allowed(hr, {S_OK, S_FALSE, E_INVALIDARG}, "GetStreamCaps");
}

/// A type that the pin offers, whole or not as it should be.
compliance::Type FiltersWorld::oddType(Rig& rig, uint32_t b) {
    const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig);
    std::vector<BYTE> capability(256);
    AM_MEDIA_TYPE* offered = nullptr;
    config->GetStreamCaps(static_cast<int>(b / 16 % (rig.isVideo ? 4 : 2)), &offered, capability.data());
    if (!offered) return {};
    compliance::Type type = compliance::Type::taken(offered);
    switch (b / 64 % 16) {
    case 0:
        type->subtype = GUID_NULL;
        break;
    case 1:
        type->majortype = MEDIATYPE_Audio;
        break;
    case 2: // no block
        type->cbFormat = 0;
        CoTaskMemFree(type->pbFormat);
        type->pbFormat = nullptr;
        break;
    case 3: // a block that is shorter than its kind
        type->cbFormat = b / 1024 % 18;
        break;
    case 4:
        type->formattype = FORMAT_None;
        break;
    case 5:
        type->lSampleSize = b / 1024 % 5000;
        break;
    case 6:
        if (BITMAPINFOHEADER* header = type.bitmap()) header->biWidth = static_cast<LONG>(b / 1024 % 400);
        break;
    case 7:
        if (BITMAPINFOHEADER* header = type.bitmap()) header->biBitCount = static_cast<WORD>(b / 1024 % 64);
        if (WAVEFORMATEX* wave = type.wave()) wave->wBitsPerSample = b / 1024 % 2 == 0 ? 16 : 24;
        break;
    case 8:
        if (WAVEFORMATEX* wave = type.wave()) wave->nAvgBytesPerSec = b / 1024 % 400000;
        break;
    default:
        break;
    }
    return type;
}

// The module's own interfaces.

void FiltersWorld::noteConverters() {
    for (uint32_t i = 0; i < kCards; ++i) {
        wire::Converter converter = CardControl(i).state().converter;
        m_pictures.add(converter);
        // While a white balance is measured, gains and offsets are off.
        converter.redGain = converter.greenGain = converter.blueGain = 256;
        converter.redOffset = converter.greenOffset = converter.blueOffset = 0;
        m_pictures.add(converter);
    }
}

HRESULT FiltersWorld::getColours(Rig& rig, uint32_t b) {
    const auto converter = queryFor<IKestraStreamPropCSC>(
        b % 2 == 0 ? static_cast<IUnknown*>(rig.filter.get()) : rig.pin.get(), IID_IKestraStreamPropCSC);
    const auto gains = queryFor<IKestraStreamPropRGBGainOffset>(rig.filter.get(), IID_IKestraStreamPropRGBGainOffset);
    LONG number = 0;
    float real = 0;
    unsigned char byte = 0;
    signed char offset = 0;
    switch (b / 2 % 8) {
    case 0:
        return allowed(converter->get_YOff(&number), {S_OK}, "get_YOff");
    case 1:
        return allowed(converter->get_G2(&real), {S_OK}, "get_G2");
    case 2:
        return allowed(converter->get_BMax(&byte), {S_OK}, "get_BMax");
    case 3:
        return allowed(converter->get_RGBOut(&number), {S_OK}, "get_RGBOut");
    case 4:
        return allowed(converter->get_FreezeUpdate(&number), {S_OK}, "get_FreezeUpdate");
    case 5: {
        KestraConverterValues values{};
        return allowed(converter->get_DefaultColorSpaceConverter(b / 16 % 8 == 0 ? nullptr : &values),
                       {b / 16 % 8 == 0 ? E_POINTER : S_OK}, "get_DefaultColorSpaceConverter");
    }
    case 6:
        return allowed(gains->get_GreenOffset(&offset), {S_OK}, "get_GreenOffset");
    default:
        return allowed(gains->get_BlueGain(b / 16 % 8 == 0 ? nullptr : &real), {b / 16 % 8 == 0 ? E_POINTER : S_OK},
                       "get_BlueGain");
    }
}

HRESULT FiltersWorld::putColours(Rig& rig, uint32_t b) {
    const auto converter = queryFor<IKestraStreamPropCSC>(rig.filter.get(), IID_IKestraStreamPropCSC);
    const auto gains = queryFor<IKestraStreamPropRGBGainOffset>(rig.pin.get(), IID_IKestraStreamPropRGBGainOffset);
    const std::lock_guard lock(m_colours);
    const float real = static_cast<float>(b / 8 % 8) / 4;
    HRESULT hr = S_OK;
    switch (b % 8) {
    case 0:
        hr = converter->put_YOff(static_cast<LONG>(b / 8 % 4) * 20);
        break;
    case 1:
        hr = converter->put_Y1(real);
        break;
    case 2:
        hr = converter->put_RMin(static_cast<unsigned char>(b / 8 % 4 * 10));
        break;
    case 3:
        hr = converter->put_FreezeUpdate(static_cast<LONG>(b / 8 % 3));
        break;
    case 4:
        hr = gains->put_RedGain(real);
        break;
    case 5:
        hr = gains->put_BlueOffset(static_cast<signed char>(b / 8 % 4 * 10));
        break;
    case 6:
        hr = gains->Default();
        break;
    default:
        hr = converter->put_R1(b / 8 % 2 == 0 ? 1e30f : 1.5f);
        break;
    }
    noteConverters();
    return allowed(hr, {S_OK, E_FAIL, E_ACCESSDENIED, E_NOTIMPL, E_INVALIDARG}, "a colour");
}

HRESULT FiltersWorld::bitDepth(Rig& rig, uint32_t b) {
    const auto depth = queryFor<IKestraAudioPropertyPage>(rig.pin.get(), IID_IKestraAudioPropertyPage);
    unsigned char index = 7;
    if (b % 2 == 0)
        return allowed(depth->get_BitDepth(b % 16 == 0 ? nullptr : &index), {b % 16 == 0 ? E_POINTER : S_OK},
                       "get_BitDepth");
    // It stops the graph and starts it again.
    return allowed(rig.start([&] { return depth->put_BitDepth(static_cast<unsigned char>(b / 2 % 4)); }),
                   {S_OK, VFW_E_NOT_IN_GRAPH, VFW_E_INVALIDMEDIATYPE, VFW_E_NOT_STOPPED}, "put_BitDepth");
}

HRESULT FiltersWorld::page(Rig& rig, uint32_t b) {
    const CLSID& clsid = rig.isVideo ? (b % 2 == 0 ? CLSID_KestraStreamPropCSC : CLSID_KestraStreamPropRGB)
                                     : CLSID_KestraAudioPropertyPage;
    ComRef<IPropertyPage> page;
    const HRESULT made = m_module->create(clsid, nullptr, IID_IPropertyPage, reinterpret_cast<void**>(page.out()));
    allowed(made, {S_OK}, "CreateInstance of a page");
    if (!t_mine->frame) t_mine->frame.emplace();
    IUnknown* object = rig.isVideo ? static_cast<IUnknown*>(rig.filter.get()) : rig.pin.get();
    const std::lock_guard lock(m_colours);
    // The audio page stops the graph and starts it again.
    const HRESULT hr =
        rig.start([&] { return useOnce(page.get(), object, t_mine->frame->window(), b, [&] { noteConverters(); }); });
    return allowed(hr,
                   {S_OK, E_UNEXPECTED, E_INVALIDARG, E_FAIL, E_ACCESSDENIED, VFW_E_NOT_IN_GRAPH, E_NOTIMPL,
                    VFW_E_NOT_STOPPED, VFW_E_INVALIDMEDIATYPE, E_NOINTERFACE},
                   "a page");
}

HRESULT FiltersWorld::factory(uint32_t b) {
    const CLSID& clsid = *kClasses[b % std::size(kClasses)];
    ComRef<IUnknown> object;
    switch (b / 8 % 5) {
    case 0:
        return allowed(m_module->factory(GUID_NULL, IID_IClassFactory, reinterpret_cast<void**>(object.out())),
                       {CLASS_E_CLASSNOTAVAILABLE}, "DllGetClassObject of no class");
    case 1:
        return allowed(m_module->factory(clsid, IID_IPin, reinterpret_cast<void**>(object.out())),
                       {E_NOINTERFACE, CLASS_E_CLASSNOTAVAILABLE}, "DllGetClassObject of no factory");
    case 2: {
        ComRef<IClassFactory> factory;
        allowed(m_module->factory(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out())), {S_OK},
                "DllGetClassObject");
        allowed(factory->LockServer(TRUE), {S_OK}, "LockServer");
        if (m_module->canUnload()) fail("unload", "a locked server can be unloaded");
        return allowed(factory->LockServer(FALSE), {S_OK}, "LockServer");
    }
    case 3: { // aggregated: only its own IUnknown may be asked for
        Outer outer;
        return allowed(m_module->create(clsid, &outer, IID_IBaseFilter, reinterpret_cast<void**>(object.out())),
                       {CLASS_E_NOAGGREGATION, E_NOINTERFACE, E_INVALIDARG}, "aggregation");
    }
    default: {
        Outer outer;
        const HRESULT hr = m_module->create(clsid, &outer, IID_IUnknown, reinterpret_cast<void**>(object.out()));
        return allowed(hr, {S_OK, E_FAIL}, "aggregation");
    }
    }
}

HRESULT FiltersWorld::onGraph(Rig& rig, uint32_t b) {
    if (!rig.graph) return static_cast<HRESULT>(kNotMade);
    const auto control = queryFor<IMediaControl>(rig.graph.get(), IID_IMediaControl);
    switch (b % 8) {
    case 0:
    case 1:
        return rig.start([&] { return control->Run(); });
    case 2:
        return rig.start([&] { return control->Pause(); });
    case 3:
    case 4:
        return rig.stop([&] { return control->Stop(); });
    case 5: {
        OAFilterState state = 0;
        return control->GetState(static_cast<LONG>(b / 8 % 20), &state);
    }
    case 6:
        return rig.graph->ConnectDirect(rig.pin.get(), rig.sinks[0]->pin(), nullptr);
    default:
        return rig.graph->Disconnect(rig.pin.get());
    }
}

void FiltersWorld::registry(uint32_t b) {
    const wchar_t* name = b % 2 == 0 ? L"VideoFormat" : L"AudioFormat";
    if (b / 2 % 4 == 0)
        m_registry.setText(kSettings, name, L"no number");
    else
        m_registry.setDword(kSettings, name, b / 8 % 6);
}

uint32_t FiltersWorld::step(const Step& step) {
    const uint32_t a = step.a, b = step.b;
    if (step.call >= kCardSteps) return cardStep(step.call - kCardSteps, a, b);
    switch (step.call) {
    case kCreate:
        return static_cast<uint32_t>(create(a, b));
    case kFactory:
        return static_cast<uint32_t>(factory(b));
    case kRegistry:
        registry(b);
        return 0;
    case kSleep:
        Sleep(a % 8 == 0 ? b % 150 : b % 25);
        return 0;
    default:
        break;
    }
    const bool isColour = step.call == kGetColours || step.call == kPutColours || step.call == kWhiteBalance;
    const RigPointer rig = rigOf(a, isColour ? 1 : step.call == kBitDepth ? 0 : -1);
    if (!rig) return kNotMade;
    if (step.call == kRelease) {
        RigPointer released; // outlives the lock
        const std::lock_guard lock(m_mutex);
        for (RigPointer& slot : m_rigs)
            if (slot == rig) released.swap(slot);
        return 0;
    }
    if (!m_alone) return onRig(*rig, step.call, b);
    const Seen before = look(*rig);
    const uint32_t result = onRig(*rig, step.call, b);
    judge(*rig, step.call, static_cast<HRESULT>(result), before, look(*rig));
    return result;
}

FiltersWorld::Seen FiltersWorld::look(const Rig& rig) {
    ComRef<IPin> other;
    Seen seen{rig.pin->ConnectedTo(other.out()) == S_OK, State_Stopped};
    rig.filter->GetState(0, &seen.state);
    return seen;
}

void FiltersWorld::judge(const Rig& rig, uint16_t call, HRESULT hr, const Seen& before, const Seen& after) {
    const auto demand = [&](bool fits) {
        if (fits) return;
        char text[160];
        std::snprintf(text, sizeof text,
                      "%s gave 0x%08lX to a pin that was %sconnected, in state %d, and is %sconnected, in state %d",
                      kCalls[call].name, static_cast<unsigned long>(hr), before.connected ? "" : "not ", before.state,
                      after.connected ? "" : "not ", after.state);
        fail("result", text);
    };
    if (hr == E_POINTER || static_cast<uint32_t>(hr) == kNotMade) return;
    const bool keptState = before.state == after.state; // a sink may have stopped it
    switch (call) {
    case kDisconnect:
        if (keptState)
            demand(before.state != State_Stopped ? hr == VFW_E_NOT_STOPPED : hr == (before.connected ? S_OK : S_FALSE));
        demand(hr != S_OK || !after.connected);
        break;
    case kConnect:
        demand(!before.connected || hr == VFW_E_ALREADY_CONNECTED);
        demand(FAILED(hr) || after.connected);
        break;
    case kMediaType:
        demand((hr == S_OK) == before.connected);
        break;
    case kSetFormat:
        if (keptState) demand((hr == VFW_E_NOT_STOPPED) == (before.state != State_Stopped));
        break;
    case kStop:
        demand(after.state == State_Stopped);
        break;
    case kPause:
        demand(FAILED(hr) || rig.isStoppedBySink() || after.state == State_Paused);
        break;
    case kRun:
        demand(FAILED(hr) || rig.isStoppedBySink() || after.state == State_Running);
        break;
    default:
        break;
    }
}

/// As many as there are until one has not come for a while.
uint32_t FiltersWorld::awaitSamples(Rig& rig, uint32_t b) {
    const Seen seen = look(rig);
    if (!seen.connected || seen.state == State_Stopped) return kNotMade;
    const uint64_t before = rig.samples();
    return test::waitUntil([&] { return rig.samples() > before + b % 10; }, std::chrono::milliseconds(150)) ? 1 : 0;
}

uint32_t FiltersWorld::onRig(Rig& rig, uint16_t call, uint32_t b) {
    switch (call) {
    case kAwaitSamples:
        return awaitSamples(rig, b);
    case kGetColours:
        return static_cast<uint32_t>(getColours(rig, b));
    case kPutColours:
        return static_cast<uint32_t>(putColours(rig, b));
    case kWhiteBalance: {
        const auto gains =
            queryFor<IKestraStreamPropRGBGainOffset>(rig.filter.get(), IID_IKestraStreamPropRGBGainOffset);
        const std::lock_guard lock(m_colours);
        noteConverters();
        unsigned char red = 0, green = 0, blue = 0;
        float redGain = 0, greenGain = 0, blueGain = 0;
        const HRESULT hr =
            allowed(gains->WhiteBalance(b % 8 == 0 ? nullptr : &red, &green, &blue, &redGain, &greenGain, &blueGain),
                    {b % 8 == 0 ? E_POINTER : S_OK}, "WhiteBalance");
        noteConverters();
        return static_cast<uint32_t>(hr);
    }
    case kBitDepth:
        return static_cast<uint32_t>(bitDepth(rig, b));
    case kPage:
        return static_cast<uint32_t>(page(rig, b));
    case kGraph:
        return static_cast<uint32_t>(onGraph(rig, b));
    default:
        return static_cast<uint32_t>(call < kPages ? onFilter(rig, call, b) : onPin(rig, call, b));
    }
}

void FiltersWorld::rescue() {
    ++m_rescues;
    letCardsAnswer();
    closeBoxes();
}

void FiltersWorld::end() {
    letCardsAnswer();
    for (RigPointer& rig : m_rigs)
        rig.reset();
    nowIn("until the module may go");
    if (!test::waitUntil([&] { return m_module->canUnload(); }, std::chrono::seconds(20)))
        fail("unload", "an object of the module is still alive");
    nowIn("until the cards are closed");
    for (uint32_t card = 0; card < kCards; ++card)
        if (!test::waitUntil([&] { return CardControl(card).state().clients == 0; }, std::chrono::seconds(20)))
            fail("open", "card " + std::to_string(card) + " is still open");
    m_pictures.forget();
}

std::string FiltersWorld::summary() const {
    char text[240];
    std::snprintf(
        text, sizeof text,
        "%llu pictures (%llu of them black) and %llu blocks of sound as the card made them; %llu times a card "
        "was made to answer\n",
        m_check.frames(), m_check.black(), m_check.blocks(), m_rescues.load());
    return text;
}

} // namespace
} // namespace kestra::walk

int main(int argc, char** argv) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try {
        static kestra::walk::FiltersWorld world;
        return kestra::walk::walkMain(argc, argv, world);
    } catch (const kestra::simcard::ControlError& error) {
        std::printf("%s: are two simulated cards installed?\n", error.what());
        return kestra::walk::kBadUsage;
    }
}
