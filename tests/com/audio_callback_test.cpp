// The audio pin with blocks made by the test: every branch of the callback and every rate. The filter's code is linked
// into the test.
#include "capture/audio_filter.h"
#include "capture/audio_stream.h"
#include "capture/module_state.h"
#include "tests/com/com_module.h"
#include "tests/com/sink_filter.h"
#include "tests/com/test_allocator.h"
#include "tests/support/card_fixture.h"
#include "tests/support/debug_output_capture.h"
#include "tests/support/registry_sandbox.h"

#include <mmreg.h>

#include <thread>

namespace kestra::test {
namespace {

/// What the pin passed to the grab engine, which never starts.
struct Intercepted {
    int starts;
    uint32_t extra; ///< the last field of the camera data, as the pin set it
    TarnisFrameCallback callback;
    uint64_t context;
    TarnisCameraStatus status; ///< what the start reports
} g_grab;

} // namespace

extern "C" uint32_t __wrap_TARNIS_StartGrab(TARNIS_HANDLE, int8_t, uint32_t, TarnisCameraData* cameraData,
                                            TarnisFrameCallback callback, uint64_t context) {
    ++g_grab.starts;
    g_grab.extra = cameraData->extra;
    g_grab.callback = callback;
    g_grab.context = context;
    cameraData->status = g_grab.status;
    return TARNIS_SUCCESS;
}

namespace {

constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
const std::wstring kCallback = L"CKestraAudioStream->SDIGrabAudioCallback->";

class AudioCallback : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        g_grab = {};
        g_grab.status.frameRate = 60;
    }
    void TearDown() override {
        if (m_filter) m_filter->Stop();
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        EXPECT_FALSE(CKestraAudioStream::m_bactive);
        CardTest::TearDown();
    }
    void makeFilter(int format) {
        m_registry.setDword(kSettings, L"AudioFormat", DWORD(format));
        HRESULT hr = S_OK;
        CUnknown* made = CKestraAudioCapture::CreateInstance(nullptr, &hr);
        ASSERT_NE(made, nullptr);
        ASSERT_EQ(hr, S_OK);
        made->NonDelegatingAddRef();
        ASSERT_EQ(made->NonDelegatingQueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out())), S_OK);
        made->NonDelegatingRelease();
        m_pin = onlyPin(m_filter.get());
        m_stream = static_cast<CKestraAudioStream*>(m_pin.get());
    }
    void connect(int format = 0) {
        makeFilter(format);
        ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
        m_trace.clear();
    }
    void disconnect() {
        if (m_pin) m_pin->Disconnect();
        m_sink->pin.Disconnect();
    }
    void run(int format = 0) {
        connect(format);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_NE(g_grab.callback, nullptr);
        m_trace.clear();
    }
    void block(uint32_t dmaStatus, const std::vector<uint8_t>& raw) {
        TarnisFrameInfo info{};
        info.dmaStatus = dmaStatus;
        info.lpRawBuffer = raw.empty() ? nullptr : raw.data();
        info.bufferSize = static_cast<uint32_t>(raw.size());
        g_grab.callback(g_grab.context, &info);
    }
    std::vector<std::wstring> written(uint32_t dmaStatus, const std::vector<uint8_t>& raw) {
        m_trace.clear();
        block(dmaStatus, raw);
        return m_trace.lines();
    }
    static std::vector<std::wstring> startAnd(const std::wstring& text) {
        return {kCallback + L"start\r\n", text + L"\r\n"};
    }
    int lines(const std::wstring& text) { return m_trace.count(text + L"\r\n"); }

    std::vector<uint8_t> m_sound = std::vector<uint8_t>(3200, 0x55);
    RegistrySandbox m_registry;
    DebugOutputCapture m_trace;
    ComRef<SinkFilter> m_sink = SinkFilter::create();
    ComRef<IBaseFilter> m_filter;
    ComRef<IPin> m_pin;
    CKestraAudioStream* m_stream = nullptr;
};

TEST_F(AudioCallback, GoodBlockIsDeliveredAndLeavesTwoLines) {
    run();
    EXPECT_EQ(written(DMA_STATUS_GOOD, m_sound), startAnd(kCallback + L"S_OK"));
    ASSERT_EQ(m_sink->pin.received, 1);
    EXPECT_EQ(m_sink->pin.samples()[0].bytes, m_sound);
}

