// The source's worker: samples, end of stream, errors, exceptions, and ending in every case.
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
    EXPECT_EQ(out().m_threadCreate.calls, 1);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(out().m_threadDestroy.calls, 1);
    EXPECT_EQ(m_graph.m_events, 0) << "completion is the renderer's to say";
}

TEST_F(SourceTest, ReceiverThatWantsNoMoreEndsTheDeliveryWithoutAnEvent) {
    out().m_samplesToMake = 1000000;
    in().m_receive.result = S_FALSE;
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_receive.calls == 1; }));
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(in().m_receive.calls, 1);
    EXPECT_EQ(in().m_eos, 0);
    EXPECT_EQ(m_graph.m_events, 0);
}

TEST_F(SourceTest, FailingOrThrowingFillEndsTheStreamAndAbortsTheGraph) {
    struct Case {
        HRESULT result;
        int throws;
        HRESULT seen;
    };
    int round = 0;
    for (const Case& c : {Case{E_ABORT, 0, E_ABORT}, Case{S_OK, 1, E_UNEXPECTED}, Case{S_OK, 2, E_OUTOFMEMORY}}) {
        ++round;
        out().m_fill.result = c.result;
        out().m_fill.throws = c.throws;
        ASSERT_EQ(m_source->Run(0), S_OK);
        ASSERT_TRUE(waitUntil([&] { return m_graph.m_events == round; }));
        EXPECT_EQ(m_graph.m_code, EC_ERRORABORT);
        EXPECT_EQ(m_graph.m_first, c.seen);
        EXPECT_EQ(in().m_eos, round) << "the receiver must not wait for ever";
        EXPECT_EQ(m_source->Stop(), S_OK);
        IMemAllocator* allocator = out().m_pAllocator;
        ASSERT_EQ(allocator->Commit(), S_OK);
        Ref<IMediaSample> both[2];
        for (auto& sample : both)
            EXPECT_EQ(allocator->GetBuffer(sample.put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK) << "no buffer is lost";
        for (auto& sample : both)
            sample.reset();
        ASSERT_EQ(allocator->Decommit(), S_OK);
    }
}

TEST_F(SourceTest, WorkerThatCannotBePreparedMakesPauseFail) {
    out().m_threadCreate.result = E_ACCESSDENIED;
    EXPECT_EQ(m_source->Pause(), E_ACCESSDENIED);
    EXPECT_EQ(stateOf(m_source), State_Stopped);
    EXPECT_FALSE(out().ThreadExists());
    EXPECT_EQ(out().m_threadDestroy.calls, 1);
    IMediaSample* sample = nullptr;
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
    out().m_threadCreate.result = S_OK;
    EXPECT_EQ(m_source->Pause(), S_OK);
}

TEST_F(SourceTest, WorkerThatThrowsBeforeItAnswersMakesPauseFailAndNotHang) {
    out().m_threadCreate.throws = 1;
    EXPECT_EQ(m_source->Pause(), E_FAIL);
    EXPECT_FALSE(out().ThreadExists());
    EXPECT_EQ(stateOf(m_source), State_Stopped);
    out().m_threadCreate.throws = 0;
    EXPECT_EQ(m_source->Pause(), S_OK) << "the next worker starts afresh";
}

TEST_F(SourceTest, WorkerThatDiedIsReportedByStopAndGoneAfterwards) {
    out().m_startPlay.throws = 1;
    ASSERT_EQ(m_source->Pause(), S_OK) << "it dies after its answer";
    EXPECT_EQ(m_source->Stop(), E_FAIL);
    EXPECT_FALSE(out().ThreadExists());
    out().m_startPlay.throws = 0;
    EXPECT_EQ(m_source->Pause(), S_OK);
}

TEST_F(SourceTest, WorkerThatThrowsAtItsEndIsGoneAfterStop) {
    out().m_threadDestroy.throws = 1;
    ASSERT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(m_source->Stop(), E_FAIL);
    EXPECT_FALSE(out().ThreadExists());
    out().m_threadDestroy.throws = 0;
}

TEST_F(SourceTest, WorkerIsPreparedFirstAndAnswersWhatItDoesNotKnow) {
    ASSERT_EQ(out().m_pAllocator->Commit(), S_OK);
    ASSERT_TRUE(out().Create());
    EXPECT_EQ(static_cast<CSourceStream&>(out()).Run(), E_UNEXPECTED);
    EXPECT_EQ(out().Exit(), E_UNEXPECTED);
    EXPECT_EQ(out().m_threadCreate.calls, 0);
    EXPECT_EQ(out().Init(), S_OK);
    EXPECT_EQ(out().Init(), E_NOTIMPL) << "once";
    EXPECT_EQ(out().m_threadCreate.calls, 1);
    out().m_samplesToMake = 1 << 30;
    EXPECT_EQ(static_cast<CSourceStream&>(out()).Run(), S_OK);
    ASSERT_TRUE(waitUntil([&] { return in().m_receive.calls > 10; }));
    EXPECT_EQ(HRESULT(out().CallWorker(99)), E_NOTIMPL) << "also while it delivers, which that ends";
    EXPECT_EQ(out().m_startPlay.calls, 1);
    EXPECT_EQ(out().Pause(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return out().m_startPlay.calls == 2; }));
    ASSERT_EQ(out().m_pAllocator->Decommit(), S_OK);
    EXPECT_EQ(out().Stop(), S_OK);
    EXPECT_EQ(out().m_threadDestroy.calls, 0);
    EXPECT_EQ(out().Exit(), S_OK);
    EXPECT_EQ(out().m_threadDestroy.calls, 1);
    out().Close();
    EXPECT_FALSE(out().ThreadExists());
}

