// Identity, reference counts and aggregation, of filter and pin.
#include "compliance/tests.h"

#include <ks.h>

#include <ksproxy.h>

#include <thread>

namespace kestra::compliance {
namespace {

const GUID kNobodys = {0x1d9f3c58, 0x9a0e, 0x4a43, {0x8e, 0x21, 0x5d, 0x0c, 0x6e, 0x2a, 0x77, 0x10}};

struct Named {
    const GUID& iid;
    const char* name;
};
const Named kFilterInterfaces[] = {{IID_IUnknown, "IUnknown"},
                                   {IID_IPersist, "IPersist"},
                                   {IID_IMediaFilter, "IMediaFilter"},
                                   {IID_IBaseFilter, "IBaseFilter"},
                                   {IID_ISpecifyPropertyPages, "ISpecifyPropertyPages"},
                                   {IID_IAMFilterMiscFlags, "IAMFilterMiscFlags"},
                                   {IID_IAMVideoProcAmp, "IAMVideoProcAmp"},
                                   {IID_IAMCameraControl, "IAMCameraControl"},
                                   {IID_IAMDroppedFrames, "IAMDroppedFrames"},
                                   {IID_IAMCrossbar, "IAMCrossbar"},
                                   {IID_IPersistPropertyBag, "IPersistPropertyBag"},
                                   {IID_IPersistStream, "IPersistStream"},
                                   {IID_IReferenceClock, "IReferenceClock"},
                                   {IID_IQualityControl, "IQualityControl"}};
const Named kPinInterfaces[] = {{IID_IUnknown, "IUnknown"},
                                {IID_IPin, "IPin"},
                                {IID_IQualityControl, "IQualityControl"},
                                {IID_IKsPropertySet, "IKsPropertySet"},
                                {IID_IAMStreamConfig, "IAMStreamConfig"},
                                {IID_IAMBufferNegotiation, "IAMBufferNegotiation"},
                                {IID_ISpecifyPropertyPages, "ISpecifyPropertyPages"},
                                {IID_IAMDroppedFrames, "IAMDroppedFrames"},
                                {IID_IAMPushSource, "IAMPushSource"},
                                {IID_IMediaSeeking, "IMediaSeeking"}};

struct Found {
    ComRef<IUnknown> object;
    const Named* named;
};

std::vector<Found> interfacesOf(IUnknown* object, std::span<const Named> known) {
    std::vector<Found> found;
    for (const Named& named : known) {
        note((std::string("QueryInterface(") + named.name + ")").c_str());
        if (auto reference = queryFor<IUnknown>(object, named.iid)) found.push_back({std::move(reference), &named});
    }
    return found;
}

void sameIdentity(IUnknown* object, std::span<const Named> known) {
    const auto identity = queryFor<IUnknown>(object, IID_IUnknown);
    for (const Found& found : interfacesOf(object, known)) {
        const auto own = queryFor<IUnknown>(found.object.get(), IID_IUnknown);
        expect(own.get() == identity.get(), format("one IUnknown, also asked from %s", found.named->name),
               "another pointer");
    }
}

void symmetric(IUnknown* object, std::span<const Named> known) {
    const auto all = interfacesOf(object, known);
    for (const Found& from : all)
        for (const Found& to : all) {
            note((std::string(from.named->name) + "::QueryInterface(" + to.named->name + ")").c_str());
            expect(bool{queryFor<IUnknown>(from.object.get(), to.named->iid)},
                   format("%s from %s, as from IUnknown", to.named->name, from.named->name), "refused");
        }
    // What one interface refuses, all must refuse.
    for (const Named& named : known) {
        const bool offered = bool{queryFor<IUnknown>(object, named.iid)};
        for (const Found& from : all)
            expect(bool{queryFor<IUnknown>(from.object.get(), named.iid)} == offered,
                   format("the same answer about %s from %s as from IUnknown", named.name, from.named->name),
                   offered ? "refused" : "given");
    }
}

void refusesUnknown(IUnknown* object) {
    void* nothing = &nothing;
    EXPECT_RESULT(E_NOINTERFACE, object->QueryInterface(kNobodys, &nothing));
    expect(!nothing, "a null pointer with E_NOINTERFACE", "the old value");
}

void balanced(IUnknown* object, std::span<const Named> known) {
    const ULONG before = referencesTo(object);
    interfacesOf(object, known);
    expect(referencesTo(object) == before, format("%lu references after as many releases as queries", before),
           format("%lu", referencesTo(object)));
    const ULONG more = CALL(object->AddRef());
    const ULONG less = CALL(object->Release());
    expect(more == less + 1, "AddRef and Release to answer counts that differ by one",
           format("%lu and %lu", more, less));
}

void manyThreads(IUnknown* object) {
    const ULONG before = referencesTo(object);
    note("AddRef and Release on four threads");
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([object] {
            for (int n = 0; n < 20'000; ++n) {
                object->AddRef();
                object->Release();
            }
        });
    for (auto& thread : threads)
        thread.join();
    expect(referencesTo(object) == before, format("%lu references", before), format("%lu", referencesTo(object)));
}

void mandatory(Context& context) {
    const auto filter = context.subject.create();
    for (const auto* iid : {&IID_IUnknown, &IID_IPersist, &IID_IMediaFilter, &IID_IBaseFilter})
        expect(bool{queryFor<IUnknown>(filter.get(), *iid)}, "IPersist, IMediaFilter and IBaseFilter",
               guidText(*iid) + " refused");
    std::string names;
    for (const Found& found : interfacesOf(filter.get(), kFilterInterfaces))
        names += std::string(names.empty() ? "" : ", ") + found.named->name;
    fact("Interfaces of the filter", names);
}

void pinMandatory(Context& context) {
    const auto filter = context.subject.create();
    const auto pin = capturePin(filter.get());
    std::string names;
    for (const Found& found : interfacesOf(pin.get(), kPinInterfaces))
        names += std::string(names.empty() ? "" : ", ") + found.named->name;
    fact("Interfaces of the pin", names);
    expect(bool{queryFor<IUnknown>(pin.get(), IID_IAMStreamConfig)}, "IAMStreamConfig on the capture pin",
           "E_NOINTERFACE");
    expect(bool{queryFor<IUnknown>(pin.get(), IID_IKsPropertySet)}, "IKsPropertySet on the capture pin",
           "E_NOINTERFACE");
}

// An outer object that counts and answers for the inner one.
class Outer : public IUnknown {
public:
    virtual ~Outer() = default;
    IUnknown* inner = nullptr;
    std::atomic<long> references{1};
    std::atomic<int> asked{0};
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        ++asked;
        if (riid == IID_IUnknown) {
            *object = this;
            AddRef();
            return S_OK;
        }
        return inner ? inner->QueryInterface(riid, object) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--references); }
};

