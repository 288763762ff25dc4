// The call interface: tables of engines and modules, dispatch, opening and closing.
#include "log/log.h"

#include "log/engine.h"
#include "log/platform.h"
#include "log/reader_gate.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace kestra;

namespace {

constexpr uint64_t kNobodyListens = uint64_t{1} << 32;
constexpr uint32_t kNoActiveChannel = 0xFFFFFFFF;
constexpr char kNoTime[] = "error_data error_time";
constexpr wchar_t kNoMessage[] = L"Can't prepare error message";
constexpr size_t kTimeBytes = 32;
constexpr size_t kMessageCapacity = 512; // characters

/// Handles of the engines that want a module's records; replaced whole when it changes.
using HandleList = std::vector<uint32_t>;

/// The library asks about its own module at every log point: its hash is computed once.
uint32_t hashOf(uint64_t moduleKey) noexcept {
    static const uint32_t own = logModuleHash(platform::moduleKey());
    return moduleKey == platform::moduleKey() ? own : logModuleHash(moduleKey);
}

/// The engines, and who listens to which module. Lookups and their use happen inside the gate.
struct Registry {
    CHashtable<LogEngine> engines;
    CHashtable<HandleList> modules;
    ReaderGate gate;
    Mutex changes; // opening, closing and listening

    static constexpr uint32_t keyOf(uint32_t handle) noexcept { return handle == 0 ? 0xFFFFFFFF : handle; }
    LogEngine* find(uint32_t handle) const noexcept { return engines.find(keyOf(handle)); }
    LogEngine* findOrCreate(uint32_t handle) noexcept {
        if (LogEngine* engine = find(handle)) return engine;
        return engines.findOrInsert(keyOf(handle), std::unique_ptr<LogEngine>(new (std::nothrow) LogEngine));
    }

