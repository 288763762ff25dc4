// The audio pin at work: connection, start and stop, every byte of both depths, every status, and what a badly behaved
// receiver, a changing input or a pulled card do to it. KESTRA_LONG=1: more of it. The account of the trace lines holds
// for this whole program.
#include "simcard/model/sound.h"
#include "tests/com/audio_test.h"
#include "tests/com/test_allocator.h"
#include "tests/support/long_run.h"
#include "tests/support/process_counts.h"
#include "tests/support/sound_check.h"

#include <cstdlib>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

const auto* const kAccount = testing::AddGlobalTestEnvironment(new TraceAccount({
    L"CKestraAudioStream->Connect->start",
    L"CKestraAudioStream->Connect->VFW_E_ALREADY_CONNECTED",
    L"CKestraAudioStream->Connect->VFW_E_NOT_STOPPED",
    L"CKestraAudioStream->Connect->FAILED(hr)",
    L"CKestraAudioStream->Connect->S_OK",
    L"CKestraAudioStream->Active->start",
    L"CKestraAudioStream->Active->m_pFilter->IsActive()",
    L"CKestraAudioStream->Active->!IsConnected()",
    L"CKestraAudioStream->Active->FAILED(hr)",
    L"CKestraAudioStream->Active->TARNIS_GetDMAAccess",
    L"CKestraAudioStream->Active->TARNIS_StartGrab",
    L"CKestraAudioStream->Active->S_OK",
    L"CKestraAudioStream->Active->m_bactive",
    L"CKestraAudioStream->Inactive->start",
    L"CKestraAudioStream->Inactive->FAILED(hr)",
    L"CKestraAudioStream->Inactive->NOERROR",
    L"CKestraAudioStream->SDIGrabAudioCallback->start",
    L"CKestraAudioStream->SDIGrabAudioCallback->!m_pFilter->IsActive()",
    L"CKestraAudioStream->SDIGrabAudioCallback->DMA_STATUS_DICONNECTED",
    L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FRAME_DROPED",
    L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FIFO_OVERRUN",
    L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_ABORTED",
    L"CKestraAudioStream->SDIGrabAudioCallback->GetDeliveryBuffer",
    L"CKestraAudioStream->SDIGrabAudioCallback->GetPointer",
    L"CKestraAudioStream->SDIGrabAudioCallback->Deliver",
    L"CKestraAudioStream->SDIGrabAudioCallback->S_OK",
}));

const std::wstring kCallback = L"CKestraAudioStream->SDIGrabAudioCallback->";
constexpr Signal kFractional = {1, 1, 1, 7, 0, 0, 1920, 1080, 0, 30000, 1001, 0};
constexpr Signal kInterlaced50 = {1, 1, 1, 7, 0, 0, 1920, 1080, 0, 25, 1, 0};

class AudioStream : public AudioTest {
protected:
    ULONGLONG stopMs() {
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(m_filter->Stop(), S_OK);
        return GetTickCount64() - begin;
    }
    /// Compares every sample's bytes with the card's sound, none lost or doubled, and every time stamp.
    void expectTheCardsSound(const std::vector<ReceivedSample>& samples, uint32_t framesPerSecond, int format) {
        ASSERT_FALSE(samples.empty());
        const uint32_t sampleFormat = format == 0 ? 1 : 0;
        std::vector<uint8_t> expected(samplesPerBlock(framesPerSecond) * sampleFrameBytes(sampleFormat));
        ASSERT_EQ(samples[0].bytes.size(), expected.size());
        const auto first =
            soundFrameOf(samples[0].bytes.data(), framesPerSecond, sampleFormat, 0, m_card.state().frameNumber);
        ASSERT_TRUE(first) << "no sound that the card made";
        for (size_t i = 0; i < samples.size(); ++i) {
            SCOPED_TRACE(i);
            soundBlock(*first + static_cast<uint32_t>(i), framesPerSecond, sampleFormat, expected.data());
            ASSERT_TRUE(samples[i].bytes == expected);
            EXPECT_TRUE(samples[i].timed);
            EXPECT_EQ(samples[i].start, REFERENCE_TIME(i) * 10'000'000 / framesPerSecond);
            EXPECT_EQ(samples[i].stop, samples[i].start + 10'000'000 / framesPerSecond);
            EXPECT_TRUE(samples[i].syncPoint);
        }
    }
};

