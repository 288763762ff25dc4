// The audio pin's buffers and its bit depth, as an application and a property page set them.
#include "tests/com/audio_test.h"
#include "tests/com/test_allocator.h"

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class AudioControls : public AudioTest {
protected:
    long agreedBufferBytes() {
        ALLOCATOR_PROPERTIES properties{};
        EXPECT_EQ(
            query<IAMBufferNegotiation>(m_pin.get(), IID_IAMBufferNegotiation)->GetAllocatorProperties(&properties),
            S_OK);
        EXPECT_EQ(properties.cBuffers, 1);
        return properties.cbBuffer;
    }
};

} // namespace

TEST_F(AudioControls, BufferTakesTheSoundOfOneFrame) {
    Signal unmeasured = kDefaultSignal;
    unmeasured.measuredRate = 10; // reported as 0
    Signal movedAway = kDefaultSignal;
    movedAway.present = 0;
    const struct {
        Signal signal;
        long bytes16, bytes24;
    } cases[] = {{kInterlaced60, 6400, 9600}, {kDefaultSignal, 3200, 4800}, {kProgressive50, 3840, 5760},
                 {kCinema, 8000, 12000},      {unmeasured, 7680, 11520},    {movedAway, 7680, 11520}};
    for (const auto& [signal, bytes16, bytes24] : cases)
        for (const int format : {0, 1}) {
            SCOPED_TRACE(testing::Message() << signal.nominalFrameRate() << " frames per second, format " << format);
            m_card.setSignal(kDefaultSignal);
            m_registry.setDword(kSettings, L"AudioFormat", DWORD(format));
            ASSERT_EQ(makeFilter(), S_OK);
            m_card.setSignal(signal);
            ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
            EXPECT_EQ(lines(L"CKestraAudioStream->DecideBufferSize->start"), 1);
            EXPECT_EQ(lines(L"CKestraAudioStream->DecideBufferSize->NOERROR"), 1);
            EXPECT_EQ(agreedBufferBytes(), format == 0 ? bytes16 : bytes24);
            release();
        }
}

TEST_F(AudioControls, RefusedBufferIsTracedAndThePinsOwnAllocatorIsTried) {
    TestAllocator allocator;
    allocator.setPropertiesResult = E_FAIL;
    m_sink->pin.allocator = &allocator;
    connect();
    EXPECT_EQ(lines(L"CKestraAudioStream->DecideBufferSize->FAILED(hr)"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->DecideBufferSize->NOERROR"), 1);
    disconnect();
    allocator.setPropertiesResult = S_OK;
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    ALLOCATOR_PROPERTIES properties{};
    EXPECT_EQ(allocator.GetProperties(&properties), S_OK);
    EXPECT_EQ(properties.cBuffers, 1);
    EXPECT_EQ(properties.cbBuffer, 3200);
    release();
}

TEST_F(AudioControls, SuggestedBuffersChangeNothing) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto negotiation = query<IAMBufferNegotiation>(m_pin.get(), IID_IAMBufferNegotiation);
    ALLOCATOR_PROPERTIES wanted{8, 999, 1, 0}, got{};
    EXPECT_EQ(negotiation->GetAllocatorProperties(&got), VFW_E_NO_ALLOCATOR) << "before the connection";
    EXPECT_EQ(lines(L"CKestraAudioStream->GetAllocatorProperties->start"), 1);
    EXPECT_EQ(negotiation->SuggestAllocatorProperties(&wanted), S_OK);
    EXPECT_EQ(negotiation->SuggestAllocatorProperties(nullptr), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->SuggestAllocatorProperties->S_OK"), 2);
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    clearTrace();
    EXPECT_EQ(negotiation->GetAllocatorProperties(&got), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetAllocatorProperties->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetAllocatorProperties->S_OK"), 1);
    EXPECT_EQ(got.cBuffers, 1);
    EXPECT_EQ(got.cbBuffer, 3200);
    EXPECT_EQ(negotiation->GetAllocatorProperties(nullptr), E_POINTER);
}

TEST_F(AudioControls, BitDepthNeedsAGraph) {
    connect();
    EXPECT_EQ(depth()->put_BitDepth(1), VFW_E_NOT_IN_GRAPH);
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->QueryInterface"), 1);
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 0u);
}

TEST_F(AudioControls, BitDepthOfAStoppedGraphIsSetAndTheGraphStaysStopped) {
    makeGraph();
    clearTrace();
    ASSERT_EQ(depth()->put_BitDepth(1), S_OK) << "not connected";
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->S_OK"), 1);
    EXPECT_EQ(format().wave()->wBitsPerSample, 24);
    ASSERT_EQ(m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr), S_OK);
    ASSERT_EQ(depth()->put_BitDepth(0), S_OK) << "connected";
    EXPECT_EQ(format().wave()->wBitsPerSample, 16);
    EXPECT_EQ(reinterpret_cast<const WAVEFORMATEX*>(m_sink->pin.type().pbFormat)->wBitsPerSample, 16)
        << "connected anew with it";
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 0u);
    EXPECT_EQ(state(m_filter.get()), State_Stopped);
}

TEST_F(AudioControls, BitDepthOfAPausedOrRunningGraphIsSetAndTheGraphRuns) {
    makeConnectedGraph();
    for (const bool paused : {true, false}) {
        SCOPED_TRACE(paused);
        ASSERT_TRUE(SUCCEEDED(paused ? control()->Pause() : control()->Run()));
        const int index = paused ? 1 : 0;
        clearTrace();
        ASSERT_EQ(depth()->put_BitDepth(static_cast<unsigned char>(index)), S_OK);
        EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->S_OK"), 1);
        EXPECT_TRUE(waitUntil([&] { return state(m_filter.get()) == State_Running; }));
        EXPECT_EQ(state(m_sink.get()), State_Running);
        m_sink->pin.forget();
        ASSERT_TRUE(receives(2));
        EXPECT_EQ(m_sink->pin.samples()[0].bytes.size(), index == 1 ? 4800u : 3200u);
        EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), DWORD(index));
        ASSERT_TRUE(SUCCEEDED(control()->Stop()));
    }
}

TEST_F(AudioControls, BitDepthThatTheReceiverRefusesLeavesTheGraphStopped) {
    makeConnectedGraph();
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    ASSERT_TRUE(receives(1));
    m_sink->pin.refuses24 = true;
    clearTrace();
    EXPECT_EQ(depth()->put_BitDepth(1), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->ReconnectPin->VFW_E_INVALIDMEDIATYPE"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->SetFormat"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->S_OK"), 0);
    EXPECT_EQ(state(m_filter.get()), State_Stopped);
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 0u) << "not persisted";
    EXPECT_EQ(depth()->put_BitDepth(0), S_OK) << "the way back";
    m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr);
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    EXPECT_TRUE(receives(2));
}

TEST_F(AudioControls, BitDepthThatThereIsNotIsRefused) {
    makeConnectedGraph();
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    clearTrace();
    EXPECT_EQ(depth()->put_BitDepth(2), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->VFW_S_NO_MORE_ITEMS"), 2);
    EXPECT_EQ(lines(L"CKestraAudioStream->put_BitDepth->SetFormat"), 1);
    EXPECT_EQ(state(m_filter.get()), State_Stopped);
    EXPECT_EQ(format().wave()->wBitsPerSample, 16);
}

} // namespace kestra::test