    /// Calls visit(engine) for the engines that listen to the module until one answers true. @return whether one did.
    template <class Visit>
    bool anyListener(uint64_t moduleKey, Visit visit) const {
        if (const HandleList* listeners = modules.find(hashOf(moduleKey)))
            for (const uint32_t listener : *listeners)
                if (LogEngine* engine = find(listener); engine && visit(*engine)) return true;
        return false;
    }
    /// Changes the module's list of listeners: change(list). @return false if memory is short.
    template <class Change>
    bool changeListeners(uint64_t moduleKey, Change change) noexcept {
        const LockGuard lock(changes);
        try {
            const HandleList* now = modules.find(hashOf(moduleKey));
            auto list = std::make_unique<HandleList>(now ? *now : HandleList());
            change(*list);
            const bool changed = modules.exchange(hashOf(moduleKey), list);
            gate.waitForReaders(); // of the former list
            return changed;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    void updateFloor() noexcept REQUIRES(changes) {
        uint64_t floor = kNobodyListens;
        engines.forEach([&](uint32_t, const LogEngine& engine) {
            if (engine.slotCount() != 0 && engine.minimumSeverity() < floor) floor = engine.minimumSeverity();
        });
        logFloor.store(floor, std::memory_order_relaxed);
    }
    /// @param closed  set if the engine has been closed again
    int32_t open(uint32_t handle, const wchar_t* logDirectory, const LogLevels& details, bool& closed) noexcept
        REQUIRES(changes) {
        LogEngine* engine = handle == 0 ? findOrCreate(handle) : find(handle);
        if (!engine) return -1;
        if (engine->slotCount() != 0) {
            ++engine->openCount;
        } else if (engine->Initialize(L"TARNIS", logDirectory, details) != 0) {
            close(handle);
            closed = true;
            return -1;
        }
        updateFloor();
        return 0;
    }
    void close(uint32_t handle) noexcept REQUIRES(changes) {
        LogEngine* engine = find(handle);
        if (!engine) return;
        if (engine->openCount != 0) {
            --engine->openCount;
            return;
        }
        // Out of reach first: once the threads that are still delivering have left, nobody else uses the engine.
        std::unique_ptr<LogEngine> closing;
        engines.exchange(keyOf(handle), closing);
        updateFloor();
        gate.waitForReaders();
        closing->Close();
    }
    /// True if the end of the process caught a thread inside the log. That thread never leaves the gate nor releases
    /// what it held, be it a lock of ours or of the system: waiting would be forever.
    bool wreckedByProcessEnd() noexcept {
        if (!platform::processIsEnding()) return false;
        if (!changes.try_lock()) return true;
        changes.unlock();
        return !gate.isEmpty();
    }
};

struct UnlessWrecked {
    void operator()(Registry* registry) const noexcept {
        logFloor.store(kNobodyListens, std::memory_order_relaxed);
        if (!registry->wreckedByProcessEnd()) std::destroy_at(registry); // otherwise the system reclaims everything
    }
};

Registry& registry() noexcept {
    alignas(Registry) static std::byte room[sizeof(Registry)];
    static const std::unique_ptr<Registry, UnlessWrecked> instance(new (room) Registry);
    return *instance;
}

/// Formats into fresh memory. @return kNoMessage if there is none.
const wchar_t* formatMessage(const wchar_t* format, va_list arguments) noexcept {
    auto* message = static_cast<wchar_t*>(std::malloc(kMessageCapacity * sizeof(wchar_t)));
    if (!message) return kNoMessage;
    platform::format(message, kMessageCapacity, format, arguments);
    return message;
}

} // namespace

namespace kestra {

std::atomic<uint64_t> logFloor{kNobodyListens};

LogEngine* logFindEngine(uint32_t handle) noexcept {
    return registry().find(handle);
}

LogEngine* logFindOrCreateEngine(uint32_t handle) noexcept {
    const LockGuard lock(registry().changes);
    return registry().findOrCreate(handle);
}

void logUpdateFloor() noexcept {
    Registry& all = registry();
    const LockGuard lock(all.changes);
    all.updateFloor();
}

bool logListenToModule(uint64_t moduleKey, uint32_t handle) noexcept {
    return registry().changeListeners(moduleKey, [=](HandleList& list) { list.push_back(handle); });
}

void logIgnoreModule(uint64_t moduleKey, uint32_t handle) noexcept {
    registry().changeListeners(moduleKey, [=](HandleList& list) { std::erase(list, handle); });
}

uint32_t logModuleHash(uint64_t moduleKey) noexcept {
    uint32_t hash = 0;
    for (const uint32_t half : {static_cast<uint32_t>(moduleKey >> 32), static_cast<uint32_t>(moduleKey)}) {
        int shift = 28;
        while (shift > 0 && half >> shift == 0)
            shift -= 4;
        for (; shift >= 0; shift -= 4)
            hash = hash * 31 + static_cast<uint32_t>("0123456789abcdef"[half >> shift & 0xF]);
    }
    return hash;
}

bool logAcceptsExactly(uint32_t severity) noexcept {
    return LogIsEnabled(kTarnisLogHandle, severity, platform::moduleKey());
}

OwnRecord::OwnRecord(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
                     const wchar_t* message) noexcept {
    m_record.timeText = LogMakeTimeStamp(m_record);
    m_record.message = message;
    m_record.processId = platform::processId();
    m_record.threadId = platform::threadId();
    m_record.moduleKey = platform::moduleKey();
    m_record.group = unit.group;
    m_record.moduleTag = "TARNIS";
    m_record.sourceFile = unit.sourceFile;
    m_record.functionName = functionName;
    m_record.line = line;
    m_record.severity = severity;
    m_record.code = code;
}

void logPoint(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
              const wchar_t* format, ...) noexcept {
    const platform::KeepLastError keep;
    const ReaderGate::Pass pass(registry().gate); // tells where the end of the process may catch this thread
    va_list arguments;
    va_start(arguments, format);
    const OwnRecord record(unit, functionName, line, severity, code, formatMessage(format, arguments));
    va_end(arguments);
    LogSend(kTarnisLogHandle, record.get());
}

int32_t logOpen(uint32_t handle, const wchar_t* logDirectory, const LogLevels& details) noexcept {
    Registry& all = registry();
    int32_t result;
    bool closed = false;
    {
        const LockGuard lock(all.changes);
        result = all.open(handle, logDirectory, details, closed);
    }
    if (closed) platform::waitForPendingHandles(); // as LogClose does
    return result;
}

} // namespace kestra

bool LogIsEnabled(uint32_t handle, uint32_t severity, uint64_t moduleKey) noexcept {
    Registry& all = registry();
    const ReaderGate::Pass pass(all.gate);
    if (const LogEngine* engine = all.find(handle); engine && engine->accepts(severity)) return true;
    return all.anyListener(moduleKey, [=](const LogEngine& engine) { return engine.accepts(severity); });
}

const char* LogMakeTimeStamp(LogRecord& record) noexcept {
    platform::LocalTime now{};
    int error = 0;
    auto* text = static_cast<char*>(std::malloc(kTimeBytes));
    if (!text) return kNoTime;
    if (!platform::localTime(now, error)) {
        std::free(text);
        return kNoTime;
    }
    record.day = now.day;
    record.month = now.month;
    record.year = now.year;
    std::snprintf(text, kTimeBytes, "%02d.%02d.%d %02d:%02d:%02d.%hu", now.day, now.month, now.year, now.hour,
                  now.minute, now.second, static_cast<unsigned short>(now.millisecond));
    return text;
}

const wchar_t* LogFormatMessage(const wchar_t* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    const wchar_t* message = formatMessage(format, arguments);
    va_end(arguments);
    return message;
}

void LogFreeText(const char* text) noexcept {
    if (text != kNoTime) std::free(const_cast<char*>(text));
}

void LogFreeText(const wchar_t* text) noexcept {
    if (text != kNoMessage) std::free(const_cast<wchar_t*>(text));
}

uint32_t LogSend(uint32_t handle, const LogRecord& record) noexcept {
    Registry& all = registry();
    const ReaderGate::Pass pass(all.gate);
    all.anyListener(record.moduleKey, [&](LogEngine& engine) {
        if (engine.hasActiveChannel()) engine.deliver(record);
        return false;
    });
    LogEngine* engine = all.find(handle);
    return engine && engine->hasActiveChannel() ? engine->deliver(record) : kNoActiveChannel;
}

int32_t LogOpen(uint32_t handle, const wchar_t* /*moduleTag*/, const wchar_t* logDirectory, uintptr_t /*reserved1*/,
                uintptr_t /*reserved2*/, uint32_t systemDetail, uint32_t fileDetail, uint32_t ideDetail) noexcept {
    return logOpen(handle, logDirectory, {systemDetail, fileDetail, ideDetail});
}

int32_t LogClose(uint32_t handle) noexcept {
    Registry& all = registry();
    if (all.wreckedByProcessEnd()) {
        logFloor.store(kNobodyListens, std::memory_order_relaxed);
        return 0;
    }
    {
        const LockGuard lock(all.changes);
        all.close(handle);
    }
    platform::waitForPendingHandles();
    return 0;
}
