// What a user may type into the pages' fields, and what is said about the rest.
#include "pages/number_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <string>

namespace kestra::test {
namespace {

constexpr NumberField kGain = {1, L"Red gain", false, 0, 3.999f};
constexpr NumberField kOffset = {2, L"Red offset", true, -127, 127};

} // namespace

TEST(PageNumbers, WholeNumbersAreTakenInEveryUsualSpelling) {
    for (const auto& [text, value] : {std::pair{L"0", 0}, {L"-127", -127}, {L"+5", 5}, {L"007", 7}, {L" 12\t", 12}}) {
        const auto typed = parseWhole(text, -127, 127);
        EXPECT_EQ(typed.fault, NumberFault::None) << value;
        EXPECT_EQ(typed.value, value);
    }
}

TEST(PageNumbers, DecimalsAreTheNearestFloat) {
    for (const auto& [text, value] : {std::pair{L"1.164", 1.164f},
                                      {L"2.017", 2.017f},
                                      {L".5", 0.5f},
                                      {L"3.", 3.0f},
                                      {L"-0.392", -0.392f},
                                      {L" +1.0 ", 1.0f},
                                      {L"3.999", 3.999f}}) {
        const auto typed = parseDecimal(text, -4, 3.999f);
        EXPECT_EQ(typed.fault, NumberFault::None) << value;
        EXPECT_EQ(typed.value, value);
    }
}

TEST(PageNumbers, NonsenseIsNamed) {
    for (const wchar_t* text : {L"", L"   ", L"\t"})
        EXPECT_EQ(check(kGain, text), NumberFault::Empty);
    for (const wchar_t* text : {L"abc", L"1e2", L"0x10", L"1.2.3", L"--1", L"+-1", L"-", L".", L"1 2", L"inf", L"nan",
                                L"1.0f", L"\u0661", L"1-"})
        EXPECT_EQ(check(kGain, text), NumberFault::NoNumber);
    EXPECT_EQ(check(kGain, L"1,5"), NumberFault::Comma);
    EXPECT_EQ(check(kGain, L"1,000.5"), NumberFault::Comma);
    EXPECT_EQ(check(kGain, L"4"), NumberFault::OutOfRange);
    EXPECT_EQ(check(kGain, L"-0.001"), NumberFault::OutOfRange);
    EXPECT_EQ(check(kGain, std::wstring(60, L'9')), NumberFault::OutOfRange) << "no float holds it";
    EXPECT_EQ(check(kGain, std::wstring(81, L'0')), NumberFault::NoNumber) << "longer than what is read";
    EXPECT_EQ(check(kOffset, L"1.0"), NumberFault::NoNumber);
    EXPECT_EQ(check(kOffset, L"128"), NumberFault::OutOfRange);
    EXPECT_EQ(check(kOffset, L"-128"), NumberFault::OutOfRange);
    EXPECT_EQ(check(kOffset, L"99999999999"), NumberFault::OutOfRange) << "no integer holds it";
}

TEST(PageNumbers, TextsAreTheSameInEveryLocale) {
    EXPECT_EQ(decimalText(1.164f), L"1.164");
    EXPECT_EQ(decimalText(1.16015625f), L"1.160");
    EXPECT_EQ(decimalText(0), L"0.000");
    EXPECT_EQ(decimalText(-2.5f), L"-2.500");
    EXPECT_EQ(decimalText(std::numeric_limits<float>::infinity()), L"inf");
    EXPECT_EQ(decimalText(std::numeric_limits<float>::max()), L"340282346638528859811704183484516925440.000");
    EXPECT_EQ(wholeText(-2147483647 - 1), L"-2147483648");
}

TEST(PageNumbers, WhatIsShownIsTakenBack) {
    for (int thousandths = 0; thousandths <= 3999; ++thousandths) {
        const std::wstring text = decimalText(static_cast<float>(thousandths) / 1000);
        const auto typed = parseDecimal(text, 0, 3.999f);
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
        const auto number = parseDecimal(typed, -1000, 1000);
        if (number.fault != NumberFault::None) {
            ASSERT_EQ(number.value, 0) << testing::PrintToString(typed);
            continue;
        }
        ++taken;
        const std::string text(typed.begin(), typed.end());
        char* end = nullptr;
        ASSERT_EQ(number.value, std::strtof(text.c_str(), &end)) << text;
        ASSERT_EQ(text.find_first_not_of(' ', static_cast<size_t>(end - text.c_str())), std::string::npos) << text;
    }
    EXPECT_GT(taken, 5000);
}

TEST(PageNumbers, MessagesSayWhatToTypeInstead) {
    EXPECT_EQ(explain(kGain, NumberFault::None), L"");
    EXPECT_EQ(explain(kGain, NumberFault::Empty), L"Red gain: Please enter a number from 0.000 to 3.999.");
    EXPECT_EQ(explain(kGain, NumberFault::OutOfRange), L"Red gain: Please enter a number from 0.000 to 3.999.");
    EXPECT_EQ(explain(kGain, NumberFault::Comma), L"Red gain: Please write a point before the decimals, not a comma.");
    EXPECT_EQ(explain(kOffset, NumberFault::Comma),
              L"Red offset: This is not a whole number. Please enter one from -127 to 127.");
    EXPECT_EQ(explain(kGain, NumberFault::NoNumber),
              L"Red gain: This is not a number. Please enter one from 0.000 to 3.999.");
}

} // namespace kestra::test
