// The video pin at work: connection, start and stop, every byte of every format, every status, and what a badly behaved
// receiver, another application or a pulled card do to it. KESTRA_LONG=1: more cycles, with figures.
#include "simcard/model/picture.h"
#include "tests/com/test_allocator.h"
#include "tests/com/video_test.h"
#include "tests/support/long_run.h"
#include "tests/support/process_counts.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <thread>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

struct Picture {
    Signal signal;
    int format; ///< as in "VideoFormat"
    uint32_t width() const { return signal.width; }
    uint32_t height() const { return signal.height; }
    bool interlaced() const { return signal.interlaced != 0; }
    bool rgb() const { return format == 1 || format == 3; }
    uint32_t bytesPerPixel() const { return format == 3 ? 4 : format == 1 ? 3 : 2; }
    uint32_t lineBytes() const { return (width() * bytesPerPixel() + 3) & ~3u; }
    /// Raw line shown by a line of the sample, counted from the top; the fields count as equally high.
    uint32_t rawLine(uint32_t line) const {
        const bool woven = interlaced() && (format == 0 || format == 1);
        return woven ? line / 2 + (line % 2) * (height() / 2) : line;
    }
    /// Of two fields of as many lines: the last line of an odd picture is not decoded.
    bool isBlack(uint32_t line) const {
        return format == 1 && interlaced() && height() % 2 != 0 && line == height() - 1;
    }
    /// Line of the sample, from its first byte on, that is such a line from its top on.
    uint32_t sampleLine(uint32_t line) const { return rgb() ? height() - 1 - line : line; }
    /// Line of a sample, from its top on, that shows a line of a picture of even height.
    uint32_t lineOfPicture(uint32_t line) const {
        return !interlaced() || format < 2 ? line : line / 2 + (line % 2) * (height() / 2);
    }
};

/// The expected sample, made from the card's raw frame the slow way.
std::vector<uint8_t> expectedSample(const Picture& picture, uint32_t frameNumber) {
    const PictureFormat format{picture.signal.width,
                               picture.signal.height,
                               picture.interlaced(),
                               uint8_t(picture.rgb() ? TARNIS_OUTPUT_RGB24 : TARNIS_OUTPUT_YUV422_8),
                               uint8_t(picture.signal.nominalFrameRate()),
                               PictureKind::Bars,
                               wire::toWire(wire::kDefaultConverter)};
    std::vector<uint8_t> raw(frameSizeBytes(format)), sample(size_t{picture.lineBytes()} * picture.height());
    PictureSource source;
    EXPECT_TRUE(source.prepare(format, raw.data(), raw.size(), frameNumber));
    const uint32_t rawLineSize = rawLineBytes(format.selector, picture.width());
    for (uint32_t line = 0; line < picture.height(); ++line) {
        if (picture.isBlack(line)) continue;
        const uint8_t* in = &raw[size_t{picture.rawLine(line)} * rawLineSize];
        uint8_t* out = &sample[size_t{picture.sampleLine(line)} * picture.lineBytes()];
        for (uint32_t x = 0; x < picture.width(); ++x)
            for (uint32_t byte = 0; byte < (picture.rgb() ? 3u : 2u); ++byte)
                out[x * picture.bytesPerPixel() + (picture.format == 2 ? byte ^ 1 : byte)] =
                    in[x * (picture.rgb() ? 3 : 2) + byte];
    }
    return sample;
}

bool frameNumberOf(const Picture& picture, const std::vector<uint8_t>& sample, uint32_t& number) {
    return readFrameNumber(
        picture.width(), picture.height(),
        [&](uint32_t x, uint32_t y) {
            const uint32_t channel = picture.format == 2 || picture.rgb() ? 1 : 0; // luma, or green
            return sample[size_t{picture.sampleLine(picture.lineOfPicture(y))} * picture.lineBytes() +
                          x * picture.bytesPerPixel() + channel];
        },
        number);
}

