// The page "RGB Gain/Offset": sliders, linked gains, offsets, and the white balance from the tinted picture to the
// neutral one.
#include "tests/com/module_copy.h"
#include "tests/com/page_test.h"

#include <commctrl.h>

#include <algorithm>
#include <limits>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class GainPage : public PageTest {
protected:
    int slider(int color) const { return int(SendMessageW(m_host.control(IDC_RED_SLIDER + color), TBM_GETPOS, 0, 0)); }
    /// As the mouse would: the thumb moves, then the page is notified.
    void drag(int color, int position) const {
        const HWND bar = m_host.control(IDC_RED_SLIDER + color);
        SendMessageW(bar, TBM_SETPOS, TRUE, position);
        SendMessageW(m_host.dialog(), WM_HSCROLL, MAKEWPARAM(TB_THUMBTRACK, position), reinterpret_cast<LPARAM>(bar));
        SendMessageW(m_host.dialog(), WM_HSCROLL, MAKEWPARAM(TB_ENDTRACK, 0), reinterpret_cast<LPARAM>(bar));
    }
    std::vector<std::wstring> gains() const {
        return {m_host.text(IDC_RED_GAIN), m_host.text(IDC_GREEN_GAIN), m_host.text(IDC_BLUE_GAIN)};
    }
    using Texts = std::vector<std::wstring>;
    /// Means of red, green and blue of an RGB24 sample whose lines have no gaps.
    static std::vector<double> means(const std::vector<uint8_t>& bytes) {
        uint64_t sums[3] = {};
        for (size_t i = 0; i + 2 < bytes.size(); i += 3)
            for (size_t channel = 0; channel < 3; ++channel)
                sums[channel] += bytes[i + 2 - channel];
        const double pixels = double(bytes.size() / 3);
        return {double(sums[0]) / pixels, double(sums[1]) / pixels, double(sums[2]) / pixels};
    }
    static bool agree(const std::vector<double>& values) {
        const auto [low, high] = std::minmax_element(values.begin(), values.end());
        return *high - *low <= *high * 0.01;
    }
};

} // namespace

TEST_F(GainPage, HasItsTitleAndDialogAndTexts) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    EXPECT_EQ(m_host.title(), L"RGB Gain/Offset");
    EXPECT_NE(FindResourceW(m_module.handle(), MAKEINTRESOURCEW(118), MAKEINTRESOURCEW(5)), nullptr);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {0,0,0}");
    std::vector<std::wstring> texts;
    for (const HWND child : m_host.children()) {
        wchar_t text[128];
        GetWindowTextW(child, text, 128);
        std::wstring plain = text;
        plain.erase(std::remove(plain.begin(), plain.end(), L'&'), plain.end());
        texts.push_back(plain);
    }
    const auto count = [&](const wchar_t* text) { return std::count(texts.begin(), texts.end(), text); };
    for (const wchar_t* once : {L"RGB Gain", L"RGB Offset", L"White balance", L"Link", L"Unity", L"Analyze"})
        EXPECT_EQ(count(once), 1) << testing::PrintToString(std::wstring(once));
    for (const wchar_t* color : {L"Red", L"Green", L"Blue"})
        EXPECT_EQ(count(color), 2);
    EXPECT_EQ(count(L"zero"), 3);
}

TEST_F(GainPage, ShowsTheCardsValuesAndIsNotDirty) {
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    const auto rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
    rgb->put_GreenGain(1.5f);
    rgb->put_BlueGain(3.999f);
    rgb->put_RedOffset(-127);
    rgb->put_BlueOffset(127);
    openOn(CLSID_KestraStreamPropRGB, m_filter.get());
    m_card.clearLog();
    EXPECT_EQ(gains(), (Texts{L"1.000", L"1.500", L"3.999"}));
    EXPECT_EQ(slider(0), 1000);
    EXPECT_EQ(slider(1), 1500);
    EXPECT_EQ(slider(2), 3999);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"-127");
    EXPECT_EQ(m_host.text(IDC_GREEN_OFFSET), L"0");
    EXPECT_EQ(m_host.text(IDC_BLUE_OFFSET), L"127");
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 0);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(m_card.log().empty());
}

