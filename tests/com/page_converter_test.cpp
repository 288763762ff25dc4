// The page "Color space converter" as its user sees it, down to the bytes that reach the card.
#include "tests/com/page_test.h"
#include "tests/support/process_counts.h"

#include <algorithm>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class ConverterPage : public PageTest {
protected:
    LRESULT list(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const {
        return SendMessageW(m_host.control(IDC_MATRIX), message, wParam, lParam);
    }
    /// The selected entry of the list.
    std::wstring matrix() const {
        wchar_t entry[64] = L"";
        list(CB_GETLBTEXT, WPARAM(list(CB_GETCURSEL)), reinterpret_cast<LPARAM>(entry));
        return entry;
    }
    /// As a user would: the list changes and notifies the page.
    void chooseMatrix(const wchar_t* entry) const {
        const LRESULT index = list(CB_FINDSTRINGEXACT, WPARAM(-1), reinterpret_cast<LPARAM>(entry));
        ASSERT_NE(index, CB_ERR);
        list(CB_SETCURSEL, WPARAM(index));
        SendMessageW(m_host.dialog(), WM_COMMAND, MAKEWPARAM(IDC_MATRIX, CBN_SELCHANGE),
                     reinterpret_cast<LPARAM>(m_host.control(IDC_MATRIX)));
    }
};

const std::vector<int> kEdits = {IDC_YOFF, IDC_CROFF, IDC_CBOFF, IDC_Y1,   IDC_R1,   IDC_G1,   IDC_G2,
                                 IDC_B1,   IDC_RMIN,  IDC_RMAX,  IDC_GMIN, IDC_GMAX, IDC_BMIN, IDC_BMAX};

} // namespace

TEST_F(ConverterPage, HasItsTitleAndDialog) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(m_host.title(), L"Color space converter");
    EXPECT_NE(FindResourceW(m_module.handle(), MAKEINTRESOURCEW(145), MAKEINTRESOURCEW(5)), nullptr);
    EXPECT_EQ(GetWindowLongPtrW(m_host.dialog(), GWL_STYLE) & WS_CHILD, WS_CHILD);
    std::wstring labels;
    for (const HWND child : m_host.children()) {
        wchar_t text[128];
        GetWindowTextW(child, text, 128);
        std::wstring plain = text;
        plain.erase(std::remove(plain.begin(), plain.end(), L'&'), plain.end());
        labels += L"|" + plain;
    }
    for (const wchar_t* label :
         {L"|Y Off|", L"|Cr Off|", L"|Cb Off|", L"|Y1|", L"|R1|", L"|G1 -|", L"|G2 -|", L"|B1|", L"|Min|", L"|Max|",
          L"|Default|", L"|These options are not available for this output format|"})
        EXPECT_NE((labels + L"|").find(label), std::wstring::npos) << testing::PrintToString(std::wstring(label));
}

TEST_F(ConverterPage, ShowsTheCardsValuesAndIsNotDirty) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    const wchar_t* expected[] = {L"64",    L"512", L"512", L"1.160", L"1.594", L"0.812", L"0.391",
                                 L"2.016", L"0",   L"255", L"0",     L"255",   L"0",     L"255"};
    for (size_t i = 0; i < kEdits.size(); ++i)
        EXPECT_EQ(m_host.text(kEdits[i]), expected[i]) << i;
    EXPECT_TRUE(m_host.isShown(IDC_DEFAULT));
    EXPECT_FALSE(m_host.isShown(IDC_NOT_AVAILABLE));
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"");
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 0);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(m_card.log().empty()) << "nothing has changed";
}

