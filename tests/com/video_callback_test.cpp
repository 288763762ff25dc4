// The video pin with the grab engine's frames made by the test: every branch of the frame callback, a receiver's
// allocator that fails, and memory that is not there. The filter's code is linked into the test.
#include "capture/video_filter.h"
#include "capture/video_stream.h"
#include "tests/com/test_allocator.h"
#include "tests/com/video_test.h"
#include "tests/support/scoped_import_hook.h"

CFactoryTemplate g_Templates[1]; // this program makes its filter itself
int g_cTemplates = 0;

namespace kestra::test {
namespace {

/// What the pin gave to the grab engine, which does not start.
struct Intercepted {
    TarnisCameraData* cameraData;
    TarnisFrameCallback callback;
    uint64_t context;
    TarnisCameraStatus status; ///< what the start reports
    uint32_t result;
} g_grab;

} // namespace

extern "C" uint32_t __wrap_TARNIS_StartGrab(TARNIS_HANDLE, int8_t, uint32_t, TarnisCameraData* cameraData,
                                            TarnisFrameCallback callback, uint64_t context) {
    g_grab.cameraData = cameraData;
    g_grab.callback = callback;
    g_grab.context = context;
    cameraData->status = g_grab.status;
    return g_grab.result;
}

namespace {

constexpr const wchar_t* kCallback = L"CKestraStream->SDIGrabVideoCallback->";
constexpr uint16_t kWidth = 64, kHeight = 8;

class VideoCallback : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        simcard::Signal signal = simcard::kDefaultSignal;
        signal.width = kWidth;
        signal.height = kHeight;
        m_card.setSignal(signal);
        g_grab = {};
        g_grab.status.signalFlags = TARNIS_SIGNAL_PRESENT;
        g_grab.status.width = kWidth;
        g_grab.status.height = kHeight;
        g_grab.status.frameRate = 60;
    }
    void TearDown() override {
        if (m_filter) m_filter->Stop();
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        EXPECT_EQ(m_allocator.references(), 0);
        EXPECT_EQ(m_allocator.buffersGiven, m_allocator.buffersReturned) << "a sample was kept";
        CardTest::TearDown();
    }
    void makeFilter(int format) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        HRESULT hr = S_OK;
        CUnknown* made = CKestraCapture::CreateInstance(nullptr, &hr);
        ASSERT_NE(made, nullptr);
        ASSERT_EQ(hr, S_OK);
        made->NonDelegatingAddRef();
        ASSERT_EQ(made->NonDelegatingQueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out())), S_OK);
        made->NonDelegatingRelease();
        m_pin = onlyPin(m_filter.get());
        m_stream = static_cast<CKestraStream*>(m_pin.get());
    }
    void connect(int format = 0) {
        makeFilter(format);
        m_sink.allocator = &m_allocator;
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
        m_trace.clear();
    }
    void disconnect() {
        if (m_pin) m_pin->Disconnect();
        m_sink.Disconnect();
    }
    void run(int format = 0) {
        connect(format);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_NE(g_grab.callback, nullptr);
    }
    void frame(uint32_t dmaStatus, const std::vector<uint8_t>& raw) {
        TarnisFrameInfo info{};
        info.dmaStatus = dmaStatus;
        info.lpRawBuffer = raw.empty() ? nullptr : raw.data();
        info.bufferSize = static_cast<uint32_t>(raw.size());
        g_grab.callback(g_grab.context, &info);
    }
    int lines(const std::wstring& text) { return m_trace.count(text + L"\r\n"); }
    int callbackLines(const std::wstring& text) { return lines(kCallback + text); }

    std::vector<uint8_t> m_grey = std::vector<uint8_t>(size_t{kWidth} * kHeight * 3, 0x55);
    RegistrySandbox m_registry;
    DebugOutputCapture m_trace;
    TestAllocator m_allocator;
    TestSink m_sink;
    ComRef<IBaseFilter> m_filter;
    ComRef<IPin> m_pin;
    CKestraStream* m_stream = nullptr;
};

TEST_F(VideoCallback, GoodFrameIsDeliveredAndLeavesTwoLines) {
    run();
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(m_sink.received, 1);
    EXPECT_EQ(callbackLines(L"start"), 1);
    EXPECT_EQ(callbackLines(L"S_OK"), 1);
}

TEST_F(VideoCallback, StatusesLeaveTheirLineAndNoSample) {
    run();
    for (const auto& [status, name] : {std::pair{1u, L"DMA_STATUS_FRAME_DROPED"},
                                       {2u, L"DMA_STATUS_FIFO_OVERRUN"},
                                       {16u, L"DMA_STATUS_ABORTED"},
                                       {32u, L"DMA_STATUS_DICONNECTED"}}) {
        m_trace.clear();
        frame(status, m_grey);
        EXPECT_EQ(callbackLines(name), 1);
        EXPECT_EQ(callbackLines(L"S_OK"), 0);
        EXPECT_EQ(m_trace.lines().size(), 2u) << status;
    }
    for (const uint32_t status : {3u, 4u, 8u, 17u, 33u, 0xFFFFFFFFu}) {
        m_trace.clear();
        frame(status, m_grey);
        EXPECT_EQ(m_trace.lines().size(), 1u) << "the start line alone, status " << status;
    }
    EXPECT_EQ(m_sink.received, 0);
    EXPECT_EQ(m_sink.endOfStreams, 1) << "of the status 32";
}