TEST_F(GainPage, RangesAreThoseOfTheRecord) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    for (int color = 0; color < 3; ++color) {
        const HWND bar = m_host.control(IDC_RED_SLIDER + color);
        EXPECT_EQ(SendMessageW(bar, TBM_GETRANGEMIN, 0, 0), 0);
        EXPECT_EQ(SendMessageW(bar, TBM_GETRANGEMAX, 0, 0), 4000);
        EXPECT_EQ(SendMessageW(bar, TBM_GETNUMTICS, 0, 0), 3) << "both ends and 1";
        EXPECT_EQ(SendMessageW(bar, TBM_GETTIC, 0, 0), 1000);
        EXPECT_EQ(SendMessageW(bar, TBM_GETLINESIZE, 0, 0), 1);
        EXPECT_EQ(SendMessageW(bar, TBM_GETPAGESIZE, 0, 0), 50);
        int least = 0, most = 0;
        SendMessageW(m_host.control(IDC_RED_SPIN + color), UDM_GETRANGE32, reinterpret_cast<WPARAM>(&least),
                     reinterpret_cast<LPARAM>(&most));
        EXPECT_EQ(least, -128);
        EXPECT_EQ(most, 127);
        EXPECT_EQ(SendMessageW(m_host.control(IDC_RED_SPIN + color), UDM_GETBUDDY, 0, 0),
                  reinterpret_cast<LRESULT>(m_host.control(IDC_RED_OFFSET + color)));
    }
}

TEST_F(GainPage, SliderAndEditAreInStep) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    drag(1, 2345);
    EXPECT_EQ(gains(), (Texts{L"1.000", L"2.345", L"1.000"}));
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 1);
    m_host.type(IDC_BLUE_GAIN, L"0.5");
    EXPECT_EQ(slider(2), 500);
    EXPECT_EQ(m_host.text(IDC_BLUE_GAIN), L"0.5") << "what is being typed is left alone";
    m_host.type(IDC_BLUE_GAIN, L"9");
    EXPECT_EQ(slider(2), 4000) << "as far as it goes";
    drag(2, 4000);
    EXPECT_EQ(m_host.text(IDC_BLUE_GAIN), L"9") << "a slider that stands still changes nothing";
    m_host.type(IDC_BLUE_GAIN, L"9x");
    EXPECT_EQ(slider(2), 4000);
    drag(2, 0);
    EXPECT_EQ(m_host.text(IDC_BLUE_GAIN), L"0.000");
    SendMessageW(m_host.control(IDC_RED_SLIDER), WM_KEYDOWN, VK_RIGHT, 1);
    EXPECT_EQ(m_host.text(IDC_RED_GAIN), L"1.001") << "an arrow key goes a thousandth";
    SendMessageW(m_host.control(IDC_RED_SLIDER), WM_KEYDOWN, VK_NEXT, 1);
    EXPECT_EQ(m_host.text(IDC_RED_GAIN), L"1.051") << "a page key fifty";
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.gains[0], 1.051f);
    EXPECT_EQ(m_double.gains[1], 2.345f);
    EXPECT_EQ(m_double.gains[2], 0.0f);
}

TEST_F(GainPage, LinkMovesTheThreeTogether) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_LINK);
    EXPECT_FALSE(m_host.isDirty()) << "linking alone changes nothing";
    drag(0, 2000);
    EXPECT_EQ(gains(), (Texts{L"2.000", L"2.000", L"2.000"}));
    EXPECT_EQ(slider(1), 2000);
    EXPECT_EQ(slider(2), 2000);
    m_host.type(IDC_BLUE_GAIN, L"0.75");
    EXPECT_EQ(gains(), (Texts{L"0.750", L"0.750", L"0.75"}));
    m_host.click(IDC_LINK);
    drag(1, 1000);
    EXPECT_EQ(gains(), (Texts{L"0.750", L"1.000", L"0.75"})) << "each on its own again";
}