TEST_F(ConverterPage, EveryFieldReachesTheCardInOneRecord) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    const wchar_t* typed[] = {L"-70", L"500", L"501", L"2.5", L"-0.25", L"0.5", L"0.75",
                              L"3",   L"1",   L"2",   L"3",   L"4",     L"5",   L"6"};
    for (size_t i = 0; i < kEdits.size(); ++i)
        m_host.type(kEdits[i], typed[i]);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_TRUE(sent().empty()) << "not before Apply";
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_FALSE(m_host.isDirty());
    const wire::Converter expected = {-70, 500, 501, 640, -64, 128, 192, 768, 1, 2, 3, 4, 5, 6, 256, 256, 256, 0, 0, 0};
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_TRUE(same(sent()[0], expected));
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(ConverterPage, PutsAllPropertiesInOrderBetweenFreezing) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_double.putResult = E_FAIL; // the results of the puts do not count
    m_host.type(IDC_BMAX, L"254");
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.puts, (std::vector<std::string>{"freeze", "YOff", "CrOff", "CbOff", "Y1", "R1", "G1", "G2", "B1",
                                                       "RMin", "RMax", "GMin", "GMax", "BMin", "BMax", "unfreeze"}));
    EXPECT_FALSE(m_host.isDirty());
}

TEST_F(ConverterPage, OnlyAChangeMakesItDirty) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    SetDlgItemTextW(m_host.dialog(), IDC_YOFF, L"64");
    m_host.key(VK_TAB);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 0);
    SendMessageW(m_host.control(IDC_YOFF), EM_SETSEL, 2, 2);
    SendMessageW(m_host.control(IDC_YOFF), WM_CHAR, L'0', 1);
    EXPECT_EQ(m_host.text(IDC_YOFF), L"640");
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 1);
}

TEST_F(ConverterPage, DefaultLoadsTheDefaultsAndApplySendsThem) {
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    const auto csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
    csc->put_YOff(100);
    csc->put_B1(1.0f);
    csc->put_RMin(9);
    openOn(CLSID_KestraStreamPropCSC, m_filter.get());
    EXPECT_EQ(m_host.text(IDC_YOFF), L"100");
    m_card.clearLog();
    m_host.click(IDC_DEFAULT);
    const wchar_t* expected[] = {L"64",    L"512", L"512", L"1.164", L"1.596", L"0.813", L"0.392",
                                 L"2.017", L"0",   L"255", L"0",     L"255",   L"0",     L"255"};
    for (size_t i = 0; i < kEdits.size(); ++i)
        EXPECT_EQ(m_host.text(kEdits[i]), expected[i]) << i;
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 1);
    EXPECT_TRUE(m_card.log().empty());
    ASSERT_EQ(m_host.apply(), S_OK);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_TRUE(same(sent()[0], wire::toWire(wire::kDefaultConverter)));
}

TEST_F(ConverterPage, DefaultThatCannotBeReadChangesNothing) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_YOFF, L"65");
    m_double.defaultResult = E_FAIL;
    const int reports = m_host.dirtyReports;
    m_host.click(IDC_DEFAULT);
    EXPECT_EQ(m_host.text(IDC_YOFF), L"65");
    EXPECT_EQ(m_host.dirtyReports, reports);
}

TEST_F(ConverterPage, DefaultBringsTheRunningPictureBackByteForByte) {
    showPicture(PictureKind::Grey);
    openOnFilter(CLSID_KestraStreamPropCSC);
    run();
    const std::vector<uint8_t> original = nextSample();
    m_host.type(IDC_YOFF, L"200");
    m_host.type(IDC_GMAX, L"50");
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample().at(1) == 50; })) << "the picture follows";
    m_host.click(IDC_DEFAULT);
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return nextSample() == original; }));
}

TEST_F(ConverterPage, WhatIsNotEditedStaysOnTheCardHoweverOftenAnotherFieldIsApplied) {
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    for (uint8_t round = 1; round <= 10; ++round) {
        m_host.close();
        openOnFilter(CLSID_KestraStreamPropCSC); // a fresh filter, which shows 297/256 as 1.160
        EXPECT_EQ(m_host.text(IDC_Y1), L"1.160");
        m_host.type(IDC_RMIN, std::to_wstring(round));
        ASSERT_EQ(m_host.apply(), S_OK);
        expected.rMin = round;
        ASSERT_EQ(sent().size(), 1u);
        EXPECT_TRUE(same(sent()[0], expected)) << "round " << int(round) << ": Y1 is " << sent()[0].y1;
    }
}

