// The log call interface: what the device library and the decoder write their failures through.
// Portable; every function may be called by any thread and never throws.
#pragma once

#include <cstdint>

/// Larger is more important; a channel writes what is at least its threshold.
enum LogSeverity : uint32_t {
    LOG_DEBUG = 0,
    LOG_TRACE = 1,
    LOG_NOTICE = 2,
    LOG_WARNING = 3,
    LOG_ERROR = 4,
    LOG_MANDATORY = 5
};

/// The library's log handle: the four-character code KRNA, first character most significant.
constexpr uint32_t kTarnisLogHandle = 0x4B524E41;

namespace kestra {

/// What all log points of one source unit share.
struct LogUnit {
    const char* group;
    const wchar_t* sourceFile; ///< as records print it, for example L".\\TARNIS_grab.cpp"
};

/// True if some log engine would accept a record of this severity from this module. Cheap enough to stand in
/// front of every log point: nothing is formatted unless it is true.
bool logAccepts(uint32_t severity) noexcept;

/// Fills one record, formats its message (printf rules of the platform's wide functions: %s wide, %hs narrow)
/// and sends it. Failures are swallowed: logging never changes the outcome of what is logged.
void logPoint(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
              const wchar_t* format, ...) noexcept;

} // namespace kestra

/// One log point, one line: tests first and formats only if a channel wants the record. KESTRA_LOG_AT is for
/// the few points whose printed source line is fixed.
#define KESTRA_LOG_AT(line, unit, functionName, severity, code, ...)                                                   \
    do {                                                                                                               \
        if (::kestra::logAccepts(severity))                                                                            \
            ::kestra::logPoint(unit, functionName, line, severity, static_cast<int32_t>(code), __VA_ARGS__);           \
    } while (false)
#define KESTRA_LOG(unit, functionName, severity, code, ...)                                                            \
    KESTRA_LOG_AT(__LINE__, unit, functionName, severity, code, __VA_ARGS__)
