// The video pin with frames made by the test: every branch of the frame callback, failing allocators, and lack of
// memory. The filter's code is linked into the test.
#include "capture/video_filter.h"
#include "capture/video_formats.h"
#include "capture/video_stream.h"
#include "tests/com/test_allocator.h"
#include "tests/com/video_test.h"
#include "tests/support/recording_output.h"
#include "tests/support/scoped_import_hook.h"

#include <algorithm>
#include <climits>
#include <thread>

CFactoryTemplate g_Templates[1]; // this program makes its filter itself
int g_cTemplates = 0;

namespace kestra::test {
namespace {

/// What the pin passed to the grab engine, which never starts.
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
    static ComRef<IBaseFilter> newFilter() {
        HRESULT hr = S_OK;
        CUnknown* made = CKestraCapture::CreateInstance(nullptr, &hr);
        ComRef<IBaseFilter> filter;
        EXPECT_EQ(hr, S_OK);
        if (!made) return filter;
        made->NonDelegatingAddRef();
        made->NonDelegatingQueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
        made->NonDelegatingRelease();
        return filter;
    }
    void makeFilter(int format) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        m_filter = newFilter();
        ASSERT_TRUE(m_filter);
        m_pin = onlyPin(m_filter.get());
        m_stream = static_cast<CKestraStream*>(m_pin.get());
        m_capture = static_cast<CKestraCapture*>(m_filter.get());
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
    CKestraCapture* m_capture = nullptr;
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

TEST_F(VideoCallback, LateFrameOfAnEndedRunIsNamedThoughItsFilterRuns) {
    run();
    ASSERT_EQ(m_filter->Stop(), S_OK);
    disconnect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    m_trace.clear();
    frame(DMA_STATUS_GOOD, m_grey);
    EXPECT_EQ(callbackLines(L"!m_pFilter->IsActive()"), 1);
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

TEST_F(VideoCallback, ShortFrameShowsTheLinesThatItHas) {
    constexpr int kBytesPerPixel[] = {2, 3, 2, 3};
    for (const int format : {0, 1, 2, 3}) {
        SCOPED_TRACE(format);
        run(format);
        const size_t line = size_t{kWidth} * static_cast<size_t>(kBytesPerPixel[format]);
        frame(DMA_STATUS_GOOD, std::vector<uint8_t>(line * kHeight - 1, 0x55));
        const auto samples = m_sink.samples();
        ASSERT_EQ(samples.size(), 1u);
        const std::vector<uint8_t>& bytes = samples[0].bytes;
        const size_t sampleLine = bytes.size() / kHeight;
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0x55), std::ptrdiff_t(line * (kHeight - 1)));
        EXPECT_EQ(bytes[format % 2 == 1 ? 0 : (kHeight - 1) * sampleLine], 0) << "the last line alone is black";
        EXPECT_EQ(bytes[3 * sampleLine], 0x55);
        m_filter->Stop();
        disconnect();
        m_sink.forget();
    }
}

TEST_F(VideoCallback, ValueThatAnotherProcessStoresChangesNoFrame) {
    for (const int chosen : {0, 1, 2, 3})
        for (const DWORD stored : {0u, 1u, 2u, 3u, 7u}) {
            SCOPED_TRACE(testing::Message() << chosen << ", and then " << stored);
            run(chosen);
            std::vector<uint8_t> raw(m_grey);
            for (size_t i = 0; i < raw.size(); ++i)
                raw[i] = static_cast<uint8_t>(i * 7);
            frame(DMA_STATUS_GOOD, raw);
            m_registry.setDword(kSettings, L"VideoFormat", stored);
            const auto getFormat = [&] {
                AM_MEDIA_TYPE* type = nullptr;
                EXPECT_EQ(query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->GetFormat(&type), S_OK);
                EXPECT_EQ(type->subtype, m_sink.mediaType.subtype) << "the connection's";
                DeleteMediaType(type);
            };
            const uint32_t selector = g_grab.cameraData->outputSelector;
            EXPECT_EQ(selector, uint32_t(chosen % 2 == 1 ? TARNIS_OUTPUT_RGB24 : TARNIS_OUTPUT_YUV422_8));
            getFormat();
            frame(DMA_STATUS_GOOD, raw);
            ASSERT_EQ(m_filter->Stop(), S_OK);
            getFormat();
            ASSERT_EQ(m_filter->Run(0), S_OK) << "of the same connection";
            EXPECT_EQ(g_grab.cameraData->outputSelector, selector);
            frame(DMA_STATUS_GOOD, raw);
            const auto samples = m_sink.samples();
            ASSERT_EQ(samples.size(), 3u);
            EXPECT_TRUE(samples[1].bytes == samples[0].bytes);
            EXPECT_TRUE(samples[2].bytes == samples[0].bytes);
            m_filter->Stop();
            disconnect();
            m_sink.forget();
        }
}

TEST_F(VideoCallback, SubtypeOfTheConnectionDecidesWhateverItsBlockSays) {
    makeFilter(0);
    CMediaType type;
    ASSERT_EQ(m_stream->GetMediaType(0, &type), S_OK); // YUY2, of sixteen bits
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    type.SetSubtype(&MEDIASUBTYPE_RGB24);
    type.SetSampleSize(kWidth * kHeight * 3);
    ASSERT_EQ(config->SetFormat(&type), S_OK);
    EXPECT_EQ(m_registry.dword(kSettings, L"VideoFormat", 99), 0u) << "as the block has it";
    ASSERT_EQ(m_pin->Connect(&m_sink, &type), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_EQ(g_grab.cameraData->outputSelector, uint32_t{TARNIS_OUTPUT_RGB24});
    std::vector<uint8_t> raw(kWidth * 3, 0x11); // the top line, which comes last
    raw.resize(m_grey.size(), 0x55);
    frame(DMA_STATUS_GOOD, raw);
    const auto samples = m_sink.samples();
    ASSERT_EQ(samples.size(), 1u);
    std::vector<uint8_t> expected(m_grey.size() - kWidth * 3, 0x55);
    expected.resize(m_grey.size(), 0x11);
    EXPECT_EQ(samples[0].bytes, expected);
}

TEST_F(VideoCallback, FramesThatDoNotFitAreToldOfOnceARun) {
    LibraryLogCapture log;
    const auto warnings = [&] {
        std::vector<std::wstring> texts;
        for (const SeenRecord& record : log.records())
            if (record.severity == LOG_WARNING && record.functionName == "SDIGrabVideoCallback")
                texts.push_back(record.message);
        return texts;
    };
    connect(0);
    g_grab.status.width = 2 * kWidth; // the input since the connection
    for (size_t run = 1; run <= 2; ++run) {
        ASSERT_EQ(m_filter->Run(0), S_OK);
        for (int i = 0; i < 3; ++i)
            frame(DMA_STATUS_GOOD, std::vector<uint8_t>(size_t{kWidth} * 2 * kHeight * 2));
        ASSERT_EQ(m_filter->Stop(), S_OK);
        EXPECT_EQ(warnings(), std::vector<std::wstring>(run, L"Frames of 128x8, 2048 bytes, do not fit the "
                                                             L"connection's samples of 1024 bytes: they are not "
                                                             L"delivered"));
    }
    EXPECT_EQ(callbackLines(L"SetActualDataLength"), 6);
    EXPECT_EQ(m_sink.received, 0);
    disconnect();
    g_grab.status.width = kWidth;
    run(1);
    log.clear();
    for (int i = 0; i < 2; ++i)
        frame(DMA_STATUS_GOOD, std::vector<uint8_t>(size_t{kWidth} * 3 * kHeight + 4097, 0xEE));
    EXPECT_EQ(warnings(), std::vector<std::wstring>{L"Frames of 64x8, 5633 bytes, do not fit the connection's samples "
                                                    L"of 1536 bytes: they are not shown"});
    ASSERT_EQ(m_sink.received, 2) << "black";
    EXPECT_EQ(m_sink.samples()[0].bytes, std::vector<uint8_t>(kWidth * 3 * kHeight));
}

TEST_F(VideoCallback, SampleIsNeverLongerThanItsMemory) {
    for (const int format : {0, 1, 2, 3}) {
        SCOPED_TRACE(format);
        m_allocator.claimedLength = 0;
        run(format);
        const size_t whole = size_t{kWidth} * kHeight * (format == 3 ? 4 : format == 1 ? 3 : 2);
        for (const long claimed : {long(whole) + 1, 1000000000L, LONG_MAX}) {
            m_allocator.claimedLength = claimed;
            m_sink.forget();
            frame(DMA_STATUS_GOOD, m_grey);
            ASSERT_EQ(m_sink.received, 1);
            EXPECT_EQ(m_sink.samples()[0].bytes.size(), whole);
        }
        m_allocator.claimedLength = -5;
        frame(DMA_STATUS_GOOD, m_grey);
        EXPECT_EQ(callbackLines(L"SetActualDataLength"), 1) << "and less than nothing is nothing";
        m_filter->Stop();
        disconnect();
        m_sink.forget();
        m_trace.clear();
    }
}

TEST_F(VideoCallback, BuffersAreAlignedAndPrefixedAsTheReceiverWants) {
    for (const int format : {0, 1, 2, 3}) {
        m_sink.requirements = ALLOCATOR_PROPERTIES{3, 1, 64, 64};
        run(format);
        ALLOCATOR_PROPERTIES agreed{};
        ASSERT_EQ(m_allocator.GetProperties(&agreed), S_OK);
        EXPECT_EQ(agreed.cBuffers, 3);
        EXPECT_EQ(agreed.cbAlign, 64);
        EXPECT_EQ(agreed.cbPrefix, 64);
        const long whole = kWidth * kHeight * (format == 3 ? 4 : format == 1 ? 3 : 2);
        EXPECT_GE(agreed.cbBuffer, whole);
        m_sink.onReceive = [](IMediaSample* sample) {
            BYTE* data = nullptr;
            ASSERT_EQ(sample->GetPointer(&data), S_OK);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 64, 0u);
        };
        frame(DMA_STATUS_GOOD, m_grey);
        ASSERT_EQ(m_sink.received, 1);
        const std::vector<uint8_t> bytes = m_sink.samples()[0].bytes;
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0x55), kWidth * kHeight * (format % 2 == 1 ? 3 : 2));
        m_sink.onReceive = nullptr;
        m_filter->Stop();
        disconnect();
        m_sink.forget();
    }
}

