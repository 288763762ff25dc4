// The file channel. Windows only. Written to by any thread; opened and closed by one.
#pragma once

#include "log/outputs.h"
#include "win32/handle.h"

/// Appends UTF-16 lines to one file that all processes share; a named mutex keeps their lines apart.
class FileOutput final : public LogOutput {
public:
    /// No registry value sets them: for programs that make a channel of their own.
    struct Options {
        bool flushOnlyOnErrors = true;
        bool createAnew = false; ///< empties a file that is there
        bool dailyNames = false; ///< a file for each day, with the date in its name
    };

    /// @param moduleTag  base name of the file; null or empty: "ZeLog"
    /// @param logDirectory  searched for as a path; not found or null: the current directory
    FileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory) noexcept
        : FileOutput(moduleTag, logDirectory, Options()) {}
    FileOutput(const wchar_t* moduleTag, const wchar_t* logDirectory, Options options) noexcept;
    ~FileOutput() override { FileOutput::close(); }

    /// @return 0; 0xFFFFFFFF at once with no file. A line that cannot be written is lost. Somebody who never gives the
    ///         mutex back costs each thread one wait of 25 s; until it is free again, lines are then lost quickly.
    ///         A line that finds no file after a change of date tries to open it for the lines that follow.
    uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept override;
    uint32_t open() noexcept override;
    void close() noexcept override;

    /// Why open failed, for a debugger; empty if it did not.
    const wchar_t* errorText() const noexcept { return m_error; }

private:
    static constexpr size_t kPathCapacity = 260;
    struct Date {
        int32_t day = -1, month = -1, year = 0;
        bool operator==(const Date&) const = default;
    };

    uint32_t openMutex() noexcept;
    uint32_t openFile() noexcept;
    uint32_t makeDirectory() noexcept;
    uint32_t patienceMs() const noexcept;
    uint32_t fail(uint32_t error, const wchar_t* format, ...) noexcept;

    const Options m_options;
    wchar_t m_directory[kPathCapacity];
    wchar_t m_baseName[kPathCapacity];
    wchar_t m_error[kPathCapacity + 64] = L"";
    kestra::UniqueObject m_mutex;
    kestra::UniqueFile m_file;           // while writing: under m_mutex
    std::atomic<bool> m_isOpen{false};   // there is a file
    std::atomic<bool> m_isHeldUp{false}; // the last line was lost because somebody kept the mutex
    Date m_date;                         // of the file; under m_mutex
};