class VideoStream : public VideoTest {
protected:
    void TearDown() override {
        if (m_filter) m_filter->Stop();
        disconnect();
        VideoTest::TearDown();
    }
    /// A filter with that format, connected to the sink.
    void connect(int format = 0) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        ASSERT_EQ(makeFilter(), S_OK);
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
    }
    void disconnect() {
        if (m_pin) m_pin->Disconnect();
        m_sink.Disconnect();
    }
    bool receives(int count = 3) {
        const int before = m_sink.received;
        return waitUntil([&] { return m_sink.received >= before + count; });
    }
    ULONGLONG stopMs() {
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(m_filter->Stop(), S_OK);
        return GetTickCount64() - begin;
    }

    TestSink m_sink;
};

struct Case {
    const char* name;
    Picture picture;
};
constexpr Signal kOdd = {1, 1, 0, 7, 0, 0, 723, 487, 0, 30, 1, 0};
constexpr Case kCases[] = {{"Yuy2Progressive", {kDefaultSignal, 0}}, {"Rgb24Progressive", {kDefaultSignal, 1}},
                           {"UyvyProgressive", {kDefaultSignal, 2}}, {"Rgb32Progressive", {kDefaultSignal, 3}},
                           {"Yuy2Interlaced", {kInterlaced60, 0}},   {"Rgb24Interlaced", {kInterlaced60, 1}},
                           {"UyvyInterlaced", {kInterlaced60, 2}},   {"Rgb32Interlaced", {kInterlaced60, 3}}};

class VideoBytes : public VideoStream, public testing::WithParamInterface<Case> {};

} // namespace

TEST_P(VideoBytes, EveryByteOfEverySampleIsTheFrames) {
    const Picture& picture = GetParam().picture;
    m_card.setSignal(picture.signal);
    connect(picture.format);
    m_sink.keep = repetitions<size_t>(5, 60);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(static_cast<int>(m_sink.keep)));
    EXPECT_LT(stopMs(), kVainStopMs);
    uint32_t last = 0;
    for (const ReceivedSample& sample : m_sink.samples()) {
        uint32_t number = 0;
        ASSERT_TRUE(frameNumberOf(picture, sample.bytes, number));
        EXPECT_TRUE(sample.bytes == expectedSample(picture, number)) << "frame " << number;
        EXPECT_TRUE(sample.syncPoint);
        EXPECT_EQ(sample.typeSpecificFlags, picture.interlaced() && picture.format >= 2 ? 4u : 0u);
        if (last != 0) {
            EXPECT_EQ(number, last + 1) << "no frame is lost";
        }
        last = number;
    }
}

INSTANTIATE_TEST_SUITE_P(, VideoBytes, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(VideoStream, OddPicturesOfFieldsAreTheFramesLineByLine) {
    m_card.setSignal(kOdd);
    for (const int format : {0, 1, 2, 3}) {
        SCOPED_TRACE(format);
        const Picture picture{kOdd, format};
        connect(format);
        const uint32_t first = m_card.state().frameNumber;
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(2));
        m_filter->Stop();
        const uint32_t last = m_card.state().frameNumber;
        const auto samples = m_sink.samples();
        bool found = false;
        for (uint32_t number = first; !found && number <= last; ++number)
            found = samples[0].bytes == expectedSample(picture, number);
        EXPECT_TRUE(found) << "it is none of the frames " << first << " to " << last;
        disconnect();
        m_sink.forget();
    }
}

TEST_F(VideoStream, TimeStampsFollowTheFrameRateWithoutGaps) {
    m_card.setSignal(kInterlaced60);
    connect();
    m_card.dmaStatusNext(0, 1, 1, 2); // a frame that is dropped leaves no gap
    for (int run = 0; run < 2; ++run) {
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(4));
        EXPECT_EQ(m_filter->Stop(), S_OK);
        const auto samples = m_sink.samples();
        ASSERT_EQ(samples.size(), 4u);
        for (int i = 0; i < 4; ++i) {
            EXPECT_TRUE(samples[size_t(i)].timed);
            EXPECT_EQ(samples[size_t(i)].start, REFERENCE_TIME{i} * 10'000'000 / 30);
            EXPECT_EQ(samples[size_t(i)].stop, samples[size_t(i)].start + 333333);
        }
        EXPECT_EQ(samples[1].start, 333333);
        EXPECT_EQ(samples[1].stop, 666666);
    }
}

