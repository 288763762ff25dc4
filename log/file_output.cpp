// The file channel's system calls.
#include "log/file_output.h"

#include "log/line_format.h"
#include "log/platform.h"
#include "win32/mutex_lock.h"

#include <algorithm>
#include <cwchar>
#include <iterator>

using namespace kestra;

namespace {

constexpr wchar_t kMutexName[] = L"ZELIB_WRITING_MUTEX";
constexpr DWORD kMutexTimeoutMs = 25000;
constexpr DWORD kHeldUpTimeoutMs = 10; // once the mutex was not had in time: no further call waits as long again
constexpr uint32_t kNotOpen = 0xFFFFFFFF;

} // namespace

FileOutput::FileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory, Options options) noexcept
    : LogOutput(logOutputKinds()[kFile - 1]), m_options(options) {
    std::swprintf(m_baseName, kPathCapacity, L"%ls", moduleTag && *moduleTag ? moduleTag : L"ZeLog");
    const DWORD found =
        logDirectory ? SearchPathW(nullptr, logDirectory, nullptr, kPathCapacity, m_directory, nullptr) : 0;
    if (found != 0 && found < kPathCapacity) return;
    const DWORD length = GetCurrentDirectoryW(kPathCapacity - 1, m_directory);
    if (length == 0 || length >= kPathCapacity - 1)
        std::wcscpy(m_directory, L".\\");
    else if (m_directory[length - 1] != L'\\')
        std::wcscpy(m_directory + length, L"\\");
}

uint32_t FileOutput::fail(uint32_t error, const wchar_t* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    platform::format(m_error, std::size(m_error), format, arguments);
    va_end(arguments);
    return error != 0 ? error : uint32_t{ERROR_GEN_FAILURE};
}

uint32_t FileOutput::open() noexcept {
    platform::LocalTime now{};
    int error = 0;
    if (!platform::localTime(now, error))
        return fail(static_cast<uint32_t>(error), L"Failed _ftime64_s, error: %d", error);
    m_date = {now.day, now.month, now.year};
    // In this order, so that the error text names the directory before the mutex before the file.
    if (const uint32_t status = makeDirectory()) return status;
    if (const uint32_t status = openMutex()) return status;
    return openFile();
}

uint32_t FileOutput::makeDirectory() noexcept {
    // The directory ends at the last backslash; what follows belongs to the file's name.
    wchar_t path[kPathCapacity];
    std::wcscpy(path, m_directory);
    wchar_t* end = std::wcsrchr(path, L'\\');
    if (!end) return 0;
    *end = L'\0';
    if (GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES) return 0;
    for (wchar_t* p = path; (p = std::wcschr(p + 1, L'\\')) != nullptr; *p = L'\\') {
        *p = L'\0';
        CreateDirectoryW(path, nullptr); // only the last result matters
    }
    if (CreateDirectoryW(path, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) return 0;
    const DWORD error = GetLastError();
    return fail(error, L"Can't create directory: %ls; error: %d", m_directory, error);
}

uint32_t FileOutput::openMutex() noexcept {
    if (m_mutex) return 0;
    m_mutex = UniqueObject(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, kMutexName));
    if (m_mutex) return 0;
    DWORD error = GetLastError();
    if (error != ERROR_FILE_NOT_FOUND) return fail(error, L"Can't open mutex: %ls; error: %d", kMutexName, error);
    m_mutex = UniqueObject(CreateMutexW(nullptr, FALSE, kMutexName));
    error = GetLastError();
    return m_mutex ? 0 : fail(error, L"Can't create mutex: %ls; error: %d", kMutexName, error);
}

uint32_t FileOutput::openFile() noexcept {
    wchar_t date[40] = L"", name[kPathCapacity];
    if (m_options.dailyNames) std::swprintf(date, 40, L"_%02d_%02d_%04d", m_date.day, m_date.month, m_date.year);
    _snwprintf(name, kPathCapacity - 1, L"%ls%ls%ls.txt", m_directory, m_baseName, date);
    name[kPathCapacity - 1] = L'\0';
    // A folder of pipes or devices is none for a log; whoever waits behind such a name must not act as this program.
    constexpr DWORD kAsNobody = SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS;
    m_file = UniqueFile(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    m_options.createAnew ? CREATE_ALWAYS : OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL | kAsNobody, nullptr));
    DWORD error = GetLastError();
    if (m_file && GetFileType(m_file.get()) != FILE_TYPE_DISK) {
        m_file = UniqueFile();
        error = ERROR_BAD_PATHNAME;
    }
    m_isOpen = bool(m_file);
    if (!m_file) return fail(error, L"Can't create log file: %ls; error: %d", name, error);
    constexpr uint16_t kByteOrderMark = 0xFEFF; // the bytes FF FE
    DWORD written = 0;
    WriteFile(m_file.get(), &kByteOrderMark, sizeof kByteOrderMark, &written, nullptr);
    return 0;
}

uint32_t FileOutput::patienceMs() const noexcept {
    return m_isHeldUp ? kHeldUpTimeoutMs : kMutexTimeoutMs;
}

uint32_t FileOutput::write(const wchar_t* line, size_t length, const LogRecord& record) noexcept {
    const bool wasOpen = m_isOpen;
    if (!m_mutex) return kNotOpen;
    const MutexLock lock(m_mutex.get(), wasOpen ? patienceMs() : 0);
    if (wasOpen) m_isHeldUp = !lock.isHeld();
    if (!lock.isHeld()) return wasOpen ? 0 : kNotOpen;
    const Date date{record.day, record.month, record.year};
    const bool hadFile = bool(m_file);
    if (!hadFile || date != m_date) {
        m_date = date;
        if (hadFile) FlushFileBuffers(m_file.get());
        m_file = UniqueFile();
        m_isOpen = false;
        // A line that finds no file is lost; for the next one the cause may have passed.
        if (makeDirectory() != 0 || openFile() != 0 || !hadFile) return kNotOpen;
    }
    // Line and line break in one write.
    wchar_t buffer[kLineCapacity + 2];
    length = std::min(length, kLineCapacity);
    std::wmemcpy(buffer, line, length);
    buffer[length] = L'\r';
    buffer[length + 1] = L'\n';
    SetFilePointer(m_file.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    WriteFile(m_file.get(), buffer, static_cast<DWORD>((length + 2) * sizeof(wchar_t)), &written, nullptr);
    // Not after MANDATORY: see docs/compatibility.md.
    if (record.severity == LOG_ERROR || !m_options.flushOnlyOnErrors) FlushFileBuffers(m_file.get());
    return 0;
}

void FileOutput::close() noexcept {
    if (m_file)
        if (const MutexLock lock(m_mutex.get(), patienceMs()); lock.isHeld()) FlushFileBuffers(m_file.get());
    m_file = UniqueFile();
    m_mutex = UniqueObject();
    m_isOpen = false;
}

std::unique_ptr<LogOutput> platform::makeFileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory) {
    return std::unique_ptr<LogOutput>(new (std::nothrow) FileOutput(moduleTag, logDirectory));
}
