// The converter's interfaces on the filter and on its pin: properties, the card's records, freezing, and the
// white-balance analysis with everything that can go wrong in it.
#include "simcard/model/card.h"
#include "simcard/model/picture.h"
#include "tests/com/module_copy.h"
#include "tests/com/video_test.h"

#include <kestra_interfaces.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr wire::Converter kDefaults = wire::toWire(wire::kDefaultConverter);

bool operator==(const wire::Converter& a, const wire::Converter& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class ColorInterfaces : public VideoTest {
protected:
    void TearDown() override {
        if (m_filter) m_filter->Stop();
        if (m_pin) m_pin->Disconnect();
        m_sink.Disconnect();
        m_csc = ComRef<IKestraStreamPropCSC>();
        m_rgb = ComRef<IKestraStreamPropRGBGainOffset>();
        VideoTest::TearDown();
    }
    /// A filter of that format, and its interfaces.
    void make(int format = 1) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        ASSERT_EQ(makeFilter(), S_OK);
        m_csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
        m_rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
        ASSERT_TRUE(m_csc && m_rgb);
        m_card.clearLog();
    }
    void show(PictureKind picture) const {
        Options options = kDefaultOptions;
        options.picture = uint32_t(picture);
        m_card.setOptions(options);
    }
    /// The converter records that the card received, in order.
    std::vector<wire::Converter> sent() const {
        std::vector<wire::Converter> records;
        for (const LogEntry& entry : m_card.log())
            if (entry.code == wire::kSetConverter) {
                wire::SetConverterRequest request;
                std::memcpy(&request, entry.bytes, sizeof request);
                records.push_back(request.converter);
            }
        return records;
    }
    struct Balance {
        HRESULT hr;
        unsigned char mean[3];
        float gain[3];
    };
    Balance analyze() {
        Balance b{};
        b.hr = m_rgb->WhiteBalance(&b.mean[0], &b.mean[1], &b.mean[2], &b.gain[0], &b.gain[1], &b.gain[2]);
        return b;
    }
    /// The bytes of a sample that comes from now on.
    std::vector<uint8_t> nextSample() {
        std::vector<uint8_t> bytes;
        m_sink.forget();
        EXPECT_TRUE(waitUntil([&] {
            if (m_sink.received == 0) return false;
            auto samples = m_sink.samples();
            if (!samples.empty()) bytes = std::move(samples.front().bytes);
            return !bytes.empty();
        }));
        return bytes;
    }
    /// Means of the R, G and B bytes of an RGB24 sample whose lines have no gaps.
    static void meansOf(const std::vector<uint8_t>& bytes, double (&mean)[3]) {
        uint64_t sums[3] = {};
        for (size_t i = 0; i + 2 < bytes.size(); i += 3)
            for (size_t channel = 0; channel < 3; ++channel)
                sums[channel] += bytes[i + 2 - channel];
        for (int channel = 0; channel < 3; ++channel)
            mean[channel] = double(sums[channel]) / double(bytes.size() / 3);
    }

    TestSink m_sink;
    ComRef<IKestraStreamPropCSC> m_csc;
    ComRef<IKestraStreamPropRGBGainOffset> m_rgb;
};

TEST_F(ColorInterfaces, FilterAndPinAnswerThemAsPartsOfThemselves) {
    make();
    for (IUnknown* object : {static_cast<IUnknown*>(m_filter.get()), static_cast<IUnknown*>(m_pin.get())}) {
        const auto identity = query<IUnknown>(object, IID_IUnknown);
        for (const IID* iid : {&IID_IKestraStreamPropCSC, &IID_IKestraStreamPropRGBGainOffset}) {
            const auto found = query<IUnknown>(object, *iid);
            ASSERT_TRUE(found);
            EXPECT_EQ(query<IUnknown>(found.get(), IID_IUnknown).get(), identity.get());
            EXPECT_EQ(query<IUnknown>(found.get(), *iid).get(), found.get());
        }
    }
    EXPECT_TRUE(query<IPin>(query<IUnknown>(m_pin.get(), IID_IKestraStreamPropCSC).get(), IID_IPin));
    EXPECT_FALSE(query<IPin>(m_csc.get(), IID_IPin));
    // The interface alone keeps the filter, and the card, open.
    m_rgb = ComRef<IKestraStreamPropRGBGainOffset>();
    m_pin = ComRef<IPin>();
    m_filter = ComRef<IBaseFilter>();
    EXPECT_EQ(m_card.state().clients, 1u);
    LONG value = 0;
    EXPECT_EQ(m_csc->get_YOff(&value), S_OK);
    m_csc = ComRef<IKestraStreamPropCSC>();
    EXPECT_EQ(m_card.state().clients, 0u);
}