TEST_F(GainPage, LinkedGainsKeepTheirProportions) {
    m_double.gains[1] = 2;
    m_double.gains[2] = 0.5f;
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_LINK);
    drag(0, 1500);
    EXPECT_EQ(gains(), (Texts{L"1.500", L"3.000", L"0.750"})) << "a white balance stays one";
    drag(0, 3000);
    EXPECT_EQ(gains(), (Texts{L"3.000", L"6.000", L"1.500"})) << "also where the slider ends";
    EXPECT_EQ(slider(1), 4000);
    drag(0, 1000);
    EXPECT_EQ(gains(), (Texts{L"1.000", L"2.000", L"0.500"})) << "and back";
    drag(0, 0);
    EXPECT_EQ(gains(), (Texts{L"0.000", L"0.000", L"0.000"}));
    drag(2, 250);
    EXPECT_EQ(gains(), (Texts{L"0.500", L"1.000", L"0.250"}));
}

TEST_F(GainPage, LinkedGainOfZeroTakesTheOthersAlong) {
    m_double.gains[0] = 0;
    m_double.gains[1] = 2;
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_LINK);
    drag(0, 500);
    EXPECT_EQ(gains(), (Texts{L"0.500", L"0.500", L"0.500"}));
}

TEST_F(GainPage, UnityAndZeroSetTheirValues) {
    m_double.gains[0] = 2;
    m_double.offsets[0] = 5;
    m_double.offsets[1] = -6;
    m_double.offsets[2] = 7;
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_UNITY);
    EXPECT_EQ(gains(), (Texts{L"1.000", L"1.000", L"1.000"}));
    EXPECT_EQ(slider(0), 1000);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"5") << "offsets have their own";
    EXPECT_TRUE(m_host.isDirty());
    m_host.click(IDC_GREEN_ZERO);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"5");
    EXPECT_EQ(m_host.text(IDC_GREEN_OFFSET), L"0");
    EXPECT_EQ(m_host.text(IDC_BLUE_OFFSET), L"7");
    m_host.click(IDC_RED_ZERO);
    m_host.click(IDC_BLUE_ZERO);
    EXPECT_EQ(m_host.apply(), S_OK);
    for (int color = 0; color < 3; ++color) {
        EXPECT_EQ(m_double.gains[color], 1.0f);
        EXPECT_EQ(m_double.offsets[color], 0);
    }
}

TEST_F(GainPage, UpDownControlsCountWithinTheRange) {
    m_double.offsets[0] = 126;
    openOnDouble(CLSID_KestraStreamPropRGB);
    const HWND edit = m_host.control(IDC_RED_OFFSET);
    SendMessageW(edit, WM_KEYDOWN, VK_UP, 1);
    SendMessageW(edit, WM_KEYUP, VK_UP, 1);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"127");
    EXPECT_TRUE(m_host.isDirty());
    SendMessageW(edit, WM_KEYDOWN, VK_UP, 1);
    SendMessageW(edit, WM_KEYUP, VK_UP, 1);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"127");
    m_host.type(IDC_RED_OFFSET, L"-3");
    SendMessageW(edit, WM_KEYDOWN, VK_DOWN, 1);
    SendMessageW(edit, WM_KEYUP, VK_DOWN, 1);
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"-4");
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.offsets[0], -4);
}

TEST_F(GainPage, ApplySendsOneRecord) {
    openOnFilter(CLSID_KestraStreamPropRGB);
    m_host.type(IDC_RED_GAIN, L"1.5");
    m_host.type(IDC_GREEN_GAIN, L"0");
    m_host.type(IDC_BLUE_GAIN, L"3.999");
    m_host.type(IDC_RED_OFFSET, L"-127");
    m_host.type(IDC_GREEN_OFFSET, L"127");
    m_host.type(IDC_BLUE_OFFSET, L"-1");
    EXPECT_TRUE(m_card.log().empty());
    ASSERT_EQ(m_host.apply(), S_OK);
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    expected.redGain = 384;
    expected.greenGain = 0;
    expected.blueGain = 1023;
    expected.redOffset = 0xFF;
    expected.greenOffset = 0x7F;
    expected.blueOffset = 0x81;
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_TRUE(same(sent()[0], expected));
    EXPECT_FALSE(m_host.isDirty());
}

