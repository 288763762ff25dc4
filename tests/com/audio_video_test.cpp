// Sound and picture together: the video pin starts the sound of the whole process, in every order in which the two can
// be started, stopped and let go, in one graph, in two, and in none.
#include "simcard/model/picture.h"
#include "simcard/model/sound.h"
#include "tests/com/audio_test.h"
#include "tests/support/sound_check.h"

#include <thread>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr Signal kSmall = {1, 0, 1, 9, 0, 0, 320, 240, 0, 60, 1, 0}; // a picture that costs no time

class AudioVideo : public AudioTest {
protected:
    void SetUp() override {
        AudioTest::SetUp();
        m_card.setSignal(kSmall);
        m_videoSink->pin.keep = 0;
    }
    void TearDown() override {
        releaseVideo();
        AudioTest::TearDown();
    }
    void connectVideo() {
        ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_video.out())), S_OK);
        m_videoPin = onlyPin(m_video.get());
        ASSERT_EQ(m_videoPin->Connect(&m_videoSink->pin, nullptr), S_OK);
    }
    void releaseVideo() {
        if (m_videoGraph) query<IMediaControl>(m_videoGraph.get(), IID_IMediaControl)->Stop();
        m_videoGraph = ComRef<IGraphBuilder>();
        if (m_video) m_video->Stop();
        if (m_videoPin) m_videoPin->Disconnect();
        m_videoSink->pin.Disconnect();
        m_videoPin = ComRef<IPin>();
        m_video = ComRef<IBaseFilter>();
    }
    bool soundIsGrabbed() { return m_card.state().channels[1].grabbing != 0; }
    int soundStarts() {
        int starts = 0;
        for (const LogEntry& entry : m_card.log())
            starts += entry.code == wire::kStartGrabbing && entry.bytes[0] == 1;
        return starts;
    }
    bool videoReceives(int count = 2) {
        const int before = m_videoSink->pin.received;
        return waitUntil([&] { return m_videoSink->pin.received >= before + count; });
    }
    ComRef<IGraphBuilder> newGraph() {
        ComRef<IGraphBuilder> graph;
        EXPECT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                   reinterpret_cast<void**>(graph.out())),
                  S_OK);
        return graph;
    }
    static ComRef<IMediaControl> controlOf(IGraphBuilder* graph) {
        return query<IMediaControl>(graph, IID_IMediaControl);
    }

    ComRef<SinkFilter> m_videoSink = SinkFilter::create();
    ComRef<IGraphBuilder> m_videoGraph;
    ComRef<IBaseFilter> m_video;
    ComRef<IPin> m_videoPin;
};

} // namespace

TEST_F(AudioVideo, VideoPinStartsTheSoundOnceAndTheAudioFilterJoins) {
    connect();
    connectVideo();
    clearTrace();
    m_card.clearLog();
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->S_OK"), 1);
    EXPECT_TRUE(soundIsGrabbed());
    EXPECT_TRUE(
        waitUntil([&] { return lines(L"CKestraAudioStream->SDIGrabAudioCallback->!m_pFilter->IsActive()") >= 3; }));
    EXPECT_EQ(m_sink->pin.received, 0) << "its own filter is stopped";
    clearTrace();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->m_bactive"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->S_OK"), 0) << "no further line";
    EXPECT_EQ(soundStarts(), 1);
    ASSERT_TRUE(receives(3));
    EXPECT_EQ(m_sink->pin.samples()[0].start, 0);
    EXPECT_EQ(m_sink->pin.samples()[1].start, 166666);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_FALSE(soundIsGrabbed());
    EXPECT_TRUE(videoReceives()) << "the picture goes on";
}

TEST_F(AudioVideo, SoundThatOnlyTheVideoPinStartedEndsWithTheNextStopOrDisconnection) {
    connect();
    for (const bool stop : {true, false}) {
        SCOPED_TRACE(stop);
        connectVideo();
        ASSERT_EQ(m_video->Run(0), S_OK);
        ASSERT_TRUE(videoReceives());
        EXPECT_EQ(m_video->Stop(), S_OK);
        EXPECT_TRUE(soundIsGrabbed()) << "the video pin leaves it running";
        if (stop) {
            clearTrace();
            EXPECT_EQ(m_filter->Stop(), S_OK);
            EXPECT_EQ(lines(L"CKestraAudioStream->Inactive->NOERROR"), 1);
        } else {
            disconnect();
        }
        EXPECT_FALSE(soundIsGrabbed());
        releaseVideo();
    }
}