TEST_F(ConverterPage, WhatIsShownIsTakenBack) {
    // Every fraction that the card can hold, as many a dialog as there are coefficients.
    for (int numerator = 0; numerator < 256; numerator += 5) {
        FLOAT* const fields[] = {&m_double.values.Y1, &m_double.values.R1, &m_double.values.G1, &m_double.values.G2,
                                 &m_double.values.B1};
        FLOAT expected[5];
        for (int i = 0; i < 5; ++i)
            *fields[i] = expected[i] = float(numerator + i) / 256 * (i % 2 ? -1 : 1) + float(i % 2 ? -2 : 3);
        openOnDouble(CLSID_KestraStreamPropCSC);
        const std::wstring shown = m_host.text(IDC_R1);
        m_host.type(IDC_BMAX, L"254");
        m_host.type(IDC_R1, L"7");
        m_host.type(IDC_R1, shown); // typed again, it means what it did
        ASSERT_EQ(m_host.apply(), S_OK);
        for (int i = 0; i < 5; ++i)
            ASSERT_EQ(*fields[i], expected[i]) << numerator + i << "/256";
        EXPECT_EQ(m_double.values.BMax, 254);
        m_host.close();
    }
}

TEST_F(ConverterPage, EveryValueThatTheRecordHoldsIsShownAndApplied) {
    m_registry.setDword(kSettings, L"VideoFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    const auto csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
    csc->put_YOff(-2147483647 - 1);
    csc->put_CrOff(2147483647);
    csc->put_Y1(8388607.5f);
    csc->put_R1(-8388607.5f);
    wire::Converter expected = m_card.state().converter;
    openOn(CLSID_KestraStreamPropCSC, m_filter.get());
    EXPECT_EQ(m_host.text(IDC_YOFF), L"-2147483648");
    EXPECT_EQ(m_host.text(IDC_Y1), L"8388607.500");
    m_host.type(IDC_GMIN, L"16");
    ASSERT_EQ(m_host.apply(), S_OK) << "what a program has set blocks nothing";
    expected.gMin = 16;
    EXPECT_TRUE(same(m_card.state().converter, expected));
    m_host.type(IDC_CBOFF, L"-2147483648");
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"Cb Off: This is beyond 0 to 1023, the levels of a 10-bit sample. It can be "
                                        L"applied all the same.");
    EXPECT_FALSE(m_host.isMarked(IDC_CBOFF));
    m_host.type(IDC_G1, L"8388607.5");
    m_host.type(IDC_G2, L"-8388607,5");
    ASSERT_EQ(m_host.apply(), S_OK);
    expected.cbOff = -2147483647 - 1;
    expected.g1 = expected.y1;
    expected.g2 = expected.r1;
    EXPECT_TRUE(same(m_card.state().converter, expected));
}

TEST_F(ConverterPage, DecimalCommaIsADecimalPoint) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_R1, L"1,5");
    EXPECT_FALSE(m_host.isMarked(IDC_R1));
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_card.state().converter.r1, 384);
}

TEST_F(ConverterPage, TwoPagesOnOneFilterDoNotUndoEachOther) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    PageHost second;
    ASSERT_EQ(second.open(makePage(CLSID_KestraStreamPropCSC), m_filter.get()), S_OK);
    second.type(IDC_G1, L"0.5");
    second.type(IDC_RMAX, L"200");
    ASSERT_EQ(second.apply(), S_OK);
    EXPECT_EQ(m_host.text(IDC_RMAX), L"255") << "it was opened before";
    m_host.type(IDC_YOFF, L"65");
    ASSERT_EQ(m_host.apply(), S_OK);
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    expected.g1 = 128;
    expected.rMax = 200;
    expected.yOff = 65;
    EXPECT_TRUE(same(m_card.state().converter, expected));
    m_host.type(IDC_BMIN, L"3");
    ASSERT_EQ(m_host.leave(), S_OK);
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(m_host.text(IDC_RMAX), L"200") << "the present value";
    EXPECT_EQ(m_host.text(IDC_BMIN), L"3") << "and what is still to be applied";
    ASSERT_EQ(m_host.apply(), S_OK);
    expected.bMin = 3;
    EXPECT_TRUE(same(m_card.state().converter, expected));
    second.close();
}