TEST_F(VideoCallback, FrameWithoutAPointerIsNamed) {
    run();
    frame(DMA_STATUS_GOOD, {});
    EXPECT_EQ(callbackLines(L"pFrameInfo->lpRawBuffer == NULL"), 1);
    EXPECT_EQ(m_sink.received, 0);
}

TEST_F(VideoCallback, LateFrameOfAStoppedFilterIsNamed) {
    run();
    ASSERT_EQ(m_filter->Stop(), S_OK);
    m_trace.clear();
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"!m_pFilter->IsActive()"), 1);
    EXPECT_EQ(m_trace.lines().size(), 2u);
}

TEST_F(VideoCallback, FrameOfAPinThatIsNotConnectedOnlySaysSo) {
    run();
    ASSERT_EQ(m_filter->Stop(), S_OK);
    disconnect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    m_trace.clear();
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"S_OK"), 1);
    EXPECT_EQ(m_sink.received, 0);
}

TEST_F(VideoCallback, NoBufferAndNoMemoryAreNamedAndTheStreamGoesOn) {
    run();
    m_allocator.getBufferResult = E_FAIL;
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"GetDeliveryBuffer"), 1);
    m_allocator.getBufferResult = S_OK;
    m_allocator.withoutMemory = true;
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"!pBuffer"), 1);
    EXPECT_EQ(m_sink.received, 0);
    m_allocator.withoutMemory = false;
    for (int i = 0; i < 12; ++i)
        frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(m_sink.received, 12) << "every sample came back";
}

TEST_F(VideoCallback, TimeStampsCountDeliveredFramesOnly) {
    run();
    frame(DMA_STATUS_GOOD, m_grey);
    m_sink.receiveResult = S_FALSE;
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"Deliver"), 1);
    m_sink.receiveResult = S_OK;
    frame(DMA_STATUS_FRAME_DROPED, m_grey);
    frame(DMA_STATUS_GOOD, m_grey);
    const auto samples = m_sink.samples();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0].start, 0);
    EXPECT_EQ(samples[0].stop, 166666);
    EXPECT_EQ(samples[2].start, 166666) << "no gap where nothing was delivered";
    EXPECT_EQ(samples[2].stop, 333332);
    EXPECT_TRUE(samples[2].syncPoint);
}

TEST_F(VideoCallback, StoppedWithAFailedDeliveryTheFilterStillEndsItsStream) {
    run();
    m_sink.receiveResult = E_FAIL;
    frame(DMA_STATUS_GOOD, m_grey);
    ASSERT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(m_sink.endOfStreams, 1);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->NOERROR"), 1);
}

TEST_F(VideoCallback, RateOfTheTimeStampsFollowsTheSignal) {
    struct Case {
        uint32_t videoMode;
        uint8_t interlaced, frameRate;
        REFERENCE_TIME second; // start of the second sample
    };
    connect();
    for (const Case& example : {Case{0, 0, 60, 166666},
                                {0, 1, 60, 333333},
                                {0, 0, 0, 400000},
                                {16, 0, 60, 416666},
                                {16, 1, 60, 833333},
                                {0, 1, 1, 400000},
                                {0, 0, 25, 400000},
                                {0, 1, 50, 400000}}) {
        SCOPED_TRACE(testing::Message() << example.videoMode << ' ' << int(example.interlaced) << ' '
                                        << int(example.frameRate));
        g_grab.status.videoMode = example.videoMode;
        g_grab.status.interlaced = example.interlaced;
        g_grab.status.frameRate = example.frameRate;
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        frame(DMA_STATUS_GOOD, m_grey);
        frame(DMA_STATUS_GOOD, m_grey);
        ASSERT_EQ(m_filter->Stop(), S_OK);
        const auto samples = m_sink.samples();
        ASSERT_EQ(samples.size(), 2u);
        EXPECT_EQ(samples[0].start, 0) << "each run starts anew";
        EXPECT_EQ(samples[1].start, example.second);
    }
}

TEST_F(VideoCallback, FrameOfAnUnlikelySizeIsBlackInRgb24Only) {
    run(1);
    const size_t whole = size_t{kWidth} * kHeight * 3;
    const auto brightness = [this](size_t rawBytes) {
        m_sink.forget();
        frame(DMA_STATUS_GOOD, std::vector<uint8_t>(rawBytes, 0xEE));
        const auto samples = m_sink.samples();
        return samples.size() == 1 ? *std::max_element(samples[0].bytes.begin(), samples[0].bytes.end()) : -1;
    };
    EXPECT_EQ(brightness(whole), 0xEE);
    EXPECT_EQ(brightness(whole + 4096), 0xEE);
    EXPECT_EQ(brightness(whole + 4097), 0);
}

