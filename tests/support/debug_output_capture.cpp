// Debugger output raises an exception, which a vectored handler sees first.
#include "tests/support/debug_output_capture.h"

#include <windows.h>

#include <algorithm>
#include <mutex>

namespace kestra::test {
namespace {

constexpr DWORD kPrintWide = 0x4001000A;   // DBG_PRINTEXCEPTION_WIDE_C
constexpr DWORD kPrintNarrow = 0x40010006; // DBG_PRINTEXCEPTION_C

std::mutex g_mutex;
std::vector<std::wstring> g_lines;

LONG CALLBACK onException(EXCEPTION_POINTERS* pointers) {
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    if (record.ExceptionCode == kPrintWide && record.NumberParameters >= 2) {
        // Where the wide form is raised, a refusal makes the system try the narrow one: answer here.
        const std::lock_guard lock(g_mutex);
        g_lines.emplace_back(reinterpret_cast<const wchar_t*>(record.ExceptionInformation[1]));
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    if (record.ExceptionCode == kPrintNarrow && record.NumberParameters >= 2) {
        const char* text = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
        const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
        std::wstring wide(static_cast<size_t>(std::max(length, 1)), L'\0');
        MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), length);
        wide.pop_back();
        const std::lock_guard lock(g_mutex);
        g_lines.push_back(std::move(wide));
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

DebugOutputCapture::DebugOutputCapture() {
    clear();
    m_handler = AddVectoredExceptionHandler(1, onException);
}

DebugOutputCapture::~DebugOutputCapture() {
    RemoveVectoredExceptionHandler(m_handler);
}

std::vector<std::wstring> DebugOutputCapture::lines() const {
    const std::lock_guard lock(g_mutex);
    return g_lines;
}

bool DebugOutputCapture::contains(const std::wstring& text) const {
    return count(text) > 0;
}

int DebugOutputCapture::count(const std::wstring& text) const {
    const std::lock_guard lock(g_mutex);
    return static_cast<int>(std::count(g_lines.begin(), g_lines.end(), text));
}

void DebugOutputCapture::clear() {
    const std::lock_guard lock(g_mutex);
    g_lines.clear();
}

} // namespace kestra::test