struct Case {
    const char* name;
    Signal signal;
    uint32_t framesPerSecond;
    int format;
};
constexpr Case kCases[] = {{"Progressive60Bits16", kDefaultSignal, 60, 0},
                           {"Progressive60Bits24", kDefaultSignal, 60, 1},
                           {"Progressive50Bits16", kProgressive50, 50, 0},
                           {"Progressive50Bits24", kProgressive50, 50, 1},
                           {"Interlaced60Bits16", kInterlaced60, 30, 0},
                           {"Interlaced60Bits24", kInterlaced60, 30, 1},
                           {"Interlaced5994Bits16", kFractional, 30, 0},
                           {"Interlaced5994Bits24", kFractional, 30, 1},
                           {"Interlaced50Bits16", kInterlaced50, 25, 0},
                           {"Interlaced50Bits24", kInterlaced50, 25, 1},
                           {"Cinema24Bits16", kCinema, 24, 0},
                           {"Cinema24Bits24", kCinema, 24, 1}};

class AudioBytes : public AudioStream, public testing::WithParamInterface<Case> {};

} // namespace

TEST_P(AudioBytes, EverySampleIsTheCardsSoundInOrder) {
    m_card.setSignal(GetParam().signal);
    connect(GetParam().format);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(repetitions(12, 600)));
    EXPECT_LT(stopMs(), kVainStopMs);
    expectTheCardsSound(m_sink->pin.samples(), GetParam().framesPerSecond, GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(, AudioBytes, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(AudioStream, SixteenBitsOfFiftyFramesAre3840BytesAnd200000TimeUnits) {
    m_card.setSignal(kProgressive50);
    connect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    const auto samples = m_sink->pin.samples();
    EXPECT_EQ(samples[1].bytes.size(), 3840u);
    EXPECT_EQ(samples[1].start, 200000);
    EXPECT_EQ(samples[1].stop, 400000);
}

TEST_F(AudioStream, LifeOfARunIsTraced) {
    connect();
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->S_OK"), 1);
    for (int run = 0; run < 2; ++run) {
        clearTrace();
        m_sink->pin.forget();
        ASSERT_EQ(m_filter->Pause(), S_OK);
        EXPECT_EQ(lines(L"CKestraAudioStream->Active->start"), 1);
        EXPECT_EQ(lines(L"CKestraAudioStream->Active->S_OK"), 1);
        EXPECT_TRUE(receives(1)) << "also while it is paused";
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(2));
        EXPECT_EQ(m_filter->Stop(), S_OK);
        EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->start"), 1);
        EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->NOERROR"), 1);
        EXPECT_GE(lines(kCallback + L"start"), 3);
        EXPECT_GE(lines(kCallback + L"S_OK"), 3);
        EXPECT_EQ(m_sink->pin.endOfStreams, 1);
        EXPECT_EQ(m_sink->pin.samples()[0].start, 0) << "each run starts anew";
    }
    EXPECT_EQ(m_card.state().channels[1].grabbing, 0u);
}

TEST_F(AudioStream, CardIsToldThePortTheDepthAndTenBuffers) {
    for (const int format : {0, 1}) {
        connect(format);
        m_card.clearLog();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(1));
        int prepares = 0;
        for (const LogEntry& entry : m_card.log()) {
            if (entry.code != wire::kPrepare) continue;
            ++prepares;
            EXPECT_EQ(entry.bytes[0], 1) << "port";
            EXPECT_EQ(entry.bytes[5], format == 0 ? 1 : 0) << "1: 16 bits";
        }
        EXPECT_EQ(prepares, 1);
        EXPECT_EQ(m_card.state().channels[1].frameSizeBytes, format == 0 ? 3200u : 4800u);
        release();
    }
}