TEST_F(AudioVideo, RunningAudioPinIsLeftAlone) {
    connect();
    connectVideo();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    clearTrace();
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->m_pFilter->IsActive()"), 1);
    EXPECT_TRUE(receives(2));
    EXPECT_TRUE(videoReceives());
    EXPECT_EQ(m_video->Stop(), S_OK);
    EXPECT_TRUE(receives(2)) << "the sound goes on";
}

TEST_F(AudioVideo, AudioPinThatIsNotConnectedIsNotStarted) {
    ASSERT_EQ(makeFilter(), S_OK);
    connectVideo();
    clearTrace();
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->!IsConnected()"), 1);
    EXPECT_FALSE(soundIsGrabbed());
    EXPECT_TRUE(videoReceives());
}

TEST_F(AudioVideo, SoundThatCannotStartDoesNotHoldUpThePicture) {
    connect();
    connectVideo();
    m_card.failNext(wire::kChannelAccess, 0xC0000022); // the audio channel's claim comes first
    clearTrace();
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->TARNIS_GetDMAAccess"), 1);
    EXPECT_TRUE(videoReceives());
    ASSERT_EQ(m_filter->Run(0), S_OK) << "and the next start works";
    EXPECT_TRUE(receives(2));
}

TEST_F(AudioVideo, SecondAudioFilterJoinsWhatRunsAndNeedsNoSoundOfItsOwn) {
    connect();
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(1));
    Signal silent = kSmall;
    silent.audio = 0;
    m_card.setSignal(silent);
    CardControl(1).setSignal(silent);
    ComRef<IBaseFilter> second;
    ASSERT_EQ(m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(second.out())), S_OK)
        << "while sound is grabbed, a card is taken as it comes";
    const ComRef<IPin> pin = onlyPin(second.get());
    const auto sink = SinkFilter::create();
    ASSERT_EQ(pin->Connect(&sink->pin, nullptr), S_OK);
    clearTrace();
    m_card.clearLog();
    ASSERT_EQ(second->Run(0), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->Active->m_bactive"), 1);
    EXPECT_EQ(soundStarts(), 0);
    EXPECT_EQ(second->Stop(), S_OK);
    pin->Disconnect();
    CardControl(1).reset();
}

namespace {

/// Every way to interleave the steps of two lists, each in its order: true takes from the first.
std::vector<std::vector<bool>> interleavings(int first, int second) {
    std::vector<std::vector<bool>> all;
    for (uint32_t bits = 0; bits < 1u << (first + second); ++bits) {
        std::vector<bool> order;
        int taken = 0;
        for (int i = 0; i < first + second; ++i) {
            order.push_back((bits >> i & 1) != 0);
            taken += order.back();
        }
        if (taken == first) all.push_back(order);
    }
    return all;
}

} // namespace

TEST_F(AudioVideo, EveryOrderOfStartStopAndReleaseWithoutAGraphLeavesNothing) {
    for (const bool paused : {false, true})
        for (const auto& order : interleavings(3, 3)) {
            std::string name;
            for (const bool sound : order)
                name += sound ? 'a' : 'v';
            SCOPED_TRACE(name + (paused ? ", paused" : ", run"));
            connect();
            connectVideo();
            int audioStep = 0, videoStep = 0;
            for (const bool sound : order) {
                IBaseFilter* filter = sound ? m_filter.get() : m_video.get();
                switch (sound ? audioStep++ : videoStep++) {
                case 0:
                    ASSERT_EQ(paused ? filter->Pause() : filter->Run(0), S_OK);
                    ASSERT_TRUE(sound ? receives(1) : videoReceives(1));
                    break;
                case 1:
                    ASSERT_EQ(filter->Stop(), S_OK);
                    break;
                default:
                    sound ? release() : releaseVideo();
                }
            }
            ASSERT_EQ(m_module->canUnloadNow(), S_OK);
            ASSERT_EQ(m_card.state().clients, 0u);
            clearTrace();
        }
}