TEST_F(ColorInterfaces, FilterNamesItsTwoPagesAndThePinTheStreamFormat) {
    make();
    const auto ofFilter = query<ISpecifyPropertyPages>(m_filter.get(), IID_ISpecifyPropertyPages);
    ASSERT_TRUE(ofFilter);
    EXPECT_EQ(ofFilter->GetPages(nullptr), E_POINTER);
    CAUUID pages{};
    ASSERT_EQ(ofFilter->GetPages(&pages), S_OK);
    ASSERT_EQ(pages.cElems, 2u);
    EXPECT_EQ(pages.pElems[0], CLSID_KestraStreamPropCSC);
    EXPECT_EQ(pages.pElems[1], CLSID_KestraStreamPropRGB);
    CoTaskMemFree(pages.pElems);
    const auto ofPin = query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages);
    ASSERT_EQ(ofPin->GetPages(&pages), S_OK);
    EXPECT_EQ(pages.cElems, 1u);
    CoTaskMemFree(pages.pElems);
}

TEST_F(ColorInterfaces, FreshFilterShowsTheCardsParameters) {
    make();
    LONG offset = 0;
    FLOAT coefficient = 0;
    unsigned char limit = 0;
    EXPECT_EQ(m_csc->get_YOff(&offset), S_OK);
    EXPECT_EQ(offset, 64);
    EXPECT_EQ(m_csc->get_Y1(&coefficient), S_OK);
    EXPECT_EQ(coefficient, 1.16015625f) << "the card keeps 297 / 256";
    EXPECT_EQ(m_csc->get_BMax(&limit), S_OK);
    EXPECT_EQ(limit, 255);
    FLOAT gain = 0;
    EXPECT_EQ(m_rgb->get_GreenGain(&gain), S_OK);
    EXPECT_EQ(gain, 1.0f);
    EXPECT_EQ(m_csc->get_YOff(nullptr), E_POINTER);
    EXPECT_EQ(m_csc->get_RGBOut(nullptr), E_POINTER);
    EXPECT_EQ(m_csc->get_FreezeUpdate(nullptr), E_POINTER);
    EXPECT_EQ(m_csc->get_DefaultColorSpaceConverter(nullptr), E_POINTER);
    EXPECT_TRUE(sent().empty()) << "reading sends nothing";
}

TEST_F(ColorInterfaces, FilterTakesTheDefaultsWhenTheCardDoesNotTell) {
    m_card.failNext(wire::kGetConverter, kStatusNotSupported);
    make();
    FLOAT coefficient = 0;
    EXPECT_EQ(m_csc->get_Y1(&coefficient), S_OK);
    EXPECT_EQ(coefficient, 1.164f);
}

