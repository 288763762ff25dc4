// Numbers as a user types them, and as a page shows them. Portable, the same in every locale; pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestra {

/// What can be wrong with a typed number.
enum class NumberFault : uint8_t { None, Empty, NoNumber, OutOfRange };

/// A number as a page holds it. A double holds every 32-bit integer and every float exactly, so a value set by a
/// program is never altered.
struct TypedNumber {
    double value; ///< 0 unless the fault is None
    NumberFault fault;
};

/// One field for a number.
struct NumberField {
    int id;              ///< of its edit control
    const wchar_t* name; ///< as messages call it
    bool whole;          ///< else a 32-bit float
    /// The range that the property's record can hold, limits included.
    double least, most;
    /// The useful range. A value outside is accepted with a warning.
    double usualLeast, usualMost;
    const wchar_t* usual; ///< what the usual values are, for that warning
    /// The control that shows how the card rounds a value, and the rounding rule; 0 if it keeps every value.
    int cardId = 0;
    double (*onCard)(double value) = nullptr;
};

/// Fields hold numbers whose whole part is below this.
inline constexpr uint64_t kWholeLimit = uint64_t{1} << 53;

/// Whether the texts of a field can be made: its range is not beyond kWholeLimit, and three decimals show its limits
/// whole.
constexpr bool canBeShown(const NumberField& field) noexcept {
    for (const double limit : {field.least, field.most, field.usualLeast, field.usualMost}) {
        constexpr double kMost = double{kWholeLimit} / 1000;
        if (limit < -kMost || limit > kMost || limit * 1000 != static_cast<double>(static_cast<int64_t>(limit * 1000)))
            return false;
    }
    return true;
}

/// Digits with an optional sign and, unless the field takes whole numbers, a point or a comma before decimals: then the
/// nearest float. Surrounding blanks are ignored.
TypedNumber parse(const NumberField& field, std::wstring_view text) noexcept;

std::wstring wholeText(int32_t value);
/// Three decimals, rounded; "inf" and "nan" where it is not a number.
std::wstring decimalText(double value);
/// A value as its field shows it.
std::wstring textOf(const NumberField& field, double value);

/// Tells a user what to type instead: one or two short sentences.
std::wstring explain(const NumberField& field, NumberFault fault);
/// "= " and the value that the card will use; empty if the text already says it.
std::wstring cardText(const NumberField& field, double value, std::wstring_view text);
/// Tells the user that an accepted value is unusual; empty if it is not.
std::wstring warn(const NumberField& field, double value);

} // namespace kestra
