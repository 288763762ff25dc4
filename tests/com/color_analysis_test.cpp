// The white-balance analysis of a live picture, with everything that can go wrong in it.
#include "tests/com/color_test.h"
#include "tests/com/module_copy.h"
#include "tests/support/process_counts.h"

#include <algorithm>
#include <thread>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr wire::Converter kDefaults = wire::toWire(wire::kDefaultConverter);

class ColorAnalysis : public ColorTest {
protected:
    static void expectNothingMeasured(const Balance& balance) {
        EXPECT_EQ(balance.hr, S_OK);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(balance.mean[i], 0);
            EXPECT_EQ(balance.gain[i], 1.0f);
        }
    }
};

TEST_F(ColorAnalysis, AnalysisNeedsAllItsResults) {
    make();
    unsigned char mean[3];
    float gain[3];
    for (int missing = 0; missing < 6; ++missing)
        EXPECT_EQ(m_rgb->WhiteBalance(missing == 0 ? nullptr : &mean[0], missing == 1 ? nullptr : &mean[1],
                                      missing == 2 ? nullptr : &mean[2], missing == 3 ? nullptr : &gain[0],
                                      missing == 4 ? nullptr : &gain[1], missing == 5 ? nullptr : &gain[2]),
                  E_POINTER);
    EXPECT_TRUE(m_card.log().empty());
}

TEST_F(ColorAnalysis, AnalysisMeasuresWithoutGainsAndPutsThemBack) {
    showPicture(PictureKind::Tinted);
    make();
    m_rgb->put_RedGain(0.5f);
    m_rgb->put_GreenOffset(-9);
    m_csc->put_YOff(60);
    const wire::Converter own = m_card.state().converter;
    m_card.clearLog();
    const Balance balance = analyze();
    ASSERT_EQ(balance.hr, S_OK);
    // The card's arithmetic on the flat tint: Y 130, Cb 112, Cr 150.
    ConverterTables tables;
    wire::Converter neutral = own;
    neutral.redGain = 256;
    neutral.greenOffset = 0;
    tables.build(neutral);
    uint8_t bgr[3];
    tables.convert(130, 112, 150, bgr);
    EXPECT_EQ(balance.mean[0], bgr[2]);
    EXPECT_EQ(balance.mean[1], bgr[1]);
    EXPECT_EQ(balance.mean[2], bgr[0]);
    EXPECT_EQ(balance.gain[0], 1.0f);
    EXPECT_EQ(balance.gain[1], float(double(bgr[2]) / bgr[1]));
    EXPECT_EQ(balance.gain[2], float(double(bgr[2]) / bgr[0]));
    // What the card saw, in this order.
    std::vector<uint32_t> codes;
    for (const LogEntry& entry : m_card.log())
        for (const uint32_t code : {wire::kSetConverter, wire::kChannelAccess, wire::kPrepare, wire::kSnap})
            if (entry.code == code) codes.push_back(code);
    EXPECT_EQ(codes, (std::vector<uint32_t>{wire::kSetConverter, wire::kChannelAccess, wire::kPrepare, wire::kSnap,
                                            wire::kChannelAccess, wire::kSetConverter}));
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_TRUE(same(sent()[0], neutral));
    EXPECT_TRUE(same(sent()[1], own));
    EXPECT_TRUE(same(m_card.state().converter, own));
}

TEST_F(ColorAnalysis, AnalysisOfARunningPictureDoesNotDisturbIt) {
    showPicture(PictureKind::Tinted);
    for (int format = 0; format < 4; ++format) {
        SCOPED_TRACE(format);
        release();
        make(format);
        ASSERT_EQ(m_rgb->put_GreenGain(1.5f), S_OK);
        ASSERT_EQ(m_rgb->put_RedOffset(-30), S_OK);
        const wire::Converter own = m_card.state().converter;
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        const std::vector<uint8_t> before = nextSample();
        m_card.clearLog();
        const Balance balance = analyze();
        ASSERT_EQ(balance.hr, S_OK);
        EXPECT_EQ(balance.gain[0], 1.0f) << "the tint is reddish";
        EXPECT_GT(balance.gain[1], 1.0f);
        EXPECT_GT(balance.gain[2], balance.gain[1]);
        for (const LogEntry& entry : m_card.log())
            EXPECT_TRUE(entry.code != wire::kPrepare && entry.code != wire::kChannelAccess &&
                        entry.code != wire::kStopGrabbing);
        EXPECT_TRUE(same(m_card.state().converter, own));
        EXPECT_TRUE(waitUntil([&] { return nextSample() == before; })) << "the picture goes on as it was";
    }
}