TEST_F(VideoStream, VideoMode24HasThatRate) {
    Signal cinema = {1, 0, 1, kVideoMode24, 0, 0, 1280, 720, 0, 24000, 1001, 0};
    m_card.setSignal(cinema);
    connect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    EXPECT_EQ(m_sink.samples()[1].start, 10'000'000 / 24);
}

TEST_F(VideoStream, LifeOfARunIsTraced) {
    connect();
    EXPECT_EQ(lines(L"CKestraStream->Connect->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->Connect->NOERROR"), 1);
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->S_OK"), 1);
    ASSERT_EQ(m_filter->Pause(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Active->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->Active->NOERROR"), 1);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->Inactive->NOERROR"), 1);
    EXPECT_GE(lines(L"CKestraStream->SDIGrabVideoCallback->start"), 2);
    EXPECT_GE(lines(L"CKestraStream->SDIGrabVideoCallback->S_OK"), 2);
    EXPECT_EQ(m_sink.endOfStreams, 1);
}

TEST_F(VideoStream, ConnectionsThatCannotBeMadeAreNamed) {
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(m_pin->Connect(nullptr, nullptr), E_POINTER);
    m_sink.acceptResult = VFW_E_TYPE_NOT_ACCEPTED;
    m_trace.clear();
    EXPECT_TRUE(FAILED(m_pin->Connect(&m_sink, nullptr)));
    EXPECT_EQ(lines(L"CKestraStream->Connect->FAILED(hr)"), 1);
    m_sink.acceptResult = S_OK;
    m_sink.notifyAllocatorResult = E_FAIL;
    EXPECT_TRUE(FAILED(m_pin->Connect(&m_sink, nullptr)));
    m_sink.Disconnect();
    m_sink.notifyAllocatorResult = S_OK;
    ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
    TestSink other;
    EXPECT_EQ(m_pin->Connect(&other, nullptr), VFW_E_ALREADY_CONNECTED);
    EXPECT_EQ(lines(L"CKestraStream->Connect->VFW_E_ALREADY_CONNECTED"), 1);
    disconnect();
    ASSERT_EQ(m_filter->Pause(), S_OK);
    EXPECT_EQ(lines(L"CKestraStream->Active->!IsConnected()"), 0) << "the base filter activates connected pins only";
    EXPECT_EQ(m_pin->Connect(&m_sink, nullptr), VFW_E_NOT_STOPPED);
    EXPECT_EQ(lines(L"CKestraStream->Connect->VFW_E_NOT_STOPPED"), 1);
    EXPECT_EQ(other.references(), 0);
}

TEST_F(VideoStream, RefusedAllocatorPropertiesAreTraced) {
    ASSERT_EQ(makeFilter(), S_OK);
    m_sink.accepts = [](const AM_MEDIA_TYPE&) { return true; };
    AM_MEDIA_TYPE type{};
    type.majortype = MEDIATYPE_Video;
    type.subtype = MEDIASUBTYPE_YUY2;
    type.formattype = FORMAT_VideoInfo; // complete, but of samples without a size: the allocator wants none
    type.lSampleSize = 0;
    VIDEOINFOHEADER block{};
    type.pbFormat = reinterpret_cast<BYTE*>(&block);
    type.cbFormat = sizeof block;
    m_trace.clear();
    TestAllocator allocator;
    allocator.setPropertiesResult = VFW_E_BADALIGN;
    m_sink.allocator = &allocator;
    EXPECT_EQ(m_pin->Connect(&m_sink, &type), S_OK) << "the system's allocator takes empty buffers";
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->start"), 2);
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->FAILED(hr)"), 1) << "the receiver's allocator";
    EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->S_OK"), 1) << "the pin's own";
    EXPECT_EQ(m_filter->Pause(), VFW_E_SIZENOTSET);
    EXPECT_EQ(lines(L"CKestraStream->Active->FAILED(hr)"), 1);
    disconnect();
    allocator.setPropertiesResult = S_OK;
    m_sink.allocator = nullptr;
}