TEST_F(AudioVideo, EveryOrderOfStartStopAndReleaseInTwoGraphsLeavesNothing) {
    for (const auto& order : interleavings(3, 3)) {
        std::string name;
        for (const bool sound : order)
            name += sound ? 'a' : 'v';
        SCOPED_TRACE(name);
        makeConnectedGraph();
        m_videoGraph = newGraph();
        ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_video.out())), S_OK);
        m_videoPin = onlyPin(m_video.get());
        ASSERT_EQ(m_videoGraph->AddFilter(m_video.get(), L"picture"), S_OK);
        ASSERT_EQ(m_videoGraph->AddFilter(m_videoSink.get(), L"sink"), S_OK);
        ASSERT_EQ(m_videoGraph->ConnectDirect(m_videoPin.get(), &m_videoSink->pin, nullptr), S_OK);
        int audioStep = 0, videoStep = 0;
        for (const bool sound : order) {
            IGraphBuilder* graph = sound ? m_graph.get() : m_videoGraph.get();
            switch (sound ? audioStep++ : videoStep++) {
            case 0:
                ASSERT_TRUE(SUCCEEDED(controlOf(graph)->Run()));
                ASSERT_TRUE(sound ? receives(1) : videoReceives(1));
                break;
            case 1:
                ASSERT_TRUE(SUCCEEDED(controlOf(graph)->Stop()));
                break;
            default:
                // The graph alone, as an application lets go of it: it stops and disconnects what it holds.
                if (sound) {
                    m_pin = ComRef<IPin>();
                    m_filter = ComRef<IBaseFilter>();
                    m_graph = ComRef<IGraphBuilder>();
                } else {
                    m_videoPin = ComRef<IPin>();
                    m_video = ComRef<IBaseFilter>();
                    m_videoGraph = ComRef<IGraphBuilder>();
                }
            }
        }
        ASSERT_EQ(m_module->canUnloadNow(), S_OK);
        ASSERT_EQ(m_card.state().clients, 0u);
        clearTrace();
    }
}

TEST_F(AudioVideo, OneGraphRunsBothAndLeavesNothingHoweverItEnds) {
    enum class Step { Pause, Run, Stop };
    using enum Step;
    for (const std::vector<Step>& steps : {std::vector<Step>{Run, Stop},
                                           {Pause, Run, Stop},
                                           {Run, Pause, Stop},
                                           {Pause, Stop},
                                           {Run, Stop, Run, Stop},
                                           {Run, Pause, Run},
                                           {Run},
                                           {Pause},
                                           {Stop}})
        for (const bool soundFirst : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << steps.size() << " steps, the first " << int(steps[0]) << ", sound first " << soundFirst);
            ASSERT_EQ(makeFilter(), S_OK);
            ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_video.out())), S_OK);
            m_videoPin = onlyPin(m_video.get());
            m_graph = newGraph();
            for (const bool sound : {soundFirst, !soundFirst})
                ASSERT_EQ(m_graph->AddFilter(sound ? m_filter.get() : m_video.get(), sound ? L"audio" : L"video"),
                          S_OK);
            ASSERT_EQ(m_graph->AddFilter(m_sink.get(), L"sound"), S_OK);
            ASSERT_EQ(m_graph->AddFilter(m_videoSink.get(), L"picture"), S_OK);
            ASSERT_EQ(m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr), S_OK);
            ASSERT_EQ(m_graph->ConnectDirect(m_videoPin.get(), &m_videoSink->pin, nullptr), S_OK);
            for (const Step step : steps) {
                const auto graph = control();
                m_sink->pin.forget();
                ASSERT_TRUE(SUCCEEDED(step == Pause ? graph->Pause() : step == Run ? graph->Run() : graph->Stop()));
                if (step == Stop) continue;
                ASSERT_TRUE(receives(2));
                ASSERT_TRUE(videoReceives(2));
            }
            m_pin = ComRef<IPin>();
            m_videoPin = ComRef<IPin>();
            m_filter = ComRef<IBaseFilter>();
            m_video = ComRef<IBaseFilter>();
            m_graph = ComRef<IGraphBuilder>(); // stops what still runs
            ASSERT_EQ(m_module->canUnloadNow(), S_OK);
            ASSERT_EQ(m_card.state().clients, 0u);
            clearTrace();
        }
}

