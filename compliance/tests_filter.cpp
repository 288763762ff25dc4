// What filter and pin say of themselves, and the pin's category.
#include "compliance/tests.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <cstring>
#include <cwchar>

namespace kestra::compliance {
namespace {

constexpr HRESULT kSetUnsupported = static_cast<HRESULT>(0x80070492), kIdUnsupported = static_cast<HRESULT>(0x80070490);

void created(Context& context) {
    const auto filter = context.subject.create();
    fact("Class", guidText(context.subject.clsid()));
}

void classId(Context& context) {
    const auto filter = context.subject.create();
    CLSID clsid = GUID_NULL;
    EXPECT_RESULT(S_OK, filter->GetClassID(&clsid));
    if (context.subject.clsid() != GUID_NULL)
        expect(clsid == context.subject.clsid(), guidText(context.subject.clsid()), guidText(clsid));
    EXPECT_RESULT(E_POINTER, filter->GetClassID(nullptr));
}

void filterInfo(Context& context) {
    const auto filter = context.subject.create();
    FILTER_INFO info;
    std::memset(&info, 0xAA, sizeof info);
    EXPECT_RESULT(S_OK, filter->QueryFilterInfo(&info));
    expect(!info.pGraph, "no graph outside a graph", "some pointer");
    EXPECT_RESULT(E_POINTER, filter->QueryFilterInfo(nullptr));
}

void joined(Context& context) {
    GraphRig rig(context);
    FILTER_INFO info{};
    EXPECT_RESULT(S_OK, rig.filter->QueryFilterInfo(&info));
    const auto graph = queryFor<IUnknown>(info.pGraph, IID_IUnknown);
    const auto own = queryFor<IUnknown>(rig.graph.get(), IID_IUnknown);
    const bool named = std::wcscmp(info.achName, L"Source") == 0;
    if (info.pGraph) info.pGraph->Release();
    expect(graph.get() == own.get(), "the graph that it joined", info.pGraph ? "another one" : "none");
    expect(named, "the name that it was given in the graph", narrow(info.achName));
    EXPECT_RESULT(S_OK, rig.graph->RemoveFilter(rig.filter.get()));
    EXPECT_RESULT(S_OK, rig.filter->QueryFilterInfo(&info));
    const bool left = !info.pGraph;
    if (info.pGraph) info.pGraph->Release();
    expect(left, "no graph once it has left", "the old one");
    EXPECT_RESULT(S_OK, rig.graph->AddFilter(rig.filter.get(), L"Source"));
}

/// A filter does not count its graph: the graph counts the filter.
void graphUncounted(Context& context) {
    GraphRig rig(context);
    EXPECT_RESULT(S_OK, rig.graph->RemoveFilter(rig.filter.get()));
    const ULONG before = referencesTo(rig.graph.get());
    EXPECT_RESULT(S_OK, rig.filter->JoinFilterGraph(rig.graph.get(), L"Source"));
    const ULONG joined = referencesTo(rig.graph.get());
    EXPECT_RESULT(S_OK, rig.filter->JoinFilterGraph(nullptr, nullptr));
    expect(joined == before, format("%lu references to the graph", before), format("%lu", joined));
    EXPECT_RESULT(S_OK, rig.graph->AddFilter(rig.filter.get(), L"Source"));
}

void vendor(Context& context) {
    const auto filter = context.subject.create();
    LPWSTR text = nullptr;
    const HRESULT hr = CALL(filter->QueryVendorInfo(&text));
    expect(hr == E_NOTIMPL || (SUCCEEDED(hr) && text), "a text, or E_NOTIMPL", resultText(hr));
    if (SUCCEEDED(hr)) {
        fact("Vendor", narrow(text));
        CoTaskMemFree(text);
    }
}

void clockKept(Context& context) {
    const auto filter = context.subject.create();
    ComRef<IReferenceClock> clock, kept;
    if (FAILED(CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock,
                                reinterpret_cast<void**>(clock.out()))))
        notApplicable("the system has no clock");
    const ULONG before = referencesTo(clock.get());
    EXPECT_RESULT(S_OK, filter->SetSyncSource(clock.get()));
    EXPECT_RESULT(S_OK, filter->GetSyncSource(kept.out()));
    expect(kept.get() == clock.get(), "the clock that was set", kept ? "another one" : "none");
    kept = {};
    EXPECT_RESULT(S_OK, filter->SetSyncSource(nullptr));
    EXPECT_SUCCESS(filter->GetSyncSource(kept.out()));
    expect(!kept, "no clock once none is set", "the old one");
    const ULONG after = referencesTo(clock.get());
    expect(after == before, format("%lu references to the clock", before), format("%lu", after));
    EXPECT_RESULT(E_POINTER, filter->GetSyncSource(nullptr));
}

void findPin(Context& context) {
    const Bare p(context);
    LPWSTR id = nullptr;
    EXPECT_RESULT(S_OK, p.pin->QueryId(&id));
    expect(id != nullptr, "an identifier from QueryId", "a null pointer");
    fact("Identifier of the pin", narrow(id));
    ComRef<IPin> found;
    const HRESULT hr = CALL(p.filter->FindPin(id, found.out()));
    CoTaskMemFree(id);
    expectResult(hr, {S_OK}, "FindPin with what QueryId said");
    expect(found.get() == p.pin.get(), "the pin itself by its identifier", "another one");
    IPin* none = p.pin.get();
    EXPECT_RESULT(VFW_E_NOT_FOUND, p.filter->FindPin(L"no pin has this identifier", &none));
    expect(!none, "a null pointer with VFW_E_NOT_FOUND", "the old value");
    EXPECT_RESULT(E_POINTER, p.filter->FindPin(L"x", nullptr));
    EXPECT_RESULT(E_POINTER, p.pin->QueryId(nullptr));
}

void pinInfo(Context& context) {
    const Bare p(context);
    PIN_INFO info;
    std::memset(&info, 0xAA, sizeof info);
    EXPECT_RESULT(S_OK, p.pin->QueryPinInfo(&info));
    expect(info.pFilter != nullptr, "the pin's filter, counted", "a null pointer");
    ComRef<IBaseFilter> owner(info.pFilter);
    const auto one = queryFor<IUnknown>(owner.get(), IID_IUnknown),
               other = queryFor<IUnknown>(p.filter.get(), IID_IUnknown);
    expect(one.get() == other.get(), "the pin's own filter", "another one");
    expect(info.dir == PINDIR_OUTPUT, "PINDIR_OUTPUT", "PINDIR_INPUT");
    bool ends = false;
    for (const wchar_t c : info.achName)
        ends = ends || c == 0;
    expect(ends, "a name that ends within 128 characters", "none");
    fact("Name of the pin", narrow(info.achName));
    EXPECT_RESULT(E_POINTER, p.pin->QueryPinInfo(nullptr));
}

void pinInfoCounted(Context& context) {
    const Bare p(context);
    const ULONG before = referencesTo(p.filter.get());
    PIN_INFO info{};
    EXPECT_RESULT(S_OK, p.pin->QueryPinInfo(&info));
    expect(info.pFilter != nullptr, "the pin's filter", "a null pointer");
    const ULONG held = referencesTo(p.filter.get());
    expect(held == before + 1, "one reference more while the information is held",
           format("%lu where there were %lu", held, before));
    info.pFilter->Release();
}

void direction(Context& context) {
    const Bare p(context);
    PIN_DIRECTION is = PINDIR_INPUT;
    EXPECT_RESULT(S_OK, p.pin->QueryDirection(&is));
    expect(is == PINDIR_OUTPUT, "PINDIR_OUTPUT", "PINDIR_INPUT");
    EXPECT_RESULT(E_POINTER, p.pin->QueryDirection(nullptr));
}

void unconnected(Context& context) {
    const Bare p(context);
    IPin* peer = p.pin.get();
    EXPECT_RESULT(VFW_E_NOT_CONNECTED, p.pin->ConnectedTo(&peer));
    expect(!peer, "a null pointer with VFW_E_NOT_CONNECTED", "the old value");
    AM_MEDIA_TYPE type{};
    EXPECT_RESULT(VFW_E_NOT_CONNECTED, p.pin->ConnectionMediaType(&type));
    expect(!type.pbFormat, "no format block", "one");
    EXPECT_RESULT(S_FALSE, p.pin->Disconnect());
    EXPECT_RESULT(E_POINTER, p.pin->ConnectedTo(nullptr));
    EXPECT_RESULT(E_POINTER, p.pin->ConnectionMediaType(nullptr));
}

void internalConnections(Context& context) {
    const Bare p(context);
    ULONG count = 0;
    EXPECT_EITHER(E_NOTIMPL, S_OK, p.pin->QueryInternalConnections(nullptr, &count));
}

void outputOnly(Context& context) {
    const Bare p(context);
    EXPECT_RESULT(E_UNEXPECTED, p.pin->EndOfStream());
    EXPECT_RESULT(E_UNEXPECTED, p.pin->BeginFlush());
    EXPECT_RESULT(E_UNEXPECTED, p.pin->EndFlush());
}

ComRef<IKsPropertySet> propertiesOf(const Bare& p) {
    auto properties = queryFor<IKsPropertySet>(p.pin.get(), IID_IKsPropertySet);
    if (!properties) notApplicable("the pin has no IKsPropertySet");
    return properties;
}

struct Category {
    Bare bare;
    ComRef<IKsPropertySet> properties;
    explicit Category(const Context& context) : bare(context), properties(propertiesOf(bare)) {}
    HRESULT get(void* data, DWORD size, DWORD* returned, REFGUID set = AMPROPSETID_Pin,
                DWORD id = AMPROPERTY_PIN_CATEGORY) const {
        return CALL(properties->Get(set, id, nullptr, 0, data, size, returned));
    }
};

void category(Context& context) {
    const Category c(context);
    GUID got = GUID_NULL;
    DWORD returned = 0;
    expectResult(c.get(&got, 16, &returned), {S_OK}, "Get with 16 bytes");
    expect(returned == 16, "16 bytes returned", format("%lu", returned));
    expect(got == PIN_CATEGORY_CAPTURE || got == PIN_CATEGORY_PREVIEW || got == PIN_CATEGORY_STILL ||
               got == PIN_CATEGORY_ANALOGVIDEOIN,
           "a pin category", guidText(got));
    fact("Category of the pin", got == PIN_CATEGORY_CAPTURE ? "PIN_CATEGORY_CAPTURE" : guidText(got));
}

void categorySizes(Context& context) {
    const Category c(context);
    BYTE bytes[32];
    std::memset(bytes, 0x5A, sizeof bytes);
    DWORD returned = 0;
    expectFailure(c.get(bytes, 15, &returned), "Get with 15 bytes, which do not hold a GUID");
    for (const BYTE byte : bytes)
        expect(byte == 0x5A, "nothing written into a buffer that is too small", "bytes");
    expectResult(c.get(bytes, 17, &returned), {S_OK}, "Get with 17 bytes");
    expect(returned == 16 && bytes[16] == 0x5A, "16 bytes written and returned", format("%lu", returned));
}

void categoryQuery(Context& context) {
    const Category c(context);
    DWORD returned = 0;
    expectResult(c.get(nullptr, 0, &returned), {S_OK}, "Get with no buffer, which asks for the size");
    expect(returned == 16, "16 bytes needed", format("%lu", returned));
    expectResult(c.get(nullptr, 0, nullptr), {E_POINTER}, "Get with neither buffer nor size");
    GUID got = GUID_NULL;
    expectResult(c.get(&got, 16, nullptr), {S_OK}, "Get without a place for the size");
}

void categoryUnsupported(Context& context) {
    const Category c(context);
    GUID got;
    DWORD returned = 0, support = 0;
    expectResult(c.get(&got, 16, &returned, GUID_NULL), {kSetUnsupported}, "Get of another set");
    expectResult(c.get(&got, 16, &returned, AMPROPSETID_Pin, 4711), {kIdUnsupported}, "Get of another property");
    EXPECT_RESULT(S_OK, c.properties->QuerySupported(AMPROPSETID_Pin, AMPROPERTY_PIN_CATEGORY, &support));
    expect((support & KSPROPERTY_SUPPORT_GET) != 0, "KSPROPERTY_SUPPORT_GET", format("%lu", support));
    EXPECT_RESULT(kSetUnsupported, c.properties->QuerySupported(GUID_NULL, 0, &support));
    EXPECT_RESULT(kIdUnsupported, c.properties->QuerySupported(AMPROPSETID_Pin, 4711, &support));
    EXPECT_FAILURE(c.properties->Set(AMPROPSETID_Pin, AMPROPERTY_PIN_CATEGORY, nullptr, 0, &got, 16));
}

constexpr char kInfo[] = "IPin::QueryPinInfo method", kCategory[] = "Pin Property Set";
const Test kTests[] = {
    {"filter", "create", "IClassFactory::CreateInstance method", created},
    {"filter", "class-id", "IPersist::GetClassID method", classId},
    {"filter", "info", "IBaseFilter::QueryFilterInfo method", filterInfo},
    {"filter", "join-graph", "IBaseFilter::JoinFilterGraph method", joined},
    {"filter", "graph-uncounted", "IBaseFilter::JoinFilterGraph method", graphUncounted},
    {"filter", "vendor-info", "IBaseFilter::QueryVendorInfo method", vendor},
    {"filter", "clock", "IMediaFilter::SetSyncSource method", clockKept},
    {"filter", "find-pin", "IBaseFilter::FindPin method", findPin},
    {"pin", "info", kInfo, pinInfo},
    {"pin", "info-counted", kInfo, pinInfoCounted},
    {"pin", "direction", "IPin::QueryDirection method", direction},
    {"pin", "unconnected", "IPin::ConnectedTo method", unconnected},
    {"pin", "internal-connections", "IPin::QueryInternalConnections method", internalConnections},
    {"pin", "output-only", "IPin::EndOfStream method", outputOnly},
    {"category", "get", kCategory, category},
    {"category", "sizes", kCategory, categorySizes},
    {"category", "size-query", kCategory, categoryQuery},
    {"category", "unsupported", "IKsPropertySet::QuerySupported method", categoryUnsupported},
};

} // namespace

std::span<const Test> filterTests() {
    return kTests;
}

} // namespace kestra::compliance