TEST_F(VideoStream, StatusesOfTheCardAreTracedAndDeliverNothing) {
    connect();
    const struct {
        uint32_t status;
        const wchar_t* name;
    } statuses[] = {{1, L"DMA_STATUS_FRAME_DROPED"}, {2, L"DMA_STATUS_FIFO_OVERRUN"}, {16, L"DMA_STATUS_ABORTED"}};
    for (const auto& [status, name] : statuses)
        m_card.dmaStatusNext(0, status, 1);
    m_card.dmaStatusNext(0, 4, 1);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    const std::wstring prefix = L"CKestraStream->SDIGrabVideoCallback->";
    for (const auto& [status, name] : statuses)
        EXPECT_GE(lines(prefix + name), 1) << status;
    EXPECT_EQ(m_sink.samples()[0].start, 0) << "the first good frame is the first in time";
    EXPECT_EQ(m_card.state().faults, 0u);
}

TEST_F(VideoStream, SampleTooSmallForALineIsDroppedAndMadeWholeAgain) {
    connect();
    m_sink.leaveActualLength = 1000; // as returned by the allocator
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return lines(L"CKestraStream->SDIGrabVideoCallback->SetActualDataLength") >= 1; }));
    m_sink.leaveActualLength = 0;
    EXPECT_TRUE(receives(5)) << "no sample is lost for good";
}

TEST_F(VideoStream, FailedDeliveryIsTracedAndTheStreamCanBeStoppedAndStartedAgain) {
    connect();
    for (const HRESULT result : {S_FALSE, VFW_E_WRONG_STATE, E_FAIL}) {
        m_trace.clear();
        m_sink.receiveResult = result;
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(waitUntil([&] { return lines(L"CKestraStream->SDIGrabVideoCallback->Deliver") >= 2; }));
        EXPECT_LT(stopMs(), kVainStopMs);
        EXPECT_EQ(lines(L"CKestraStream->Inactive->NOERROR"), 1) << "the pin is still found";
        m_sink.receiveResult = S_OK;
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        EXPECT_TRUE(receives(2));
        EXPECT_EQ(m_sink.samples()[0].start, 0);
        EXPECT_EQ(m_filter->Stop(), S_OK);
    }
}

TEST_F(VideoStream, StoppingTakesMillisecondsAlsoWhileTheReceiverHoldsABuffer) {
    connect();
    ULONGLONG leastMs = kVainStopMs;
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(2));
        const ULONGLONG tookMs = stopMs();
        EXPECT_LT(tookMs, kVainStopMs);
        leastMs = std::min(leastMs, tookMs);
    }
    EXPECT_LT(leastMs, 300u);
}

TEST_F(VideoStream, ReceiverThatBlocksHoldsUpAStopForASecondAtMost) {
    connect();
    const HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_sink.blockUntil = gate;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return m_sink.insideReceive == 1; }));
    const ULONGLONG took = stopMs();
    EXPECT_LT(took, 2 * kVainStopMs);
    m_sink.blockUntil = nullptr;
    SetEvent(gate);
    EXPECT_TRUE(waitUntil([&] { return m_sink.insideReceive == 0; }));
    for (int run = 0; run < 2; ++run) { // the second as if nothing had been late
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(3)) << "the next run works";
        EXPECT_EQ(m_filter->Stop(), S_OK);
        const auto samples = m_sink.samples();
        EXPECT_EQ(samples[0].start, 0);
        EXPECT_EQ(samples[1].start, 166666);
        EXPECT_EQ(samples[2].start, 333333);
    }
    CloseHandle(gate);
}

TEST_F(VideoStream, ModuleThatIsUnloadedWhileAReceiverBlocksStaysForItsThread) {
    connect();
    const HANDLE gate = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_sink.blockUntil = gate;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return m_sink.insideReceive == 1; }));
    stopMs();
    disconnect();
    m_pin = ComRef<IPin>();
    m_filter = ComRef<IBaseFilter>();
    EXPECT_EQ(m_module.canUnloadNow(), S_FALSE) << "the frame still holds the filter";
    m_module.unload();
    EXPECT_TRUE(m_module.isInMemory());
    m_sink.blockUntil = nullptr;
    SetEvent(gate);
    EXPECT_TRUE(waitUntil([&] { return !m_module.isInMemory(); })) << "until the thread ends by itself";
    EXPECT_EQ(m_card.state().clients, 0u);
    CloseHandle(gate);
    m_module.load();
}

