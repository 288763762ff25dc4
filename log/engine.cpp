// Channels of one engine and the delivery of records to them.
#include "log/engine.h"

#include "log/platform.h"

#include <cwchar>

using namespace kestra;

namespace {

constexpr uint64_t kNoContext = ~uint64_t{0};
constexpr size_t kNamesCapacity = 256;
constexpr LogUnit kUnit{"LogEngine", L".\\LogEngine.cpp"};

} // namespace

LogOutput* LogEngine::find(LogOutput::Type type) const noexcept {
    for (size_t i = 0; i < slotCount(); ++i)
        if (LogOutput* output = slot(i); output && output->type() == type) return output;
    return nullptr;
}

bool LogEngine::hasActiveChannel() const noexcept {
    for (size_t i = 0; i < slotCount(); ++i)
        if (const LogOutput* output = slot(i); output && output->detail() != 0) return true;
    return false;
}

bool LogEngine::append(std::unique_ptr<LogOutput> output) noexcept {
    const size_t index = slotCount();
    if (index == kMaxSlots) return false;
    m_slots[index] = std::move(output);
    m_slotCount.store(index + 1, std::memory_order_release);
    return true;
}

int32_t LogEngine::Initialize(const wchar_t* moduleTag, const wchar_t* logDirectory,
                              const LogLevels& details) noexcept {
    for (const LogOutputKind& kind : logOutputKinds()) {
        const uint32_t detail = details[kind.type - 1];
        if (detail == 0) continue;
        if (LogOutput* existing = find(kind.type)) {
            if (kind.reopeningSetsDetail) existing->setDetail(detail);
            continue;
        }
        std::unique_ptr<LogOutput> output = kind.make(moduleTag, logDirectory);
        if (!output || output->open() != 0) continue;
        output->setDetail(detail);
        append(std::move(output));
    }
    if (slotCount() == 0) return -1;
    announce("LogEngine::Initialize", L"   >>>>>>>>>>>>>>>>> Open the log channels: %ls for: %ls");
    return 0;
}

void LogEngine::Close() noexcept {
    if (slotCount() != 0) announce("LogEngine::Close", L"   <<<<<<<<<<<<<<<<< Close the log channels: %ls for: %ls");
    for (size_t count = m_slotCount.exchange(0), i = 0; i < count; ++i)
        if (const std::unique_ptr<LogOutput> output = std::move(m_slots[i])) output->close();
}

void LogEngine::applyThresholds(const LogLevels& thresholds) noexcept {
    uint32_t minimum = LOG_MANDATORY;
    for (size_t i = 0; i < slotCount(); ++i) {
        LogOutput* output = slot(i);
        if (!output) continue;
        const uint32_t wanted = thresholds[output->type() - 1];
        output->setThreshold(static_cast<int32_t>(wanted) < int32_t{LOG_MANDATORY} ? wanted : uint32_t{LOG_ERROR});
        if (output->detail() != 0 && output->threshold() < minimum) minimum = output->threshold();
    }
    m_minimumSeverity.store(minimum, std::memory_order_relaxed);
}

LineContext LogEngine::contextOf(uint32_t threadId) noexcept {
    const uint32_t* first = m_firstSeconds.find(threadId);
    const int32_t nesting = first ? -1 : 0; // 0 in a thread's first record only: see docs/compatibility.md
    if (!first)
        first = m_firstSeconds.findOrInsert(
            threadId, std::unique_ptr<const uint32_t>(new (std::nothrow) uint32_t(platform::secondsNow())));
    return {first ? (uint64_t{threadId} << 44) + (*first & 0x3FFFF) : kNoContext, nesting};
}

uint32_t LogEngine::deliver(const LogRecord& record) noexcept {
    const LineContext context = contextOf(record.threadId);
    for (size_t i = 0; i < slotCount(); ++i) {
        LogOutput* output = slot(i);
        if (!output || record.severity < output->threshold()) continue;
        const uint32_t detail = output->detail();
        if (detail == 0) continue;
        if (const std::unique_ptr<wchar_t[]> line{new (std::nothrow) wchar_t[kLineCapacity]})
            output->write(line.get(), formatLine(line.get(), detail, record, context), record);
    }
    return 0;
}

/// @param format  of the channels' names and the command line
void LogEngine::announce(const char* functionName, const wchar_t* format) noexcept {
    wchar_t names[kNamesCapacity + 1] = L"";
    const auto add = [&](const wchar_t* text) { std::wcsncat(names, text, kNamesCapacity - std::wcslen(names)); };
    for (size_t i = 0; i < slotCount(); ++i)
        if (const LogOutput* output = slot(i)) {
            if (*names) add(L", ");
            add(output->name());
        }
    deliver(OwnRecord(kUnit, functionName, __LINE__, LOG_ANNOUNCEMENT, 0,
                      LogFormatMessage(format, names, platform::commandLine()))
                .get());
}
