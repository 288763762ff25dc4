// The log on a system without a file channel: enough for the portable code to log into nothing, and for the native
// tests to put channels of their own on an engine.
#include "log/platform.h"

#include <cerrno>
#include <ctime>
#include <cwchar>

#include <pthread.h>
#include <unistd.h>

namespace kestra::platform {

bool localTime(LocalTime& time, int& error) noexcept {
    timespec now{};
    tm broken{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || !localtime_r(&now.tv_sec, &broken)) {
        error = errno;
        return false;
    }
    time = {broken.tm_year + 1900,
            broken.tm_mon + 1,
            broken.tm_mday,
            broken.tm_hour,
            broken.tm_min,
            broken.tm_sec,
            static_cast<uint32_t>(now.tv_nsec / 1000000)};
    return true;
}

uint32_t secondsNow() noexcept {
    return static_cast<uint32_t>(std::time(nullptr));
}

uint32_t processId() noexcept {
    return static_cast<uint32_t>(getpid());
}

uint32_t threadId() noexcept {
    return static_cast<uint32_t>(gettid());
}

uint64_t moduleKey() noexcept {
    return 0x140000000;
}

const wchar_t* commandLine() noexcept {
    return L"native";
}

void format(wchar_t* buffer, size_t capacity, const wchar_t* text, va_list arguments) noexcept {
    buffer[0] = L'\0';
    std::vswprintf(buffer, capacity, text, arguments);
    buffer[capacity - 1] = L'\0';
}

void debugOutput(const wchar_t*) noexcept {}
bool processIsEnding() noexcept {
    return false; // other threads keep running during cleanup
}
bool addPendingHandle(void*) noexcept {
    return false;
}
void waitForPendingHandles() noexcept {}
std::unique_ptr<LogOutput> makeFileOutput(const wchar_t*, const wchar_t*) {
    return nullptr;
}

KeepLastError::KeepLastError() noexcept : m_error(static_cast<uint32_t>(errno)) {}
KeepLastError::~KeepLastError() {
    errno = static_cast<int>(m_error);
}

} // namespace kestra::platform
