// What a user may type into the pages' fields, and the messages for everything else. KESTRA_LONG=1: many more numbers.
#include "pages/number_text.h"
#include "tests/support/long_run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
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

/// Takes every float.
constexpr NumberField kAny = {
    4, L"Any", false, -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(), 0, 1, L""};

/// What the C++ library prints, which is exact.
std::wstring expectedText(double value) {
    char text[400];
    return {text, std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 3).ptr};
}

/// The C++ library's nearest float; what is nearer to 0 than to any other is 0.
float expectedFloat(const std::string& text) {
    float value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

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
    EXPECT_EQ(faultOf(kGain, std::wstring_view(L"   \t 1").substr(0, 3)), NumberFault::Empty)
        << "what follows is not its";
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

TEST(PageNumbers, EveryTextIsTheExactValueRoundedToThreeDecimals) {
    // What the card can hold, ties among it, and what lies near a tie; then any double.
    const int most = isLongRun() ? 1 << 28 : 1 << 16;
    for (int wire = 0; wire < most; ++wire)
        for (const double value : {wire / 256.0, wire / -10000.0})
            ASSERT_EQ(decimalText(value), expectedText(value)) << value;
    std::mt19937_64 random(11);
    for (int i = repetitions(3'000, 3'000'000); i > 0; --i) {
        const auto any = std::bit_cast<double>(random());
        ASSERT_EQ(decimalText(any), expectedText(any)) << any;
    }
    for (int i = repetitions(30'000, 30'000'000); i > 0; --i) {
        // Of the magnitude of thousandths up to where a double has no decimals left.
        const double usual = std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 70));
        ASSERT_EQ(decimalText(usual), expectedText(usual)) << usual;
    }
    for (const double value : {0.0, -0.0, 0.0005, 0.0625, 0.1875, -0.0004, 0.9995, 0.99951171875, 4503599627370496.5,
                               9007199254740993.0, 1e22, 5e-324, -std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(decimalText(value), expectedText(value)) << value;
}

TEST(PageNumbers, EveryTypedNumberIsTheNearestFloat) {
    const auto check = [](const std::string& text) {
        const auto typed = parse(kAny, std::wstring(text.begin(), text.end()));
        ASSERT_EQ(typed.fault, NumberFault::None) << text;
        ASSERT_EQ(typed.value, double{expectedFloat(text)}) << text;
    };
    std::mt19937_64 random(13);
    for (int i = repetitions(20'000, 20'000'000); i > 0; --i) {
        std::string text(random() % 2, '-');
        for (auto digits = random() % 16; digits > 0; --digits)
            text += static_cast<char>('0' + random() % 10);
        text += '.';
        const auto size = random() % 8; // near 1 mostly, some near the least float of full precision, or anywhere below
        text.append(size == 0 ? 38 : size == 1 ? random() % 46 : 0, '0');
        for (auto digits = 1 + random() % (78 - text.size()); digits > 0; --digits)
            text += static_cast<char>('0' + random() % 10);
        ASSERT_NO_FATAL_FAILURE(check(text));
    }
    // Exactly between two floats, and a trace to either side of that.
    for (int i = repetitions(10'000, 10'000'000); i > 0; --i) {
        const auto odd = static_cast<double>((uint64_t{1} << 23 | random() >> 41) * 2 + 1); // of 25 bits
        char digits[400];
        const auto middle = std::ldexp(odd, -static_cast<int>(random() % 44));
        std::string text(digits, std::to_chars(digits, digits + sizeof digits, middle, std::chars_format::fixed).ptr);
        if (text.find('.') == std::string::npos) text += '.';
        ASSERT_NO_FATAL_FAILURE(check(text));
        ASSERT_NO_FATAL_FAILURE(check(text + std::string(79 - text.size(), '0') + "1"));
        ASSERT_NO_FATAL_FAILURE(check(text + std::string(79 - text.size(), '0')));
        const auto below = std::nextafter(middle, 0);
        text.assign(digits, std::to_chars(digits, digits + sizeof digits, below, std::chars_format::fixed).ptr);
        ASSERT_NO_FATAL_FAILURE(check(text));
    }
    EXPECT_EQ(parse(kAny, L"0," + std::wstring(50, L'0') + L"1").value, 0) << "no float is nearer";
    EXPECT_EQ(parse(kAny, L"9007199254740991.9").value, 9007199254740992.0);
    EXPECT_EQ(faultOf(kAny, L"9007199254740992"), NumberFault::OutOfRange) << "no field's range ends there";
}

TEST(PageNumbers, LimitsAreShownWhole) {
    NumberField field = kGain;
    EXPECT_TRUE(canBeShown(field));
    field.most = 0.125;
    EXPECT_TRUE(canBeShown(field));
    EXPECT_EQ(explain(field, NumberFault::Empty), L"Red gain: Please enter a number from -8388607.5 to 0.125.");
    field.most = 0.0625;
    EXPECT_FALSE(canBeShown(field)) << "four decimals";
    field.most = 1e300;
    EXPECT_FALSE(canBeShown(field));
    field.most = 9007199254740.992; // a thousandth of what a field holds
    EXPECT_TRUE(canBeShown(field));
    field.most = 2e13;
    EXPECT_FALSE(canBeShown(field));
    field.most = 0.125;
    field.least = -9007199254740.992;
    EXPECT_TRUE(canBeShown(field));
    field.least = -2e13;
    EXPECT_FALSE(canBeShown(field));
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
