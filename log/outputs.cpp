// The channels' system calls.
#include "log/outputs.h"

#include "log/platform.h"
#include "win32/mutex_lock.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <new>

using namespace kestra;

namespace {

constexpr wchar_t kMutexName[] = L"ZELIB_WRITING_MUTEX";
constexpr uint32_t kNotOpen = 0xFFFFFFFF;

} // namespace

uint32_t IDEOutput::write(const wchar_t* line, size_t, const LogRecord&) noexcept {
    AcquireSRWLockExclusive(&m_lock);
    OutputDebugStringW(line);
    OutputDebugStringW(L"\n");
    ReleaseSRWLockExclusive(&m_lock);
    return 0;
}

FileOutput::FileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory) noexcept
    : LogOutput(L"File_Output", kFile, 0) {
    m_fileName[0] = m_error[0] = L'\0';
    std::swprintf(m_baseName, kPathCapacity, L"%ls", moduleTag && *moduleTag ? moduleTag : L"ZeLog");
    const DWORD found =
        logDirectory ? SearchPathW(nullptr, logDirectory, nullptr, kPathCapacity, m_directory, nullptr) : 0;
    if (found != 0 && found < kPathCapacity) return;
    const DWORD length = GetCurrentDirectoryW(kPathCapacity - 1, m_directory);
    if (length == 0 || length >= kPathCapacity - 1) {
        std::wcscpy(m_directory, L".\\");
    } else if (m_directory[length - 1] != L'\\') {
        m_directory[length] = L'\\';
        m_directory[length + 1] = L'\0';
    }
}

FileOutput::~FileOutput() {
    FileOutput::close();
}

uint32_t FileOutput::fail(const wchar_t* format, const wchar_t* subject, uint32_t error) noexcept {
    std::swprintf(m_error, std::size(m_error), format, subject, static_cast<int>(error));
    m_error[std::size(m_error) - 1] = L'\0';
    return error != 0 ? error : uint32_t{ERROR_GEN_FAILURE};
}

bool FileOutput::hasDateOf(const LogRecord& record) const noexcept {
    return record.day == m_day && record.month == m_month && record.year == m_year;
}

uint32_t FileOutput::open() noexcept {
    platform::LocalTime now{};
    int error = 0;
    if (!platform::localTime(now, error)) {
        std::swprintf(m_error, std::size(m_error), L"Failed _ftime64_s, error: %d", error);
        return error != 0 ? static_cast<uint32_t>(error) : uint32_t{ERROR_GEN_FAILURE};
    }
    m_day = now.day;
    m_month = now.month;
    m_year = now.year;
    // Error texts first name the directory, then the mutex, then the file: the order of the calls.
    if (const uint32_t status = makeDirectory()) return status;
    if (const uint32_t status = openMutex()) return status;
    return openFile();
}

uint32_t FileOutput::makeDirectory() noexcept {
    // The directory is what stands before the last backslash; what follows belongs to the file's name.
    wchar_t path[kPathCapacity];
    std::wcscpy(path, m_directory);
    wchar_t* end = std::wcsrchr(path, L'\\');
    if (!end) return 0;
    *end = L'\0';
    if (GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES) return 0;
    for (wchar_t* p = path; (p = std::wcschr(p + 1, L'\\')) != nullptr;) {
        *p = L'\0';
        CreateDirectoryW(path, nullptr); // the last one's result decides
        *p = L'\\';
    }
    if (CreateDirectoryW(path, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) return 0;
    return fail(L"Can't create directory: %ls; error: %d", m_directory, GetLastError());
}

uint32_t FileOutput::openMutex() noexcept {
    if (m_mutex) return 0;
    m_mutex = UniqueObject(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, kMutexName));
    if (m_mutex) return 0;
    if (GetLastError() != ERROR_FILE_NOT_FOUND)
        return fail(L"Can't open mutex: %ls; error: %d", kMutexName, GetLastError());
    m_mutex = UniqueObject(CreateMutexW(nullptr, FALSE, kMutexName));
    return m_mutex ? 0 : fail(L"Can't create mutex: %ls; error: %d", kMutexName, GetLastError());
}

uint32_t FileOutput::openFile() noexcept {
    if (m_dailyNames)
        _snwprintf(m_fileName, kPathCapacity - 1, L"%ls%ls_%02d_%02d_%04d.txt", m_directory, m_baseName, m_day, m_month,
                   m_year);
    else
        _snwprintf(m_fileName, kPathCapacity - 1, L"%ls%ls.txt", m_directory, m_baseName);
    m_fileName[kPathCapacity - 1] = L'\0';
    m_file =
        UniqueFile(CreateFileW(m_fileName, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               m_createAnew ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!m_file) return fail(L"Can't create log file: %ls; error: %d", m_fileName, GetLastError());
    constexpr uint16_t kByteOrderMark = 0xFEFF; // the bytes FF FE
    DWORD written = 0;
    WriteFile(m_file.get(), &kByteOrderMark, sizeof kByteOrderMark, &written, nullptr);
    return 0;
}

uint32_t FileOutput::reopenFile() noexcept {
    if (m_file) FlushFileBuffers(m_file.get());
    m_file = UniqueFile();
    if (const uint32_t status = makeDirectory()) return status;
    return openFile();
}

uint32_t FileOutput::write(const wchar_t* line, size_t length, const LogRecord& record) noexcept {
    if (!m_mutex) return kNotOpen;
    const MutexLock lock(m_mutex.get(), kMutexTimeoutMs);
    if (!lock.isHeld()) return 0;
    const bool hadFile = bool(m_file);
    if (!hadFile || !hasDateOf(record)) {
        m_day = record.day;
        m_month = record.month;
        m_year = record.year;
        // A line that finds no file is lost; what made the file go may have passed for the next one.
        if (reopenFile() != 0 || !hadFile) return kNotOpen;
    }
    // One write: the line and its line break, in the same order as two would leave them.
    wchar_t buffer[kLineCapacity + 2];
    length = std::min(length, kLineCapacity);
    std::wmemcpy(buffer, line, length);
    buffer[length] = L'\r';
    buffer[length + 1] = L'\n';
    SetFilePointer(m_file.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    WriteFile(m_file.get(), buffer, static_cast<DWORD>((length + 2) * sizeof(wchar_t)), &written, nullptr);
    if (record.severity == LOG_ERROR || !m_flushOnlyOnErrors) FlushFileBuffers(m_file.get());
    return 0;
}

void FileOutput::close() noexcept {
    if (m_file)
        if (const MutexLock lock(m_mutex.get(), kMutexTimeoutMs); lock.isHeld()) FlushFileBuffers(m_file.get());
    m_file = UniqueFile();
    m_mutex = UniqueObject();
}

namespace kestra {

std::unique_ptr<LogOutput> makeLogOutput(LogOutput::Type type, const wchar_t* moduleTag,
                                         const wchar_t* logDirectory) noexcept {
    std::unique_ptr<LogOutput> output;
    switch (type) {
    case LogOutput::kSystem:
        output.reset(new (std::nothrow) EventOutput);
        break;
    case LogOutput::kFile:
        output.reset(new (std::nothrow) FileOutput(moduleTag, logDirectory));
        break;
    case LogOutput::kDebugger:
        output.reset(new (std::nothrow) IDEOutput);
        break;
    }
    if (output && output->open() != 0) output.reset();
    return output;
}

} // namespace kestra