TEST_F(GainPage, PutsAllPropertiesBetweenFreezing) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_UNITY);
    m_double.unfreezeResult = E_FAIL;
    EXPECT_EQ(m_host.apply(), E_FAIL);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.text(IDC_MESSAGE),
              L"The card has not taken these values. Please look at the input signal and the log (0x80004005).");
    EXPECT_EQ(m_double.puts, (std::vector<std::string>{"freeze", "RedGain", "GreenGain", "BlueGain", "RedOffset",
                                                       "GreenOffset", "BlueOffset", "unfreeze"}));
}

TEST_F(GainPage, WrongNumbersAreMarkedNamedAndNotSent) {
    openOnFilter(CLSID_KestraStreamPropRGB);
    const struct {
        int id;
        const wchar_t* typed;
        const wchar_t* message;
    } cases[] = {
        {IDC_RED_GAIN, L"", L"Red gain: Please enter a number from -8388607.5 to 8388607.5."},
        {IDC_GREEN_GAIN, L"1..5", L"Green gain: This is not a number. Please enter one from -8388607.5 to 8388607.5."},
        {IDC_BLUE_GAIN, L"8388608", L"Blue gain: Please enter a number from -8388607.5 to 8388607.5."},
        {IDC_RED_OFFSET, L"-129", L"Red offset: Please enter a whole number from -128 to 127."},
        {IDC_GREEN_OFFSET, L"ten", L"Green offset: This is not a whole number. Please enter one from -128 to 127."},
        {IDC_BLUE_OFFSET, L"1.5", L"Blue offset: This is not a whole number. Please enter one from -128 to 127."}};
    for (const auto& [id, typed, message] : cases) {
        SCOPED_TRACE(id);
        const std::wstring before = m_host.text(id);
        m_host.type(id, typed);
        EXPECT_EQ(m_host.apply(), E_INVALIDARG);
        EXPECT_TRUE(m_card.log().empty());
        EXPECT_TRUE(m_host.isMarked(id));
        EXPECT_EQ(m_host.text(IDC_MESSAGE), message);
        EXPECT_EQ(GetFocus(), m_host.control(id));
        m_host.type(id, before);
        EXPECT_FALSE(m_host.isMarked(id));
    }
}

TEST_F(GainPage, AnalyzeShowsGainsAndMeansAndWaitsForApply) {
    m_double.means[0] = 167;
    m_double.means[1] = 121;
    m_double.means[2] = 100;
    m_double.foundGains[1] = 1.3802f;
    m_double.foundGains[2] = 1.67f;
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(gains(), (Texts{L"1.000", L"1.380", L"1.670"}));
    EXPECT_EQ(slider(1), 1380);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {167,121,100}");
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 1);
    EXPECT_TRUE(m_double.puts.empty());
    m_host.click(IDC_LINK);
    drag(0, 2000);
    EXPECT_EQ(gains(), (Texts{L"2.000", L"2.760", L"3.340"}));
}

TEST_F(GainPage, EveryGainThatIsFoundCanBeApplied) {
    showPicture(PictureKind::Tinted);
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    const auto csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
    ASSERT_EQ(csc->put_B1(8), S_OK); // leaves hardly any blue
    openOn(CLSID_KestraStreamPropRGB, m_filter.get());
    m_host.click(IDC_ANALYZE);
    const float blue = std::stof(m_host.text(IDC_BLUE_GAIN));
    EXPECT_GT(blue, 10.0f) << "far beyond the slider";
    EXPECT_EQ(m_host.text(IDC_MESSAGE),
              L"Blue gain: This is beyond 0 to 4, where the slider ends. It can be applied all the same.");
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_NEAR(m_card.state().converter.blueGain, blue * 256, 1);
}

