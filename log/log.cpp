// The call interface: tables of engines and modules, dispatch, opening and closing.
#include "log/log.h"

#include "log/engine.h"
#include "log/platform.h"
#include "log/reader_gate.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <mutex>
#include <new>

using namespace kestra;

namespace {

constexpr uint64_t kNobodyListens = uint64_t{1} << 32;
constexpr uint32_t kNoActiveChannel = 0xFFFFFFFF;
constexpr char kNoTime[] = "error_data error_time";
constexpr wchar_t kNoMessage[] = L"Can't prepare error message";
constexpr size_t kTimeBytes = 32;
constexpr size_t kMessageCapacity = 512; // characters
constexpr size_t kTitleCapacity = 260;

/// Handles of the engines that want a module's records; replaced whole when it changes.
using HandleList = std::vector<uint32_t>;

struct Tables {
    CHashtable engines{151, 0.75f};
    CHashtable modules{151, 0.75f};
    ReaderGate gate;    // everybody who looks an engine or a list up stands inside
    std::mutex changes; // opening, closing and listening
    std::wstring title;

    /// True if the end of the process caught a thread inside the log. It never leaves the gate and never gives
    /// back what it held there, be it a lock of ours or of the system: nothing may be waited for any more.
    bool wreckedByProcessEnd() noexcept {
        if (!platform::processIsEnding()) return false;
        const std::unique_lock free(changes, std::try_to_lock);
        return !free || !gate.isEmpty();
    }

