// The kinds of output channel: a row each. Portable, but for the file channel, which exists on Windows only.
#pragma once

#include "log/log.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

struct LogOutputKind;

/// One output channel.
class LogOutput {
public:
    enum Type : uint32_t { kSystem = 1, kFile = 2, kDebugger = 3 };

    explicit LogOutput(const LogOutputKind& kind) noexcept;
    LogOutput(const wchar_t* name, Type type, uint32_t threshold) noexcept
        : m_name(name), m_type(type), m_threshold(threshold) {}
    virtual ~LogOutput() = default;
    LogOutput(const LogOutput&) = delete;
    LogOutput& operator=(const LogOutput&) = delete;

    /// Writes one line; may be entered by several threads at once, and again by a thread that is inside.
    /// @param line    terminated, without a line break
    /// @param length  characters in it
    /// @param record  what the line was made of; its texts may be null
    virtual uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept = 0;
    /// @return 0 or an error number.
    virtual uint32_t open() noexcept { return 0; }
    virtual void close() noexcept {}

    const wchar_t* name() const noexcept { return m_name; }
    Type type() const noexcept { return m_type; }
    uint32_t detail() const noexcept { return m_detail.load(std::memory_order_relaxed); }
    void setDetail(uint32_t detail) noexcept { m_detail.store(detail, std::memory_order_relaxed); }
    uint32_t threshold() const noexcept { return m_threshold.load(std::memory_order_relaxed); }
    void setThreshold(uint32_t threshold) noexcept { m_threshold.store(threshold, std::memory_order_relaxed); }

private:
    const wchar_t* const m_name;
    const Type m_type;
    std::atomic<uint32_t> m_detail{0};
    std::atomic<uint32_t> m_threshold;
};

/// Everything that differs between two kinds of output. A further one is a class in a file of its own and a row in
/// outputs.cpp.
struct LogOutputKind {
    LogOutput::Type type;
    const wchar_t* name;
    uint32_t threshold;            ///< until one is configured
    const wchar_t* detailValue;    ///< names of its registry values
    const wchar_t* thresholdValue; ///< likewise
    bool reopeningSetsDetail;      ///< a second opening of the log changes its detail
    /// @return null if memory is short, or the system has no such output.
    std::unique_ptr<LogOutput> (*make)(const wchar_t* moduleTag, const wchar_t* logDirectory);
};

/// In the order in which an engine opens them; the row of a type is number type - 1.
std::span<const LogOutputKind> logOutputKinds() noexcept;

/// A number for each kind of output, by row.
using LogLevels = std::array<uint32_t, 8>;
inline constexpr LogLevels kDefaultThresholds{7, 7, 7, 7, 7, 7, 7, 7}; ///< stand for ERROR, see applyThresholds

inline LogOutput::LogOutput(const LogOutputKind& kind) noexcept : LogOutput(kind.name, kind.type, kind.threshold) {}

/// Accepts every line and writes nothing.
class EventOutput final : public LogOutput {
public:
    EventOutput() noexcept : LogOutput(logOutputKinds()[kSystem - 1]) {}
    uint32_t write(const wchar_t*, size_t, const LogRecord&) noexcept override { return 0; }
};

/// Sends each line, with a line feed, to the debugger output.
class IDEOutput final : public LogOutput {
public:
    IDEOutput() noexcept : LogOutput(logOutputKinds()[kDebugger - 1]) {}
    uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept override;
};