TEST_F(GainPage, InfiniteGainIsAppliedAsTheGreatestThatTheCardHolds) {
    m_double.means[0] = m_double.means[1] = 9;
    m_double.foundGains[2] = std::numeric_limits<float>::infinity();
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(gains(), (Texts{L"1.000", L"1.000", L"inf"}));
    EXPECT_EQ(m_host.text(IDC_BLUE_GAIN_CARD), L"= 8388607.500");
    EXPECT_FALSE(m_host.isMarked(IDC_BLUE_GAIN));
    EXPECT_EQ(slider(2), 4000);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.gains[2], 8388607.5f);
}

TEST_F(GainPage, OffsetOfMinus128IsTheRecordsAndNoneOnTheCard) {
    openOnFilter(CLSID_KestraStreamPropRGB);
    m_host.type(IDC_RED_OFFSET, L"-128");
    EXPECT_FALSE(m_host.isMarked(IDC_RED_OFFSET));
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET_CARD), L"= 0");
    EXPECT_EQ(m_host.text(IDC_MESSAGE),
              L"Red offset: This is beyond -127 to 127, which the card can hold. It can be applied all the same.");
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_card.state().converter.redOffset, 0x80);
    const auto rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
    signed char offset = 0;
    EXPECT_EQ(rgb->get_RedOffset(&offset), S_OK);
    EXPECT_EQ(offset, -128);
    m_host.leave();
    m_host.comeBack();
    EXPECT_EQ(m_host.text(IDC_RED_OFFSET), L"-128");
    m_host.type(IDC_GREEN_GAIN, L"2");
    EXPECT_EQ(m_host.apply(), S_OK) << "it blocks no other field";
}

TEST_F(GainPage, WhatIsNotEditedStaysOnTheCardHoweverOftenAnotherFieldIsApplied) {
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    const auto rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
    rgb->put_GreenGain(297.0f / 256);
    rgb->put_BlueGain(-1000.125f);
    rgb->put_GreenOffset(-128);
    wire::Converter expected = m_card.state().converter;
    for (int8_t round = 1; round <= 10; ++round) {
        openOn(CLSID_KestraStreamPropRGB, m_filter.get());
        m_card.clearLog();
        m_host.type(IDC_RED_OFFSET, std::to_wstring(round));
        ASSERT_EQ(m_host.apply(), S_OK);
        expected.redOffset = uint8_t(round);
        ASSERT_EQ(sent().size(), 1u);
        EXPECT_TRUE(same(sent()[0], expected)) << "round " << int(round);
        m_host.close();
    }
}

TEST_F(GainPage, AnalysisWithoutAPictureSaysSoAndLeavesTheGainsAlone) {
    openOnFilter(CLSID_KestraStreamPropRGB);
    m_host.type(IDC_RED_GAIN, L"1.25");
    m_card.failNext(wire::kSnap, kStatusInsufficientResources);
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {0,0,0}");
    EXPECT_EQ(m_host.text(IDC_MEAN_NOTE), L"There was no picture to measure, or it is black.");
    EXPECT_EQ(gains(), (Texts{L"1.25", L"1.000", L"1.000"}));
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"");
    m_host.click(IDC_ANALYZE);
    const std::wstring found = m_host.text(IDC_MEAN);
    EXPECT_NE(found, L"Mean RGB = {0,0,0}");
    EXPECT_EQ(m_host.text(IDC_MEAN_NOTE), L"");
    m_card.setSignal(kNoSignal);
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {0,0,0}");
    EXPECT_EQ(m_host.text(IDC_MEAN_NOTE), L"There was no picture to measure, or it is black. Before: " + found);
    EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
}

TEST_F(GainPage, MeansOutliveAVisitToAnotherPageAndAreOldAfterAFailure) {
    m_double.means[0] = 167;
    m_double.means[1] = 121;
    m_double.means[2] = 100;
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_ANALYZE);
    m_host.leave();
    m_host.comeBack();
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {167,121,100}");
    m_double.analysisResult = HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {167,121,100} (old)");
    m_host.close();
    openOnDouble(CLSID_KestraStreamPropRGB);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {0,0,0}") << "another session of the page";
}