void aggregation(Context& context) {
    Outer outer;
    ComRef<IUnknown> inner;
    const HRESULT hr = CALL(context.subject.create(&outer, IID_IUnknown, reinterpret_cast<void**>(inner.out())));
    if (hr == CLASS_E_NOAGGREGATION) notApplicable("the class does not support aggregation");
    expect(SUCCEEDED(hr) && inner, "an inner object, or CLASS_E_NOAGGREGATION", resultText(hr));
    outer.inner = inner.get();
    {
        ComRef<IBaseFilter> filter;
        EXPECT_RESULT(S_OK, inner->QueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(filter.out())));
        expect(outer.references > 1, "IBaseFilter to count on the outer object", "the outer count unchanged");
        const auto identity = queryFor<IUnknown>(filter.get(), IID_IUnknown);
        expect(identity.get() == &outer, "the outer object's IUnknown from IBaseFilter", "another one");
    }
    expect(outer.references == 1, "the outer object's count as before", format("%ld", outer.references.load()));
    outer.inner = nullptr;
    CALL(inner->AddRef());
    expect(CALL(inner->Release()) == 1, "one reference to the inner object, which is the test's", "another number");
}

void aggregationOtherInterface(Context& context) {
    Outer outer;
    void* object = nullptr;
    const HRESULT hr = CALL(context.subject.create(&outer, IID_IBaseFilter, &object));
    expect(FAILED(hr) && !object, "E_NOINTERFACE or CLASS_E_NOAGGREGATION: an aggregate is made for IUnknown only",
           resultText(hr));
}

