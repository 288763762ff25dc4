// A source whose stream is filled by a thread from elsewhere: stopping it, and what a receiver may ask meanwhile.
#include "tests/com/baseclasses_fixture.h"
#include "tests/support/process_counts.h"

namespace kestra::test {
namespace {

class SourceTest : public BaseClassesTest {
protected:
    SourceTest() {
        EXPECT_EQ(connect(), S_OK);
        EXPECT_EQ(m_source->JoinFilterGraph(&m_graph, L"source"), S_OK);
    }
    ~SourceTest() override {
        EXPECT_EQ(m_source->Stop(), S_OK);
        m_source->JoinFilterGraph(nullptr, nullptr);
        EXPECT_EQ(m_graph.m_references, 1);
    }
    TestGraph m_graph;
};

TEST_F(SourceTest, SamplesThenEndOfStreamReachTheReceiver) {
    out().m_samplesToMake = 50;
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_eos == 1; }));
    EXPECT_EQ(in().m_receive.calls, 50);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(m_graph.m_events, 0) << "completion is the renderer's to say";
}

TEST_F(SourceTest, StopFreesAThreadThatWaitsForABuffer) {
    Ref<IMediaSample> kept[2];
    std::atomic<int> filled{0};
    out().m_samplesToMake = 1000;
    out().m_onFill = [&](IMediaSample* sample) {
        if (filled < 2) {
            sample->AddRef();
            *kept[filled].put() = sample; // as a receiver that hoards
        }
        ++filled;
    };
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_receive.calls == 2; }));
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(filled, 2);
    EXPECT_FALSE(out().ThreadExists());
}

TEST_F(SourceTest, StreamGoesOnWhenADecommittedAllocatorIsCommittedAgain) {
    out().m_samplesToMake = 1 << 30;
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_receive.calls > 10; }));
    Ref<IMediaSample> sample;
    ASSERT_EQ(out().m_pAllocator->Decommit(), S_OK); // as a receiver does while it flushes
    const int filled = out().m_fill.calls;
    EXPECT_EQ(out().GetDeliveryBuffer(sample.put(), nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
    EXPECT_LE(out().m_fill.calls, filled + 2) << "at most the buffers that were under way";
    ASSERT_EQ(out().m_pAllocator->Commit(), S_OK);
    const int seen = in().m_receive.calls;
    EXPECT_TRUE(waitUntil([&] { return in().m_receive.calls > seen + 10; }));
}

TEST_F(SourceTest, StoppedAtAnyMomentItLeavesNoThreadAndNoHandle) {
    out().m_samplesToMake = 1 << 30;
    const auto cycle = [this](int i) {
        ASSERT_EQ(i % 2 ? m_source->Run(0) : m_source->Pause(), S_OK);
        ASSERT_EQ(m_source->Stop(), S_OK);
    };
    for (int i = 0; i < 20; ++i)
        cycle(i);
    const ProcessCounts before = processCounts();
    for (int i = 0; i < 200; ++i)
        cycle(i);
    // A thread that has been joined may still be on its way out.
    EXPECT_TRUE(waitUntil([&] {
        const ProcessCounts after = processCounts();
        return after.threads <= before.threads && after.handles <= before.handles;
    }));
}

TEST_F(SourceTest, ReceiverThatAsksFromInsideReceiveDoesNotWaitForStop) {
    Ref<IReferenceClock> clock;
    ASSERT_EQ(CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock, clock.putVoid()),
              S_OK);
    ASSERT_EQ(m_source->SetSyncSource(clock.get()), S_OK);
    out().m_samplesToMake = 1 << 30;
    std::atomic<int> asked{0};
    std::atomic<LONGLONG> longestMs{0};
    in().m_onReceive = [&] {
        if (asked != 0 || !waitUntil([&] { return out().m_stopping.load(); })) return;
        const auto expect = [&](HRESULT expected, const char* call, const std::function<HRESULT()>& question) {
            const ULONGLONG begin = GetTickCount64();
            EXPECT_EQ(question(), expected) << call;
            longestMs = std::max(longestMs.load(), LONGLONG(GetTickCount64() - begin));
        };
        expect(S_OK, "ConnectionMediaType", [&] {
            CMediaType type;
            const HRESULT hr = out().ConnectionMediaType(&type);
            EXPECT_TRUE(type == testType(0));
            return hr;
        });
        expect(S_OK, "ConnectedTo", [&] { return out().ConnectedTo(Ref<IPin>().put()); });
        expect(S_FALSE, "QueryAccept",
               [&] { return out().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(1))); });
        expect(VFW_E_ENUM_OUT_OF_SYNC, "EnumMediaTypes", [&] {
            Ref<IEnumMediaTypes> types;
            EXPECT_EQ(out().EnumMediaTypes(types.put()), S_OK);
            AM_MEDIA_TYPE* type = nullptr;
            return types->Next(1, &type, nullptr);
        });
        expect(S_OK, "QueryPinInfo", [&] {
            PIN_INFO info{};
            const HRESULT hr = out().QueryPinInfo(&info);
            info.pFilter->Release();
            return hr;
        });
        expect(S_OK, "QueryDirection", [&] {
            PIN_DIRECTION direction;
            return out().QueryDirection(&direction);
        });
        expect(S_OK, "QueryId", [&] {
            LPWSTR id = nullptr;
            const HRESULT hr = out().QueryId(&id);
            CoTaskMemFree(id);
            return hr;
        });
        expect(S_OK, "EnumPins", [&] {
            Ref<IEnumPins> pins;
            EXPECT_EQ(m_source->EnumPins(pins.put()), S_OK);
            return pins->Next(1, Ref<IPin>().put(), nullptr);
        });
        expect(S_OK, "FindPin", [&] { return m_source->FindPin(L"1", Ref<IPin>().put()); });
        expect(S_OK, "GetState", [&] {
            FILTER_STATE state;
            return m_source->GetState(1000, &state);
        });
        expect(S_OK, "GetSyncSource", [&] { return m_source->GetSyncSource(Ref<IReferenceClock>().put()); });
        expect(S_OK, "QueryFilterInfo", [&] {
            FILTER_INFO info{};
            const HRESULT hr = m_source->QueryFilterInfo(&info);
            if (info.pGraph) info.pGraph->Release();
            return hr;
        });
        expect(S_OK, "NotifyEvent", [&] { return m_source->NotifyEvent(EC_USER, 0, 0); });
        EXPECT_TRUE(m_source->IsActive());
        ++asked;
    };
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return out().m_fill.calls > 0; }));
    const ULONGLONG begin = GetTickCount64();
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_LT(GetTickCount64() - begin, kVainStopMs);
    ASSERT_EQ(asked, 1);
    EXPECT_LT(longestMs, LONGLONG(kVainStopMs));
    ASSERT_EQ(m_source->SetSyncSource(nullptr), S_OK);
}