TEST_F(VideoStream, ModuleCanBeUnloadedAfterUseInEveryFormat) {
    for (const int format : {0, 1, 2, 3}) {
        connect(format);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(3));
        ASSERT_EQ(m_filter->Stop(), S_OK);
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        EXPECT_EQ(m_module.canUnloadNow(), S_OK);
        m_module.unload();
        EXPECT_FALSE(m_module.isInMemory()) << "format " << format;
        // A thread left in the module's code would crash now.
        if (isLongRun()) std::this_thread::sleep_for(std::chrono::seconds(10));
        m_module.load();
    }
}

TEST_F(VideoStream, FormatChangeEndsTheStreamAndTheClientStartsAgain) {
    constexpr Signal kSmaller = {1, 0, 1, 9, 0, 0, 1280, 720, 0, 60, 1, 0};
    connect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    for (const Signal& signal : {kSmaller, kInterlaced60, kSmaller}) {
        SCOPED_TRACE(testing::Message() << signal.width << ' ' << int(signal.interlaced));
        m_trace.clear();
        m_sink.forget();
        m_card.setSignal(signal);
        ASSERT_TRUE(waitUntil([&] { return m_sink.endOfStreams == 1; }));
        EXPECT_TRUE(
            waitUntil([&] { return lines(L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_DICONNECTED") == 1; }));
        EXPECT_LT(stopMs(), kVainStopMs);
        m_filter = ComRef<IBaseFilter>();
        disconnect();
        connect();
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(2));
        const Picture picture{signal, 0};
        for (const ReceivedSample& sample : m_sink.samples()) {
            uint32_t number = 0;
            ASSERT_EQ(sample.bytes.size(), size_t{picture.lineBytes()} * picture.height());
            ASSERT_TRUE(frameNumberOf(picture, sample.bytes, number));
            EXPECT_TRUE(sample.bytes == expectedSample(picture, number)) << "frame " << number;
        }
    }
}

TEST_F(VideoStream, FormatThatIsAskedForWhileFramesComeChangesNoneOfThem) {
    const Picture picture{kDefaultSignal, 0};
    connect(0);
    m_sink.keep = 20;
    ASSERT_EQ(m_filter->Run(0), S_OK);
    for (const DWORD stored : {1u, 3u, 2u, 7u}) {
        m_registry.setDword(kSettings, L"VideoFormat", stored);
        AM_MEDIA_TYPE* type = nullptr;
        ASSERT_EQ(config()->GetFormat(&type), S_OK);
        EXPECT_EQ(type->subtype, MEDIASUBTYPE_YUY2);
        CoTaskMemFree(type->pbFormat);
        CoTaskMemFree(type);
        ASSERT_TRUE(receives(3));
    }
    EXPECT_EQ(m_filter->Stop(), S_OK);
    for (const ReceivedSample& sample : m_sink.samples()) {
        uint32_t number = 0;
        ASSERT_TRUE(frameNumberOf(picture, sample.bytes, number));
        EXPECT_TRUE(sample.bytes == expectedSample(picture, number)) << "frame " << number;
    }
}

TEST_F(VideoStream, ReceiverMayStopDisconnectAndLetGoFromInsideReceive) {
    for (const bool release : {false, true}) {
        SCOPED_TRACE(release);
        connect();
        std::atomic<bool> done{false};
        m_sink.onReceive = [&](IMediaSample*) {
            if (done) return;
            EXPECT_LT(stopMs(), kVainStopMs);
            disconnect();
            if (release) {
                m_pin = ComRef<IPin>();
                m_filter = ComRef<IBaseFilter>();
            }
            done = true;
        };
        ASSERT_EQ(m_filter->Pause(), S_OK);
        EXPECT_TRUE(waitUntil([&] { return done.load(); }));
        EXPECT_TRUE(waitUntil([&] { return m_sink.insideReceive == 0 && m_sink.references() == 0; }));
        EXPECT_TRUE(waitUntil([&] { return m_card.state().channels[0].grabbing == 0; }));
        m_sink.onReceive = nullptr;
        if (release) {
            EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }));
            continue;
        }
        m_sink.forget();
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        EXPECT_TRUE(receives(2)) << "and starts again";
        EXPECT_EQ(m_filter->Stop(), S_OK);
        disconnect();
    }
}