TEST_F(ConverterPage, ShowsWhatTheCardMakesOfACoefficient) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(m_host.text(IDC_Y1_CARD), L"") << "297/256 is just what it has";
    m_host.type(IDC_Y1, L"1.164");
    EXPECT_EQ(m_host.text(IDC_Y1_CARD), L"= 1.160");
    m_host.type(IDC_Y1, L"1.16");
    EXPECT_EQ(m_host.text(IDC_Y1_CARD), L"= 1.156");
    m_host.type(IDC_Y1, L"1.5");
    EXPECT_EQ(m_host.text(IDC_Y1_CARD), L"");
    m_host.type(IDC_Y1, L"x");
    EXPECT_EQ(m_host.text(IDC_Y1_CARD), L"");
    m_host.click(IDC_DEFAULT);
    EXPECT_EQ(m_host.text(IDC_B1_CARD), L"= 2.016");
}

TEST_F(ConverterPage, ListShowsWhichMatrixTheValuesAreAndSetsAnother) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(matrix(), L"ITU-R BT.601, studio to full") << "as the card keeps it";
    EXPECT_EQ(m_host.text(IDC_MATRIX_NOTE),
              L"The signal is HD (1920 x 1080), which is BT.709: these values are BT.601.");
    m_host.type(IDC_GMAX, L"250");
    EXPECT_EQ(matrix(), L"ITU-R BT.601, studio to full") << "limits are no part of it";
    chooseMatrix(L"ITU-R BT.709, studio to full");
    EXPECT_EQ(m_host.text(IDC_MATRIX_NOTE), L"");
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_TRUE(sent().empty());
    ASSERT_EQ(m_host.apply(), S_OK);
    // 1.164, 1.793, 0.533, 0.213, 2.112 in steps of 1/256.
    const wire::Converter expected = {64, 512, 512, 297, 459, 136, 54,  540, 0, 255,
                                      0,  250, 0,   255, 256, 256, 256, 0,   0, 0};
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_TRUE(same(sent()[0], expected));
    m_host.type(IDC_G2, L"0.3");
    EXPECT_EQ(matrix(), L"Custom");
    chooseMatrix(L"Custom");
    EXPECT_EQ(m_host.text(IDC_G2), L"0.3") << "choosing it changes nothing";
    m_host.type(IDC_G2, L"");
    EXPECT_EQ(matrix(), L"Custom");
    chooseMatrix(L"ITU-R BT.709, full to full");
    EXPECT_EQ(m_host.text(IDC_YOFF), L"0");
    EXPECT_EQ(m_host.text(IDC_Y1), L"1.000");
    EXPECT_EQ(m_host.text(IDC_R1), L"1.575");
    m_host.close();
    openOnFilter(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(matrix(), L"ITU-R BT.709, studio to full") << "a fresh filter knows it from the card";
}

TEST_F(ConverterPage, StandardDefinitionIsToldFromHd) {
    Signal sd = kDefaultSignal;
    sd.width = 720;
    sd.height = 576;
    m_card.setSignal(sd);
    openOnFilter(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(m_host.text(IDC_MATRIX_NOTE), L"");
    chooseMatrix(L"ITU-R BT.709, studio to full");
    EXPECT_EQ(m_host.text(IDC_MATRIX_NOTE), L"The signal is SD (720 x 576), which is BT.601: these values are BT.709.");
    m_host.close();
    openOn(CLSID_KestraStreamPropCSC, m_pin.get());
    chooseMatrix(L"ITU-R BT.709, full to full");
    EXPECT_NE(m_host.text(IDC_MATRIX_NOTE), L"") << "the pin tells it too";
}

TEST_F(ConverterPage, RevertBringsBackWhatWasShownFirst) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.click(IDC_DEFAULT);
    m_host.type(IDC_YOFF, L"70");
    ASSERT_EQ(m_host.apply(), S_OK);
    m_host.type(IDC_YOFF, L"no");
    const auto csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
    m_host.click(IDC_REVERT);
    EXPECT_EQ(m_host.text(IDC_YOFF), L"64");
    EXPECT_EQ(m_host.text(IDC_Y1), L"1.160");
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"");
    ASSERT_EQ(m_host.apply(), S_OK);
    FLOAT y1 = 0;
    csc->get_Y1(&y1);
    EXPECT_EQ(y1, 1.16015625f) << "bit for bit";
    EXPECT_TRUE(same(m_card.state().converter, wire::toWire(wire::kDefaultConverter)));
}

