// The base classes without memory: an error, null pointers, and nothing held.
#include "tests/com/baseclasses_fixture.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/process_counts.h"
#include "tests/support/scoped_import_hook.h"

#include <cstring>

STDAPI DllGetClassObject(REFCLSID rClsID, REFIID riid, void** pv);

namespace kestra::test {
namespace {

decltype(&CoTaskMemAlloc) taskAlloc = nullptr;

class FailureTest : public BaseClassesTest {
protected:
    FailureTest()
        : m_taskAlloc("ole32.dll", "CoTaskMemAlloc",
                      [](SIZE_T bytes) -> LPVOID { return allocationFails() ? nullptr : taskAlloc(bytes); }) {
        taskAlloc = m_taskAlloc.original();
    }
    void SetUp() override { ASSERT_TRUE(m_taskAlloc.installed()); }

    /// Repeats `step` with its first, second, ... allocation failing, until it succeeds without a failure.
    /// After each failure `nothingLeft` must hold. @return how many allocations it makes
    template <class Step, class Check>
    int failEachAllocation(Step step, Check nothingLeft) {
        const LONG objects = CBaseObject::ObjectsActive();
        const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
        for (int n = 0; n < 1000; ++n) {
            allocationsThatPass = n;
            const HRESULT hr = step();
            const bool failed = std::exchange(allocationsThatPass, -1) == -1;
            if (!failed) {
                EXPECT_EQ(hr, S_OK);
                return n;
            }
            EXPECT_EQ(hr, E_OUTOFMEMORY) << "allocation " << n;
            nothingLeft();
            EXPECT_EQ(CBaseObject::ObjectsActive(), objects) << "allocation " << n;
            EXPECT_EQ(referencesOf(m_source->GetOwner()), source) << "allocation " << n;
            EXPECT_EQ(referencesOf(m_sink->GetOwner()), sink) << "allocation " << n;
            if (HasFailure()) break;
        }
        return -1;
    }
    ScopedImportHook<decltype(&CoTaskMemAlloc)> m_taskAlloc;
};

TEST_F(FailureTest, EnumeratorsAreMadeAndClonedOrNot) {
    Ref<IEnumPins> pins;
    EXPECT_GE(
        failEachAllocation([&] { return m_source->EnumPins(pins.put()); }, [&] { EXPECT_EQ(pins.get(), nullptr); }), 1);
    Ref<IEnumPins> clone;
    EXPECT_GE(failEachAllocation([&] { return pins->Clone(clone.put()); }, [&] { EXPECT_EQ(clone.get(), nullptr); }),
              1);
    Ref<IEnumMediaTypes> types;
    EXPECT_GE(
        failEachAllocation([&] { return out().EnumMediaTypes(types.put()); }, [&] { EXPECT_EQ(types.get(), nullptr); }),
        1);
    Ref<IEnumMediaTypes> other;
    EXPECT_GE(failEachAllocation([&] { return types->Clone(other.put()); }, [&] { EXPECT_EQ(other.get(), nullptr); }),
              1);
}

TEST_F(FailureTest, TypesComeAllOrNone) {
    Ref<IEnumMediaTypes> types;
    ASSERT_EQ(out().EnumMediaTypes(types.put()), S_OK);
    AM_MEDIA_TYPE* got[3] = {};
    ULONG fetched = 0;
    EXPECT_EQ(failEachAllocation([&] { return types->Next(3, got, &fetched); },
                                 [&] {
                                     EXPECT_EQ(fetched, 0u);
                                     for (const AM_MEDIA_TYPE* type : got)
                                         EXPECT_EQ(type, nullptr);
                                 }),
              3);
    EXPECT_EQ(fetched, 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(CMediaType(*got[i]) == testType(i)) << "the failures passed over none";
        DeleteMediaType(got[i]);
    }
}

TEST_F(FailureTest, IdentifiersAreNullWithoutMemory) {
    for (CBasePin* pin : {static_cast<CBasePin*>(&out()), static_cast<CBasePin*>(&in())}) {
        LPWSTR id = const_cast<LPWSTR>(L"x");
        EXPECT_EQ(failEachAllocation([&] { return pin->QueryId(&id); }, [&] { EXPECT_EQ(id, nullptr); }), 1);
        CoTaskMemFree(id);
    }
}

CMediaType typeWithBlock() {
    CMediaType type = testType();
    BYTE block[4] = {1, 2, 3, 4};
    EXPECT_TRUE(type.SetFormat(block, sizeof block));
    return type;
}

TEST_F(FailureTest, MediaTypeKeepsWhatItHasWithoutMemory) {
    const CMediaType source = typeWithBlock();
    CMediaType type = typeWithBlock();
    BYTE other[8] = {};
    allocationsThatPass = 0;
    EXPECT_FALSE(type.SetFormat(other, sizeof other));
    allocationsThatPass = 0;
    EXPECT_EQ(type.AllocFormatBuffer(8), nullptr);
    allocationsThatPass = 0;
    EXPECT_EQ(type.Set(source), E_OUTOFMEMORY);
    allocationsThatPass = 0;
    type = source;
    EXPECT_EQ(allocationsThatPass, -1) << "it did need memory";
    EXPECT_TRUE(type == source);
    for (const int passing : {0, 1}) {
        allocationsThatPass = passing;
        EXPECT_EQ(CreateMediaType(&source), nullptr);
    }
    AM_MEDIA_TYPE copy;
    std::memset(&copy, 0xCC, sizeof copy);
    allocationsThatPass = 0;
    EXPECT_EQ(CopyMediaType(&copy, &source), E_OUTOFMEMORY);
    EXPECT_EQ(copy.pbFormat, nullptr);
    EXPECT_EQ(copy.cbFormat, 0u);
    EXPECT_EQ(copy.pUnk, nullptr);
    allocationsThatPass = 0;
    EXPECT_EQ(in().QueryAccept(&source), E_OUTOFMEMORY) << "neither yes nor no";
}

TEST_F(FailureTest, ConnectionIsMadeWholeOrNotAtAll) {
    in().m_types = 3;
    const CMediaType type = testType();
    const auto expectUnconnected = [&] {
        EXPECT_FALSE(out().IsConnected());
        EXPECT_FALSE(in().IsConnected());
        EXPECT_EQ(out().m_pAllocator, nullptr);
        EXPECT_EQ(out().m_pInputPin, nullptr);
    };
    EXPECT_GE(
        failEachAllocation([&] { return in().ReceiveConnection(&out(), &static_cast<const AM_MEDIA_TYPE&>(type)); },
                           expectUnconnected),
        0);
    disconnect();
    const CMediaType block = typeWithBlock();
    out().m_onCheck = [](const CMediaType*) { return S_OK; };
    EXPECT_GE(failEachAllocation([&] { return connect(&block); }, expectUnconnected), 4)
        << "the caller's type, ours, the receiver's two";
    disconnect();
    out().m_onCheck = nullptr;

    for (const int passing : {0, 1}) {
        allocationsThatPass = passing;
        EXPECT_EQ(connect(), S_OK) << "the receiver's types fail to come, ours do";
        EXPECT_EQ(allocationsThatPass, -1);
        disconnect();
    }
    in().m_block = true; // and so the receiver's types need more memory than ours, which are tried next
    out().m_types = 0;
    out().m_onCheck = [](const CMediaType*) { return S_OK; };
    in().m_types = 1;
    EXPECT_GE(failEachAllocation([&] { return connect(); }, expectUnconnected), 6);
    disconnect();
    out().m_onCheck = nullptr;
    out().m_types = 3;
    in().m_types = 0;
    out().m_bTryMyTypesFirst = true;
    EXPECT_GE(failEachAllocation([&] { return connect(); }, expectUnconnected), 2)
        << "there may be a type, but it did not come";
}

TEST_F(FailureTest, ConnectionTypeIsAskedInVainWithoutMemory) {
    const CMediaType block = typeWithBlock();
    out().m_onCheck = [](const CMediaType*) { return S_OK; };
    ASSERT_EQ(connect(&block), S_OK);
    AM_MEDIA_TYPE type{};
    EXPECT_EQ(failEachAllocation([&] { return out().ConnectionMediaType(&type); },
                                 [&] {
                                     EXPECT_EQ(type.pbFormat, nullptr);
                                     EXPECT_EQ(type.cbFormat, 0u);
                                 }),
              1);
    FreeMediaType(type);
}

TEST_F(FailureTest, FilterThatCannotKeepItsNameDoesNotJoin) {
    TestGraph graph;
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, L"old"), S_OK);
    TestGraph next;
    EXPECT_EQ(failEachAllocation([&] { return m_source->JoinFilterGraph(&next, L"new"); },
                                 [&] { EXPECT_EQ(m_source->GetFilterGraph(), &graph); }),
              1);
    EXPECT_EQ(m_source->GetFilterGraph(), &next);
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
}