TEST_F(ColorAnalysis, AnalysisWhileTheSignalIsAwayLeavesTheRunningCaptureAlone) {
    for (const int format : {1, 0}) {
        SCOPED_TRACE(format);
        release();
        make(format);
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
        ASSERT_EQ(m_filter->Run(0), S_OK);
        ASSERT_TRUE(waitUntil([&] { return m_sink.received >= 2; }));
        m_sink.forget();
        m_card.setSignal(kNoSignal);
        m_card.clearLog();
        expectNothingMeasured(analyze());
        for (const LogEntry& entry : m_card.log())
            EXPECT_TRUE(entry.code != wire::kPrepare && entry.code != wire::kSnap);
        EXPECT_TRUE(same(m_card.state().converter, kDefaults)) << "and its gains are as they were";
        m_card.setSignal(kDefaultSignal);
        const int before = m_sink.received;
        EXPECT_TRUE(waitUntil([&] { return m_sink.received >= before + 3; })) << "the capture goes on";
        EXPECT_EQ(m_sink.endOfStreams, 0);
        EXPECT_EQ(analyze().hr, S_OK);
    }
}

TEST_F(ColorAnalysis, GainsFoundMakeTheRunningPictureNeutralAndDefaultBringsItBack) {
    showPicture(PictureKind::Tinted);
    make();
    ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    double mean[3];
    const std::vector<uint8_t> original = nextSample();
    meansOf(original, mean);
    EXPECT_GT(mean[0], mean[1] * 1.1);
    EXPECT_GT(mean[1], mean[2] * 1.1);
    const Balance balance = analyze();
    ASSERT_EQ(balance.hr, S_OK);
    EXPECT_EQ(m_rgb->put_FreezeUpdate(1), S_OK);
    EXPECT_EQ(m_rgb->put_RedGain(balance.gain[0]), S_OK);
    EXPECT_EQ(m_rgb->put_GreenGain(balance.gain[1]), S_OK);
    EXPECT_EQ(m_rgb->put_BlueGain(balance.gain[2]), S_OK);
    EXPECT_EQ(m_rgb->put_FreezeUpdate(0), S_OK);
    const auto agree = [&] {
        meansOf(nextSample(), mean);
        const auto [low, high] = std::minmax({mean[0], mean[1], mean[2]});
        return high - low <= high * 0.01;
    };
    EXPECT_TRUE(waitUntil(agree)) << mean[0] << " " << mean[1] << " " << mean[2];
    EXPECT_EQ(m_rgb->Default(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample() == original; }));
}

TEST_F(ColorAnalysis, FailedAnalysisAnswersNothingMeasuredAndRestoresTheCard) {
    make();
    m_rgb->put_RedGain(2.0f);
    const auto fails = [&](const char* what) {
        SCOPED_TRACE(what);
        expectNothingMeasured(analyze());
        EXPECT_EQ(m_card.state().converter.redGain, 512);
    };
    m_card.failNext(wire::kSnap, kStatusInsufficientResources);
    fails("snap");
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied);
    fails("neutral gains refused");
    m_card.failNext(wire::kPrepare, kStatusNotSupported); // prepared already: the signal differs first
    Signal other = kDefaultSignal;
    other.height = 720;
    m_card.setSignal(other);
    fails("prepare");
    m_card.failNext(wire::kChannelAccess, kStatusAccessDenied);
    fails("another program has the channel");
    const Balance good = analyze();
    EXPECT_EQ(good.hr, S_OK);
    EXPECT_GT(good.mean[0], 0) << "and then it works again";
}