TEST_F(ConverterPage, RevertLeavesAloneWhatThisPageHasNotTouched) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_double.values.GMin = 9; // by somebody else
    m_host.type(IDC_YOFF, L"65");
    m_host.click(IDC_REVERT);
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.values.GMin, 9);
    EXPECT_EQ(m_double.values.YOff, 64);
}

TEST_F(ConverterPage, EditsCanBeUndone) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_double.values.R1 = 1.59375f;
    m_host.leave();
    m_host.comeBack();
    m_host.type(IDC_R1, L"9");
    SendMessageW(m_host.control(IDC_R1), EM_UNDO, 0, 0);
    EXPECT_EQ(m_host.text(IDC_R1), L"1.594");
    m_host.click(IDC_DEFAULT);
    EXPECT_EQ(m_host.text(IDC_YOFF), L"64");
    EXPECT_EQ(m_host.text(IDC_R1), L"1.596");
    SendMessageW(m_host.control(IDC_R1), EM_UNDO, 0, 0);
    EXPECT_EQ(m_host.text(IDC_R1), L"1.594") << "also what a button has put";
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.values.R1, 1.59375f);
}

TEST_F(ConverterPage, LivePreviewShowsEachChangeAndCancelPutsBackWhatWasThere) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    const wire::Converter before = m_card.state().converter;
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LIVE), UINT(BST_UNCHECKED)) << "off unless it is asked for";
    m_host.type(IDC_YOFF, L"70");
    EXPECT_TRUE(sent().empty());
    m_host.click(IDC_LIVE);
    EXPECT_EQ(m_card.state().converter.yOff, 70) << "at once, with what was typed before";
    m_host.type(IDC_B1, L"-0.5");
    EXPECT_EQ(m_card.state().converter.b1, -128);
    m_host.type(IDC_B1, L"");
    EXPECT_EQ(m_card.state().converter.b1, -128) << "the last number that was one";
    m_host.click(IDC_LIVE);
    EXPECT_TRUE(same(m_card.state().converter, before)) << "switched off";
    EXPECT_EQ(m_host.text(IDC_YOFF), L"70") << "the fields keep it";
    m_host.type(IDC_B1, L"3");
    m_host.click(IDC_LIVE);
    const auto csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
    csc->put_GMax(99); // by somebody else, meanwhile
    EXPECT_EQ(m_card.state().converter.b1, 768);
    EXPECT_TRUE(m_host.isDirty());
    m_host.leave();
    EXPECT_EQ(m_card.state().converter.b1, 768) << "another page is looked at";
    m_host.comeBack();
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LIVE), UINT(BST_CHECKED));
    m_host.close(); // as Cancel does
    wire::Converter expected = before;
    expected.gMax = 99;
    EXPECT_TRUE(same(m_card.state().converter, expected));
}

TEST_F(ConverterPage, AppliedPreviewStays) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.click(IDC_LIVE);
    m_host.type(IDC_YOFF, L"70");
    ASSERT_EQ(m_host.apply(), S_OK);
    m_host.type(IDC_YOFF, L"71");
    EXPECT_EQ(m_card.state().converter.yOff, 71);
    m_host.close();
    EXPECT_EQ(m_card.state().converter.yOff, 70) << "what was applied last";
    openOnFilter(CLSID_KestraStreamPropCSC);
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LIVE), UINT(BST_UNCHECKED)) << "each time anew";
}

