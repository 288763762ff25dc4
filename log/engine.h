// The log engine: a set of output channels under one handle. Records are delivered by any thread at once, without
// a lock; opening, closing and thresholds are changed by one thread at a time.
#pragma once

#include "log/hashtable.h"
#include "log/line_format.h"
#include "log/log.h"
#include "log/outputs.h"

class LogEngine {
public:
    static constexpr size_t kMaxSlots = LogLevels{}.size();

    /// Opens the channels whose detail level is not 0 and announces them there.
    /// @return 0, or -1 if the engine has no channel then.
    int32_t Initialize(const wchar_t* moduleTag, const wchar_t* logDirectory, const LogLevels& details) noexcept;
    /// Announces the end in the channels, closes and releases them. Nobody may be delivering.
    void Close() noexcept;

    /// Takes ownership of the channel; null makes an empty slot. @return false if all slots are taken; the channel is
    /// then released.
    bool append(std::unique_ptr<LogOutput> output) noexcept;
    /// Thresholds below 5 (as signed numbers) stand, all others become ERROR.
    void applyThresholds(const LogLevels& thresholds) noexcept;

    size_t slotCount() const noexcept { return m_slotCount.load(std::memory_order_acquire); }
    LogOutput* slot(size_t index) const noexcept { return m_slots[index].get(); }
    LogOutput* find(LogOutput::Type type) const noexcept;
    bool hasActiveChannel() const noexcept;
    uint32_t minimumSeverity() const noexcept { return m_minimumSeverity.load(std::memory_order_relaxed); }
    bool accepts(uint32_t severity) const noexcept { return slotCount() != 0 && severity >= minimumSeverity(); }

    /// Formats the record for each channel that wants it. Any thread. @return 0.
    uint32_t deliver(const LogRecord& record) noexcept;

    uint32_t openCount = 0; ///< opens beyond the first; guarded by whoever opens and closes

private:
    kestra::LineContext contextOf(uint32_t threadId) noexcept;
    void announce(const char* functionName, const wchar_t* format) noexcept;

    std::array<std::unique_ptr<LogOutput>, kMaxSlots> m_slots; // each written before it is counted
    std::atomic<size_t> m_slotCount{0};
    std::atomic<uint32_t> m_minimumSeverity{LOG_MANDATORY};
    CHashtable<const uint32_t> m_firstSeconds; // by thread id: the time of its first record
};

namespace kestra {

/// A record of this moment on this thread.
class OwnRecord {
public:
    /// @param message  from LogFormatMessage; becomes the record's
    OwnRecord(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
              const wchar_t* message) noexcept;
    ~OwnRecord() {
        LogFreeText(m_record.timeText);
        LogFreeText(m_record.message);
    }
    OwnRecord(const OwnRecord&) = delete;
    OwnRecord& operator=(const OwnRecord&) = delete;
    const LogRecord& get() const noexcept { return m_record; }

private:
    LogRecord m_record;
};

/// LogOpen with a detail level for every kind of output.
int32_t logOpen(uint32_t handle, const wchar_t* logDirectory, const LogLevels& details) noexcept;
/// Makes sure that an engine exists under the handle. @return null if memory is short.
LogEngine* logFindOrCreateEngine(uint32_t handle) noexcept;
LogEngine* logFindEngine(uint32_t handle) noexcept;
/// From now on the handle's engine also gets the records of the module with this key: for programs that watch one with
/// an engine of their own. This library never listens. @return false if memory is short.
bool logListenToModule(uint64_t moduleKey, uint32_t handle) noexcept;
/// Undoes logListenToModule.
void logIgnoreModule(uint64_t moduleKey, uint32_t handle) noexcept;
/// Module table key: h = h * 31 + c over the key's two halves printed in hexadecimal.
uint32_t logModuleHash(uint64_t moduleKey) noexcept;
/// Call after an engine's channels or thresholds changed: keeps logAccepts up to date.
void logUpdateFloor() noexcept;
/// Reads the current user's configuration (docs/compatibility.md), makes the library's engine and opens the channels
/// that are configured. Without configuration nothing is ever written. Windows only.
/// @return true if the log is open now.
bool logLoadConfiguration() noexcept;

} // namespace kestra
