// A log output that keeps its lines and records, for tests.
#pragma once

#include "log/engine.h"

#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace kestra::test {

/// What a record said, with its texts copied.
struct SeenRecord {
    std::string group, functionName, moduleTag, timeText;
    std::wstring sourceFile, message;
    uint32_t severity;
    int32_t code, line;
};

class RecordingOutput final : public LogOutput {
public:
    struct Seen {
        std::mutex mutex;
        std::vector<std::wstring> lines;
        std::vector<SeenRecord> records;
        int opened = 0, closed = 0;
    };

    /// @param seen outlives the channel, which its engine owns.
    RecordingOutput(Seen& seen, Type type, uint32_t detail, uint32_t threshold) noexcept
        : LogOutput(L"Recording", type, threshold), m_seen(seen) {
        setDetail(detail);
    }
    uint32_t write(const wchar_t* line, size_t length, const LogRecord& r) noexcept override {
        try {
            const std::lock_guard lock(m_seen.mutex);
            m_seen.lines.emplace_back(line, length);
            m_seen.records.push_back({textOf(r.group), textOf(r.functionName), textOf(r.moduleTag), textOf(r.timeText),
                                      textOf(r.sourceFile), textOf(r.message), r.severity, r.code, r.line});
            return 0;
        } catch (const std::bad_alloc&) { // provoked by a test: the record is lost
            return 1;
        }
    }
    uint32_t open() noexcept override {
        ++m_seen.opened;
        return 0;
    }
    void close() noexcept override { ++m_seen.closed; }

private:
    template <class Char>
    static std::basic_string<Char> textOf(const Char* text) {
        return text ? text : std::basic_string<Char>();
    }

    Seen& m_seen;
};

/// Listens to the library's log for the life of an object: every record of any severity.
class LibraryLogCapture {
public:
    LibraryLogCapture() {
        LogEngine* engine = kestra::logFindOrCreateEngine(kTarnisLogHandle);
        engine->append(std::make_unique<RecordingOutput>(m_seen, LogOutput::kDebugger, 5, 0));
        engine->applyThresholds({0, 0, 0});
        kestra::logUpdateFloor();
    }
    ~LibraryLogCapture() { LogClose(kTarnisLogHandle); }
    LibraryLogCapture(const LibraryLogCapture&) = delete;
    LibraryLogCapture& operator=(const LibraryLogCapture&) = delete;

    std::vector<SeenRecord> records() {
        const std::lock_guard lock(m_seen.mutex);
        return m_seen.records;
    }
    /// How many records have exactly this message.
    int count(const std::wstring& message) {
        int found = 0;
        for (const SeenRecord& record : records())
            found += record.message == message;
        return found;
    }
    void clear() {
        const std::lock_guard lock(m_seen.mutex);
        m_seen.lines.clear();
        m_seen.records.clear();
    }

private:
    RecordingOutput::Seen m_seen;
};

} // namespace kestra::test