TEST_F(ConverterPage, RefusedPreviewIsReportedAndTriedAgain) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.click(IDC_LIVE);
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied);
    m_host.type(IDC_YOFF, L"7");
    EXPECT_EQ(m_host.text(IDC_MESSAGE),
              L"The card has not taken these values. Another application is using the card (0x80070005).");
    m_host.type(IDC_CROFF, L"500");
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"");
    EXPECT_EQ(m_card.state().converter.yOff, 7);
    m_host.close();
    EXPECT_TRUE(same(m_card.state().converter, wire::toWire(wire::kDefaultConverter)));
}

TEST_F(ConverterPage, DialogThatOutlivesItsObjectReachesNothing) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_YOFF, L"70");
    ASSERT_EQ(m_host.page()->SetObjects(0, nullptr), S_OK);
    m_host.click(IDC_DEFAULT);
    m_host.click(IDC_LIVE);
    m_host.click(IDC_REVERT);
    m_host.type(IDC_YOFF, L"71");
    EXPECT_TRUE(FAILED(m_host.apply()));
    EXPECT_TRUE(sent().empty());
}

TEST_F(ConverterPage, WrongNumbersAreMarkedNamedAndNotSent) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    const struct {
        int id;
        const wchar_t* typed;
        const wchar_t* message;
    } cases[] = {
        {IDC_YOFF, L"", L"Y Off: Please enter a whole number from -2147483648 to 2147483647."},
        {IDC_CROFF, L"12a", L"Cr Off: This is not a whole number. Please enter one from -2147483648 to 2147483647."},
        {IDC_CBOFF, L"2147483648", L"Cb Off: Please enter a whole number from -2147483648 to 2147483647."},
        {IDC_Y1, L"1,164.0", L"Y1: This is not a number. Please enter one from -8388607.5 to 8388607.5."},
        {IDC_B1, L"8388608", L"B1: Please enter a number from -8388607.5 to 8388607.5."},
        {IDC_RMIN, L"-1", L"Red Min: Please enter a whole number from 0 to 255."},
        {IDC_BMAX, L"256", L"Blue Max: Please enter a whole number from 0 to 255."}};
    for (const auto& [id, typed, message] : cases) {
        SCOPED_TRACE(id);
        const std::wstring before = m_host.text(id);
        m_host.type(id, typed);
        SetFocus(m_host.control(IDC_DEFAULT));
        EXPECT_EQ(m_host.apply(), E_INVALIDARG);
        EXPECT_TRUE(m_card.log().empty()) << "nothing is sent half";
        EXPECT_TRUE(m_host.isDirty());
        EXPECT_EQ(m_host.text(IDC_MESSAGE), message);
        EXPECT_EQ(GetFocus(), m_host.control(id));
        for (const int edit : kEdits)
            EXPECT_EQ(m_host.isMarked(edit), edit == id) << edit;
        m_host.type(id, before);
        EXPECT_FALSE(m_host.isMarked(id)) << "while it is corrected";
        EXPECT_EQ(m_host.text(IDC_MESSAGE), L"");
    }
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(ConverterPage, EveryWrongFieldIsMarkedAndTheFirstNamed) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_BMIN, L"x");
    m_host.type(IDC_G1, L"");
    EXPECT_EQ(m_host.apply(), E_INVALIDARG);
    EXPECT_TRUE(m_host.isMarked(IDC_BMIN));
    EXPECT_TRUE(m_host.isMarked(IDC_G1));
    EXPECT_EQ(m_host.text(IDC_MESSAGE), L"G1: Please enter a number from -8388607.5 to 8388607.5.");
    EXPECT_EQ(GetFocus(), m_host.control(IDC_G1));
    EXPECT_TRUE(m_double.puts.empty());
    m_host.click(IDC_DEFAULT);
    EXPECT_FALSE(m_host.isMarked(IDC_BMIN));
    EXPECT_EQ(m_host.apply(), S_OK);
}

TEST_F(ConverterPage, MarkedFieldIsRedOnTheScreen) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_YOFF, L"");
    SetFocus(m_host.control(IDC_DEFAULT));
    const HWND edit = m_host.control(IDC_YOFF);
    RedrawWindow(edit, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_UPDATENOW);
    const HDC dc = GetDC(edit);
    const COLORREF pixel = GetPixel(dc, 5, 5);
    ReleaseDC(edit, dc);
    EXPECT_EQ(pixel, RGB(255, 218, 214));
}

