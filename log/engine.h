// The log engine: a set of output channels under one handle. Records are delivered by any thread at once, without
// a lock; opening, closing and thresholds are changed by one thread at a time.
#pragma once

#include "log/hashtable.h"
#include "log/line_format.h"
#include "log/log.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One output channel.
class LogOutput {
public:
    enum Type : uint32_t { kSystem = 1, kFile = 2, kDebugger = 3 };

    LogOutput(const wchar_t* name, Type type, uint32_t threshold) noexcept
        : m_name(name), m_type(type), m_threshold(threshold) {}
    virtual ~LogOutput() = default;
    LogOutput(const LogOutput&) = delete;
    LogOutput& operator=(const LogOutput&) = delete;

    /// Writes one line; may be entered by several threads at once.
    /// @param line    terminated, without a line break
    /// @param length  characters in it
    virtual uint32_t write(const wchar_t* line, size_t length, const LogRecord& record) noexcept = 0;
    /// @return 0 or an error number.
    virtual uint32_t open() noexcept = 0;
    virtual void close() noexcept = 0;

    const wchar_t* name() const noexcept { return m_name; }
    Type type() const noexcept { return m_type; }
    uint32_t detail() const noexcept { return m_detail.load(std::memory_order_relaxed); }
    void setDetail(uint32_t detail) noexcept { m_detail.store(detail, std::memory_order_relaxed); }
    uint32_t threshold() const noexcept { return m_threshold.load(std::memory_order_relaxed); }
    void setThreshold(uint32_t threshold) noexcept { m_threshold.store(threshold, std::memory_order_relaxed); }

private:
    const wchar_t* m_name;
    const Type m_type;
    std::atomic<uint32_t> m_detail{0};
    std::atomic<uint32_t> m_threshold;
};

/// The severity thresholds of the three kinds of channel, as configured.
struct LogThresholds {
    uint32_t system = 7, file = 7, debugger = 7;
};

class LogEngine {
public:
    static constexpr size_t kMaxSlots = 8;

    LogEngine() = default;
    ~LogEngine();
    LogEngine(const LogEngine&) = delete;
    LogEngine& operator=(const LogEngine&) = delete;

    /// Opens the channels whose detail level is not 0 and announces them in themselves.
    /// @return 0, or -1 if the engine has no channel then.
    int32_t Initialize(const wchar_t* moduleTag, const wchar_t* logDirectory, uint32_t systemDetail,
                       uint32_t fileDetail, uint32_t debuggerDetail) noexcept;
    /// Takes leave in the channels, closes and releases them. Nobody may be delivering.
    void Close() noexcept;

    /// Takes the channel over. @return false if all slots are taken; the channel is then released.
    bool append(std::unique_ptr<LogOutput> output) noexcept;
    /// Thresholds below 5 (as signed numbers) stand, all others become ERROR.
    void applyThresholds(const LogThresholds& thresholds) noexcept;

    size_t slotCount() const noexcept { return m_slotCount.load(std::memory_order_acquire); }
    LogOutput* slot(size_t index) const noexcept { return m_slots[index].load(std::memory_order_acquire); }
    LogOutput* find(LogOutput::Type type) const noexcept;
    bool hasActiveChannel() const noexcept;
    uint32_t minimumSeverity() const noexcept { return m_minimumSeverity.load(std::memory_order_relaxed); }
    bool accepts(uint32_t severity) const noexcept { return slotCount() != 0 && severity >= minimumSeverity(); }

    /// Formats the record for each channel that wants it. Any thread. @return 0.
    uint32_t deliver(const LogRecord& record) noexcept;

    uint32_t openCount = 0; ///< opens beyond the first; guarded by whoever opens and closes

private:
    /// A thread's context: numbers, the first of which is the time of its first record.
    struct ThreadContext {
        std::vector<uint32_t> values;
    };

    kestra::LineContext contextOf(uint32_t threadId) noexcept;
    std::wstring channelNames() const;
    void announce(const char* functionName, const wchar_t* format) noexcept;

    std::array<std::atomic<LogOutput*>, kMaxSlots> m_slots{};
    std::atomic<size_t> m_slotCount{0};
    std::atomic<uint32_t> m_minimumSeverity{LOG_MANDATORY};
    CHashtable m_contexts;
};

namespace kestra {

// The tables behind the call interface.

/// Makes sure that an engine exists under the handle. @return null if memory is short.
LogEngine* logFindOrCreateEngine(uint32_t handle) noexcept;
LogEngine* logFindEngine(uint32_t handle) noexcept;
/// From now on the handle's engine also gets the records of the module with this key.
/// @return false if memory is short.
bool logListenToModule(uint64_t moduleKey, uint32_t handle) noexcept;
/// Takes that back.
void logIgnoreModule(uint64_t moduleKey, uint32_t handle) noexcept;
/// Call after an engine's channels or thresholds changed: keeps logAccepts quick and right.
void logUpdateFloor() noexcept;
/// What opening a handle without an engine has to say: the handle in decimal and its four characters.
/// @param text  receives it, cut to `capacity` characters with the terminator
void logDescribeMissingEngine(uint32_t handle, wchar_t* text, size_t capacity) noexcept;
/// "Log Engine - " and the host's path, once an engine was opened; else empty.
std::wstring logEngineTitle();

/// Makes the channels of a platform that has any. @return null if it has none of this type or it cannot be opened.
std::unique_ptr<LogOutput> makeLogOutput(LogOutput::Type type, const wchar_t* moduleTag,
                                         const wchar_t* logDirectory) noexcept;

} // namespace kestra