TEST_F(VideoCallback, MediaTypeAttachedToASampleLeavesItsBytesTheConnections) {
    run(2);
    frame(DMA_STATUS_GOOD, m_grey);
    CMediaType other;
    ASSERT_EQ(makeVideoType(kVideoFormats[0], {kWidth, kHeight, 60, false}, other), S_OK);
    m_allocator.attached = &other;
    m_sink.onReceive = [&](IMediaSample* sample) {
        AM_MEDIA_TYPE* attached = nullptr;
        ASSERT_EQ(sample->GetMediaType(&attached), S_OK) << "as it came from the allocator";
        EXPECT_EQ(attached->subtype, MEDIASUBTYPE_YUY2);
        DeleteMediaType(attached);
    };
    frame(DMA_STATUS_GOOD, m_grey);
    m_sink.onReceive = nullptr;
    const auto samples = m_sink.samples();
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_TRUE(samples[0].bytes == samples[1].bytes);
}

/// A frame that a receiver keeps, on its own thread, for as long as a test wants.
class BlockedFrame {
public:
    BlockedFrame(TestSink& sink, std::function<void()> bringFrame) : m_sink(sink) {
        m_sink.blockUntil = m_gate;
        m_thread = std::thread(std::move(bringFrame));
        EXPECT_TRUE(waitUntil([this] { return m_sink.insideReceive == 1; }));
        m_sink.blockUntil = nullptr;
    }
    ~BlockedFrame() {
        if (m_thread.joinable()) letGo();
        CloseHandle(m_gate);
    }
    void letGo() {
        SetEvent(m_gate);
        m_thread.join();
    }

private:
    TestSink& m_sink;
    const HANDLE m_gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread m_thread;
};