TEST_F(GainPage, AnalysisOffersToSetTheOffsetsToZero) {
    showPicture(PictureKind::Tinted);
    openOnFilter(CLSID_KestraStreamPropRGB);
    m_host.type(IDC_GREEN_OFFSET, L"-9");
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(m_host.text(IDC_GREEN_OFFSET), L"-9") << "unless it is asked for";
    EXPECT_EQ(m_host.text(IDC_MEAN_NOTE), L"The gains are for offsets of 0.");
    m_host.click(IDC_ZERO_OFFSETS);
    EXPECT_EQ(m_host.text(IDC_GREEN_OFFSET), L"-9") << "with the gains, not before";
    m_host.click(IDC_ANALYZE);
    EXPECT_EQ(m_host.text(IDC_GREEN_OFFSET), L"0");
    EXPECT_EQ(m_host.text(IDC_MEAN_NOTE), L"");
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_card.state().converter.greenOffset, 0);
}

TEST_F(GainPage, LivePreviewFollowsTheSliderAndCancelPutsItBack) {
    openOnFilter(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_LIVE);
    m_host.click(IDC_LINK);
    drag(0, 2000);
    const wire::Converter now = m_card.state().converter;
    EXPECT_EQ(now.redGain, 512);
    EXPECT_EQ(now.greenGain, 512) << "all three in one record";
    EXPECT_EQ(sent().size(), 1u);
    m_host.click(IDC_ANALYZE);
    EXPECT_NE(m_card.state().converter.redGain, 512) << "what was found is shown too";
    m_host.close();
    EXPECT_TRUE(same(m_card.state().converter, wire::toWire(wire::kDefaultConverter)));
}

TEST_F(GainPage, MissingImageLibraryIsNamed) {
    const ModuleCopy copy;
    const ComModule module(copy.module().c_str());
    ASSERT_NE(module.handle(), nullptr);
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    {
        ComRef<IBaseFilter> filter;
        ComRef<IPropertyPage> page;
        ASSERT_EQ(module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())), S_OK);
        ASSERT_EQ(module.create(CLSID_KestraStreamPropRGB, IID_IPropertyPage, reinterpret_cast<void**>(page.out())),
                  S_OK);
        ASSERT_EQ(m_host.open(std::move(page), filter.get()), S_OK);
        m_host.click(IDC_ANALYZE);
        EXPECT_EQ(m_host.text(IDC_MESSAGE),
                  L"The picture could not be analyzed. The image library ippLib.dll is missing "
                  L"or damaged (0x8007007E).");
        EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
        EXPECT_FALSE(m_host.isDirty());
        m_host.close();
    }
    EXPECT_TRUE(waitUntil([&] { return module.canUnloadNow() == S_OK; }));
}

TEST_F(GainPage, AnalyzeAndApplyMakeATintedPictureNeutralAndUnityBringsItBack) {
    showPicture(PictureKind::Tinted);
    openOnFilter(CLSID_KestraStreamPropRGB);
    run();
    const std::vector<uint8_t> original = nextSample();
    EXPECT_FALSE(agree(means(original)));
    m_host.click(IDC_ANALYZE);
    const std::vector<double> found = means(original);
    EXPECT_EQ(m_host.text(IDC_MEAN), L"Mean RGB = {" + std::to_wstring(int(found[0])) + L"," +
                                         std::to_wstring(int(found[1])) + L"," + std::to_wstring(int(found[2])) + L"}");
    EXPECT_TRUE(waitUntil([&] { return nextSample() == original; })) << "not before Apply";
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return agree(means(nextSample())); }));
    const std::vector<double> after = means(nextSample());
    std::printf("means before %.3f %.3f %.3f, after %.3f %.3f %.3f\n", found[0], found[1], found[2], after[0], after[1],
                after[2]);
    m_host.click(IDC_UNITY);
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample() == original; })) << "byte for byte";
    // The interface's own default does it too.
    m_host.type(IDC_RED_OFFSET, L"20");
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample() != original; }));
    const auto rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
    ASSERT_EQ(rgb->Default(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample() == original; }));
}

