// The log file as a person reads it. Portable; pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestra::ctl {

/// UTF-8, lines ended by "\n", of what the log's file holds: UTF-16, little-endian, with or without a byte-order
/// mark.
std::string textOfLog(std::string_view bytes);

/// The last `count` lines.
std::string_view lastLines(std::string_view text, uint32_t count) noexcept;

/// What the numbers in a line mean: requests, results, four-character codes. Empty: none that is known.
/// @param systemText  of a Win32 error
std::string explainLogLine(std::string_view line, std::string (*systemText)(uint32_t error));

} // namespace kestra::ctl
