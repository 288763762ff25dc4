// What a test reports: the call that it is about to make, what it expected and got, what it measured. A failed check
// ends its test by an exception, which the test's own thread alone may throw.
#pragma once

#include "compliance/record.h"

#include <initializer_list>
#include <string>

namespace kestra::compliance {

struct Failure {
    std::string expected, got;
};
struct NotApplicable {
    std::string why;
};
/// There is nothing to test.
struct NoSubject {
    std::string why;
};

/// Where notes go from now on. Not owned; must outlive the test.
void recordInto(TestRecord* record);

/// Names the call that is about to be made, so that a crash or a hang in it has a name. Any thread; the last one
/// counts.
void note(const char* call) noexcept;
#define CALL(...) (::kestra::compliance::note(#__VA_ARGS__), (__VA_ARGS__))

/// A result as a person reads it: "VFW_E_NOT_STOPPED (0x80040224)".
std::string resultText(HRESULT hr);

/// Throws Failure unless the result is one of those wanted.
void expectResult(HRESULT got, std::initializer_list<HRESULT> wanted, const char* call);
#define EXPECT_RESULT(wanted, ...) ::kestra::compliance::expectResult(CALL(__VA_ARGS__), {wanted}, #__VA_ARGS__)
#define EXPECT_EITHER(one, other, ...) ::kestra::compliance::expectResult(CALL(__VA_ARGS__), {one, other}, #__VA_ARGS__)
/// Throws Failure unless the call failed, whatever its code.
void expectFailure(HRESULT got, const char* call);
#define EXPECT_FAILURE(...) ::kestra::compliance::expectFailure(CALL(__VA_ARGS__), #__VA_ARGS__)
void expectSuccess(HRESULT got, const char* call);
#define EXPECT_SUCCESS(...) ::kestra::compliance::expectSuccess(CALL(__VA_ARGS__), #__VA_ARGS__)

void expect(bool condition, const std::string& expected, const std::string& got);
/// Something allowed that will trouble somebody: the test goes on.
void warn(const std::string& text);
[[noreturn]] void notApplicable(const std::string& why);

void measured(const char* series, double value);
/// Something about the filter for the head of the report.
void fact(const std::string& name, const std::string& value);

#ifdef __clang__
#define KESTRA_PRINTF printf
#else
#define KESTRA_PRINTF gnu_printf
#endif
/// @return at most 1023 bytes
std::string format(const char* text, ...) __attribute__((format(KESTRA_PRINTF, 1, 2)));
#undef KESTRA_PRINTF
std::string narrow(const wchar_t* text);
std::wstring wide(const std::string& text);
std::string guidText(REFGUID guid);

} // namespace kestra::compliance