TEST_F(SourceTest, StopFreesAWorkerThatWaitsForABuffer) {
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

TEST_F(SourceTest, WorkerGoesOnWhenADecommittedAllocatorIsCommittedAgain) {
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

TEST_F(SourceTest, FilterThatIsLetGoWhileItRunsEndsItsWorkers) {
    const int destroyed = TestSource::destroyed;
    auto* source = new TestSource;
    source->AddRef();
    auto* sink = new TestSink;
    sink->AddRef();
    source->stream().m_samplesToMake = 1 << 30;
    ASSERT_EQ(source->stream().Connect(&sink->m_input, nullptr), S_OK);
    ASSERT_EQ(source->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return sink->m_input.m_receive.calls > 10; }));
    EXPECT_EQ(sink->m_input.Disconnect(), S_OK) << "the one side only";
    EXPECT_EQ(source->Release(), 0u);
    EXPECT_EQ(TestSource::destroyed, destroyed + 1);
    EXPECT_EQ(sink->Release(), 0u) << "the source held the receiver until then";
}

TEST_F(SourceTest, PauseToRunKeepsTheWorker) {
    out().m_samplesToMake = 1 << 30;
    ASSERT_EQ(m_source->Pause(), S_OK);
    ASSERT_EQ(m_source->Run(0), S_OK);
    ASSERT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(out().m_threadCreate.calls, 1);
    EXPECT_EQ(out().Pause(), S_OK) << "a running loop answers and goes on";
    const int seen = in().m_receive.calls;
    EXPECT_TRUE(waitUntil([&] { return in().m_receive.calls > seen + 10; }));
    EXPECT_EQ(out().m_startPlay.calls, 1);
}

TEST_F(SourceTest, StoppedAtAnyMomentItLeavesNoThreadAndNoHandle) {
    out().m_samplesToMake = 1 << 30;
    const auto cycle = [this](int i) {
        ASSERT_EQ(i % 2 ? m_source->Run(0) : m_source->Pause(), S_OK);
        ASSERT_EQ(m_source->Stop(), S_OK);
    };
    cycle(0);
    cycle(1);
    const ProcessCounts before = processCounts();
    for (int i = 0; i < 200; ++i)
        cycle(i);
    const ProcessCounts after = processCounts();
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.handles, before.handles);
}

/// As its author writes it who has one type only.
class PlainStream : public CSourceStream {
public:
    PlainStream(HRESULT* phr, CSource* filter) : CSourceStream(NAME("stream"), phr, filter, L"Plain") {}
    using CSourceStream::GetMediaType;
    HRESULT GetMediaType(CMediaType* type) override {
        const HRESULT hr = m_type.take();
        if (SUCCEEDED(hr)) *type = testType(1);
        return hr;
    }
    HRESULT DecideBufferSize(IMemAllocator*, ALLOCATOR_PROPERTIES*) override { return E_UNEXPECTED; }
    HRESULT FillBuffer(IMediaSample*) override { return S_FALSE; }
    Step m_type;
};

TEST_F(SourceTest, StreamOfOneTypeOffersAndAcceptsThatOne) {
    auto* plain = new PlainStream(&m_source->m_created, m_source);
    CMediaType type;
    EXPECT_EQ(plain->GetMediaType(-1, &type), E_INVALIDARG);
    EXPECT_EQ(plain->GetMediaType(1, &type), VFW_S_NO_MORE_ITEMS);
    EXPECT_EQ(plain->m_type.calls, 0);
    EXPECT_EQ(plain->GetMediaType(0, &type), S_OK);
    EXPECT_TRUE(type == testType(1));
    EXPECT_EQ(plain->QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(1))), S_OK);
    EXPECT_EQ(plain->QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(0))), S_FALSE);
    plain->m_type.result = E_ABORT;
    EXPECT_EQ(plain->CheckMediaType(&static_cast<const CMediaType&>(testType(1))), E_ABORT);
    EXPECT_EQ(plain->QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(1))), S_FALSE);
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
