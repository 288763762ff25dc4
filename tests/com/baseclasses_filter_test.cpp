// The filter: states, graph, clock, finding pins.
#include "tests/com/baseclasses_fixture.h"

#include <random>
#include <string>
#include <vector>

namespace kestra::test {
namespace {

using FilterTest = BaseClassesTest;

TEST_F(FilterTest, TellsItsClassAndRefusesNull) {
    CLSID clsid{};
    EXPECT_EQ(m_source->GetClassID(&clsid), S_OK);
    EXPECT_TRUE(IsEqualGUID(clsid, kTestFilter));
    EXPECT_EQ(m_source->GetClassID(nullptr), E_POINTER);
    EXPECT_EQ(m_source->GetState(0, nullptr), E_POINTER);
    EXPECT_EQ(m_source->GetSyncSource(nullptr), E_POINTER);
    EXPECT_EQ(m_source->QueryFilterInfo(nullptr), E_POINTER);
    EXPECT_EQ(m_source->EnumPins(nullptr), E_POINTER);
}

TEST_F(FilterTest, FindsPinsByTheIdentifierThatTheyGive) {
    for (CBaseFilter* filter : {static_cast<CBaseFilter*>(m_source), static_cast<CBaseFilter*>(m_sink)}) {
        LPWSTR id = nullptr;
        ASSERT_EQ(filter->GetPin(0)->QueryId(&id), S_OK);
        Ref<IPin> pin;
        EXPECT_EQ(filter->FindPin(id, pin.put()), S_OK);
        EXPECT_EQ(pin.get(), static_cast<IPin*>(filter->GetPin(0)));
        CoTaskMemFree(id);
    }
}

TEST_F(FilterTest, IdentifierOfNoPinIsNotFound) {
    const ULONG before = referencesOf(m_source->GetOwner());
    for (LPCWSTR id :
         {L"", L"0", L"2", L"-1", L" 1", L"+1", L"01", L"1x", L"4294967297", L"99999999999999999999", L"Out"}) {
        IPin* pin = reinterpret_cast<IPin*>(8);
        EXPECT_EQ(m_source->FindPin(id, &pin), VFW_E_NOT_FOUND) << std::wstring(id).size();
        EXPECT_EQ(pin, nullptr);
    }
    IPin* pin = reinterpret_cast<IPin*>(8);
    EXPECT_EQ(m_sink->FindPin(L"in", &pin), VFW_E_NOT_FOUND) << "case counts";
    EXPECT_EQ(pin, nullptr);
    pin = reinterpret_cast<IPin*>(8);
    EXPECT_EQ(m_source->FindPin(nullptr, &pin), E_POINTER);
    EXPECT_EQ(pin, nullptr);
    EXPECT_EQ(m_source->FindPin(L"1", nullptr), E_POINTER);
    EXPECT_EQ(m_sink->FindPin(L"In", nullptr), E_POINTER);
    EXPECT_EQ(referencesOf(m_source->GetOwner()), before);
}

TEST_F(FilterTest, GoesThroughItsStatesInAnyOrderUnconnected) {
    const auto go = [this](FILTER_STATE to) {
        return to == State_Stopped ? m_source->Stop() : to == State_Paused ? m_source->Pause() : m_source->Run(0);
    };
    for (const FILTER_STATE from : {State_Stopped, State_Paused, State_Running}) {
        for (const FILTER_STATE to : {State_Stopped, State_Paused, State_Running}) {
            ASSERT_EQ(go(from), S_OK);
            EXPECT_EQ(go(to), S_OK) << from << " to " << to;
            EXPECT_EQ(stateOf(m_source), to);
            EXPECT_EQ(m_source->IsActive(), to != State_Stopped);
            EXPECT_EQ(m_source->IsStopped(), to == State_Stopped);
        }
    }
    EXPECT_EQ(out().m_active.calls, 0) << "an unconnected pin has nothing to do";
}

TEST_F(FilterTest, GoesThroughItsStatesInAnyOrderConnected) {
    ASSERT_EQ(connect(), S_OK);
    out().m_samplesToMake = 1 << 30;
    const auto go = [this](FILTER_STATE to) {
        return to == State_Stopped ? m_source->Stop() : to == State_Paused ? m_source->Pause() : m_source->Run(0);
    };
    for (const FILTER_STATE from : {State_Stopped, State_Paused, State_Running}) {
        for (const FILTER_STATE to : {State_Stopped, State_Paused, State_Running}) {
            SCOPED_TRACE(testing::Message() << from << " to " << to);
            ASSERT_EQ(go(State_Stopped), S_OK);
            ASSERT_EQ(go(from), S_OK);
            const int active = out().m_active.calls, inactive = out().m_inactive.calls;
            ASSERT_EQ(go(to), S_OK);
            EXPECT_EQ(stateOf(m_source), to);
            EXPECT_EQ(out().m_active.calls - active, from == State_Stopped && to != State_Stopped);
            EXPECT_EQ(out().m_inactive.calls - inactive, from != State_Stopped && to == State_Stopped);
            EXPECT_EQ(out().ThreadExists(), to != State_Stopped);
            for (const DWORD waitMs : {DWORD(0), DWORD(1000), DWORD(INFINITE)}) {
                FILTER_STATE state = FILTER_STATE(-1);
                EXPECT_EQ(m_source->GetState(waitMs, &state), S_OK) << "never on its way";
                EXPECT_EQ(state, to);
            }
        }
    }
}

TEST_F(FilterTest, ManyThreadsMayDriveItAtOnce) {
    ASSERT_EQ(connect(), S_OK);
    out().m_samplesToMake = 1 << 30;
    const ULONG references = referencesOf(m_source->GetOwner());
    Ref<IReferenceClock> clock;
    ASSERT_EQ(CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock, clock.putVoid()),
              S_OK);
    TestGraph graph;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::minstd_rand random(t + 1);
            const auto check = [&](HRESULT hr) {
                if (FAILED(hr)) ++failures;
            };
            for (int i = 0; i < 300; ++i) {
                switch (random() % 8) {
                case 0:
                    check(m_source->Run(i));
                    break;
                case 1:
                    check(m_source->Pause());
                    break;
                case 2:
                    check(m_source->Stop());
                    break;
                case 3:
                    check(m_source->SetSyncSource(i % 2 ? clock.get() : nullptr));
                    break;
                case 4: {
                    Ref<IReferenceClock> got;
                    check(m_source->GetSyncSource(got.put()));
                    break;
                }
                case 5:
                    check(m_source->JoinFilterGraph(&graph, i % 2 ? L"name" : L"another name"));
                    break;
                case 6: {
                    FILTER_INFO info{};
                    check(m_source->QueryFilterInfo(&info));
                    if (info.pGraph) info.pGraph->Release();
                    break;
                }
                default: {
                    Ref<IEnumPins> pins;
                    check(m_source->EnumPins(pins.put()));
                    CMediaType type;
                    check(out().ConnectionMediaType(&type));
                }
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_FALSE(out().ThreadExists());
    EXPECT_EQ(out().m_active.calls, out().m_inactive.calls);
    ASSERT_EQ(m_source->SetSyncSource(nullptr), S_OK);
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
    EXPECT_EQ(referencesOf(m_source->GetOwner()), references);
    EXPECT_EQ(referencesOf(clock.get()), 1u);
    EXPECT_EQ(graph.m_references, 1);
}

TEST_F(FilterTest, PinsThatCannotBeCountedOrFoundMakeTheCallFail) {
    const ULONG before = referencesOf(m_source->GetOwner());
    for (const int throws : {1, 2}) {
        const HRESULT expected = throws == 1 ? E_UNEXPECTED : E_OUTOFMEMORY;
        m_source->m_pinCount.throws = throws;
        Ref<IEnumPins> pins;
        EXPECT_EQ(m_source->EnumPins(pins.put()), S_OK);
        Ref<IPin> none;
        EXPECT_EQ(pins->Next(1, none.put(), nullptr), expected);
        EXPECT_EQ(none.get(), nullptr);
        EXPECT_EQ(m_source->Pause(), expected);
        EXPECT_EQ(m_source->Run(0), expected);
        EXPECT_EQ(stateOf(m_source), State_Stopped);
        auto* pin = reinterpret_cast<IPin*>(8);
        m_source->m_pinCount.throws = 0;
        m_source->m_getPin.throws = throws;
        // FindPin of a filter that is no CSource asks the filter for each pin.
        EXPECT_EQ(m_source->CBaseFilter::FindPin(L"Out", &pin), expected);
        EXPECT_EQ(pin, nullptr);
        EXPECT_EQ(m_source->FindPin(L"1", &pin), expected);
        EXPECT_EQ(pin, nullptr);
        m_source->m_getPin.throws = 0;
    }
    EXPECT_EQ(referencesOf(m_source->GetOwner()), before);
    ASSERT_EQ(m_source->Pause(), S_OK);
    m_source->m_pinCount.throws = 1;
    EXPECT_EQ(m_source->Stop(), E_UNEXPECTED);
    EXPECT_EQ(stateOf(m_source), State_Stopped) << "in any case";
    m_source->m_pinCount.throws = 0;
}

TEST_F(FilterTest, ConnectedPinIsActivatedOnceAndStoppedOnce) {
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(out().m_inactive.calls, 0) << "was stopped already";
    EXPECT_EQ(m_source->Run(5), S_OK) << "run pauses on its way";
    EXPECT_EQ(m_source->Run(6), S_OK);
    EXPECT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(m_source->Run(7), S_OK);
    EXPECT_EQ(out().m_active.calls, 1);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(out().m_inactive.calls, 1);
    EXPECT_FALSE(out().ThreadExists());
}

TEST_F(FilterTest, FailingPauseLeavesTheFilterStopped) {
    ASSERT_EQ(connect(), S_OK);
    for (const bool run : {false, true}) {
        out().m_active.result = E_ABORT;
        EXPECT_EQ(run ? m_source->Run(0) : m_source->Pause(), E_ABORT);
        EXPECT_EQ(stateOf(m_source), State_Stopped);
        out().m_active.throws = 1;
        EXPECT_EQ(run ? m_source->Run(0) : m_source->Pause(), E_UNEXPECTED);
        out().m_active.throws = 0;
        out().m_active.result = S_OK;
        EXPECT_EQ(run ? m_source->Run(0) : m_source->Pause(), S_OK);
        EXPECT_EQ(m_source->Stop(), S_OK);
    }
}

TEST_F(FilterTest, FailingPauseStopsThePinsThatHadStarted) {
    auto* two = new TestSource(nullptr, 2);
    two->AddRef();
    auto* other = new TestSink;
    other->AddRef();
    ASSERT_EQ(two->stream(0).Connect(&in(), nullptr), S_OK);
    ASSERT_EQ(two->stream(1).Connect(&other->m_input, nullptr), S_OK);
    two->stream(1).m_active.result = E_ABORT;
    EXPECT_EQ(two->Pause(), E_ABORT);
    EXPECT_EQ(two->stream(0).m_inactive.calls, 1);
    EXPECT_EQ(two->stream(1).m_inactive.calls, 0) << "it had not started";
    EXPECT_FALSE(two->stream(0).ThreadExists());
    for (int i : {0, 1})
        two->stream(i).Disconnect();
    other->m_input.Disconnect();
    in().Disconnect();
    EXPECT_EQ(two->Release(), 0u);
    EXPECT_EQ(other->Release(), 0u);
}

TEST_F(FilterTest, StopStopsEveryPinWhateverOneSays) {
    auto* two = new TestSource(nullptr, 2);
    two->AddRef();
    auto* other = new TestSink;
    other->AddRef();
    ASSERT_EQ(two->stream(0).Connect(&in(), nullptr), S_OK);
    ASSERT_EQ(two->stream(1).Connect(&other->m_input, nullptr), S_OK);
    for (const int throws : {0, 1}) {
        ASSERT_EQ(two->Pause(), S_OK);
        two->stream(0).m_inactive.result = E_ABORT;
        two->stream(0).m_inactive.throws = throws;
        EXPECT_EQ(two->Stop(), throws ? E_UNEXPECTED : E_ABORT);
        EXPECT_EQ(stateOf(two), State_Stopped);
        EXPECT_FALSE(two->stream(1).ThreadExists());
    }
    for (int i : {0, 1})
        two->stream(i).Disconnect();
    other->m_input.Disconnect();
    in().Disconnect();
    EXPECT_EQ(two->Release(), 0u);
    EXPECT_EQ(other->Release(), 0u);
}

TEST_F(FilterTest, FilterThatKeepsSomethingElseInItsPinCountStillStops) {
    ASSERT_EQ(connect(), S_OK);
    for (const int stored : {int(E_FAIL), int(VFW_E_WRONG_STATE), 0, 1000000}) {
        ASSERT_EQ(m_source->Run(0), S_OK);
        m_source->m_iPins = stored;
        EXPECT_EQ(m_source->GetPinCount(), 1);
        EXPECT_EQ(m_source->GetPin(1), nullptr);
        EXPECT_EQ(m_source->Stop(), S_OK);
        EXPECT_FALSE(out().ThreadExists());
    }
}

TEST_F(FilterTest, JoinsAGraphWithoutHoldingIt) {
    TestGraph graph;
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, L"a name"), S_OK);
    EXPECT_EQ(graph.m_references, 1) << "the graph holds the filter, not the other way round";
    EXPECT_EQ(m_source->GetFilterGraph(), &graph);
    FILTER_INFO info{};
    ASSERT_EQ(m_source->QueryFilterInfo(&info), S_OK);
    EXPECT_STREQ(info.achName, L"a name");
    EXPECT_EQ(info.pGraph, &graph);
    EXPECT_EQ(graph.m_references, 2);
    info.pGraph->Release();
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, std::wstring(300, L'n').c_str()), S_OK);
    ASSERT_EQ(m_source->QueryFilterInfo(&info), S_OK);
    EXPECT_EQ(std::wstring(info.achName), std::wstring(127, L'n'));
    info.pGraph->Release();
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
    ASSERT_EQ(m_source->QueryFilterInfo(&info), S_OK);
    EXPECT_STREQ(info.achName, L"");
    EXPECT_EQ(info.pGraph, nullptr);
    EXPECT_EQ(graph.m_references, 1);
}

