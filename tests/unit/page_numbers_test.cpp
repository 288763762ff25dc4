// What a user may type into the pages' fields, and the messages for everything else.
#include "pages/number_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

namespace kestra::test {
namespace {

double atMost100(double value) {
    return value > 100 ? 100 : value;
}

constexpr NumberField kGain = {1, L"Red gain", false, -8388607.5, 8388607.5, 0, 4, L"where the slider ends",
                               9, atMost100};
constexpr NumberField kOffset = {2, L"Red offset", true, -128, 127, -127, 127, L"which the card can hold"};
constexpr NumberField kLevel = {
    3, L"Y Off", true, -2147483648.0, 2147483647.0, 0, 1023, L"the levels of a 10-bit sample"};

NumberFault faultOf(const NumberField& field, std::wstring_view text) {
    return parse(field, text).fault;
}

} // namespace

TEST(PageNumbers, WholeNumbersAreTakenInEveryUsualSpelling) {
    for (const auto& [text, value] :
         {std::pair{L"0", 0}, {L"-128", -128}, {L"+5", 5}, {L"007", 7}, {L" 12\t", 12}, {L"127", 127}}) {
        const auto typed = parse(kOffset, text);
        EXPECT_EQ(typed.fault, NumberFault::None) << value;
        EXPECT_EQ(typed.value, value);
    }
    EXPECT_EQ(parse(kLevel, L"-2147483648").value, -2147483648.0);
    EXPECT_EQ(parse(kLevel, L"2147483647").value, 2147483647.0);
}

TEST(PageNumbers, DecimalsAreTheNearestFloat) {
    for (const auto& [text, value] : {std::pair{L"1.164", 1.164f},
                                      {L"1,164", 1.164f},
                                      {L",5", 0.5f},
                                      {L"2.017", 2.017f},
                                      {L".5", 0.5f},
                                      {L"3.", 3.0f},
                                      {L"-0.392", -0.392f},
                                      {L" +1.0 ", 1.0f},
                                      {L"8388607.5", 8388607.5f},
                                      {L"-8388607.5", -8388607.5f}}) {
        const auto typed = parse(kGain, text);
        EXPECT_EQ(typed.fault, NumberFault::None) << value;
        EXPECT_EQ(typed.value, double(value));
    }
}

TEST(PageNumbers, NonsenseIsNamed) {
    for (const wchar_t* text : {L"", L"   ", L"\t"})
        EXPECT_EQ(faultOf(kGain, text), NumberFault::Empty);
    for (const wchar_t* text : {L"abc", L"1e2", L"0x10", L"1.2.3", L"1,000.5", L"1,2,3", L"--1", L"+-1", L"-", L".",
                                L",", L"1 2", L"inf", L"nan", L"1.0f", L"\u0661", L"1-"})
        EXPECT_EQ(faultOf(kGain, text), NumberFault::NoNumber) << testing::PrintToString(std::wstring(text));
    EXPECT_EQ(faultOf(kGain, L"8388608"), NumberFault::OutOfRange);
    EXPECT_EQ(faultOf(kGain, L"-8388608"), NumberFault::OutOfRange);
    EXPECT_EQ(faultOf(kGain, std::wstring(60, L'9')), NumberFault::OutOfRange) << "no float holds it";
    EXPECT_EQ(faultOf(kGain, std::wstring(81, L'0')), NumberFault::NoNumber) << "longer than what is read";
    EXPECT_EQ(faultOf(kOffset, L"1.0"), NumberFault::NoNumber);
    EXPECT_EQ(faultOf(kOffset, L"1,0"), NumberFault::NoNumber);
    EXPECT_EQ(faultOf(kOffset, L"128"), NumberFault::OutOfRange);
    EXPECT_EQ(faultOf(kOffset, L"-129"), NumberFault::OutOfRange);
    EXPECT_EQ(faultOf(kLevel, L"2147483648"), NumberFault::OutOfRange);
    EXPECT_EQ(faultOf(kLevel, L"99999999999999999999"), NumberFault::OutOfRange) << "no integer holds it";
}

TEST(PageNumbers, TextsAreTheSameInEveryLocale) {
    EXPECT_EQ(decimalText(1.164f), L"1.164");
    EXPECT_EQ(decimalText(1.16015625f), L"1.160");
    EXPECT_EQ(decimalText(0), L"0.000");
    EXPECT_EQ(decimalText(-2.5f), L"-2.500");
    EXPECT_EQ(decimalText(std::numeric_limits<float>::infinity()), L"inf");
    EXPECT_EQ(decimalText(std::numeric_limits<float>::max()), L"340282346638528859811704183484516925440.000");
    EXPECT_EQ(decimalText(std::numeric_limits<double>::lowest()).size(), 314u);
    EXPECT_EQ(wholeText(-2147483647 - 1), L"-2147483648");
    EXPECT_EQ(textOf(kLevel, -2147483648.0), L"-2147483648");
    EXPECT_EQ(textOf(kGain, 2), L"2.000");
}

TEST(PageNumbers, WhatIsShownIsTakenBack) {
    for (int thousandths = -3999; thousandths <= 3999; ++thousandths) {
        const std::wstring text = decimalText(static_cast<float>(thousandths) / 1000);
        const auto typed = parse(kGain, text);
        ASSERT_EQ(typed.fault, NumberFault::None) << thousandths;
        ASSERT_EQ(decimalText(typed.value), text);
    }
}

TEST(PageNumbers, WhateverIsTypedIsRefusedOrIsTheNumberThatItSays) {
    constexpr wchar_t kKeys[] = L"0123456789.,-+ e";
    std::mt19937 random(9);
    int taken = 0;
    for (int i = 0; i < 200000; ++i) {
        std::wstring typed;
        for (uint32_t length = random() % 8; length > 0; --length)
            typed += kKeys[random() % (std::size(kKeys) - 1)];
        const auto number = parse(kGain, typed);
        if (number.fault != NumberFault::None) {
            ASSERT_EQ(number.value, 0) << testing::PrintToString(typed);
            continue;
        }
        ++taken;
        std::string text(typed.begin(), typed.end());
        std::replace(text.begin(), text.end(), ',', '.');
        char* end = nullptr;
        ASSERT_EQ(number.value, double(std::strtof(text.c_str(), &end))) << text;
        ASSERT_EQ(text.find_first_not_of(' ', static_cast<size_t>(end - text.c_str())), std::string::npos) << text;
    }
    EXPECT_GT(taken, 5000);
}

TEST(PageNumbers, MessagesSayWhatToTypeInstead) {
    EXPECT_EQ(explain(kGain, NumberFault::None), L"");
    EXPECT_EQ(explain(kGain, NumberFault::Empty), L"Red gain: Please enter a number from -8388607.5 to 8388607.5.");
    EXPECT_EQ(explain(kGain, NumberFault::OutOfRange), explain(kGain, NumberFault::Empty));
    EXPECT_EQ(explain(kGain, NumberFault::NoNumber),
              L"Red gain: This is not a number. Please enter one from -8388607.5 to 8388607.5.");
    EXPECT_EQ(explain(kOffset, NumberFault::NoNumber),
              L"Red offset: This is not a whole number. Please enter one from -128 to 127.");
}

TEST(PageNumbers, UnusualValuesAreTakenWithAWarning) {
    EXPECT_EQ(warn(kGain, 0), L"");
    EXPECT_EQ(warn(kGain, 4), L"");
    EXPECT_EQ(warn(kGain, 4.001),
              L"Red gain: This is beyond 0 to 4, where the slider ends. It can be applied all the same.");
    EXPECT_NE(warn(kGain, -0.5), L"");
    EXPECT_NE(warn(kGain, std::numeric_limits<double>::infinity()), L"");
    EXPECT_EQ(warn(kOffset, -127), L"");
    EXPECT_NE(warn(kOffset, -128), L"");
}

TEST(PageNumbers, WhatTheCardMakesOfAValueIsShownWhenItDiffers) {
    EXPECT_EQ(cardText(kGain, 100, L"100"), L"");
    EXPECT_EQ(cardText(kGain, 100.5, L"100.5"), L"= 100.000");
    EXPECT_EQ(cardText(kGain, 100.0001, L"100.0001"), L"= 100.000");
    EXPECT_EQ(cardText(kGain, 100.0001, L"100.000"), L"") << "it says so already";
    EXPECT_EQ(cardText(kGain, std::numeric_limits<double>::quiet_NaN(), L"nan"), L"");
    EXPECT_EQ(cardText(kOffset, -128, L"-128"), L"") << "has no rule";
}

} // namespace kestra::test