TEST_F(FailureTest, FactoryMakesAWholeFilterOrNone) {
    IClassFactory* factory = nullptr;
    EXPECT_EQ(failEachAllocation(
                  [&] { return DllGetClassObject(kTestFilter, IID_IClassFactory, reinterpret_cast<void**>(&factory)); },
                  [&] { EXPECT_EQ(factory, nullptr); }),
              1);
    Ref<IBaseFilter> filter;
    EXPECT_GE(failEachAllocation([&] { return factory->CreateInstance(nullptr, IID_IBaseFilter, filter.putVoid()); },
                                 [&] { EXPECT_EQ(filter.get(), nullptr); }),
              4)
        << "the filter, its stream, the stream's name, the list of streams";
    filter.reset();
    factory->Release();
}

TEST_F(FailureTest, ServerKeysAreWrittenOrTheAnswerIsThatThereIsNoMemory) {
    for (const BOOL registering : {TRUE, FALSE})
        EXPECT_GE(failEachAllocation([&] { return AMovieDllRegisterServer2(registering); }, [] {}), 1);
}

TEST_F(FailureTest, LifeOfAFilterLeavesNoMemoryBehind) {
    const auto live = [this] {
        TestGraph graph;
        auto* source = new TestSource(nullptr, 2);
        source->AddRef();
        EXPECT_EQ(source->JoinFilterGraph(&graph, L"one name"), S_OK);
        EXPECT_EQ(source->JoinFilterGraph(&graph, L"another"), S_OK);
        new TestStream(&source->m_created, source, L"Third");
        delete &source->stream(1);
        EXPECT_EQ(source->stream().Connect(&in(), nullptr), S_OK);
        EXPECT_EQ(source->Run(0), S_OK);
        EXPECT_EQ(source->Stop(), S_OK);
        EXPECT_EQ(source->stream().Disconnect(), S_OK);
        EXPECT_EQ(in().Disconnect(), S_OK);
        Ref<IEnumPins> pins, clone;
        EXPECT_EQ(source->EnumPins(pins.put()), S_OK);
        EXPECT_EQ(pins->Clone(clone.put()), S_OK);
        pins.reset();
        clone.reset();
        EXPECT_EQ(source->Release(), 0u); // still in its graph
    };
    live();
    const long before = liveAllocations();
    live();
    EXPECT_EQ(liveAllocations(), before);
}

} // namespace
} // namespace kestra::test