TEST_F(FilterTest, MovesFromGraphToGraph) {
    TestGraph first, second;
    second.m_hasSink = false;
    ASSERT_EQ(m_source->JoinFilterGraph(&first, L"one"), S_OK);
    ASSERT_EQ(m_source->JoinFilterGraph(&second, nullptr), S_OK);
    FILTER_INFO info{};
    ASSERT_EQ(m_source->QueryFilterInfo(&info), S_OK);
    EXPECT_EQ(info.pGraph, &second);
    EXPECT_STREQ(info.achName, L"");
    info.pGraph->Release();
    EXPECT_EQ(m_source->NotifyEvent(EC_USER, 0, 0), E_NOTIMPL) << "the first graph's sink is forgotten";
    EXPECT_EQ(first.m_events, 0);
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
    EXPECT_EQ(first.m_references, 1);
    EXPECT_EQ(second.m_references, 1);
}

TEST_F(FilterTest, EventsGoToTheGraphThatTakesThem) {
    EXPECT_EQ(m_source->NotifyEvent(EC_USER, 1, 2), E_NOTIMPL) << "outside a graph";
    TestGraph graph;
    graph.m_hasSink = false;
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, nullptr), S_OK);
    EXPECT_EQ(m_source->NotifyEvent(EC_USER, 1, 2), E_NOTIMPL);
    graph.m_hasSink = true;
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, nullptr), S_OK);
    EXPECT_EQ(m_source->NotifyEvent(EC_USER, 1, 2), S_OK);
    EXPECT_EQ(graph.m_code, EC_USER);
    EXPECT_EQ(graph.m_referencesInNotify, 2) << "it may leave the graph meanwhile";
    EXPECT_EQ(graph.m_first, 1);
    EXPECT_EQ(graph.m_second, 2);
    EXPECT_EQ(m_source->NotifyEvent(EC_COMPLETE, S_OK, 0), S_OK);
    EXPECT_EQ(graph.m_second, reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(m_source)))
        << "the graph counts completions by filter";
    EXPECT_EQ(graph.m_references, 1);
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
    EXPECT_EQ(m_source->NotifyEvent(EC_USER, 1, 2), E_NOTIMPL);
    EXPECT_EQ(graph.m_events, 2);
}