TEST_F(ColorInterfaces, EveryPropertyReachesTheCardInItsPlace) {
    make();
    wire::Converter expected = kDefaults;
    size_t puts = 0;
    const auto lastSent = [&] {
        const auto records = sent();
        EXPECT_EQ(records.size(), ++puts);
        return records.empty() ? wire::Converter{} : records.back();
    };
#define CHECK_PROPERTY(object, Type, property, value, field, fieldValue)                                               \
    do {                                                                                                               \
        EXPECT_EQ(object->put_##property(value), S_OK);                                                                \
        expected.field = fieldValue;                                                                                   \
        EXPECT_TRUE(lastSent() == expected) << #property;                                                              \
        Type read{};                                                                                                   \
        EXPECT_EQ(object->get_##property(&read), S_OK);                                                                \
        EXPECT_EQ(read, value) << #property;                                                                           \
    } while (false)
    CHECK_PROPERTY(m_csc, LONG, YOff, -70, yOff, -70);
    CHECK_PROPERTY(m_csc, LONG, CrOff, 500, crOff, 500);
    CHECK_PROPERTY(m_csc, LONG, CbOff, 501, cbOff, 501);
    CHECK_PROPERTY(m_csc, FLOAT, Y1, 2.5f, y1, 640);
    CHECK_PROPERTY(m_csc, FLOAT, R1, -0.25f, r1, -64);
    CHECK_PROPERTY(m_csc, FLOAT, G1, 0.5f, g1, 128);
    CHECK_PROPERTY(m_csc, FLOAT, G2, 0.75f, g2, 192);
    CHECK_PROPERTY(m_csc, FLOAT, B1, 3.0f, b1, 768);
    CHECK_PROPERTY(m_csc, unsigned char, RMin, 1, rMin, 1);
    CHECK_PROPERTY(m_csc, unsigned char, RMax, 2, rMax, 2);
    CHECK_PROPERTY(m_csc, unsigned char, GMin, 3, gMin, 3);
    CHECK_PROPERTY(m_csc, unsigned char, GMax, 4, gMax, 4);
    CHECK_PROPERTY(m_csc, unsigned char, BMin, 5, bMin, 5);
    CHECK_PROPERTY(m_csc, unsigned char, BMax, 6, bMax, 6);
    CHECK_PROPERTY(m_rgb, FLOAT, RedGain, 1.5f, redGain, 384);
    CHECK_PROPERTY(m_rgb, FLOAT, GreenGain, 0.0f, greenGain, 0);
    CHECK_PROPERTY(m_rgb, FLOAT, BlueGain, 3.999f, blueGain, 1023);
    CHECK_PROPERTY(m_rgb, signed char, RedOffset, -5, redOffset, 0x85);
    CHECK_PROPERTY(m_rgb, signed char, GreenOffset, 127, greenOffset, 0x7F);
    CHECK_PROPERTY(m_rgb, signed char, BlueOffset, -127, blueOffset, 0xFF);
#undef CHECK_PROPERTY
    EXPECT_TRUE(m_card.state().converter == expected);
    ASSERT_EQ(m_rgb->Default(), S_OK);
    expected.redGain = expected.greenGain = expected.blueGain = 256;
    expected.redOffset = expected.greenOffset = expected.blueOffset = 0;
    EXPECT_TRUE(lastSent() == expected);
}

TEST_F(ColorInterfaces, NumbersThatTheCardCannotHoldAreRefused) {
    make();
    for (const float value : {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(), 8388608.0f}) {
        EXPECT_EQ(m_csc->put_Y1(value), E_INVALIDARG);
        EXPECT_EQ(m_rgb->put_BlueGain(value), E_INVALIDARG);
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(m_csc->put_Y1(8388607.5f), S_OK);
    EXPECT_EQ(sent().back().y1, std::numeric_limits<int32_t>::max() - 127);
}

TEST_F(ColorInterfaces, FrozenUpdatesReachTheCardTogether) {
    make();
    const auto onPin = query<IKestraStreamPropCSC>(m_pin.get(), IID_IKestraStreamPropCSC);
    LONG frozen = 7;
    EXPECT_EQ(m_csc->get_FreezeUpdate(&frozen), S_OK);
    EXPECT_EQ(frozen, 0);
    EXPECT_EQ(onPin->put_FreezeUpdate(1), S_OK);
    EXPECT_EQ(m_rgb->get_FreezeUpdate(&frozen), S_OK);
    EXPECT_EQ(frozen, 1) << "filter and pin share it";
    EXPECT_EQ(onPin->put_YOff(70), S_OK);
    EXPECT_EQ(m_rgb->put_RedGain(2.0f), S_OK);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(m_csc->put_FreezeUpdate(0), S_OK);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].yOff, 70);
    EXPECT_EQ(sent()[0].redGain, 512);
}

TEST_F(ColorInterfaces, RefusalsOfTheCardAreReportedAndCanBeMadeGood) {
    make();
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied);
    EXPECT_EQ(m_csc->put_YOff(70), E_ACCESSDENIED);
    m_card.failNext(wire::kSetConverter, kStatusNotSupported);
    EXPECT_EQ(m_csc->put_FreezeUpdate(0), HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED));
    m_card.refuseNext(wire::kSetConverter, 1);
    EXPECT_EQ(m_rgb->Default(), E_FAIL);
    EXPECT_EQ(m_csc->put_FreezeUpdate(0), S_OK);
    EXPECT_EQ(m_card.state().converter.yOff, 70) << "nothing of it was lost";
}

