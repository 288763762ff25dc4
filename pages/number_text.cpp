#include "pages/number_text.h"

#include <array>
#include <charconv>
#include <cstddef>

namespace kestra {
namespace {

constexpr size_t kLongest = 80; // characters of an edit that are read

/// The number's characters without sign and blanks, or what is wrong with them.
struct Digits {
    std::array<char, kLongest + 1> text{};
    size_t length = 0;
    NumberFault fault = NumberFault::None;
};

constexpr bool isBlank(wchar_t c) noexcept {
    return c == L' ' || c == L'\t';
}

/// Sign, digits and at most one point. A plus, which the conversion does not know, is left out.
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
    if (text.find(L',') != std::wstring_view::npos) return refuse(NumberFault::Comma);
    if (text.size() > kLongest) return refuse(NumberFault::NoNumber);
    if (text.front() == L'-') digits.text[digits.length++] = '-';
    if (text.front() == L'-' || text.front() == L'+') text.remove_prefix(1);
    size_t found = 0, points = 0;
    for (const wchar_t c : text) {
        const bool digit = c >= L'0' && c <= L'9', point = c == L'.' && pointAllowed;
        if (!digit && !point) return refuse(NumberFault::NoNumber);
        found += digit;
        points += point;
        digits.text[digits.length++] = static_cast<char>(c);
    }
    return found == 0 || points > 1 ? refuse(NumberFault::NoNumber) : digits;
}

template <class Value>
TypedNumber<Value> parse(std::wstring_view text, bool pointAllowed, Value least, Value most) noexcept {
    const Digits digits = digitsOf(text, pointAllowed);
    if (digits.fault != NumberFault::None) return {0, digits.fault};
    Value value{};
    const auto [end, error] = std::from_chars(digits.text.data(), digits.text.data() + digits.length, value);
    if (error != std::errc() || value < least || value > most) return {0, NumberFault::OutOfRange};
    return {value, NumberFault::None};
}

std::wstring widen(const char* first, const char* last) {
    return {first, last};
}

std::wstring limitText(const NumberField& field, float limit) {
    return field.whole ? wholeText(static_cast<int32_t>(limit)) : decimalText(limit);
}

} // namespace

TypedNumber<int32_t> parseWhole(std::wstring_view text, int32_t least, int32_t most) noexcept {
    return parse(text, false, least, most);
}

TypedNumber<float> parseDecimal(std::wstring_view text, float least, float most) noexcept {
    return parse(text, true, least, most);
}

std::wstring wholeText(int32_t value) {
    char text[16];
    return widen(text, std::to_chars(text, text + sizeof text, value).ptr);
}

std::wstring decimalText(float value) {
    char text[64]; // the largest float has 39 digits
    return widen(text, std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 3).ptr);
}

NumberFault check(const NumberField& field, std::wstring_view text) noexcept {
    return field.whole ? parseWhole(text, static_cast<int32_t>(field.least), static_cast<int32_t>(field.most)).fault
                       : parseDecimal(text, field.least, field.most).fault;
}

std::wstring explain(const NumberField& field, NumberFault fault) {
    const std::wstring name = std::wstring(field.name) + L": ";
    const std::wstring range =
        L" from " + limitText(field, field.least) + L" to " + limitText(field, field.most) + L".";
    const std::wstring kind = field.whole ? L"a whole number" : L"a number";
    switch (fault) {
    case NumberFault::None:
        return {};
    case NumberFault::Empty:
        return name + L"Please enter " + kind + range;
    case NumberFault::Comma:
        if (!field.whole) return name + L"Please write a point before the decimals, not a comma.";
        [[fallthrough]];
    case NumberFault::NoNumber:
        return name + L"This is not " + kind + L". Please enter one" + range;
    case NumberFault::OutOfRange:
        break;
    }
    return name + L"Please enter " + kind + range;
}

} // namespace kestra