TEST_F(AudioCallback, StatusesLeaveTheirLineAndNoSample) {
    run();
    const std::wstring video = L"CKestraStream->SDIGrabAudioCallback->"; // the video pin's name, on purpose
    EXPECT_EQ(written(1, m_sound), startAnd(video + L"DMA_STATUS_FRAME_DROPED"));
    EXPECT_EQ(written(2, m_sound), startAnd(video + L"DMA_STATUS_FIFO_OVERRUN"));
    EXPECT_EQ(written(16, m_sound), startAnd(video + L"DMA_STATUS_ABORTED"));
    EXPECT_EQ(m_sink->pin.endOfStreams, 0);
    EXPECT_EQ(written(32, m_sound), startAnd(kCallback + L"DMA_STATUS_DICONNECTED"));
    EXPECT_EQ(m_sink->pin.endOfStreams, 1);
    for (const uint32_t status : {3u, 4u, 8u, 17u, 33u, 0xFFFFFFFFu})
        EXPECT_EQ(written(status, m_sound).size(), 1u) << "the start line alone, status " << status;
    EXPECT_EQ(written(DMA_STATUS_GOOD, {}), startAnd(video + L"pFrameInfo->lpRawBuffer == NULL"));
    EXPECT_EQ(m_sink->pin.received, 0);
}

TEST_F(AudioCallback, BlockForNobodyIsPassedOver) {
    run();
    ASSERT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(written(DMA_STATUS_GOOD, m_sound), startAnd(kCallback + L"!m_pFilter->IsActive()")) << "late";
    EXPECT_EQ(written(DMA_STATUS_DICONNECTED, {}), startAnd(kCallback + L"!m_pFilter->IsActive()"));
    disconnect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_EQ(written(DMA_STATUS_GOOD, m_sound), startAnd(kCallback + L"!m_pFilter->IsActive()"))
        << "of a run that is over, though the filter runs";
    EXPECT_EQ(m_sink->pin.received, 0);
}

TEST_F(AudioCallback, TimeStampsCountDeliveredBlocksOnly) {
    run();
    block(DMA_STATUS_GOOD, m_sound);
    m_sink->pin.receiveResult = S_FALSE;
    EXPECT_EQ(written(DMA_STATUS_GOOD, m_sound), startAnd(kCallback + L"Deliver"));
    m_sink->pin.receiveResult = S_OK;
    block(DMA_STATUS_FRAME_DROPED, m_sound);
    block(DMA_STATUS_GOOD, m_sound);
    const auto samples = m_sink->pin.samples();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0].start, 0);
    EXPECT_EQ(samples[0].stop, 166666);
    EXPECT_EQ(samples[1].start, 166666);
    EXPECT_EQ(samples[2].start, 166666);
    EXPECT_EQ(samples[2].stop, 333332);
    EXPECT_TRUE(samples[2].syncPoint);
}

TEST_F(AudioCallback, ShortBlockIsFollowedByZerosAndALongOneIsCut) {
    run();
    block(DMA_STATUS_GOOD, std::vector<uint8_t>(100, 0x55));
    block(DMA_STATUS_GOOD, std::vector<uint8_t>(5000, 0x66));
    const auto samples = m_sink->pin.samples();
    std::vector<uint8_t> expected(3200);
    std::fill_n(expected.begin(), 100, uint8_t{0x55});
    EXPECT_EQ(samples[0].bytes, expected);
    EXPECT_EQ(samples[1].bytes, std::vector<uint8_t>(3200, 0x66));
}