TEST_F(SourceTest, ReceiverMayAskForAnotherTypeWhileTheStreamRuns) {
    out().m_samplesToMake = 1 << 30;
    std::atomic<HRESULT> accepted{E_PENDING}, refused{E_PENDING};
    in().m_onReceive = [&] {
        accepted = out().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(1)));
        refused = out().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(7)));
    };
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_receive.calls > 0; }));
    EXPECT_EQ(accepted, S_OK);
    EXPECT_EQ(refused, S_FALSE);
}

TEST_F(SourceTest, PlacesOfTwoFiguresAreFound) {
    auto* many = new TestSource(nullptr, 10);
    many->AddRef();
    for (const int place : {9, 10}) {
        LPWSTR id = nullptr;
        ASSERT_EQ(many->stream(place - 1).QueryId(&id), S_OK);
        Ref<IPin> pin;
        EXPECT_EQ(many->FindPin(id, pin.put()), S_OK);
        EXPECT_EQ(pin.get(), static_cast<IPin*>(&many->stream(place - 1)));
        CoTaskMemFree(id);
    }
    EXPECT_EQ(many->Release(), 0u);
}

TEST_F(SourceTest, PinRemovedFromTheFilterRenumbersTheOthers) {
    auto* second = new TestStream(&m_source->m_created, m_source, L"Second");
    auto* third = new TestStream(&m_source->m_created, m_source, L"Third");
    EXPECT_EQ(m_source->GetPinCount(), 3);
    EXPECT_EQ(m_source->FindPinNumber(third), 2);
    delete second;
    EXPECT_EQ(m_source->GetPinCount(), 2);
    EXPECT_EQ(m_source->m_iPins, 2);
    EXPECT_EQ(m_source->FindPinNumber(third), 1);
    EXPECT_EQ(m_source->FindPinNumber(&in()), -1);
    EXPECT_EQ(m_source->RemovePin(third), S_OK);
    EXPECT_EQ(m_source->RemovePin(third), S_FALSE);
    LPWSTR id = const_cast<LPWSTR>(L"x");
    EXPECT_EQ(third->QueryId(&id), VFW_E_NOT_FOUND);
    EXPECT_EQ(id, nullptr);
    EXPECT_EQ(m_source->AddPin(third), S_OK);
    EXPECT_EQ(m_source->GetPin(-1), nullptr);
}

} // namespace
} // namespace kestra::test