    ~Tables() {
        if (wreckedByProcessEnd()) return; // the system takes everything back
        engines.forEach([](uint32_t, void* engine) { delete static_cast<LogEngine*>(engine); });
        modules.forEach([](uint32_t, void* list) { delete static_cast<HandleList*>(list); });
        logFloor.store(kNobodyListens, std::memory_order_relaxed);
    }
};

Tables& tables() noexcept {
    static Tables instance;
    return instance;
}

constexpr uint32_t keyOf(uint32_t handle) noexcept {
    return handle == 0 ? 0xFFFFFFFF : handle;
}

/// The library asks about its own module at every log point: its hash is computed once.
uint32_t hashOf(uint64_t moduleKey) noexcept {
    static const uint32_t own = moduleHash(platform::moduleKey());
    return moduleKey == platform::moduleKey() ? own : moduleHash(moduleKey);
}

const HandleList* listenersOf(uint64_t moduleKey) noexcept {
    Tables& t = tables();
    return t.modules.size() == 0 ? nullptr : static_cast<const HandleList*>(t.modules.find(hashOf(moduleKey)));
}

/// Puts a list in the place of the module's; waits until nobody reads the old one. Under `changes`.
bool replaceListeners(uint64_t moduleKey, std::unique_ptr<HandleList> list) noexcept {
    Tables& t = tables();
    const uint32_t hash = hashOf(moduleKey);
    auto* old = static_cast<HandleList*>(t.modules.find(hash));
    if (list->empty())
        t.modules.remove(hash);
    else if (!t.modules.insert(hash, list.get()))
        return false;
    else
        (void)list.release();
    t.gate.waitForReaders();
    delete old;
    return true;
}

/// Under `changes`.
void updateFloor() noexcept {
    uint64_t floor = kNobodyListens;
    tables().engines.forEach([&](uint32_t, void* value) {
        const auto* engine = static_cast<const LogEngine*>(value);
        if (engine->slotCount() != 0 && engine->minimumSeverity() < floor) floor = engine->minimumSeverity();
    });
    logFloor.store(floor, std::memory_order_relaxed);
}

LogEngine* findOrCreate(uint32_t handle) noexcept {
    if (LogEngine* engine = logFindEngine(handle)) return engine;
    try {
        auto engine = std::make_unique<LogEngine>();
        if (!tables().engines.insert(keyOf(handle), engine.get())) return nullptr;
        return engine.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

/// Under `changes`.
void closeEngine(uint32_t handle) noexcept {
    Tables& t = tables();
    LogEngine* engine = logFindEngine(handle);
    if (!engine) return;
    if (engine->openCount != 0) {
        --engine->openCount;
        return;
    }
    // Out of reach first: once the threads that are still delivering have left, nobody disturbs the closing.
    t.engines.remove(keyOf(handle));
    updateFloor();
    t.gate.waitForReaders();
    engine->Close();
    delete engine;
}

void storeTitle() noexcept {
    wchar_t path[kTitleCapacity];
    platform::executablePath(path, kTitleCapacity);
    try {
        std::wstring title = std::wstring(L"Log Engine - ") + path;
        title.resize(title.size() < kTitleCapacity ? title.size() : kTitleCapacity);
        tables().title = std::move(title);
    } catch (const std::bad_alloc&) {
        tables().title.clear();
    }
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
    return static_cast<LogEngine*>(tables().engines.find(keyOf(handle)));
}

LogEngine* logFindOrCreateEngine(uint32_t handle) noexcept {
    const std::lock_guard lock(tables().changes);
    return findOrCreate(handle);
}

void logUpdateFloor() noexcept {
    const std::lock_guard lock(tables().changes);
    updateFloor();
}

bool logListenToModule(uint64_t moduleKey, uint32_t handle) noexcept {
    const std::lock_guard lock(tables().changes);
    try {
        const HandleList* old = listenersOf(moduleKey);
        auto list = old ? std::make_unique<HandleList>(*old) : std::make_unique<HandleList>();
        list->push_back(handle);
        return replaceListeners(moduleKey, std::move(list));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void logIgnoreModule(uint64_t moduleKey, uint32_t handle) noexcept {
    const std::lock_guard lock(tables().changes);
    const HandleList* old = listenersOf(moduleKey);
    if (!old) return;
    try {
        auto list = std::make_unique<HandleList>(*old);
        std::erase(*list, handle);
        replaceListeners(moduleKey, std::move(list));
    } catch (const std::bad_alloc&) {
        // The engine goes on listening.
    }
}

void logDescribeMissingEngine(uint32_t handle, wchar_t* text, size_t capacity) noexcept {
    std::swprintf(text, capacity, L"Can't find Log Engine for log handle: %d (%c%c%c%c)", static_cast<int>(handle),
                  static_cast<int>(handle >> 24), static_cast<int>(handle >> 16 & 0xFF),
                  static_cast<int>(handle >> 8 & 0xFF), static_cast<int>(handle & 0xFF));
}

std::wstring logEngineTitle() {
    const std::lock_guard lock(tables().changes);
    return tables().title;
}

bool logAcceptsExactly(uint32_t severity) noexcept {
    return LogIsEnabled(kTarnisLogHandle, severity, platform::moduleKey());
}

void logPoint(const LogUnit& unit, const char* functionName, int line, uint32_t severity, int32_t code,
              const wchar_t* format, ...) noexcept {
    const platform::KeepLastError keep;
    const ReaderGate::Pass pass(tables().gate); // marks where the end of the process may catch this thread
    LogRecord record;
    record.timeText = LogMakeTimeStamp(record);
    va_list arguments;
    va_start(arguments, format);
    record.message = formatMessage(format, arguments);
    va_end(arguments);
    record.processId = platform::processId();
    record.threadId = platform::threadId();
    record.moduleKey = platform::moduleKey();
    record.group = unit.group;
    record.moduleTag = "TARNIS";
    record.sourceFile = unit.sourceFile;
    record.functionName = functionName;
    record.line = line;
    record.severity = severity;
    record.code = code;
    LogSend(kTarnisLogHandle, record);
    LogFreeText(record.timeText);
    LogFreeText(record.message);
}

} // namespace kestra

bool LogIsEnabled(uint32_t handle, uint32_t severity, uint64_t moduleKey) noexcept {
    const ReaderGate::Pass pass(tables().gate);
    if (const LogEngine* engine = logFindEngine(handle); engine && engine->accepts(severity)) return true;
    const HandleList* listeners = listenersOf(moduleKey);
    if (!listeners) return false;
    for (const uint32_t listener : *listeners)
        if (const LogEngine* engine = logFindEngine(listener); engine && engine->accepts(severity)) return true;
    return false;
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
    const ReaderGate::Pass pass(tables().gate);
    if (const HandleList* listeners = listenersOf(record.moduleKey))
        for (const uint32_t listener : *listeners)
            if (LogEngine* engine = logFindEngine(listener); engine && engine->hasActiveChannel())
                engine->deliver(record);
    LogEngine* engine = logFindEngine(handle);
    if (!engine || !engine->hasActiveChannel()) return kNoActiveChannel;
    return engine->deliver(record);
}

int32_t LogOpen(uint32_t handle, const wchar_t* /*moduleTag*/, const wchar_t* logDirectory, uintptr_t /*reserved1*/,
                uintptr_t /*reserved2*/, uint32_t systemDetail, uint32_t fileDetail, uint32_t ideDetail) noexcept {
    const std::lock_guard lock(tables().changes);
    LogEngine* engine = logFindEngine(handle);
    if (engine && engine->slotCount() != 0) {
        ++engine->openCount;
        return 0;
    }
    storeTitle();
    if (!engine) {
        if (handle != 0) {
            wchar_t text[kTitleCapacity];
            logDescribeMissingEngine(handle, text, kTitleCapacity);
            return -1;
        }
        engine = findOrCreate(handle);
        if (!engine) return -1;
    }
    if (engine->Initialize(L"TARNIS", logDirectory, systemDetail, fileDetail, ideDetail) == 0) {
        updateFloor();
        return 0;
    }
    closeEngine(handle);
    platform::waitForPendingHandles();
    return -1;
}

int32_t LogClose(uint32_t handle) noexcept {
    if (tables().wreckedByProcessEnd()) {
        logFloor.store(kNobodyListens, std::memory_order_relaxed);
        return 0;
    }
    {
        const std::lock_guard lock(tables().changes);
        closeEngine(handle);
    }
    platform::waitForPendingHandles();
    return 0;
}