TEST_F(VideoStream, ChoosingFormatsAgainAndAgainLeavesNoMemoryBehind) {
    const int choices = repetitions(300, 10000);
    ASSERT_EQ(makeFilter(), S_OK);
    CountsOverCycles counts;
    for (int i = 0; i < choices; ++i) {
        ASSERT_EQ(choose(3), S_OK); // found last, after the other three
        m_trace.clear();
        if (i % 10 == 9) counts.note();
    }
    EXPECT_LE(counts.growth().privateBytes, 64 << 10);
    EXPECT_EQ(counts.growth().handles, 0);
}

TEST_F(VideoStream, PulledCardComesBackOrIsLetGoInEveryState) {
    for (const int state : {0, 1, 2}) { // stopped, paused, running
        SCOPED_TRACE(state);
        connect();
        if (state == 1) m_filter->Pause();
        if (state == 2) {
            ASSERT_EQ(m_filter->Run(0), S_OK);
            ASSERT_TRUE(receives(2));
        }
        m_card.unplug();
        if (state == 2) {
            EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; })) << "the library has let go of it";
            m_card.plug();
            EXPECT_TRUE(receives(3)) << "the frames pause and go on";
            EXPECT_EQ(m_sink.endOfStreams, 0);
            m_card.unplug();
        }
        EXPECT_LT(stopMs(), 2500u);
        disconnect();
        m_pin = ComRef<IPin>();
        const ULONGLONG begin = GetTickCount64();
        m_filter = ComRef<IBaseFilter>();
        EXPECT_LT(GetTickCount64() - begin, 2500u);
        m_card.plug();
        m_sink.forget();
    }
}

TEST_F(VideoStream, SecondClientOfTheCardIsRefusedAndTheFirstGoesOn) {
    connect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    ComRef<IBaseFilter> second;
    ASSERT_EQ(m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(second.out())), S_OK);
    const ComRef<IPin> pin = onlyPin(second.get());
    TestSink sink;
    ASSERT_EQ(pin->Connect(&sink, nullptr), S_OK);
    m_trace.clear();
    EXPECT_EQ(second->Pause(), E_UNEXPECTED);
    EXPECT_EQ(lines(L"CKestraStream->Active->E_UNEXPECTED"), 1);
    EXPECT_TRUE(receives(3));
    second->Stop();
    pin->Disconnect();
    sink.Disconnect();
}

TEST_F(VideoStream, RefusedStartIsToldAndTheNextOneWorks) {
    connect();
    m_card.refuseNext(wire::kStartGrabbing, 3);
    m_trace.clear();
    EXPECT_EQ(m_filter->Pause(), E_UNEXPECTED);
    EXPECT_EQ(lines(L"CKestraStream->Active->E_UNEXPECTED"), 1);
    ComRef<IBaseFilter> second;
    ASSERT_EQ(m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(second.out())), S_OK);
    const ComRef<IPin> pin = onlyPin(second.get());
    TestSink sink;
    ASSERT_EQ(pin->Connect(&sink, nullptr), S_OK);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(second->Run(0), S_OK) << "the channel is free for another client";
    EXPECT_TRUE(waitUntil([&] { return sink.received >= 2; }));
    second->Stop();
    pin->Disconnect();
    sink.Disconnect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_TRUE(receives(2));
    EXPECT_EQ(m_filter->Stop(), S_OK);
}

TEST_F(VideoStream, HostThatNeverCapturesOpensNoCardAndStartsNoThread) {
    const ProcessCounts before = processCounts();
    ComRef<IClassFactory> factory;
    ASSERT_EQ(m_module.classObject(kVideoFilter, IID_IClassFactory, reinterpret_cast<void**>(factory.out())), S_OK);
    EXPECT_EQ(processCounts().threads, before.threads);
    EXPECT_EQ(m_card.state().clients, 0u);
}

