// Numbers as the user types and reads them. Decimals are converted by exact arithmetic on their digits: the C runtime's
// conversions follow the application's locale and differ from one runtime to the next, and those of the C++ library
// bring tables of 170 kB into the module.
#include "pages/number_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <span>
#include <string>

namespace kestra {
namespace {

constexpr size_t kLongest = 80; // characters read from an edit

/// The number's characters without plus sign and blanks, or what is wrong with them.
struct Digits {
    std::array<char, kLongest + 1> text{};
    size_t length = 0;
    NumberFault fault = NumberFault::None;
};

constexpr bool isBlank(wchar_t c) noexcept {
    return c == L' ' || c == L'\t';
}

/// Sign, digits and at most one point. A plus sign, unknown to the conversion, is dropped; a comma counts as a point.
Digits digitsOf(std::wstring_view text, bool pointAllowed) noexcept {
    Digits digits;
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    const auto refuse = [&](NumberFault fault) {
        digits.fault = fault;
        return digits;
    };
    if (text.empty()) return refuse(NumberFault::Empty);
    if (text.size() > kLongest) return refuse(NumberFault::NoNumber);
    if (text.front() == L'-') digits.text[digits.length++] = '-';
    if (text.front() == L'-' || text.front() == L'+') text.remove_prefix(1);
    size_t found = 0, points = 0;
    for (const wchar_t c : text) {
        const bool digit = c >= L'0' && c <= L'9', point = (c == L'.' || c == L',') && pointAllowed;
        if (!digit && !point) return refuse(NumberFault::NoNumber);
        found += digit;
        points += point;
        digits.text[digits.length++] = point ? '.' : static_cast<char>(c);
    }
    return found == 0 || points > 1 ? refuse(NumberFault::NoNumber) : digits;
}

/// Doubles a number of so many decimal digits. @return what goes beyond them, 0 or 1
int doubled(std::span<char> digits) noexcept {
    int carry = 0;
    for (size_t i = digits.size(); i-- > 0;) {
        const int twice = (digits[i] - '0') * 2 + carry;
        digits[i] = static_cast<char>('0' + twice % 10);
        carry = twice / 10;
    }
    return carry;
}

/// value / 2^count, of two integers as near the even one; as it is for a count that is not positive. value: below 2^63
uint64_t roundedShift(uint64_t value, int count) noexcept {
    if (count <= 0 || count > 63) return count <= 0 ? value : 0;
    const uint64_t half = uint64_t{1} << (count - 1), odd = value >> count & 1;
    return (value + half - 1 + odd) >> count;
}

/// Takes any 64-bit integer exactly.
TypedNumber wholeOf(const Digits& digits, const NumberField& field) noexcept {
    int64_t value{};
    const auto [end, error] = std::from_chars(digits.text.data(), digits.text.data() + digits.length, value);
    if (error != std::errc() || value < field.least || value > field.most) return {0, NumberFault::OutOfRange};
    return {static_cast<double>(value), NumberFault::None};
}

/// The nearest float, of two the even one.
TypedNumber floatOf(Digits digits, const NumberField& field) noexcept {
    char* const end = digits.text.data() + digits.length;
    char* const first = digits.text.data() + (digits.text[0] == '-');
    char* const point = std::find(first, end, '.');
    uint64_t bits = 0; // of the value's binary digits; it is bits * 2^exponent
    const auto error = std::from_chars(first, point, bits).ec;
    if (error == std::errc::result_out_of_range || bits >= kWholeLimit) return {0, NumberFault::OutOfRange};
    // Twice a fraction is its next binary digit and the rest: two digits more than a float has at its least, so that
    // all further ones only matter by being 0 or not.
    int exponent = 0;
    const std::span<char> fraction(point == end ? end : point + 1, end);
    for (; bits < uint64_t{1} << 26 && exponent > -151; --exponent)
        bits = bits * 2 + static_cast<uint64_t>(doubled(fraction));
    if (std::any_of(fraction.begin(), fraction.end(), [](char digit) { return digit != '0'; })) bits |= 1;
    double value = static_cast<float>(std::ldexp(static_cast<double>(bits), exponent));
    if (first != digits.text.data()) value = -value;
    if (value < field.least || value > field.most) return {0, NumberFault::OutOfRange};
    return {value, NumberFault::None};
}

/// As short as a person would write it, for example 0.5.
std::wstring shortText(double value) {
    std::wstring text = decimalText(value);
    while (text.back() == L'0')
        text.pop_back();
    if (text.back() == L'.') text.pop_back();
    return text;
}

std::wstring limitsText(double least, double most) {
    return shortText(least) + L" to " + shortText(most);
}

} // namespace

TypedNumber parse(const NumberField& field, std::wstring_view text) noexcept {
    const Digits digits = digitsOf(text, !field.whole);
    if (digits.fault != NumberFault::None) return {0, digits.fault};
    return field.whole ? wholeOf(digits, field) : floatOf(digits, field);
}

std::wstring wholeText(int32_t value) {
    const std::string text = std::to_string(value);
    return {text.begin(), text.end()};
}

std::wstring decimalText(double value) {
    std::string text;
    if (std::isfinite(value)) {
        // mantissa * 2^exponent; what has no leading one, 0 too, is far below a thousandth.
        const auto pattern = std::bit_cast<uint64_t>(value);
        const int exponent = static_cast<int>(pattern >> 52 & 0x7FF) - 1075;
        const uint64_t mantissa = (pattern & 0xF'FFFF'FFFF'FFFF) | uint64_t{1} << 52;
        text = std::to_string(roundedShift(mantissa * 1000, -exponent));
        for (int power = 0; power < exponent; ++power)
            if (doubled(text) > 0) text.insert(0, 1, '1');
        if (text.size() < 4) text.insert(0, 4 - text.size(), '0');
        text.insert(text.size() - 3, 1, '.');
    } else {
        text = std::isnan(value) ? "nan" : "inf";
    }
    if (std::signbit(value)) text.insert(0, 1, '-');
    return {text.begin(), text.end()};
}

std::wstring textOf(const NumberField& field, double value) {
    return field.whole ? wholeText(static_cast<int32_t>(value)) : decimalText(value);
}

std::wstring explain(const NumberField& field, NumberFault fault) {
    const std::wstring name = std::wstring(field.name) + L": ";
    const std::wstring kind = field.whole ? L"a whole number" : L"a number";
    const std::wstring range = L" from " + limitsText(field.least, field.most) + L".";
    switch (fault) {
    case NumberFault::None:
        return {};
    case NumberFault::NoNumber:
        return name + L"This is not " + kind + L". Please enter one" + range;
    case NumberFault::Empty:
    case NumberFault::OutOfRange:
        break;
    }
    return name + L"Please enter " + kind + range;
}

std::wstring cardText(const NumberField& field, double value, std::wstring_view text) {
    const double kept = field.onCard ? field.onCard(value) : value;
    if (kept == value || std::isnan(value)) return {};
    const std::wstring shown = textOf(field, kept);
    return shown == text ? std::wstring() : L"= " + shown;
}

std::wstring warn(const NumberField& field, double value) {
    if (value >= field.usualLeast && value <= field.usualMost) return {};
    return std::wstring(field.name) + L": This is beyond " + limitsText(field.usualLeast, field.usualMost) + L", " +
           field.usual + L". It can be applied all the same.";
}

} // namespace kestra