TEST_F(AudioVideo, PictureAndSoundOfOneGraphBeginWithinAFrame) {
    m_card.setSignal(kInterlaced60); // large pictures, whose buffers take long to lock
    m_videoSink->pin.keep = 1;
    int framesApart = 0;
    const auto begin = [&](bool soundFirst) {
        ASSERT_EQ(makeFilter(), S_OK);
        ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_video.out())), S_OK);
        m_videoPin = onlyPin(m_video.get());
        m_graph = newGraph();
        for (const bool sound : {soundFirst, !soundFirst})
            ASSERT_EQ(m_graph->AddFilter(sound ? m_filter.get() : m_video.get(), sound ? L"audio" : L"video"), S_OK);
        ASSERT_EQ(m_graph->AddFilter(m_sink.get(), L"sound"), S_OK);
        ASSERT_EQ(m_graph->AddFilter(m_videoSink.get(), L"picture"), S_OK);
        ASSERT_EQ(m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr), S_OK);
        ASSERT_EQ(m_graph->ConnectDirect(m_videoPin.get(), &m_videoSink->pin, nullptr), S_OK);
        m_card.clearLog();
        ASSERT_TRUE(SUCCEEDED(control()->Run()));
        ASSERT_TRUE(receives(1));
        ASSERT_TRUE(videoReceives(1));
        int videoPrepares = 0;
        for (const LogEntry& entry : m_card.log()) {
            videoPrepares += entry.code == wire::kPrepare && entry.bytes[0] == 0;
            if (entry.code == wire::kStartGrabbing && entry.bytes[0] == 1) {
                EXPECT_EQ(videoPrepares, 1) << "the picture's buffers are ready before sound starts";
            }
        }
        EXPECT_EQ(videoPrepares, 1) << "and are not prepared once more";
        const auto sound = soundFrameOf(m_sink->pin.samples()[0].bytes.data(), 30, 1, 0, m_card.state().frameNumber);
        ASSERT_TRUE(sound);
        const std::vector<uint8_t> frame = m_videoSink->pin.samples()[0].bytes;
        uint32_t picture = 0;
        ASSERT_TRUE(readFrameNumber(
            1920, 1080, [&](uint32_t x, uint32_t y) { return frame[size_t{y} * 1920 * 2 + size_t{x} * 2]; }, picture));
        framesApart = std::abs(int(*sound) - int(picture));
        ASSERT_TRUE(SUCCEEDED(control()->Stop()));
        release();
        releaseVideo();
        m_videoSink->pin.forget();
        m_sink->pin.forget();
    };
    for (const bool soundFirst : {false, true}) {
        SCOPED_TRACE(soundFirst);
        // A busy machine may let a frame pass between the two starts, but not each time.
        int tries = 5;
        do {
            ASSERT_NO_FATAL_FAILURE(begin(soundFirst));
        } while (framesApart > 1 && --tries > 0);
        EXPECT_LE(framesApart, 1);
    }
}

TEST_F(AudioVideo, BitDepthCanBeSetWhileOnlyTheVideoPinHasStartedTheSound) {
    makeConnectedGraph();
    connectVideo();
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_TRUE(soundIsGrabbed());
    ASSERT_EQ(depth()->put_BitDepth(1), S_OK);
    EXPECT_FALSE(soundIsGrabbed()) << "of 16 bits";
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    ASSERT_TRUE(receives(2));
    EXPECT_EQ(m_sink->pin.samples()[0].bytes.size(), 4800u);
    EXPECT_TRUE(videoReceives());
}

TEST_F(AudioVideo, PulledCardPausesBothAndTheyGoOn) {
    connect();
    connectVideo();
    ASSERT_EQ(m_video->Run(0), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(receives(2));
    m_card.unplug();
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; })) << "the library has let go of it";
    m_card.plug();
    EXPECT_TRUE(receives(2));
    EXPECT_TRUE(videoReceives());
    EXPECT_EQ(m_sink->pin.endOfStreams, 0);
    EXPECT_EQ(m_videoSink->pin.endOfStreams, 0);
    m_card.unplug();
    EXPECT_EQ(m_video->Stop(), S_OK);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    m_card.plug();
}

