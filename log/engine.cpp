// Channels of one engine and the delivery of records to them.
#include "log/engine.h"

#include "log/platform.h"

#include <new>

using namespace kestra;

namespace {

constexpr uint64_t kNoContext = ~uint64_t{0};
constexpr size_t kContextCapacity = 16;
constexpr size_t kNamesCapacity = 256;
constexpr wchar_t kSourceFile[] = L".\\LogEngine.cpp";

template <class Char>
void replaceNull(const Char*& text, const Char* substitute) noexcept {
    if (!text) text = substitute;
}

} // namespace

LogEngine::~LogEngine() {
    m_contexts.forEach([](uint32_t, void* context) { delete static_cast<ThreadContext*>(context); });
    for (size_t i = 0; i < slotCount(); ++i)
        delete slot(i);
}

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
    m_slots[index].store(output.release(), std::memory_order_release);
    m_slotCount.store(index + 1, std::memory_order_release);
    return true;
}

int32_t LogEngine::Initialize(const wchar_t* moduleTag, const wchar_t* logDirectory, uint32_t systemDetail,
                              uint32_t fileDetail, uint32_t debuggerDetail) noexcept {
    const struct {
        LogOutput::Type type;
        uint32_t detail;
    } wanted[] = {
        {LogOutput::kSystem, systemDetail}, {LogOutput::kFile, fileDetail}, {LogOutput::kDebugger, debuggerDetail}};
    for (const auto& [type, detail] : wanted) {
        if (detail == 0) continue;
        if (LogOutput* existing = find(type)) {
            // Only the file channel's detail follows a second initialisation.
            if (type == LogOutput::kFile) existing->setDetail(detail);
            continue;
        }
        std::unique_ptr<LogOutput> output = makeLogOutput(type, moduleTag, logDirectory);
        if (!output) continue;
        output->setDetail(detail);
        append(std::move(output));
    }
    if (slotCount() == 0) return -1;
    if (minimumSeverity() <= 6)
        announce("LogEngine::Initialize", L"   >>>>>>>>>>>>>>>>> Open the log channels: %ls for: %ls");
    return 0;
}

void LogEngine::Close() noexcept {
    if (minimumSeverity() < 7 && slotCount() != 0)
        announce("LogEngine::Close", L"   <<<<<<<<<<<<<<<<< Close the log channels: %ls for: %ls");
    const size_t count = m_slotCount.exchange(0);
    for (size_t i = 0; i < count; ++i)
        if (const std::unique_ptr<LogOutput> output(m_slots[i].exchange(nullptr)); output) output->close();
}

void LogEngine::applyThresholds(const LogThresholds& thresholds) noexcept {
    uint32_t minimum = LOG_MANDATORY;
    for (size_t i = 0; i < slotCount(); ++i) {
        LogOutput* output = slot(i);
        if (!output) continue;
        const uint32_t wanted = output->type() == LogOutput::kSystem ? thresholds.system
                                : output->type() == LogOutput::kFile ? thresholds.file
                                                                     : thresholds.debugger;
        output->setThreshold(static_cast<int32_t>(wanted) < 5 ? wanted : uint32_t{LOG_ERROR});
        if (output->detail() != 0 && output->threshold() < minimum) minimum = output->threshold();
    }
    m_minimumSeverity.store(minimum, std::memory_order_relaxed);
}

LineContext LogEngine::contextOf(uint32_t threadId) noexcept {
    auto* context = static_cast<ThreadContext*>(m_contexts.find(threadId));
    const int32_t nesting = context && !context->values.empty() ? static_cast<int32_t>(context->values.size()) - 2 : 0;
    if (!context) {
        try {
            auto made = std::make_unique<ThreadContext>();
            made->values.reserve(kContextCapacity);
            made->values.push_back(platform::secondsNow());
            context = static_cast<ThreadContext*>(m_contexts.findOrInsert(threadId, made.get()));
            if (!context) return {kNoContext, nesting};
            if (context == made.get()) (void)made.release();
        } catch (const std::bad_alloc&) {
            return {kNoContext, nesting};
        }
    }
    const uint64_t thread = uint64_t{threadId} << 44;
    if (context->values.empty()) return {thread | 0x3FFFF, nesting};
    return {thread + (context->values.front() & 0x3FFFF), nesting};
}

uint32_t LogEngine::deliver(const LogRecord& sent) noexcept {
    LogRecord record = sent;
    for (const char** text : {&record.timeText, &record.group, &record.moduleTag, &record.functionName})
        replaceNull(*text, "undefined");
    replaceNull(record.message, L"undefined");
    replaceNull(record.sourceFile, L"undefined");
    wchar_t path[260];
    record.sourceFile = shortenSourcePath(record.sourceFile, path);
    const LineContext context = contextOf(record.threadId);
    for (size_t i = 0; i < slotCount(); ++i) {
        LogOutput* output = slot(i);
        if (!output || record.severity < output->threshold()) continue;
        const uint32_t detail = output->detail();
        if (detail == 0) continue;
        const std::unique_ptr<wchar_t[]> line(new (std::nothrow) wchar_t[kLineCapacity]);
        if (!line) continue;
        const size_t length = formatLine(line.get(), detail, record, context);
        output->write(line.get(), length, record);
    }
    return 0;
}

std::wstring LogEngine::channelNames() const {
    std::wstring names;
    for (size_t i = 0; i < slotCount(); ++i) {
        const LogOutput* output = slot(i);
        if (!output) continue;
        if (!names.empty()) names += L", ";
        names += output->name();
    }
    names.resize(names.size() < kNamesCapacity ? names.size() : kNamesCapacity);
    return names;
}

void LogEngine::announce(const char* functionName, const wchar_t* format) noexcept {
    LogRecord record;
    record.timeText = LogMakeTimeStamp(record);
    try {
        record.message = LogFormatMessage(format, channelNames().c_str(), platform::commandLine());
    } catch (const std::bad_alloc&) {
        record.message = nullptr;
    }
    record.processId = platform::processId();
    record.threadId = platform::threadId();
    record.moduleKey = platform::moduleKey();
    record.group = "LogEngine";
    record.moduleTag = "TARNIS";
    record.sourceFile = kSourceFile;
    record.functionName = functionName;
    record.line = __LINE__;
    record.severity = 6;
    record.code = 0;
    deliver(record);
    LogFreeText(record.timeText);
    LogFreeText(record.message);
}