TEST_F(AudioCallback, RateFollowsTheInput) {
    struct Case {
        uint32_t videoMode;
        uint8_t interlaced, frameRate;
        uint32_t framesPerSecond;
    };
    connect();
    for (const Case& example : {Case{0, 0, 60, 60},
                                {0, 1, 60, 30},
                                {0, 0, 0, 25},
                                {0, 1, 0, 25},
                                {0, 1, 1, 25},
                                {16, 0, 60, 24},
                                {16, 1, 60, 12},
                                {16, 0, 0, 24},
                                {0, 0, 50, 50}}) {
        SCOPED_TRACE(testing::Message() << example.videoMode << ' ' << int(example.interlaced) << ' '
                                        << int(example.frameRate));
        g_grab.status.videoMode = example.videoMode;
        g_grab.status.interlaced = example.interlaced;
        g_grab.status.frameRate = example.frameRate;
        m_sink->pin.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        block(DMA_STATUS_GOOD, std::vector<uint8_t>(40000, 0x55));
        block(DMA_STATUS_GOOD, std::vector<uint8_t>(40000, 0x55));
        ASSERT_EQ(m_filter->Stop(), S_OK);
        const auto samples = m_sink->pin.samples();
        ASSERT_EQ(samples.size(), 2u);
        EXPECT_EQ(samples[0].start, 0);
        EXPECT_EQ(samples[1].start, 10'000'000 / example.framesPerSecond);
        EXPECT_EQ(samples[1].bytes.size(), 192000 / example.framesPerSecond) << "the buffers have grown with the need";
    }
}

TEST_F(AudioCallback, SampleFormatIsOneFor16Bits) {
    run(0);
    EXPECT_EQ(g_grab.extra, 1u);
    m_filter->Stop();
    disconnect();
    run(1);
    EXPECT_EQ(g_grab.extra, 0u);
}

TEST_F(AudioCallback, ValueThatAnotherProcessStoresChangesNoBlock) {
    for (const int chosen : {0, 1}) {
        SCOPED_TRACE(chosen);
        run(chosen);
        const uint32_t sampleFormat = chosen == 0 ? 1 : 0;
        m_registry.setDword(kSettings, L"AudioFormat", chosen == 0 ? 1 : 0);
        const auto getFormat = [&] {
            AM_MEDIA_TYPE* type = nullptr;
            ASSERT_EQ(query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->GetFormat(&type), S_OK);
            EXPECT_EQ(reinterpret_cast<WAVEFORMATEX*>(type->pbFormat)->wBitsPerSample, chosen == 0 ? 16 : 24);
            DeleteMediaType(type);
        };
        getFormat();
        ASSERT_EQ(m_filter->Stop(), S_OK);
        getFormat();
        g_grab.extra = 99;
        ASSERT_EQ(m_filter->Run(0), S_OK) << "of the same connection";
        EXPECT_EQ(g_grab.extra, sampleFormat);
        m_filter->Stop();
        disconnect();
    }
}

TEST_F(AudioCallback, LateBlockKeepsItsOwnRunAndItsReceiver) {
    run();
    const HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_sink->pin.blockUntil = gate;
    const Intercepted first = g_grab;
    std::thread late([&] {
        TarnisFrameInfo info{};
        info.lpRawBuffer = m_sound.data();
        info.bufferSize = static_cast<uint32_t>(m_sound.size());
        first.callback(first.context, &info);
    });
    EXPECT_TRUE(waitUntil([&] { return m_sink->pin.insideReceive == 1; }));
    m_sink->pin.blockUntil = nullptr;
    TestAllocator allocator; // the other one's only buffer is held
    ASSERT_EQ(m_filter->Stop(), S_OK);
    disconnect();
    m_sink->pin.allocator = &allocator;
    ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    block(DMA_STATUS_GOOD, m_sound);
    SetEvent(gate);
    late.join();
    CloseHandle(gate);
    block(DMA_STATUS_GOOD, m_sound);
    const auto samples = m_sink->pin.samples();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0].start, 0);
    EXPECT_EQ(samples[2].start, 166666) << "the late block was not of this run";
    m_filter->Stop();
    disconnect();
    m_sink->pin.allocator = nullptr;
}

TEST_F(AudioCallback, AllocatorThatRefusesToGrowHasItsBlocksCut) {
    TestAllocator allocator;
    m_sink->pin.allocator = &allocator;
    connect();
    g_grab.status.frameRate = 30;
    allocator.setPropertiesResult = VFW_E_BUFFERS_OUTSTANDING;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    block(DMA_STATUS_GOOD, std::vector<uint8_t>(6400, 0x55));
    ASSERT_EQ(m_sink->pin.received, 1);
    EXPECT_EQ(m_sink->pin.samples()[0].bytes, std::vector<uint8_t>(3200, 0x55));
    m_filter->Stop();
    disconnect();
    m_sink->pin.allocator = nullptr;
}