TEST_F(GainPage, FormatsWithoutRgbShowOneSentence) {
    openOnFilter(CLSID_KestraStreamPropRGB, 2);
    for (const HWND child : m_host.children())
        EXPECT_EQ(IsWindowVisible(child) != FALSE, GetDlgCtrlID(child) == IDC_NOT_AVAILABLE);
    m_host.click(IDC_ANALYZE);
    EXPECT_TRUE(m_card.log().empty());
    EXPECT_FALSE(m_host.isDirty());
}

TEST_F(GainPage, WhatWasSetSurvivesAVisitToAnotherPage) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    m_host.click(IDC_LINK);
    drag(1, 2000);
    m_host.leave();
    m_host.comeBack();
    EXPECT_EQ(gains(), (Texts{L"2.000", L"2.000", L"2.000"}));
    EXPECT_EQ(slider(0), 2000);
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LINK), UINT(BST_CHECKED));
    drag(0, 500);
    EXPECT_EQ(gains(), (Texts{L"0.500", L"0.500", L"0.500"}));
}

TEST_F(GainPage, EveryEditHasItsLabelRightBeforeIt) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    for (int id = IDC_RED_GAIN; id <= IDC_BLUE_OFFSET; ++id)
        EXPECT_NE(labelOf(id).find(L'&'), std::wstring::npos) << id;
}

TEST_F(GainPage, TabAndAccessKeysReachEverything) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    EXPECT_EQ(m_host.tabOrder(),
              (std::vector<int>{IDC_RED_GAIN, IDC_RED_SLIDER, IDC_GREEN_GAIN, IDC_GREEN_SLIDER, IDC_BLUE_GAIN,
                                IDC_BLUE_SLIDER, IDC_LINK, IDC_UNITY, IDC_RED_OFFSET, IDC_RED_ZERO, IDC_GREEN_OFFSET,
                                IDC_GREEN_ZERO, IDC_BLUE_OFFSET, IDC_BLUE_ZERO, IDC_ANALYZE, IDC_ZERO_OFFSETS,
                                IDC_REVERT, IDC_LIVE}));
    std::wstring keys = accessKeys();
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
    EXPECT_EQ(keys.find_first_of(L"AH"), std::wstring::npos) << "Apply and Help are the frame's";
    EXPECT_EQ(keys.size(), 15u);
    const std::pair<wchar_t, int> expected[] = {{L'r', IDC_RED_GAIN},     {L'g', IDC_GREEN_GAIN},
                                                {L'b', IDC_BLUE_GAIN},    {L'd', IDC_RED_OFFSET},
                                                {L'n', IDC_GREEN_OFFSET}, {L'u', IDC_BLUE_OFFSET}};
    for (const auto& [letter, id] : expected) {
        SetFocus(m_host.control(IDC_ANALYZE));
        m_host.accessKey(letter);
        EXPECT_EQ(GetFocus(), m_host.control(id)) << char(letter);
    }
    m_host.accessKey(L'y');
    EXPECT_EQ(m_double.analyses, 1);
    m_host.accessKey(L'l');
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LINK), UINT(BST_CHECKED));
}

TEST_F(GainPage, NoTextIsCutAndNoControlHidesAnother) {
    for (int color = 0; color < 3; ++color) {
        m_double.means[color] = 255;
        m_double.offsets[color] = -128;
        m_double.foundGains[color] = std::numeric_limits<float>::infinity();
    }
    for (const LONG available : {1, 0}) {
        m_double.rgbOut = available;
        openOnDouble(CLSID_KestraStreamPropRGB);
        m_double.analysisResult = S_OK;
        m_host.click(IDC_ANALYZE);
        EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
        for (const HRESULT failure : {E_FAIL, E_ACCESSDENIED, E_OUTOFMEMORY, HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)}) {
            m_double.analysisResult = failure;
            m_host.click(IDC_ANALYZE);
            EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
        }
        m_host.close();
    }
}

TEST_F(GainPage, ShownManyTimesItLeavesNoHandle) {
    openOnDouble(CLSID_KestraStreamPropRGB);
    expectNothingLeftBy([&] {
        m_host.type(IDC_RED_GAIN, L"x");
        m_host.leave();
        m_host.comeBack();
        m_host.click(IDC_ANALYZE);
    });
}

} // namespace kestra::test
