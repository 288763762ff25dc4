// Numbers as a user types them, and as a page shows them. Portable, the same in every locale; pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestra {

/// What is wrong with a typed number.
enum class NumberFault : uint8_t { None, Empty, Comma, NoNumber, OutOfRange };

template <class Value>
struct TypedNumber {
    Value value; ///< 0 unless the fault is None
    NumberFault fault;
};

/// Digits with an optional sign; blanks around it are passed over. Both limits belong to the range.
TypedNumber<int32_t> parseWhole(std::wstring_view text, int32_t least, int32_t most) noexcept;
/// The same with an optional point and decimals; the nearest float.
TypedNumber<float> parseDecimal(std::wstring_view text, float least, float most) noexcept;

std::wstring wholeText(int32_t value);
/// Three decimals, rounded; "inf" and "nan" for what is no number.
std::wstring decimalText(float value);

/// One field into which a user types a number.
struct NumberField {
    int id;              ///< of its edit control
    const wchar_t* name; ///< as messages call it
    bool whole;
    float least, most;
};

NumberFault check(const NumberField& field, std::wstring_view text) noexcept;
/// Tells a user what to type instead: one or two short sentences.
std::wstring explain(const NumberField& field, NumberFault fault);

} // namespace kestra