TEST_F(AudioStream, ConnectionsThatCannotBeMadeAreNamed) {
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(m_pin->Connect(nullptr, nullptr), E_POINTER);
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    m_sink->pin.refuses24 = true;
    EXPECT_TRUE(FAILED(m_pin->Connect(&m_sink->pin, nullptr)));
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->FAILED(hr)"), 1);
    m_sink->pin.refuses24 = false;
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    const auto other = SinkFilter::create();
    EXPECT_EQ(m_pin->Connect(&other->pin, nullptr), VFW_E_ALREADY_CONNECTED);
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->VFW_E_ALREADY_CONNECTED"), 1);
    disconnect();
    ASSERT_EQ(m_filter->Pause(), S_OK);
    EXPECT_EQ(m_pin->Connect(&m_sink->pin, nullptr), VFW_E_NOT_STOPPED);
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->VFW_E_NOT_STOPPED"), 1);
}

TEST_F(AudioStream, StatusesOfTheCardAreTracedAndLeaveNoGap) {
    connect();
    for (const uint32_t status : {1u, 2u, 16u, 4u})
        m_card.dmaStatusNext(1, status, 1);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(3));
    EXPECT_EQ(m_card.state().faults, 0u);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    for (const wchar_t* name : {L"DMA_STATUS_FRAME_DROPED", L"DMA_STATUS_FIFO_OVERRUN", L"DMA_STATUS_ABORTED"})
        EXPECT_GE(lines(std::wstring(L"CKestraStream->SDIGrabAudioCallback->") + name), 1);
    expectTheCardsSound(m_sink->pin.samples(), 60, 0);
}

TEST_F(AudioStream, RefusedStartsAreToldAndTheNextOneWorks) {
    connect();
    m_card.failNext(wire::kChannelAccess, 0xC0000022);
    EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->TARNIS_GetDMAAccess"), 1);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    m_card.refuseNext(wire::kStartGrabbing, 3);
    EXPECT_EQ(m_filter->Run(0), E_UNEXPECTED);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->TARNIS_StartGrab"), 1);
    EXPECT_EQ(state(m_filter.get()), State_Stopped);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_TRUE(receives(2));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    // Without a stop in between, disconnecting clears what a refused start left behind.
    m_card.refuseNext(wire::kStartGrabbing, 3);
    EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    disconnect();
    ComRef<IBaseFilter> second;
    ASSERT_EQ(m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(second.out())), S_OK);
    const ComRef<IPin> pin = onlyPin(second.get());
    ASSERT_EQ(pin->Connect(&m_sink->pin, nullptr), S_OK);
    EXPECT_EQ(second->Run(0), S_OK) << "the channel is free for another client";
    EXPECT_TRUE(receives(2));
    second->Stop();
    pin->Disconnect();
}

TEST_F(AudioStream, AllocatorThatFailsIsToldAndTheStreamGoesOn) {
    TestAllocator allocator;
    m_sink->pin.allocator = &allocator;
    connect();
    allocator.commitResult = E_OUTOFMEMORY;
    EXPECT_EQ(m_filter->Pause(), E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->FAILED(hr)"), 1);
    allocator.commitResult = S_OK;
    allocator.getBufferResult = VFW_E_NOT_COMMITTED;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_TRUE(waitUntil([&] { return lines(kCallback + L"GetDeliveryBuffer") >= 2; }));
    allocator.withoutMemory = true;
    allocator.getBufferResult = S_OK;
    EXPECT_TRUE(waitUntil([&] { return lines(kCallback + L"GetPointer") >= 3; })) << "the only buffer comes back";
    allocator.withoutMemory = false;
    EXPECT_TRUE(receives(3));
    EXPECT_EQ(m_sink->pin.samples()[0].start, 0) << "blocks that nobody got leave no gap in time";
    allocator.decommitResult = E_FAIL;
    EXPECT_EQ(m_filter->Stop(), E_FAIL);
    EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->FAILED(hr)"), 1);
    EXPECT_TRUE(waitUntil([&] { return lines(kCallback + L"!m_pFilter->IsActive()") >= 2; }))
        << "the card goes on, and nothing is delivered any more";
    allocator.decommitResult = S_OK;
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->NOERROR"), 1);
    release();
    EXPECT_EQ(allocator.references(), 0);
    EXPECT_EQ(allocator.buffersGiven, allocator.buffersReturned);
}

TEST_F(AudioStream, FailedDeliveryIsTracedAndTheStreamCanBeStoppedAndStartedAgain) {
    connect();
    for (const HRESULT result : {S_FALSE, VFW_E_WRONG_STATE, E_FAIL}) {
        clearTrace();
        m_sink->pin.receiveResult = result;
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(waitUntil([&] { return lines(kCallback + L"Deliver") >= 2; }));
        EXPECT_LT(stopMs(), kVainStopMs);
        EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->NOERROR"), 1) << "the pin is still found";
        EXPECT_EQ(lines(kCallback + L"S_OK"), 0);
        m_sink->pin.receiveResult = S_OK;
        m_sink->pin.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        EXPECT_TRUE(receives(2));
        EXPECT_EQ(m_sink->pin.samples()[0].start, 0);
        EXPECT_EQ(m_filter->Stop(), S_OK);
    }
}

TEST_F(AudioStream, ReceiverThatBlocksHoldsUpAStopForASecondAtMost) {
    connect();
    const HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_sink->pin.blockUntil = gate;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return m_sink->pin.insideReceive == 1; }));
    EXPECT_LT(stopMs(), 2 * kVainStopMs);
    m_sink->pin.blockUntil = nullptr;
    SetEvent(gate);
    EXPECT_TRUE(waitUntil([&] { return m_sink->pin.insideReceive == 0; }));
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_TRUE(receives(2)) << "and the next run works";
    EXPECT_EQ(m_filter->Stop(), S_OK);
    CloseHandle(gate);
}