TEST_F(VideoStream, CyclesOfStartAndStopAndOfCreationLeaveNothingBehind) {
    const int starts = repetitions(25, 500), creations = repetitions(10, 100);
    connect(1);
    CountsOverCycles overStarts, overGraphs;
    for (int i = 0; i < starts; ++i) {
        m_sink.forget();
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(1)) << i;
        ASSERT_EQ(m_filter->Stop(), S_OK);
        m_trace.clear();
        overStarts.note();
    }
    overStarts.report("starts");
    EXPECT_LE(overStarts.growth().handles, starts / 12) << "a handle a start would be a third of them";
    EXPECT_LE(overStarts.growth().threads, 0);
    EXPECT_LT(overStarts.growth().privateBytes, 4 << 20);
    disconnect();
    for (int i = 0; i < creations; ++i) {
        connect(i % 4);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(receives(1)) << i;
        ASSERT_EQ(m_filter->Stop(), S_OK);
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        ASSERT_EQ(m_module.canUnloadNow(), S_OK) << i;
        overGraphs.note();
    }
    overGraphs.report("graphs");
    EXPECT_LE(overGraphs.growth().handles, creations / 6);
    EXPECT_LE(overGraphs.growth().threads, 0);
    EXPECT_LT(overGraphs.growth().privateBytes, 4 << 20);
}

TEST_F(VideoStream, RunsInTheSystemsGraphAndTellsItOfALostDeviceAndStartsAgain) {
    ComRef<IGraphBuilder> graph;
    ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                               reinterpret_cast<void**>(graph.out())),
              S_OK);
    ComRef<IBaseFilter> renderer;
    ASSERT_EQ(CoCreateInstance(kNullRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                               reinterpret_cast<void**>(renderer.out())),
              S_OK);
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(graph->AddFilter(m_filter.get(), L"card"), S_OK);
    ASSERT_EQ(graph->AddFilter(renderer.get(), L"nobody"), S_OK);
    ASSERT_EQ(graph->ConnectDirect(m_pin.get(), onlyPin(renderer.get()).get(), nullptr), S_OK);
    auto control = query<IMediaControl>(graph.get(), IID_IMediaControl);
    auto events = query<IMediaEvent>(graph.get(), IID_IMediaEvent);
    events->CancelDefaultHandling(EC_DEVICE_LOST);
    ASSERT_TRUE(SUCCEEDED(control->Run()));
    EXPECT_TRUE(waitUntil([&] { return lines(L"CKestraStream->SDIGrabVideoCallback->S_OK") >= 5; }));
    const auto lossesTold = [&] {
        std::vector<LONG_PTR> lost;
        waitUntil([&] {
            long code = 0;
            LONG_PTR first = 0, second = 0;
            while (events->GetEvent(&code, &first, &second, 10) == S_OK) {
                if (code == EC_DEVICE_LOST) lost.push_back(second);
                events->FreeEventParams(code, first, second);
            }
            return lost.size() >= 2;
        });
        return lost;
    };
    const std::vector<LONG_PTR> goneAndThereAgain = {0, 1};
    m_card.unplug();
    ASSERT_TRUE(waitUntil([&] { return m_card.state().clients == 0; })) << "the library has let go of it";
    EXPECT_TRUE(SUCCEEDED(control->Stop()));
    m_card.plug();
    m_trace.clear();
    EXPECT_TRUE(waitUntil([&] { // until the card is back
        control->Run();
        if (lines(L"CKestraStream->Active->NOERROR") != 0) return true;
        control->Stop();
        return false;
    }));
    EXPECT_TRUE(waitUntil([&] { return lines(L"CKestraStream->SDIGrabVideoCallback->S_OK") >= 5; }));
    Signal smaller = kDefaultSignal;
    smaller.width = 1280;
    smaller.height = 720;
    m_card.setSignal(smaller);
    EXPECT_EQ(lossesTold(), goneAndThereAgain);
    EXPECT_TRUE(SUCCEEDED(control->Stop()));
    graph->RemoveFilter(m_filter.get());
    graph->RemoveFilter(renderer.get());
}

} // namespace kestra::test
