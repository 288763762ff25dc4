// How a record becomes a line: severity names, the shortened source path and the five detail levels. Portable;
// pure functions.
#pragma once

#include "log/log.h"

#include <cstddef>
#include <cstdint>

namespace kestra {

constexpr size_t kLineCapacity = 4096; ///< characters, terminator included

/// What an engine adds to a record.
struct LineContext {
    uint64_t identifier;
    int32_t nesting;
};

/// 5 and 6 are both "MANDATORY"; 7 and above "bad severity".
const wchar_t* severityName(uint32_t severity) noexcept;

/// The last directory and the file name; a path with fewer than two backslashes stays whole. At most 259
/// characters of the path are looked at.
/// @param buffer  260 characters, receives the copy that the result points into
const wchar_t* shortenSourcePath(const wchar_t* path, wchar_t* buffer) noexcept;

/// Formats one line.
/// @param line    kLineCapacity characters; cut and terminated
/// @param detail  1 to 5; any other level gives an empty line
/// @param record  without null texts
/// @return characters in the line
size_t formatLine(wchar_t* line, uint32_t detail, const LogRecord& record, const LineContext& context) noexcept;

/// Module table key: h = h * 31 + c over the key's two halves printed in hexadecimal.
uint32_t moduleHash(uint64_t moduleKey) noexcept;

} // namespace kestra