TEST_F(AudioStream, SlowerInputSinceTheConnectionGetsLargerBuffers) {
    connect();
    m_card.setSignal(kCinema);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(4));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    expectTheCardsSound(m_sink->pin.samples(), 24, 0);
}

TEST_F(AudioStream, ConnectionMadeWithoutASignalDeliversWhateverComesLater) {
    ASSERT_EQ(makeFilter(), S_OK);
    m_card.setSignal(kNoSignal);
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    m_card.setSignal(kInterlaced60);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(4));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    expectTheCardsSound(m_sink->pin.samples(), 30, 0);
}

TEST_F(AudioStream, ConnectionsDepthIsWhatTheCardMakesWhateverIsSet) {
    ASSERT_EQ(makeFilter(), S_OK);
    const OwnedType type = capability(1); // the pin stays set to 16 bits, and the connection is of 24
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, type.type), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    expectTheCardsSound(m_sink->pin.samples(), 60, 1);
}

TEST_F(AudioStream, TypeOfAbsurdRatesIsServedWithinItsBuffer) {
    ASSERT_EQ(makeFilter(), S_OK);
    OwnedType type = capability(0);
    for (const DWORD bytesPerSecond : {0u, 59u, 60u, 100000000u}) {
        SCOPED_TRACE(bytesPerSecond);
        type.wave()->nAvgBytesPerSec = bytesPerSecond;
        m_sink->pin.forget();
        ASSERT_EQ(m_pin->Connect(&m_sink->pin, type.type), S_OK);
        if (bytesPerSecond < 60) {
            EXPECT_EQ(m_filter->Run(0), VFW_E_SIZENOTSET) << "no allocator makes buffers of nothing";
        } else {
            ASSERT_EQ(m_filter->Run(0), S_OK);
            ASSERT_TRUE(receives(2));
            EXPECT_EQ(m_filter->Stop(), S_OK);
            EXPECT_EQ(m_sink->pin.samples()[0].bytes.size(), bytesPerSecond / 60);
        }
        disconnect();
    }
    type.wave()->nAvgBytesPerSec = 288000; // of samples of 16 bits
    m_sink->pin.forget();
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, type.type), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    const auto samples = m_sink->pin.samples();
    ASSERT_EQ(samples[0].bytes.size(), 4800u);
    const auto frame = soundFrameOf(samples[0].bytes.data(), 60, 1, 0, m_card.state().frameNumber);
    ASSERT_TRUE(frame);
    std::vector<uint8_t> expected(4800);
    soundBlock(*frame, 60, 1, expected.data());
    EXPECT_TRUE(samples[0].bytes == expected) << "3200 bytes of the card's and 1600 of zeros";
}