TEST_F(ColorAnalysis, GainsComeBackAlthoughTheCardRefusesThemAtFirst) {
    make();
    m_rgb->put_RedGain(2.0f);
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied, 2, 1);
    EXPECT_GT(analyze().mean[0], 0);
    EXPECT_EQ(m_card.state().converter.redGain, 512) << "after a picture";
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied, 1, 1);
    m_card.failNext(wire::kSnap, kStatusInsufficientResources);
    expectNothingMeasured(analyze());
    EXPECT_EQ(m_card.state().converter.redGain, 512) << "and after none";
}

TEST_F(ColorAnalysis, HalfWrittenSetDoesNotReachTheCardThroughAnAnalysis) {
    make();
    m_rgb->put_RedGain(2.0f);
    ASSERT_EQ(m_csc->put_FreezeUpdate(1), S_OK);
    m_csc->put_YOff(200);
    m_card.clearLog();
    EXPECT_EQ(analyze().hr, S_OK);
    for (const wire::Converter& record : sent())
        EXPECT_EQ(record.yOff, 64);
    EXPECT_EQ(m_card.state().converter.redGain, 512);
    ASSERT_EQ(m_csc->put_FreezeUpdate(0), S_OK);
    EXPECT_EQ(m_card.state().converter.yOff, 200);
}

TEST_F(ColorAnalysis, AnalysisWithoutASignalFailsInTime) {
    make();
    ASSERT_EQ(analyze().hr, S_OK);
    Fault lost{FaultKind::SignalChange, wire::kSnap, 0, 0, 1, kNoSignal}; // gone when the capture begins
    m_card.addFault(lost);
    const ULONGLONG begin = GetTickCount64();
    expectNothingMeasured(analyze());
    EXPECT_LT(GetTickCount64() - begin, 10000u) << "a snap is given up after five seconds";
    expectNothingMeasured(analyze()); // none from the start
}

TEST_F(ColorAnalysis, PictureThatGrowsBetweenTwoAnswersIsNotReadBeyondItsMemory) {
    Signal small = kDefaultSignal;
    small.width = 320;
    small.height = 180;
    m_card.setSignal(small);
    make();
    // Asked for the size, the card answers for the small picture; then it says that it is a large one, and that it has
    // written it.
    m_card.addFault({FaultKind::SignalChange, wire::kVideoStatus, 0, 1, 1, kDefaultSignal});
    m_card.addFault({FaultKind::DriverResult, wire::kSnap, 0, 0, 1, {}});
    expectNothingMeasured(analyze());
    EXPECT_EQ(m_card.state().signal.height, kDefaultSignal.height) << "it changed within the analysis";
    m_card.clearFaults();
    EXPECT_GT(analyze().mean[0], 0) << "and then it works again";
}

TEST_F(ColorAnalysis, InterlacedAndOddPicturesAreMeasured) {
    showPicture(PictureKind::Grey);
    for (const Signal& signal : {kInterlaced60, Signal{1, 1, 0, 7, 0, 0, 723, 487, 0, 30, 1, 0}}) {
        release();
        m_card.setSignal(signal);
        make();
        const Balance balance = analyze();
        EXPECT_EQ(balance.hr, S_OK);
        EXPECT_EQ(balance.mean[0], balance.mean[1]);
        EXPECT_EQ(balance.mean[1], balance.mean[2]);
        EXPECT_GT(balance.mean[0], 100);
    }
}

