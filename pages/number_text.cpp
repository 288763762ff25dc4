// Numbers as the user types and reads them.
#include "pages/number_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>

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

template <class Value>
TypedNumber convert(const Digits& digits, const NumberField& field) noexcept {
    Value value{};
    const auto [end, error] = std::from_chars(digits.text.data(), digits.text.data() + digits.length, value);
    if (error != std::errc() || value < field.least || value > field.most) return {0, NumberFault::OutOfRange};
    return {static_cast<double>(value), NumberFault::None};
}

template <class... Format>
std::wstring print(Format... format) {
    char text[400]; // the largest double has 309 digits
    return {text, std::to_chars(text, text + sizeof text, format...).ptr};
}

/// As short as a person would write it, for example 0.5.
std::wstring limitsText(double least, double most) {
    return print(least, std::chars_format::fixed) + L" to " + print(most, std::chars_format::fixed);
}

} // namespace

TypedNumber parse(const NumberField& field, std::wstring_view text) noexcept {
    const Digits digits = digitsOf(text, !field.whole);
    if (digits.fault != NumberFault::None) return {0, digits.fault};
    return field.whole ? convert<int64_t>(digits, field) : convert<float>(digits, field);
}

std::wstring wholeText(int32_t value) {
    return print(value);
}

std::wstring decimalText(double value) {
    return print(value, std::chars_format::fixed, 3);
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