TEST_F(AudioCallback, TypeWithALengthButNoBlockIsNoType) {
    makeFilter(1);
    AM_MEDIA_TYPE type{};
    type.majortype = MEDIATYPE_Audio;
    type.subtype = MEDIASUBTYPE_PCM;
    type.formattype = FORMAT_WaveFormatEx;
    type.cbFormat = sizeof(WAVEFORMATEX);
    m_trace.clear();
    EXPECT_EQ(query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->SetFormat(&type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE"), 1);
    CMediaType offered;
    ASSERT_EQ(m_stream->GetMediaType(0, &offered), S_OK);
    EXPECT_EQ(reinterpret_cast<WAVEFORMATEX*>(offered.pbFormat)->wBitsPerSample, 24) << "the set format stays";
    EXPECT_EQ(m_pin->Connect(&m_sink->pin, &type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->Connect->FAILED(hr)"), 1);
}

TEST_F(AudioCallback, SecondActivationOnlyReadsTheRateAgain) {
    connect();
    ASSERT_EQ(m_stream->Active(), S_OK); // as a video pin does
    EXPECT_TRUE(CKestraAudioStream::m_bactive);
    EXPECT_EQ(written(DMA_STATUS_GOOD, m_sound), startAnd(kCallback + L"!m_pFilter->IsActive()"));
    simcard::Signal interlaced = simcard::kDefaultSignal;
    interlaced.interlaced = 1;
    interlaced.rateNumerator = 30;
    m_card.setSignal(interlaced);
    m_trace.clear();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_EQ(m_trace.lines(), (std::vector<std::wstring>{L"CKestraAudioStream->Active->start\r\n",
                                                          L"CKestraAudioStream->Active->m_bactive\r\n"}));
    EXPECT_EQ(g_grab.starts, 1);
    block(DMA_STATUS_GOOD, std::vector<uint8_t>(6400, 0x55));
    const auto samples = m_sink->pin.samples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].stop, 333333);
    ASSERT_EQ(m_stream->Active(), S_FALSE);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->m_pFilter->IsActive()"), 1);
    const ULONG before = (m_filter->AddRef(), m_filter->Release());
    EXPECT_EQ(m_filter->Stop(), S_OK);
    const ULONG after = (m_filter->AddRef(), m_filter->Release());
    EXPECT_EQ(before - after, 2u) << "one reference of each activation is given back";
    EXPECT_FALSE(CKestraAudioStream::m_bactive);
}

TEST_F(AudioCallback, ActivationOutOfTurnIsNamed) {
    makeFilter(0);
    m_trace.clear();
    EXPECT_EQ(m_stream->Active(), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->!IsConnected()"), 1);
    EXPECT_EQ(m_stream->Inactive(), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->!IsConnected()"), 1);
    EXPECT_EQ(g_grab.starts, 0) << "nothing was started";
}

TEST_F(AudioCallback, NullArgumentsAreRefusedAndTheOddPositionsServed) {
    makeFilter(0);
    m_trace.clear();
    EXPECT_EQ(m_stream->CheckMediaType(nullptr), E_POINTER);
    EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->start"), 1);
    EXPECT_EQ(m_stream->GetMediaType(0, nullptr), E_POINTER);
    EXPECT_EQ(m_stream->DecideBufferSize(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(m_stream->GetMediaType(2, nullptr), VFW_S_NO_MORE_ITEMS) << "before the pointer is looked at";
    CMediaType type;
    EXPECT_EQ(m_stream->GetMediaType(-5, &type), S_OK);
    EXPECT_EQ(type.FormatLength(), 18u);
}

void activateAll() {
    audioPins.forEach([](CKestraAudioStream& pin) { pin.Active(); });
}

TEST_F(AudioCallback, PinIsListedFromItsConstructionToItsEnd) {
    activateAll();
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->start"), 0);
    makeFilter(0);
    m_trace.clear();
    activateAll();
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->start"), 1);
    m_pin = ComRef<IPin>();
    m_filter = ComRef<IBaseFilter>();
    m_trace.clear();
    activateAll();
    EXPECT_TRUE(m_trace.lines().empty());
}

} // namespace
} // namespace kestra::test
