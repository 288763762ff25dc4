// The three channels. Windows only. Written to by any thread; opened and closed by one.
#pragma once

#include "log/engine.h"
#include "win32/handle.h"

#include <windows.h>

/// Accepts every line and writes nothing.
class EventOutput final : public LogOutput {
public:
    EventOutput() noexcept : LogOutput(L"System_Output_Stub", kSystem, 0) {}
    uint32_t write(const wchar_t*, size_t, const LogRecord&) noexcept override { return 0; }
    uint32_t open() noexcept override { return 0; }
    void close() noexcept override {}
};

/// Sends each line, then a line feed, to the debugger output.
class IDEOutput final : public LogOutput {
public:
    IDEOutput() noexcept : LogOutput(L"IDE_Output", kDebugger, LOG_ERROR) {}
    uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept override;
    uint32_t open() noexcept override { return 0; }
    void close() noexcept override {}

private:
    SRWLOCK m_lock = SRWLOCK_INIT; // a line and its line feed stay together
};

/// Appends UTF-16 lines to one file that all processes share; a named mutex keeps their lines apart.
class FileOutput final : public LogOutput {
public:
    /// @param moduleTag  base name of the file; null or empty: "ZeLog"
    /// @param logDirectory  searched for as a path; not found or null: the current directory
    FileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory) noexcept;
    ~FileOutput() override;

    /// @return 0; 0xFFFFFFFF with no file. A line that cannot be written is lost.
    ///         A line that finds no file after a change of date tries to open it for the lines that follow.
    uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept override;
    uint32_t open() noexcept override;
    void close() noexcept override;

    /// Why open failed; empty if it did not.
    const wchar_t* errorText() const noexcept { return m_error; }
    const wchar_t* fileName() const noexcept { return m_fileName; }
    void setFlushOnlyOnErrors(bool only) noexcept { m_flushOnlyOnErrors = only; }
    void setCreateAnew(bool anew) noexcept { m_createAnew = anew; }
    void setDailyNames(bool daily) noexcept { m_dailyNames = daily; }

private:
    static constexpr size_t kPathCapacity = 260;
    static constexpr DWORD kMutexTimeoutMs = 25000;

    uint32_t openMutex() noexcept;
    uint32_t openFile() noexcept;
    uint32_t reopenFile() noexcept;
    uint32_t makeDirectory() noexcept;
    uint32_t fail(const wchar_t* format, const wchar_t* subject, uint32_t error) noexcept;
    bool hasDateOf(const LogRecord& record) const noexcept;

    wchar_t m_directory[kPathCapacity];
    wchar_t m_baseName[kPathCapacity];
    wchar_t m_fileName[kPathCapacity];
    wchar_t m_error[kPathCapacity + 64];
    kestra::UniqueFile m_file;
    kestra::UniqueObject m_mutex;
    int32_t m_day = -1, m_month = -1, m_year = 0; // of the open file
    bool m_flushOnlyOnErrors = true;
    bool m_createAnew = false;
    bool m_dailyNames = false;
};