void classFactory(Context& context) {
    ComRef<IClassFactory> factory;
    EXPECT_RESULT(S_OK, context.subject.classObject(context.subject.clsid(), IID_IClassFactory,
                                                    reinterpret_cast<void**>(factory.out())));
    EXPECT_RESULT(E_POINTER, factory->CreateInstance(nullptr, IID_IBaseFilter, nullptr));
    void* nothing = &nothing;
    EXPECT_RESULT(E_NOINTERFACE, factory->CreateInstance(nullptr, kNobodys, &nothing));
    expect(!nothing, "a null pointer with E_NOINTERFACE", "the old value");
    EXPECT_RESULT(S_OK, factory->LockServer(TRUE));
    EXPECT_RESULT(S_OK, factory->LockServer(FALSE));
}

void unknownClass(Context& context) {
    if (!context.subject.isFromDll()) notApplicable("only of a DLL that is named");
    void* nothing = &nothing;
    EXPECT_RESULT(CLASS_E_CLASSNOTAVAILABLE, context.subject.classObject(kNobodys, IID_IClassFactory, &nothing));
}

/// @param isPin  of its pin, else of the filter
template <class Run>
void of(Context& context, bool isPin, Run run) {
    const auto filter = context.subject.create();
    if (!isPin) return run(filter.get(), std::span<const Named>(kFilterInterfaces));
    const auto pin = capturePin(filter.get());
    run(pin.get(), std::span<const Named>(kPinInterfaces));
}

constexpr char kRules[] = "Rules for Implementing QueryInterface";
constexpr char kCounts[] = "Rules for Managing Reference Counts";
constexpr char kQuery[] = "IUnknown::QueryInterface(REFIID,void**) method";
const Test kTests[] = {
    {"unknown", "filter-interfaces", "IBaseFilter interface", mandatory},
    {"unknown", "filter-identity", kRules, [](Context& c) { of(c, false, sameIdentity); }},
    {"unknown", "filter-symmetric", kRules, [](Context& c) { of(c, false, symmetric); }},
    {"unknown", "filter-unknown-interface", kQuery,
     [](Context& c) { of(c, false, [](IUnknown* o, auto) { refusesUnknown(o); }); }},
    {"unknown", "filter-null", kQuery,
     [](Context& c) {
         of(c, false, [](IUnknown* o, auto) { EXPECT_RESULT(E_POINTER, o->QueryInterface(IID_IUnknown, nullptr)); });
     }},
    {"unknown", "filter-counts", kCounts, [](Context& c) { of(c, false, balanced); }},
    {"unknown", "filter-counts-threads", kCounts,
     [](Context& c) { of(c, false, [](IUnknown* o, auto) { manyThreads(o); }); }},
    {"unknown", "pin-interfaces", "Exposing Capture and Compression Formats", pinMandatory},
    {"unknown", "pin-identity", kRules, [](Context& c) { of(c, true, sameIdentity); }},
    {"unknown", "pin-symmetric", kRules, [](Context& c) { of(c, true, symmetric); }},
    {"unknown", "pin-unknown-interface", kQuery,
     [](Context& c) { of(c, true, [](IUnknown* o, auto) { refusesUnknown(o); }); }},
    {"unknown", "pin-null", kQuery,
     [](Context& c) {
         of(c, true, [](IUnknown* o, auto) { EXPECT_RESULT(E_POINTER, o->QueryInterface(IID_IUnknown, nullptr)); });
     }},
    {"unknown", "pin-counts", kCounts, [](Context& c) { of(c, true, balanced); }},
    {"unknown", "pin-counts-threads", kCounts,
     [](Context& c) { of(c, true, [](IUnknown* o, auto) { manyThreads(o); }); }},
    {"unknown", "class-factory", "IClassFactory::CreateInstance method", classFactory},
    {"unknown", "class-unknown", "DllGetClassObject function", unknownClass},
    {"unknown", "aggregation", "Aggregation", aggregation},
    {"unknown", "aggregation-interface", "IClassFactory::CreateInstance method", aggregationOtherInterface},
};

} // namespace

std::span<const Test> unknownTests() {
    return kTests;
}

} // namespace kestra::compliance