TEST_F(AudioVideo, CaptureGraphBuilderFindsAndConnectsBothIn720pAndTwentyFourBits) {
    constexpr Signal kSmaller = {1, 0, 1, 9, 0, 0, 1280, 720, 0, 60, 1, 0};
    m_card.setSignal(kSmaller);
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_video.out())), S_OK);
    m_videoPin = onlyPin(m_video.get());
    m_graph = newGraph();
    ComRef<ICaptureGraphBuilder2> builder;
    ASSERT_EQ(CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                               reinterpret_cast<void**>(builder.out())),
              S_OK);
    ASSERT_EQ(builder->SetFiltergraph(m_graph.get()), S_OK);
    ASSERT_EQ(m_graph->AddFilter(m_video.get(), L"video"), S_OK);
    ASSERT_EQ(m_graph->AddFilter(m_filter.get(), L"audio"), S_OK);
    ASSERT_EQ(m_graph->AddFilter(m_videoSink.get(), L"picture"), S_OK);
    ASSERT_EQ(m_graph->AddFilter(m_sink.get(), L"sound"), S_OK);
    ComRef<IAMStreamConfig> found;
    ASSERT_EQ(builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, m_video.get(), IID_IAMStreamConfig,
                                     reinterpret_cast<void**>(found.out())),
              S_OK);
    EXPECT_EQ(found.get(), query<IAMStreamConfig>(m_videoPin.get(), IID_IAMStreamConfig).get());
    // Without a category: for a capture pin this system's builder puts in a tee, which wants a second buffer of the
    // allocator while it holds the first, and sound has but one.
    ASSERT_EQ(builder->RenderStream(nullptr, &MEDIATYPE_Video, m_video.get(), nullptr, m_videoSink.get()), S_OK);
    ASSERT_EQ(builder->RenderStream(nullptr, &MEDIATYPE_Audio, m_filter.get(), nullptr, m_sink.get()), S_OK);
    m_videoSink->pin.keep = 10;
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    ASSERT_TRUE(receives(10));
    ASSERT_TRUE(waitUntil([&] { return m_videoSink->pin.received >= 10; }));
    ASSERT_TRUE(SUCCEEDED(control()->Stop()));
    const auto pictures = m_videoSink->pin.samples(), sounds = m_sink->pin.samples();
    const uint32_t last = m_card.state().frameNumber;
    std::optional<uint32_t> sound = 0;
    std::vector<uint8_t> block(4800);
    for (size_t i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(sounds[i].bytes.size(), block.size());
        sound = soundFrameOf(sounds[i].bytes.data(), 60, 0, *sound + 1, last); // a loaded machine may lose some
        ASSERT_TRUE(sound);
        soundBlock(*sound, 60, 0, block.data());
        EXPECT_TRUE(sounds[i].bytes == block);
        EXPECT_EQ(sounds[i].start, REFERENCE_TIME(i) * 10'000'000 / 60);
        const PictureFormat format{
            1280, 720, false, TARNIS_OUTPUT_YUV422_8, 60, PictureKind::Bars, wire::toWire(wire::kDefaultConverter)};
        std::vector<uint8_t> raw(frameSizeBytes(format));
        uint32_t number = 0;
        ASSERT_TRUE(readFrameNumber(
            1280, 720, [&](uint32_t x, uint32_t y) { return pictures[i].bytes[size_t{y} * 2560 + size_t{x} * 2]; },
            number));
        PictureSource source;
        ASSERT_TRUE(source.prepare(format, raw.data(), raw.size(), number));
        EXPECT_TRUE(pictures[i].bytes == raw) << "frame " << number;
        EXPECT_EQ(pictures[i].start, REFERENCE_TIME(i) * 10'000'000 / 60);
    }
}

TEST_F(AudioVideo, ThreadsThatStartStopChangeAndCreateNeverWaitForEachOther) {
    makeConnectedGraph();
    connectVideo();
    constexpr int kRounds = 25;
    std::atomic<int> rounds{0};
    const auto repeat = [&](auto step) {
        return std::thread([&rounds, step] {
            for (int i = 0; i < kRounds; ++i, ++rounds)
                step(i);
        });
    };
    std::thread threads[] = {repeat([&](int) { // the application's picture
                                 m_video->Run(0);
                                 m_video->Stop();
                             }),
                             repeat([&](int) { // the application's graph
                                 control()->Run();
                                 control()->Stop();
                             }),
                             repeat([&](int i) { depth()->put_BitDepth(i % 2 == 0 ? 1 : 0); }), // a property page
                             repeat([&](int i) { // an application's settings
                                 const OwnedType type = capability(i % 2);
                                 config()->SetFormat(type.type);
                             }),
                             repeat([&](int) {
                                 ComRef<IBaseFilter> filter;
                                 m_module->create(kAudioFilter, IID_IBaseFilter,
                                                  reinterpret_cast<void**>(filter.out()));
                             })};
    EXPECT_TRUE(waitUntil([&] { return rounds == 5 * kRounds; }, std::chrono::seconds(60)));
    for (std::thread& thread : threads)
        thread.join();
    control()->Stop();
    // A filter that is made claims the sound for a moment: a start was refused then, and a new depth not connected.
    m_sink->Stop();
    disconnect();
    ASSERT_EQ(m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr), S_OK);
    ASSERT_TRUE(SUCCEEDED(control()->Run()));
    EXPECT_TRUE(receives(2)) << "and all works as before";
    ASSERT_EQ(m_video->Run(0), S_OK);
    EXPECT_TRUE(videoReceives());
}

} // namespace kestra::test