TEST_F(ColorAnalysis, WithoutTheImageLibraryTheModuleCapturesAndTheAnalysisFails) {
    const ModuleCopy copy;
    const auto tryModule = [&](HRESULT expected, const char* what) {
        SCOPED_TRACE(what);
        const ComModule module(copy.module().c_str());
        ASSERT_NE(module.handle(), nullptr);
        m_registry.setDword(kSettings, L"VideoFormat", 1);
        {
            ComRef<IBaseFilter> filter;
            ASSERT_EQ(module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())), S_OK);
            const ComRef<IPin> pin = onlyPin(filter.get());
            TestSink sink;
            ASSERT_EQ(pin->Connect(&sink, nullptr), S_OK);
            ASSERT_EQ(filter->Run(0), S_OK);
            EXPECT_TRUE(waitUntil([&] { return sink.received >= 2; }));
            unsigned char mean[3];
            float gain[3];
            const auto rgb = query<IKestraStreamPropRGBGainOffset>(filter.get(), IID_IKestraStreamPropRGBGainOffset);
            EXPECT_EQ(rgb->WhiteBalance(&mean[0], &mean[1], &mean[2], &gain[0], &gain[1], &gain[2]), expected);
            const int before = sink.received;
            EXPECT_TRUE(waitUntil([&] { return sink.received >= before + 2; }));
            filter->Stop();
            pin->Disconnect();
            sink.Disconnect();
        }
        EXPECT_TRUE(waitUntil([&] { return module.canUnloadNow() == S_OK; }));
    };
    tryModule(HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), "no library");
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    ASSERT_TRUE(CopyFileW((std::wstring(system) + L"\\version.dll").c_str(), copy.library().c_str(), FALSE));
    tryModule(HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), "a library without the function");
    DeleteFileW(copy.library().c_str());
    ASSERT_TRUE(CopyFileW(ModuleCopy::originalLibrary().c_str(), copy.library().c_str(), FALSE));
    tryModule(S_OK, "the library is found when it is there");
}

TEST_F(ColorAnalysis, AnalysesGoOnWhileTheGraphStartsAndStopsAndParametersChange) {
    showPicture(PictureKind::Grey);
    make();
    ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
    // Both helpers act as often as the graph is about to change its state, and then come into the middle of it.
    std::atomic<int> step{0};
    constexpr int kSteps = 40;
    const auto atEachStep = [&](auto act) {
        return std::thread([&step, act] {
            for (int seen = 0; seen < kSteps; seen = step) {
                waitUntil([&] { return step > seen; });
                act();
            }
        });
    };
    std::atomic<int> good{0};
    std::thread analyst = atEachStep([&] { good += analyze().mean[0] > 0; });
    std::thread painter = atEachStep([&] {
        for (const LONG level : {60, 61, 62})
            m_csc->put_YOff(level);
    });
    while (step < kSteps) {
        const int before = m_sink.received;
        ++step;
        EXPECT_EQ(m_filter->Run(0), S_OK);
        EXPECT_TRUE(waitUntil([&] { return m_sink.received > before; }));
        ++step;
        EXPECT_EQ(m_filter->Stop(), S_OK);
    }
    analyst.join();
    painter.join();
    EXPECT_GE(good, 3);
    ASSERT_EQ(m_csc->put_YOff(77), S_OK);
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    expected.yOff = 77;
    EXPECT_TRUE(same(m_card.state().converter, expected)) << "the card has the filter's parameters, whoever came last";
}

TEST_F(ColorAnalysis, PulledCardFailsTheAnalysisAndComesBack) {
    make();
    ASSERT_EQ(analyze().hr, S_OK);
    m_card.addFault({FaultKind::Unplug, wire::kSnap, 0, 0, 1, {}}); // while a frame is awaited
    expectNothingMeasured(analyze());
    expectNothingMeasured(analyze()); // without a card
    EXPECT_TRUE(FAILED(m_csc->put_YOff(70)));
    m_card.plug();
    EXPECT_TRUE(waitUntil([&] { return analyze().mean[0] > 0; }));
    EXPECT_EQ(m_card.state().converter.yOff, 70) << "what was set meanwhile is not lost";
}

TEST_F(ColorAnalysis, ManyAnalysesLeaveNothingBehind) {
    Signal small = kDefaultSignal;
    small.width = 320;
    small.height = 180;
    m_card.setSignal(small);
    make();
    CountsOverCycles counts;
    for (int i = 0; i < 60; ++i) {
        ASSERT_EQ(analyze().hr, S_OK);
        counts.note();
    }
    EXPECT_LE(counts.growth().handles, 5);
    EXPECT_LE(counts.growth().threads, 0);
    EXPECT_LE(counts.growth().privateBytes, 1 << 20);
}

} // namespace
} // namespace kestra::test
