// Notes go into the record that the parent reads; checks throw.
#include "compliance/check.h"

#include <dshow.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace kestra::compliance {
namespace {

TestRecord* g_record = nullptr;
std::mutex g_mutex; // guards series, warnings and facts
std::string g_callOfFailure;

template <size_t size>
void put(char (&field)[size], const std::string& text) noexcept {
    const size_t length = std::min(text.size(), size - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

struct ResultName {
    HRESULT hr;
    const char* name;
};
#define RESULT(name)                                                                                                   \
    { name, #name }
constexpr ResultName kResultNames[] = {
    RESULT(S_OK),
    RESULT(S_FALSE),
    RESULT(E_POINTER),
    RESULT(E_FAIL),
    RESULT(E_NOTIMPL),
    RESULT(E_NOINTERFACE),
    RESULT(E_UNEXPECTED),
    RESULT(E_INVALIDARG),
    RESULT(E_OUTOFMEMORY),
    RESULT(CLASS_E_NOAGGREGATION),
    RESULT(CLASS_E_CLASSNOTAVAILABLE),
    RESULT(REGDB_E_CLASSNOTREG),
    RESULT(VFW_S_NO_MORE_ITEMS),
    RESULT(VFW_S_CANT_CUE),
    RESULT(VFW_S_STATE_INTERMEDIATE),
    RESULT(VFW_E_NOT_FOUND),
    RESULT(VFW_E_NOT_CONNECTED),
    RESULT(VFW_E_ALREADY_CONNECTED),
    RESULT(VFW_E_NOT_STOPPED),
    RESULT(VFW_E_WRONG_STATE),
    RESULT(VFW_E_INVALIDMEDIATYPE),
    RESULT(VFW_E_INVALID_DIRECTION),
    RESULT(VFW_E_TYPE_NOT_ACCEPTED),
    RESULT(VFW_E_NO_ACCEPTABLE_TYPES),
    RESULT(VFW_E_NO_TRANSPORT),
    RESULT(VFW_E_NO_ALLOCATOR),
    RESULT(VFW_E_NOT_COMMITTED),
    RESULT(VFW_E_ENUM_OUT_OF_SYNC),
    RESULT(VFW_E_CANNOT_CONNECT),
    RESULT(VFW_E_NO_CAPTURE_HARDWARE),
    {static_cast<HRESULT>(0x80070490), "E_PROP_ID_UNSUPPORTED"},
    {static_cast<HRESULT>(0x80070492), "E_PROP_SET_UNSUPPORTED"},
};

[[noreturn]] void fail(const std::string& expected, const std::string& got) {
    g_callOfFailure = g_record ? g_record->call : "";
    throw Failure{expected, got};
}

} // namespace

void recordInto(TestRecord* record) {
    // A failure goes with the call before it, not with those of the clearing up behind it.
    if (!record && g_record && g_record->verdict == Verdict::Fail && !g_callOfFailure.empty())
        put(g_record->call, g_callOfFailure);
    g_callOfFailure.clear();
    g_record = record;
}

void note(const char* call) noexcept {
    if (!g_record) return;
    std::strncpy(g_record->call, call, sizeof g_record->call - 1);
}

std::string format(const char* text, ...) {
    char buffer[1024];
    va_list arguments;
    va_start(arguments, text);
    __mingw_vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

std::string narrow(const wchar_t* text) {
    char buffer[1024];
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer, sizeof buffer, nullptr, nullptr);
    return length > 0 ? buffer : "";
}

std::wstring wide(const std::string& text) {
    std::wstring buffer(text.size() + 1, L'\0');
    const int length =
        MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, buffer.data(), static_cast<int>(buffer.size()));
    buffer.resize(length > 0 ? static_cast<size_t>(length - 1) : 0);
    return buffer;
}

std::string guidText(REFGUID guid) {
    wchar_t text[40];
    StringFromGUID2(guid, text, 40);
    return narrow(text);
}

std::string resultText(HRESULT hr) {
    for (const ResultName& known : kResultNames)
        if (known.hr == hr) return format("%s (0x%08lX)", known.name, static_cast<unsigned long>(hr));
    return format("0x%08lX", static_cast<unsigned long>(hr));
}

void expectResult(HRESULT got, std::initializer_list<HRESULT> wanted, const char* call) {
    std::string names;
    for (const HRESULT hr : wanted) {
        if (hr == got) return;
        names += (names.empty() ? "" : " or ") + resultText(hr);
    }
    fail(format("%s from %s", names.c_str(), call), resultText(got));
}

void expectFailure(HRESULT got, const char* call) {
    if (SUCCEEDED(got)) fail(format("a failure from %s", call), resultText(got));
}

void expectSuccess(HRESULT got, const char* call) {
    if (FAILED(got)) fail(format("success from %s", call), resultText(got));
}

void expect(bool condition, const std::string& expected, const std::string& got) {
    if (!condition) fail(expected, got);
}

void warn(const std::string& text) {
    const std::lock_guard lock(g_mutex);
    if (!g_record) return;
    const std::string before = g_record->warnings;
    put(g_record->warnings, before.empty() ? text : before + "; " + text);
}

void notApplicable(const std::string& why) {
    throw NotApplicable{why};
}

void measured(const char* series, double value) {
    const std::lock_guard lock(g_mutex);
    if (!g_record) return;
    LONG index = 0;
    while (index < g_record->seriesCount && std::strcmp(g_record->series[index].name, series) != 0)
        ++index;
    if (index == TestRecord::kSeries) return;
    Series& into = g_record->series[index];
    if (index == g_record->seriesCount) {
        std::strncpy(into.name, series, sizeof into.name - 1);
        ++g_record->seriesCount;
    }
    if (into.count < Series::kMost) into.values[into.count++] = value;
}

void fact(const std::string& name, const std::string& value) {
    const std::lock_guard lock(g_mutex);
    if (!g_record) return;
    const std::string before = g_record->facts;
    put(g_record->facts, before + name + "\t" + value + "\n");
}

} // namespace kestra::compliance
