// The log call interface: what the device library and the decoder write their failures through.
// Portable; every function may be called by any thread and never throws.
#pragma once

#include <atomic>
#include <cstdint>

/// Larger is more important; a channel writes what is at least its threshold.
enum LogSeverity : uint32_t {
    LOG_DEBUG = 0,
    LOG_TRACE = 1,
    LOG_NOTICE = 2,
    LOG_WARNING = 3,
    LOG_ERROR = 4,
    LOG_MANDATORY = 5,
    LOG_ANNOUNCEMENT = 6 ///< of the log itself; reads MANDATORY, too
};

/// The library's log handle: the four-character code KRNA, first character most significant.
constexpr uint32_t kTarnisLogHandle = 0x4B524E41;

/// One message on its way to the channels. Every text is borrowed; the record owns nothing. A fresh record is
/// reset: severity MANDATORY, no code, no date, no text.
struct LogRecord {
    uint32_t processId = 0;
    uint32_t threadId = 0; ///< also the key of an engine's per-thread context
    const char* timeText = nullptr;
    const char* group = nullptr;
    uint64_t moduleKey = 0; ///< instance handle of the module that logs
    const char* moduleTag = nullptr;
    const wchar_t* sourceFile = nullptr;
    const char* functionName = nullptr;
    int32_t line = 0;
    uint32_t severity = LOG_MANDATORY;
    int32_t code = -1; ///< -1: no code
    const wchar_t* message = nullptr;
    int32_t day = -1, month = -1, year = 0; ///< calendar date of the time stamp
};

/// @return true if some engine would accept a record of this severity: the handle's own, or one that listens to
///         the module.
bool LogIsEnabled(uint32_t handle, uint32_t severity, uint64_t moduleKey) noexcept;

/// Makes the local time's text, "day.month.year hour:minute:second.millisecond" (the last without leading
/// zeros), and sets the record's date.
/// @return a text to be released with LogFreeText; "error_data error_time" if the clock fails.
const char* LogMakeTimeStamp(LogRecord& record) noexcept;

/// Formats by the rules of the platform's wide printf, cut to 511 characters.
/// @return a text to be released with LogFreeText; "Can't prepare error message" if memory is short.
const wchar_t* LogFormatMessage(const wchar_t* format, ...) noexcept;

/// Releases a text of the two functions above; their constant fallback texts and null are left alone.
void LogFreeText(const char* text) noexcept;
void LogFreeText(const wchar_t* text) noexcept;

/// Delivers the record to the engines that listen to its module, then to the handle's own (an engine that is
/// reached both ways gets it twice).
/// @return 0, or 0xFFFFFFFF if the handle has no engine with an active channel.
uint32_t LogSend(uint32_t handle, const LogRecord& record) noexcept;

/// Opens the handle's engine, or counts one more user of an open one. Handle 0 makes its own engine; any other
/// must have been made before (by the configuration load).
/// @param moduleTag     of the caller; every engine of this library is named "TARNIS" whatever it is
/// @param logDirectory  searched for as a path; must end in a backslash; null: the current directory
/// @param systemDetail, fileDetail, ideDetail  detail levels of the channels, 0 (off) to 5
/// @return 0, or -1 if there is no engine or no channel could be opened
int32_t LogOpen(uint32_t handle, const wchar_t* moduleTag, const wchar_t* logDirectory, uintptr_t reserved1,
                uintptr_t reserved2, uint32_t systemDetail, uint32_t fileDetail, uint32_t ideDetail) noexcept;

/// Takes back one LogOpen; the last one closes the channels and destroys the engine. Waits until no thread is
/// inside a delivery to it: do not call it from a channel. If the end of the process ended a thread inside a log
/// point, nothing is closed and no leave is taken: the system closes the channels. Then waits for the pending handles
/// (log/platform.h) and closes them.
/// @return 0
int32_t LogClose(uint32_t handle) noexcept;

namespace kestra {

/// What all log points of one source unit share.
struct LogUnit {
    const char* group;
    const wchar_t* sourceFile; ///< as records print it, for example L".\\TARNIS_grab.cpp"
};

/// The least severity that any engine accepts; above every severity while nothing listens.
extern std::atomic<uint64_t> logFloor;
bool logAcceptsExactly(uint32_t severity) noexcept;

/// True if some log engine would accept a record of this severity from this module. One load and a comparison
/// while nothing listens: nothing is formatted unless it is true.
inline bool logAccepts(uint32_t severity) noexcept {
    return severity >= logFloor.load(std::memory_order_relaxed) && logAcceptsExactly(severity);
}

/// Fills one record, formats its message and sends it. Failures are swallowed: logging never changes the outcome
/// of what is logged, nor the calling thread's last error.
void logPoint(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
              const wchar_t* format, ...) noexcept;

/// The library's log for as long as this object lives: one in a module, made when the module is loaded and destroyed
/// when it is unloaded. Opens the channels that the registry configures. Windows only.
class LogLifetime {
public:
    LogLifetime() noexcept;
    ~LogLifetime();
    LogLifetime(const LogLifetime&) = delete;
    LogLifetime& operator=(const LogLifetime&) = delete;

private:
    bool m_open;
};

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