TEST_F(ConverterPage, FormatsWithoutTheConverterShowOneSentence) {
    openOnFilter(CLSID_KestraStreamPropCSC, 0);
    for (const HWND child : m_host.children())
        EXPECT_EQ(IsWindowVisible(child) != FALSE, GetDlgCtrlID(child) == IDC_NOT_AVAILABLE);
    EXPECT_EQ(m_host.text(IDC_NOT_AVAILABLE), L"These options are not available for this output format");
    EXPECT_FALSE(m_host.isDirty());
    m_host.click(IDC_DEFAULT);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_TRUE(m_card.log().empty());
    ASSERT_EQ(m_host.leave(), S_OK);
    ASSERT_EQ(choose(3), S_OK);
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_TRUE(m_host.isShown(IDC_YOFF)) << "RGB uses it";
    EXPECT_FALSE(m_host.isShown(IDC_NOT_AVAILABLE));
    EXPECT_EQ(m_host.text(IDC_YOFF), L"64");
}

TEST_F(ConverterPage, RefusalOfTheCardIsShownAndCanBeRepeated) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_YOFF, L"65");
    m_card.failNext(wire::kSetConverter, kStatusAccessDenied);
    EXPECT_EQ(m_host.apply(), E_ACCESSDENIED);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.text(IDC_MESSAGE),
              L"The card has not taken these values. Another application is using the card (0x80070005).");
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_card.state().converter.yOff, 65);
}

TEST_F(ConverterPage, PulledCardIsShownAndTheValuesWaitForItsReturn) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_GMIN, L"16");
    m_card.unplug();
    EXPECT_TRUE(FAILED(m_host.apply()));
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_NE(m_host.text(IDC_MESSAGE).find(L"The card has not taken these values."), std::wstring::npos);
    m_card.plug();
    EXPECT_TRUE(waitUntil([&] { return m_host.apply() == S_OK; }));
    EXPECT_EQ(m_card.state().converter.gMin, 16);
    EXPECT_FALSE(m_host.isDirty());
}

TEST_F(ConverterPage, WorksOnThePinToo) {
    m_registry.setDword(kSettings, L"VideoFormat", 3);
    ASSERT_EQ(makeFilter(), S_OK);
    openOn(CLSID_KestraStreamPropCSC, m_pin.get());
    m_host.type(IDC_RMAX, L"200");
    ASSERT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_card.state().converter.rMax, 200);
}

TEST_F(ConverterPage, ObjectWithoutAConverterIsRefused) {
    ComRef<IPropertyPage> page = makePage(CLSID_KestraStreamPropCSC);
    IUnknown* object = &m_host;
    EXPECT_EQ(page->SetObjects(1, &object), E_NOINTERFACE);
    const RECT place{0, 0, 100, 100};
    EXPECT_EQ(page->Activate(m_host.frame(), &place, FALSE), E_UNEXPECTED);
}

TEST_F(ConverterPage, WhatWasTypedSurvivesAVisitToAnotherPage) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    m_host.type(IDC_Y1, L"1.5");
    m_host.type(IDC_R1, L"oh");
    ASSERT_EQ(m_host.leave(), S_OK);
    EXPECT_EQ(m_host.apply(), E_INVALIDARG) << "there is no dialog to ask, and it is still wrong";
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(m_host.text(IDC_Y1), L"1.5");
    EXPECT_EQ(m_host.text(IDC_R1), L"oh");
    EXPECT_TRUE(m_host.isMarked(IDC_R1));
    m_host.type(IDC_R1, L"1.25");
    ASSERT_EQ(m_host.leave(), S_OK);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.values.Y1, 1.5f);
    EXPECT_EQ(m_double.values.R1, 1.25f);
    m_double.values.YOff = 77;
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(m_host.text(IDC_YOFF), L"77") << "nothing is left to be applied: the current values";
}