TEST_F(VideoCallback, RefusedStartsAndStopsAreNamed) {
    connect();
    m_allocator.commitResult = E_OUTOFMEMORY;
    EXPECT_EQ(m_filter->Pause(), E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraStream->Active->FAILED(hr)"), 1);
    m_allocator.commitResult = S_OK;
    EXPECT_EQ(m_filter->Stop(), S_OK);

    g_grab.result = TARNIS_FAILURE;
    EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    EXPECT_EQ(lines(L"CKestraStream->Active->E_UNEXPECTED"), 1);
    g_grab.result = TARNIS_SUCCESS;
    EXPECT_EQ(m_filter->Stop(), S_OK);

    ASSERT_EQ(m_filter->Run(0), S_OK);
    m_allocator.decommitResult = E_FAIL;
    EXPECT_EQ(m_filter->Stop(), E_FAIL);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->FAILED(hr)"), 1);
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"!m_pFilter->IsActive()"), 1) << "what still comes is not delivered";
    m_allocator.decommitResult = S_OK;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->NOERROR"), 1);
}

TEST_F(VideoCallback, ActivationOutOfTurnIsNamed) {
    makeFilter(0);
    m_trace.clear();
    EXPECT_EQ(m_stream->Active(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Active->!IsConnected()"), 1);
    EXPECT_EQ(m_stream->Inactive(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->!IsConnected()"), 1);
    ASSERT_EQ(m_filter->Pause(), S_OK);
    EXPECT_EQ(m_stream->Active(), S_FALSE);
    EXPECT_EQ(lines(L"CKestraStream->Active->m_pFilter->IsActive()"), 1);
    EXPECT_EQ(g_grab.callback, nullptr) << "nothing was started";
}

TEST_F(VideoCallback, AllocatorThatRefusesTheSizeIsNamed) {
    makeFilter(0);
    m_trace.clear();
    m_sink.allocator = &m_allocator;
    m_allocator.setPropertiesResult = VFW_E_BADALIGN;
    ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK) << "the pin's own allocator takes over";
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->FAILED(hr)"), 1);
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->S_OK"), 1);
}

TEST_F(VideoCallback, MissingMemoryIsNamedAndChangesNothing) {
    makeFilter(0);
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    AM_MEDIA_TYPE* before = nullptr;
    ASSERT_EQ(config->GetFormat(&before), S_OK);
    static int remaining; // allocations that still succeed
    static ScopedImportHook<decltype(&CoTaskMemAlloc)>* hook;
    ScopedImportHook<decltype(&CoTaskMemAlloc)> noMemory("ole32.dll", "CoTaskMemAlloc", [](SIZE_T bytes) -> LPVOID {
        return remaining-- > 0 ? hook->original()(bytes) : nullptr;
    });
    ASSERT_TRUE(noMemory.installed());
    hook = &noMemory;

    CMediaType type;
    m_trace.clear();
    remaining = 0;
    EXPECT_EQ(m_stream->GetMediaType(0, &type), E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraStream->GetMediaType->E_OUTOFMEMORY"), 1);

    AM_MEDIA_TYPE* got = nullptr;
    VIDEO_STREAM_CONFIG_CAPS caps;
    int failures = 0;
    for (int allowed = 0; allowed < 10; ++allowed) {
        remaining = allowed;
        if (config->GetStreamCaps(0, &got, reinterpret_cast<BYTE*>(&caps)) == S_OK) break;
        EXPECT_EQ(got, nullptr);
        ++failures;
    }
    EXPECT_GE(failures, 2);
    EXPECT_EQ(lines(L"CKestraStream->GetStreamCaps->FAILED(hr)"), failures);
    EXPECT_NE(got, nullptr);

    failures = 0;
    for (int allowed = 0; allowed < 10; ++allowed) {
        remaining = allowed;
        const HRESULT hr = config->SetFormat(got);
        if (hr == S_OK) break;
        ++failures;
    }
    EXPECT_GE(failures, 1);
    EXPECT_GE(lines(L"CKestraStream->setFormat->E_OUTOFMEMORY"), 1);

    remaining = 0;
    AM_MEDIA_TYPE* none = nullptr;
    EXPECT_EQ(config->GetFormat(&none), E_OUTOFMEMORY);
    EXPECT_EQ(none, nullptr);
    CAUUID pages{};
    EXPECT_EQ(query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages)->GetPages(&pages), E_OUTOFMEMORY);
    EXPECT_EQ(pages.pElems, nullptr);
    remaining = 1000;
    DeleteMediaType(got);
    DeleteMediaType(before);
}

} // namespace
} // namespace kestra::test