TEST_F(VideoCallback, LateFrameKeepsItsOwnRunAndTouchesNoOther) {
    run();
    const Intercepted first = g_grab;
    BlockedFrame late(m_sink, [&] { frame(DMA_STATUS_GOOD, m_grey); });
    ASSERT_EQ(m_filter->Stop(), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    frame(DMA_STATUS_GOOD, m_grey);
    late.letGo();
    frame(DMA_STATUS_GOOD, m_grey);
    // Three samples, in the order of their ends: the second run's first, the late one, the second run's second.
    const auto samples = m_sink.samples();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(samples[0].start, 0);
    EXPECT_EQ(samples[2].start, 166666) << "the late frame was not of this run";
    // Another frame of the first run finds it over, though the filter runs.
    m_trace.clear();
    TarnisFrameInfo info{};
    info.lpRawBuffer = m_grey.data();
    info.bufferSize = static_cast<uint32_t>(m_grey.size());
    first.callback(first.context, &info);
    EXPECT_TRUE(m_trace.lines().empty()) << "and of a run that has been replaced there is nothing to say";
    EXPECT_EQ(m_sink.received, 3);
}

TEST_F(VideoCallback, ReceiverThatBlocksIsHeldUntilItReturnsAndSoIsTheFilter) {
    run();
    BlockedFrame late(m_sink, [&] { frame(DMA_STATUS_GOOD, m_grey); });
    ASSERT_EQ(m_filter->Stop(), S_OK);
    disconnect();
    EXPECT_GT(m_sink.references(), 0) << "the pin and its input interface";
    EXPECT_GT(m_allocator.references(), 0);
    m_pin = ComRef<IPin>();
    m_filter = ComRef<IBaseFilter>();
    EXPECT_EQ(lines(L"CKestraCapture->Destructor->#1 "), 0);
    late.letGo();
    EXPECT_EQ(lines(L"CKestraCapture->Destructor->#1 "), 1) << "on the late thread";
    EXPECT_EQ(m_sink.references(), 0);
    m_trace.clear();
    frame(DMA_STATUS_GOOD, m_grey); // for a filter that no longer exists
    EXPECT_TRUE(m_trace.lines().empty());
}

TEST_F(VideoCallback, StopDisconnectAndReleaseFromInsideReceive) {
    run();
    m_sink.onReceive = [&](IMediaSample*) {
        EXPECT_EQ(m_filter->Stop(), S_OK);
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
    };
    frame(DMA_STATUS_GOOD, m_grey);
    m_sink.onReceive = nullptr;
    EXPECT_EQ(m_sink.received, 1);
    EXPECT_EQ(lines(L"CKestraCapture->Destructor->#1 "), 1);
    EXPECT_EQ(callbackLines(L"S_OK"), 1);
    EXPECT_EQ(m_sink.references(), 0);
}

TEST_F(VideoCallback, PinAnswersAReceiverThatAsksFromReceiveWhileAStopWaits) {
    run();
    std::atomic<bool> answered{false};
    std::thread grabbing;
    {
        CAutoLock stop(m_capture->pStateLock()); // as held while the filter is being stopped
        m_sink.onReceive = [&](IMediaSample*) {
            LPWSTR id = nullptr;
            PIN_INFO info{};
            PIN_DIRECTION direction{};
            EXPECT_EQ(m_pin->QueryAccept(&m_sink.mediaType), S_OK);
            EXPECT_EQ(m_pin->QueryId(&id), S_OK);
            CoTaskMemFree(id);
            EXPECT_EQ(m_pin->QueryPinInfo(&info), S_OK);
            if (info.pFilter) info.pFilter->Release();
            EXPECT_EQ(m_pin->QueryDirection(&direction), S_OK);
            answered = true;
        };
        grabbing = std::thread([&] { frame(DMA_STATUS_GOOD, m_grey); });
        EXPECT_TRUE(waitUntil([&] { return answered.load(); }));
    }
    grabbing.join();
    m_sink.onReceive = nullptr;
}

TEST_F(VideoCallback, PinIsFoundAndNamedAfterADeliveryThatFailed) {
    run();
    for (const HRESULT result : {S_FALSE, E_FAIL}) {
        m_sink.receiveResult = result;
        frame(DMA_STATUS_GOOD, m_grey);
        LPWSTR id = nullptr;
        ASSERT_EQ(m_pin->QueryId(&id), S_OK);
        EXPECT_STREQ(id, L"1");
        ComRef<IPin> found;
        EXPECT_EQ(m_filter->FindPin(id, found.out()), S_OK);
        EXPECT_EQ(found.get(), m_pin.get());
        CoTaskMemFree(id);
    }
    EXPECT_EQ(m_pin->QueryId(nullptr), E_POINTER);
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

    m_trace.clear();
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

/// This program's task memory: blocks in use, and how many more may be allocated.
class TaskMemory {
public:
    TaskMemory()
        : m_alloc("ole32.dll", "CoTaskMemAlloc",
                  [](SIZE_T bytes) -> LPVOID {
                      if (s_remaining == 0) {
                          if (s_once) s_remaining = -1;
                          return nullptr;
                      }
                      if (s_remaining > 0) --s_remaining;
                      ++s_blocks;
                      return s_memory->m_alloc.original()(bytes);
                  }),
          m_free("ole32.dll", "CoTaskMemFree", [](LPVOID block) {
              if (block) --s_blocks;
              s_memory->m_free.original()(block);
          }) {
        s_memory = this;
        s_remaining = -1;
        EXPECT_TRUE(m_alloc.installed() && m_free.installed());
    }
    void allow(int allocations) { // -1: all
        s_remaining = allocations;
        s_once = false;
    }
    void failNext() {
        s_remaining = 0;
        s_once = true;
    }
    long blocks() const { return s_blocks; }

private:
    static inline TaskMemory* s_memory;
    static inline int s_remaining;
    static inline bool s_once;
    static inline long s_blocks;
    ScopedImportHook<decltype(&CoTaskMemAlloc)> m_alloc;
    ScopedImportHook<decltype(&CoTaskMemFree)> m_free;
};

TEST_F(VideoCallback, MissingMemoryIsNamedAndChangesNothing) {
    makeFilter(3);
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    AM_MEDIA_TYPE* before = nullptr;
    ASSERT_EQ(config->GetFormat(&before), S_OK);
    TaskMemory memory;
    bool formatSet = true;
    const auto expectUnchanged = [&] {
        memory.allow(-1);
        AM_MEDIA_TYPE* now = nullptr;
        CMediaType offered;
        ASSERT_EQ(config->GetFormat(&now), S_OK);
        ASSERT_EQ(m_stream->GetMediaType(0, &offered), S_OK);
        EXPECT_TRUE(CMediaType(*now) == CMediaType(*before));
        EXPECT_EQ(offered == CMediaType(*before), formatSet) << "a set format is the only one";
        EXPECT_EQ(m_registry.dword(kSettings, L"VideoFormat", 99), 3u);
        DeleteMediaType(now);
    };

    CMediaType type;
    m_trace.clear();
    memory.allow(0);
    EXPECT_EQ(m_stream->GetMediaType(0, &type), E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraStream->GetMediaType->E_OUTOFMEMORY"), 1);
    expectUnchanged();

    AM_MEDIA_TYPE* got = nullptr;
    VIDEO_STREAM_CONFIG_CAPS caps;
    int failures = 0;
    for (int allowed = 0; allowed < 10; ++allowed) {
        memory.allow(allowed);
        if (config->GetStreamCaps(0, &got, reinterpret_cast<BYTE*>(&caps)) == S_OK) break;
        EXPECT_EQ(got, nullptr);
        ++failures;
    }
    EXPECT_GE(failures, 2);
    EXPECT_EQ(lines(L"CKestraStream->GetStreamCaps->FAILED(hr)"), failures);
    ASSERT_NE(got, nullptr);
    expectUnchanged();

    m_trace.clear();
    memory.allow(0);
    EXPECT_EQ(config->SetFormat(got), E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraStream->setFormat->E_OUTOFMEMORY"), 1);
    formatSet = false; // but for this: a format that could not be stored takes the old one's place from it
    expectUnchanged();
    memory.allow(1); // enough for the copy, but not for a candidate to compare it with
    EXPECT_EQ(config->SetFormat(got), VFW_E_INVALIDMEDIATYPE);
    expectUnchanged();

    memory.allow(0);
    AM_MEDIA_TYPE* none = nullptr;
    EXPECT_EQ(config->GetFormat(&none), E_OUTOFMEMORY);
    EXPECT_EQ(none, nullptr);
    CAUUID pages{};
    EXPECT_EQ(query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages)->GetPages(&pages), E_OUTOFMEMORY);
    EXPECT_EQ(pages.pElems, nullptr);
    LPWSTR id = nullptr;
    EXPECT_EQ(m_pin->QueryId(&id), E_OUTOFMEMORY);
    expectUnchanged();

    m_trace.clear();
    memory.failNext(); // the copy of the wanted type, and nothing else
    EXPECT_EQ(m_pin->Connect(&m_sink, got), E_OUTOFMEMORY) << "and not with any type";
    EXPECT_EQ(lines(L"CKestraStream->Connect->FAILED(hr)"), 1);
    memory.allow(-1);
    EXPECT_EQ(m_sink.mediaType.cbFormat, 0u) << "nothing was proposed";
    DeleteMediaType(got);
    DeleteMediaType(before);
}

TEST_F(VideoCallback, WithoutASetFormatEveryOfferedTypeIsAcceptedInAnySize) {
    makeFilter(0);
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    CMediaType types[4];
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(makeVideoType(kVideoFormats[i], {6, 4, 25, false}, types[i]), S_OK) << "a size that the card has not";
    {
        TaskMemory memory;
        memory.allow(0);
        EXPECT_EQ(config->SetFormat(&types[0]), E_OUTOFMEMORY);
        memory.allow(-1);
    }
    for (CMediaType& type : types) {
        EXPECT_EQ(m_pin->QueryAccept(&type), S_OK);
        const GUID subtype = type.subtype, formatType = type.formattype;
        type.subtype = GUID_NULL;
        EXPECT_EQ(m_pin->QueryAccept(&type), S_OK) << "any subtype";
        type.subtype = MEDIASUBTYPE_RGB565;
        EXPECT_EQ(m_pin->QueryAccept(&type), S_FALSE);
        type.subtype = subtype;
        type.formattype = formatType == FORMAT_VideoInfo ? FORMAT_VideoInfo2 : FORMAT_VideoInfo;
        EXPECT_EQ(m_pin->QueryAccept(&type), S_FALSE) << "another header";
        type.formattype = formatType;
        type.majortype = MEDIATYPE_Audio;
        EXPECT_EQ(m_pin->QueryAccept(&type), S_FALSE);
    }
    EXPECT_EQ(m_pin->QueryAccept(nullptr), E_POINTER);
}

TEST_F(VideoCallback, OpenListsOfTypesAreOutOfDateAfterSetFormat) {
    makeFilter(0);
    ComRef<IEnumMediaTypes> types;
    ASSERT_EQ(m_pin->EnumMediaTypes(types.out()), S_OK);
    CMediaType rgb;
    ASSERT_EQ(makeVideoType(kVideoFormats[3], {kWidth, kHeight, 60, false}, rgb), S_OK);
    ASSERT_EQ(query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig)->SetFormat(&rgb), S_OK);
    AM_MEDIA_TYPE* next = nullptr;
    EXPECT_EQ(types->Next(1, &next, nullptr), VFW_E_ENUM_OUT_OF_SYNC);
    ASSERT_EQ(types->Reset(), S_OK);
    ASSERT_EQ(types->Next(1, &next, nullptr), S_OK);
    EXPECT_EQ(next->subtype, MEDIASUBTYPE_RGB32);
    DeleteMediaType(next);
}

TEST_F(VideoCallback, TypesAreMadeAndSetWithoutLeavingMemory) {
    makeFilter(0);
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    TaskMemory memory;
    for (const int format : {0, 1, 2, 3}) {
        SCOPED_TRACE(format);
        long before = 0;
        for (int i = 0; i < 10; ++i) {
            if (i == 1) before = memory.blocks(); // this format has been set by then
            AM_MEDIA_TYPE* type = nullptr;
            VIDEO_STREAM_CONFIG_CAPS caps;
            ASSERT_EQ(config->GetStreamCaps(format, &type, reinterpret_cast<BYTE*>(&caps)), S_OK);
            EXPECT_EQ(config->SetFormat(type), S_OK);
            DeleteMediaType(type);
            CMediaType used;
            EXPECT_EQ(m_stream->GetMediaType(0, &used), S_OK);
            EXPECT_EQ(m_stream->GetMediaType(0, &used), S_OK);
            EXPECT_TRUE(newFilter());
        }
        EXPECT_EQ(memory.blocks(), before);
    }
}

TEST_F(VideoCallback, TypeWithALengthButNoBlockIsNoType) {
    makeFilter(3);
    auto config = query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig);
    AM_MEDIA_TYPE type{};
    type.majortype = MEDIATYPE_Video;
    type.subtype = MEDIASUBTYPE_RGB32;
    type.formattype = FORMAT_VideoInfo2;
    type.cbFormat = sizeof(VIDEOINFOHEADER2);
    m_trace.clear();
    EXPECT_EQ(config->SetFormat(&type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE"), 1);
    EXPECT_EQ(lines(L"CKestraStream->setFormat->E_OUTOFMEMORY"), 0);
    CMediaType offered;
    ASSERT_EQ(m_stream->GetMediaType(0, &offered), S_OK);
    EXPECT_EQ(offered.subtype, MEDIASUBTYPE_RGB32) << "the set format stays";
    EXPECT_EQ(m_pin->Connect(&m_sink, &type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraStream->Connect->FAILED(hr)"), 1);
    EXPECT_EQ(m_sink.references(), 0);
}

TEST_F(VideoCallback, StopOfAFilterThatDidNotStartGivesEverythingBack) {
    connect();
    g_grab.result = TARNIS_FAILURE;
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    g_grab.result = TARNIS_SUCCESS;
    const ComRef<IBaseFilter> other = newFilter();
    const ComRef<IPin> otherPin = onlyPin(other.get());
    TestSink otherSink;
    ASSERT_EQ(otherPin->Connect(&otherSink, nullptr), S_OK);
    EXPECT_EQ(other->Pause(), E_UNEXPECTED) << "the channel is still claimed";
    m_trace.clear();
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->NOERROR"), 1);
    IMediaSample* sample = nullptr;
    EXPECT_EQ(m_allocator.GetBuffer(&sample, nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
    EXPECT_EQ(other->Pause(), S_OK);
    EXPECT_EQ(other->Stop(), S_OK);
    // Disconnecting does so too.
    g_grab.result = TARNIS_FAILURE;
    EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    g_grab.result = TARNIS_SUCCESS;
    disconnect();
    EXPECT_EQ(other->Pause(), S_OK);
    EXPECT_EQ(other->Stop(), S_OK);
    otherPin->Disconnect();
}

} // namespace
} // namespace kestra::test
