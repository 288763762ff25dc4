// The converter's parameters by name, as the command line and JSON files have them. Portable.
#pragma once

#include "ctl/json.h"
#include "protocol/records.h"

#include <string>

namespace kestra::ctl {

/// Sets what "NAME=VALUE" says; the names are those of TarnisConverterParams, in any case. Throws Failure (usage) for
/// an unknown name, for what is no number, and for one that the card cannot hold.
void setConverterValue(TarnisConverterParams& params, const std::string& assignment);

/// Takes the matrix of a preset, by its short name, and leaves limits, gains and offsets alone. Throws Failure (usage).
void takePreset(TarnisConverterParams& params, const std::string& shortName);

/// Short name of the preset that these values are once the card holds them; null: none.
const char* presetNameOf(const TarnisConverterParams& params) noexcept;

/// Lines for a person.
std::string converterText(const TarnisConverterParams& params);
/// One line of the same.
std::string converterLine(const TarnisConverterParams& params);

Json converterJson(const TarnisConverterParams& params);
/// The reverse; all parameters must be there. Throws Failure.
TarnisConverterParams converterOfJson(const std::string& text, const std::string& fileName);

} // namespace kestra::ctl
