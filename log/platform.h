// What the log needs from the operating system. Private to log/.
#pragma once

#include "log/outputs.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace kestra::platform {

struct LocalTime {
    int32_t year, month, day, hour, minute, second;
    uint32_t millisecond;
};

/// @return false and the system's error number if the clock or the conversion to local time fails.
bool localTime(LocalTime& time, int& error) noexcept;
/// Seconds since 1970, as 32 bits.
uint32_t secondsNow() noexcept;
uint32_t processId() noexcept;
uint32_t threadId() noexcept;
/// Instance handle of the module that this code is part of.
uint64_t moduleKey() noexcept;
const wchar_t* commandLine() noexcept;
/// printf into a buffer of `capacity` characters, always terminated.
void format(wchar_t* buffer, size_t capacity, const wchar_t* format, va_list arguments) noexcept;
void debugOutput(const wchar_t* text) noexcept;
/// True once the process's exit has ended all other threads, wherever they stood.
bool processIsEnding() noexcept;
/// Gives a waitable handle to the log, for programs that have work under way when they close a log: the next LogClose
/// waits for it and closes it. This library gives none.
/// @return false if memory is short; the handle then stays the caller's.
bool addPendingHandle(void* handle) noexcept;
/// Waits, with messages pumped, for all handles given to addPendingHandle, then closes them.
void waitForPendingHandles() noexcept;
/// @return null if memory is short, or the system has no file channel.
std::unique_ptr<LogOutput> makeFileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory);

/// Keeps the calling thread's last error unchanged.
class KeepLastError {
public:
    KeepLastError() noexcept;
    ~KeepLastError();
    KeepLastError(const KeepLastError&) = delete;
    KeepLastError& operator=(const KeepLastError&) = delete;

private:
    uint32_t m_error;
};

} // namespace kestra::platform