TEST_F(FilterTest, ReconnectsThroughItsGraph) {
    EXPECT_EQ(m_source->ReconnectPin(&out(), nullptr), E_NOINTERFACE) << "outside a graph";
    TestGraph graph;
    ASSERT_EQ(m_source->JoinFilterGraph(&graph, nullptr), S_OK);
    EXPECT_EQ(m_source->ReconnectPin(&out(), nullptr), S_OK);
    EXPECT_EQ(graph.m_reconnects, 1);
    ASSERT_EQ(m_source->JoinFilterGraph(nullptr, nullptr), S_OK);
}

TEST_F(FilterTest, VendorIsNotTold) {
    LPWSTR vendor = const_cast<LPWSTR>(L"x");
    EXPECT_EQ(m_source->QueryVendorInfo(&vendor), E_NOTIMPL);
    EXPECT_EQ(vendor, nullptr);
    EXPECT_EQ(m_source->QueryVendorInfo(nullptr), E_NOTIMPL);
}

TEST_F(FilterTest, HoldsTheClockThatItWasGivenLast) {
    Ref<IReferenceClock> clock, second;
    for (auto* wanted : {&clock, &second}) {
        ASSERT_EQ(
            CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock, wanted->putVoid()),
            S_OK);
    }
    Ref<IReferenceClock> got;
    EXPECT_EQ(m_source->GetSyncSource(got.put()), S_OK);
    EXPECT_EQ(got.get(), nullptr);

    ASSERT_EQ(m_source->SetSyncSource(clock.get()), S_OK);
    ASSERT_EQ(m_source->SetSyncSource(clock.get()), S_OK) << "the same again";
    EXPECT_EQ(referencesOf(clock.get()), 2u);
    EXPECT_EQ(m_source->GetSyncSource(got.put()), S_OK);
    EXPECT_EQ(got.get(), clock.get());
    got.reset();
    ASSERT_EQ(m_source->SetSyncSource(second.get()), S_OK);
    EXPECT_EQ(referencesOf(clock.get()), 1u);
    ASSERT_EQ(m_source->SetSyncSource(nullptr), S_OK);
    EXPECT_EQ(referencesOf(second.get()), 1u);
}

} // namespace
} // namespace kestra::test
