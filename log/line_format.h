// How a record becomes a line. Portable; a pure function.
#pragma once

#include "log/log.h"

#include <cstddef>
#include <cstdint>

namespace kestra {

constexpr size_t kLineCapacity = 4096; ///< characters, terminator included

/// What an engine knows about the thread that sent a record.
struct LineContext {
    uint64_t identifier;
    int32_t nesting;
};

/// Formats one line, without a line break: those in its texts become spaces, so that no text can look like a second
/// record. A missing text reads "undefined"; of the source's path the last directory and the file name are left.
/// @param line    kLineCapacity characters; cut and terminated
/// @param detail  1 to 5; any other level gives an empty line
/// @return characters in the line
size_t formatLine(wchar_t* line, uint32_t detail, const LogRecord& record, const LineContext& context) noexcept;

} // namespace kestra
