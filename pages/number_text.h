// Numbers as a user types them, and as a page shows them. Portable, the same in every locale; pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestra {

/// What is wrong with a typed number.
enum class NumberFault : uint8_t { None, Empty, NoNumber, OutOfRange };

/// A number as a page holds it. A double holds every 32-bit integer and every float exactly, so that what a program
/// has set is never more or less than that.
struct TypedNumber {
    double value; ///< 0 unless the fault is None
    NumberFault fault;
};

/// One field into which a user types a number.
struct NumberField {
    int id;              ///< of its edit control
    const wchar_t* name; ///< as messages call it
    bool whole;          ///< else a 32-bit float
    /// What the property's record holds; both limits belong to it.
    double least, most;
    /// What makes sense. A value beyond is taken, with a word of warning.
    double usualLeast, usualMost;
    const wchar_t* usual; ///< what the usual values are, for that warning
    /// The control that shows what the card makes of a value that it cannot keep, and that rule; 0: it keeps them all.
    int cardId = 0;
    double (*onCard)(double value) = nullptr;
};

/// Digits with an optional sign and, unless the field takes whole numbers, a point or a comma before decimals: then the
/// nearest float. Blanks around it are passed over.
TypedNumber parse(const NumberField& field, std::wstring_view text) noexcept;

std::wstring wholeText(int32_t value);
/// Three decimals, rounded; "inf" and "nan" for what is no number.
std::wstring decimalText(double value);
/// A value as its field shows it.
std::wstring textOf(const NumberField& field, double value);

/// Tells a user what to type instead: one or two short sentences.
std::wstring explain(const NumberField& field, NumberFault fault);
/// "= " and what the card makes of a value; empty: just that value, or what its text says already.
std::wstring cardText(const NumberField& field, double value, std::wstring_view text);
/// Tells a user that a value that is taken is beyond the usual ones; empty: it is not.
std::wstring warn(const NumberField& field, double value);

} // namespace kestra
