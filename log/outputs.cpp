// The table of outputs, and the debugger's.
#include "log/outputs.h"

#include "log/line_format.h"
#include "log/platform.h"

#include <algorithm>
#include <cwchar>

namespace {

template <class Output>
std::unique_ptr<LogOutput> make(const wchar_t*, const wchar_t*) {
    return std::unique_ptr<LogOutput>(new (std::nothrow) Output);
}

constexpr LogOutputKind kKinds[] = {
    {LogOutput::kSystem, L"System_Output_Stub", LOG_DEBUG, L"SysOutDetail", L"SysSeverityThrsh", false,
     make<EventOutput>},
    {LogOutput::kFile, L"File_Output", LOG_DEBUG, L"FileOutDetail", L"FileSeverityThrsh", true,
     kestra::platform::makeFileOutput},
    {LogOutput::kDebugger, L"IDE_Output", LOG_ERROR, L"IdeOutDetail", L"IdeSeverityThrsh", false, make<IDEOutput>},
};
static_assert(std::size(kKinds) <= LogLevels{}.size());

} // namespace

std::span<const LogOutputKind> logOutputKinds() noexcept {
    return kKinds;
}

uint32_t IDEOutput::write(const wchar_t* line, size_t length, const LogRecord&) noexcept {
    // In one call: nobody's text comes between a line and its end, and no lock is held while the call raises an
    // exception, whose handler may log.
    wchar_t text[kestra::kLineCapacity + 1];
    length = std::min(length, kestra::kLineCapacity - 1);
    std::wmemcpy(text, line, length);
    std::wmemcpy(text + length, L"\n", 2);
    kestra::platform::debugOutput(text);
    return 0;
}