TEST_F(AudioStream, VanishingSoundEndsTheStreamWithoutALostDevice) {
    makeConnectedGraph();
    auto events = query<IMediaEvent>(m_graph.get(), IID_IMediaEvent);
    events->CancelDefaultHandling(EC_DEVICE_LOST);
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    ASSERT_TRUE(receives(2));
    Signal silent = kDefaultSignal;
    silent.audio = 0;
    m_card.setSignal(silent);
    EXPECT_TRUE(waitUntil([&] { return m_sink->pin.endOfStreams == 1; }));
    EXPECT_TRUE(waitUntil([&] { return lines(kCallback + L"DMA_STATUS_DICONNECTED") == 1; }));
    long code = 0;
    LONG_PTR first = 0, second = 0;
    while (events->GetEvent(&code, &first, &second, 0) == S_OK) {
        EXPECT_NE(code, EC_DEVICE_LOST);
        events->FreeEventParams(code, first, second);
    }
    ASSERT_TRUE(SUCCEEDED(control()->Stop()));
    m_card.setSignal(kDefaultSignal);
    m_sink->pin.forget();
    ASSERT_TRUE(SUCCEEDED(control()->Run())) << "sound appears again";
    EXPECT_TRUE(receives(3));
    EXPECT_EQ(m_sink->pin.samples()[0].start, 0);
}

TEST_F(AudioStream, AppearingSoundEndsTheStreamThatRanWithoutIt) {
    connect();
    Signal silent = kDefaultSignal;
    silent.audio = 0;
    m_card.setSignal(silent);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(1));
    m_card.setSignal(kDefaultSignal);
    EXPECT_TRUE(waitUntil([&] { return m_sink->pin.endOfStreams == 1; }));
    EXPECT_LT(stopMs(), kVainStopMs);
    m_sink->pin.forget();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_TRUE(receives(2));
}

TEST_F(AudioStream, PulledCardComesBackOrIsLetGoInEveryState) {
    for (const int state : {0, 1, 2}) { // stopped, paused, running
        SCOPED_TRACE(state);
        connect();
        if (state == 1) {
            ASSERT_EQ(m_filter->Pause(), S_OK);
        }
        if (state == 2) {
            ASSERT_EQ(m_filter->Run(0), S_OK);
            ASSERT_TRUE(receives(2));
        }
        m_card.unplug();
        if (state == 2) {
            EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; })) << "the library has let go of it";
            m_card.plug();
            EXPECT_TRUE(receives(3)) << "the sound pauses and goes on";
            EXPECT_EQ(m_sink->pin.endOfStreams, 0);
            m_card.unplug();
        }
        EXPECT_LT(stopMs(), 2500u);
        release();
        m_card.plug();
        m_sink->pin.forget();
    }
}

TEST_F(AudioStream, CyclesOfStartAndStopAndOfCreationLeaveNothingBehind) {
    const int starts = repetitions(40, 1000), creations = repetitions(20, 300);
    connect(1);
    CountsOverCycles overStarts, overFilters;
    for (int i = 0; i < starts; ++i) {
        m_sink->pin.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(1)) << i;
        ASSERT_EQ(m_filter->Stop(), S_OK);
        clearTrace();
        overStarts.note();
    }
    overStarts.report("starts");
    EXPECT_LE(overStarts.growth().handles, starts / 12) << "a handle a start would be a third of them";
    EXPECT_LE(overStarts.growth().threads, 0);
    EXPECT_LT(overStarts.growth().privateBytes, 2 << 20);
    release();
    for (int i = 0; i < creations; ++i) {
        m_sink->pin.forget();
        connect(i % 2);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(1)) << i;
        release();
        ASSERT_EQ(m_module->canUnloadNow(), S_OK) << i;
        overFilters.note();
    }
    overFilters.report("filters");
    EXPECT_LE(overFilters.growth().handles, creations / 6);
    EXPECT_LE(overFilters.growth().threads, 0);
    EXPECT_LT(overFilters.growth().privateBytes, 2 << 20);
}

} // namespace kestra::test
