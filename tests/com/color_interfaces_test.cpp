// The converter's interfaces on the filter and on its pin: properties, the card's records, freezing.
#include "tests/com/color_test.h"

#include <limits>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr wire::Converter kDefaults = wire::toWire(wire::kDefaultConverter);

class ColorInterfaces : public ColorTest {};

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
        EXPECT_TRUE(same(lastSent(), expected)) << #property;                                                          \
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
    EXPECT_TRUE(same(m_card.state().converter, expected));
    ASSERT_EQ(m_rgb->Default(), S_OK);
    expected.redGain = expected.greenGain = expected.blueGain = 256;
    expected.redOffset = expected.greenOffset = expected.blueOffset = 0;
    EXPECT_TRUE(same(lastSent(), expected));
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

} // namespace
} // namespace kestra::test