TEST_F(ConverterPage, TabGoesThroughTheFieldsInTheirOrder) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    std::vector<int> expected = {IDC_MATRIX};
    expected.insert(expected.end(), kEdits.begin(), kEdits.end());
    expected.insert(expected.end(), {IDC_DEFAULT, IDC_REVERT, IDC_LIVE});
    EXPECT_EQ(m_host.tabOrder(), expected);
    SetFocus(m_host.control(IDC_YOFF));
    m_host.key(VK_TAB);
    EXPECT_EQ(GetFocus(), m_host.control(IDC_CROFF));
}

TEST_F(ConverterPage, AccessKeysLeadToEveryField) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    std::wstring keys = accessKeys();
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, L"12BCDEGIIIMNOPRUVXXXY") << "A and H, Apply and Help, are the frame's";
    const std::pair<wchar_t, int> expected[] = {
        {L'm', IDC_MATRIX}, {L'y', IDC_YOFF}, {L'c', IDC_CROFF}, {L'o', IDC_CBOFF}, {L'1', IDC_Y1},
        {L'r', IDC_R1},     {L'g', IDC_G1},   {L'2', IDC_G2},    {L'b', IDC_B1},    {L'e', IDC_RMIN},
        {L'n', IDC_GMIN},   {L'u', IDC_BMIN}, {L'v', IDC_REVERT}};
    for (const auto& [letter, id] : expected) {
        SetFocus(m_host.control(IDC_RMAX));
        m_host.accessKey(letter);
        EXPECT_EQ(GetFocus(), m_host.control(id)) << char(letter);
    }
    SetFocus(m_host.control(IDC_B1));
    for (const int id : {IDC_RMIN, IDC_GMIN, IDC_BMIN, IDC_RMIN}) {
        m_host.accessKey(L'i');
        EXPECT_EQ(GetFocus(), m_host.control(id)) << "the same key goes on to the next colour";
    }
    for (const int id : {IDC_RMAX, IDC_GMAX, IDC_BMAX}) {
        m_host.accessKey(L'x');
        EXPECT_EQ(GetFocus(), m_host.control(id));
    }
    m_host.accessKey(L'd');
    EXPECT_TRUE(m_host.isDirty()) << "Default was pressed";
    m_host.accessKey(L'p');
    EXPECT_EQ(IsDlgButtonChecked(m_host.dialog(), IDC_LIVE), UINT(BST_CHECKED));
}

TEST_F(ConverterPage, EveryEditHasItsLabelRightBeforeIt) {
    openOnDouble(CLSID_KestraStreamPropCSC);
    for (const int id : kEdits)
        EXPECT_NE(labelOf(id).find(L'&'), std::wstring::npos) << id;
}

TEST_F(ConverterPage, NoTextIsCutAndNoControlHidesAnother) {
    for (const LONG available : {1, 0}) {
        m_double.rgbOut = available;
        openOnDouble(CLSID_KestraStreamPropCSC);
        if (available) {
            m_host.type(IDC_YOFF, L"-2147483648");
            m_host.type(IDC_Y1, L"-127.999");
            m_host.type(IDC_B1, L"16383.999");
            EXPECT_EQ(m_host.text(IDC_B1_CARD), L"= 16383.996");
            EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
            m_host.type(IDC_CROFF, L"1.0");
        }
        EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
        m_host.close();
    }
}

TEST_F(ConverterPage, ShownManyTimesItLeavesNoHandle) {
    openOnFilter(CLSID_KestraStreamPropCSC);
    const auto cycle = [&] {
        m_host.type(IDC_YOFF, L"x"); // marked, with a message
        m_host.leave();
        m_host.comeBack();
        m_host.click(IDC_REVERT);
    };
    cycle();
    const HBRUSH brush = CreateSolidBrush(RGB(1, 2, 3));
    const GuiCounts withBrush = guiCounts();
    DeleteObject(brush);
    EXPECT_EQ(withBrush.gdiObjects, guiCounts().gdiObjects + 1) << "the count counts";
    EXPECT_GT(withBrush.windows, 30);
    const int handles = processCounts().handles;
    expectNothingLeftBy(cycle);
    EXPECT_LE(processCounts().handles, handles);
}

} // namespace kestra::test