TEST_F(ColorInterfaces, DefaultConverterIsTheLibrarysAndChangesNothing) {
    make();
    m_csc->put_YOff(1);
    KestraConverterValues v{};
    ASSERT_EQ(m_csc->get_DefaultColorSpaceConverter(&v), S_OK);
    EXPECT_EQ(v.YOff, 64);
    EXPECT_EQ(v.CrOff, 512);
    EXPECT_EQ(v.CbOff, 512);
    EXPECT_EQ(v.Y1, 1.164f);
    EXPECT_EQ(v.R1, 1.596f);
    EXPECT_EQ(v.G1, 0.813f);
    EXPECT_EQ(v.G2, 0.392f);
    EXPECT_EQ(v.B1, 2.017f);
    EXPECT_EQ(v.RMin + v.GMin + v.BMin, 0);
    EXPECT_EQ(v.RMax + v.GMax + v.BMax, 3 * 255);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(ColorInterfaces, RgbOutFollowsTheFormat) {
    for (int format = 0; format < 4; ++format) {
        m_csc = ComRef<IKestraStreamPropCSC>();
        m_rgb = ComRef<IKestraStreamPropRGBGainOffset>();
        make(format);
        LONG rgb = 7;
        EXPECT_EQ(m_csc->get_RGBOut(&rgb), S_OK);
        EXPECT_EQ(rgb, format == 1 || format == 3 ? 1 : 0) << format;
        EXPECT_EQ(m_rgb->get_RGBOut(&rgb), S_OK);
        EXPECT_EQ(rgb, format == 1 || format == 3 ? 1 : 0) << format;
    }
    ASSERT_EQ(choose(0), S_OK);
    LONG rgb = 7;
    EXPECT_EQ(m_csc->get_RGBOut(&rgb), S_OK);
    EXPECT_EQ(rgb, 0) << "at once";
}

TEST_F(ColorInterfaces, AnalysisNeedsAllItsResults) {
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

TEST_F(ColorInterfaces, AnalysisMeasuresWithoutGainsAndPutsThemBack) {
    show(PictureKind::Tinted);
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
    EXPECT_TRUE(sent()[0] == neutral);
    EXPECT_TRUE(sent()[1] == own);
    EXPECT_TRUE(m_card.state().converter == own);
}

TEST_F(ColorInterfaces, AnalysisOfARunningPictureDoesNotDisturbIt) {
    show(PictureKind::Tinted);
    make();
    ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return m_sink.received >= 2; }));
    m_card.clearLog();
    const Balance balance = analyze();
    ASSERT_EQ(balance.hr, S_OK);
    EXPECT_GT(balance.gain[2], balance.gain[1]);
    for (const LogEntry& entry : m_card.log())
        EXPECT_TRUE(entry.code != wire::kPrepare && entry.code != wire::kChannelAccess &&
                    entry.code != wire::kStopGrabbing);
    const int before = m_sink.received;
    EXPECT_TRUE(waitUntil([&] { return m_sink.received >= before + 3; })) << "the picture goes on";
}

TEST_F(ColorInterfaces, GainsFoundMakeTheRunningPictureNeutralAndDefaultBringsItBack) {
    show(PictureKind::Tinted);
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

TEST_F(ColorInterfaces, FailedAnalysisTellsWhyAndRestoresTheCard) {
    make();
    m_rgb->put_RedGain(2.0f);
    const auto failsWith = [&](HRESULT expected, const char* what) {
        const Balance balance = analyze();
        EXPECT_EQ(balance.hr, expected) << what;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(balance.mean[i], 0) << what;
            EXPECT_EQ(balance.gain[i], 0.0f) << what;
        }
        EXPECT_EQ(m_card.state().converter.redGain, 512) << what;
    };
    m_card.failNext(wire::kSnap, kStatusInsufficientResources);
    failsWith(E_FAIL, "snap");
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied);
    failsWith(E_ACCESSDENIED, "neutral gains refused");
    m_card.failNext(wire::kPrepare, kStatusNotSupported); // prepared already: the signal differs first
    Signal other = kDefaultSignal;
    other.height = 720;
    m_card.setSignal(other);
    failsWith(HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), "prepare");
    m_card.failNext(wire::kChannelAccess, kStatusAccessDenied);
    failsWith(E_ACCESSDENIED, "another program has the channel");
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied, 1, 1);
    const Balance notRestored = analyze();
    EXPECT_EQ(notRestored.hr, E_ACCESSDENIED);
    EXPECT_EQ(m_csc->put_FreezeUpdate(0), S_OK);
    EXPECT_EQ(m_card.state().converter.redGain, 512);
    EXPECT_EQ(analyze().hr, S_OK) << "and then it works again";
}

TEST_F(ColorInterfaces, AnalysisWithoutASignalFailsInTime) {
    make();
    ASSERT_EQ(analyze().hr, S_OK);
    Fault lost{FaultKind::SignalChange, wire::kSnap, 0, 0, 1, kNoSignal}; // gone when the capture begins
    m_card.addFault(lost);
    const ULONGLONG begin = GetTickCount64();
    EXPECT_EQ(analyze().hr, E_FAIL);
    EXPECT_LT(GetTickCount64() - begin, 5000u);
    EXPECT_EQ(analyze().hr, E_FAIL) << "none from the start";
}

TEST_F(ColorInterfaces, InterlacedAndOddPicturesAreMeasured) {
    show(PictureKind::Grey);
    for (const Signal& signal : {kInterlaced60, Signal{1, 1, 0, 7, 0, 0, 723, 487, 0, 30, 1, 0}}) {
        m_csc = ComRef<IKestraStreamPropCSC>();
        m_rgb = ComRef<IKestraStreamPropRGBGainOffset>();
        m_card.setSignal(signal);
        make();
        const Balance balance = analyze();
        EXPECT_EQ(balance.hr, S_OK);
        EXPECT_EQ(balance.mean[0], balance.mean[1]);
        EXPECT_EQ(balance.mean[1], balance.mean[2]);
        EXPECT_GT(balance.mean[0], 100);
    }
}

TEST_F(ColorInterfaces, WithoutTheImageLibraryTheModuleCapturesAndTheAnalysisFails) {
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

} // namespace
} // namespace kestra::test
