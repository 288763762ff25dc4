#include "compliance/format_keeper.h"

#include "compliance/check.h"
#include "compliance/tests.h"

namespace kestra::compliance {
namespace {

constexpr DWORD kLimitMs = 20'000;

std::wstring eventName(DWORD run, const wchar_t* what) {
    return L"kestra-compliance." + std::to_wstring(run) + L".format-" + what;
}

/// What a new filter starts with. @return none: it has none that could be set, or it cannot be made
std::optional<Type> formatOfNew(const Subject& subject) {
    try {
        return formatOf(configOf(Bare(subject).pin.get()).get());
    } catch (const NotApplicable&) {
        return std::nullopt;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

bool isAsBefore(const Subject& subject, Type& before) {
    if (const auto now = formatOfNew(subject); now && *now == before) return true;
    try {
        EXPECT_SUCCESS(configOf(Bare(subject).pin.get())->SetFormat(before.get()));
    } catch (const Failure&) {
        return false; // a device that is not back yet, say
    }
    const auto now = formatOfNew(subject);
    return now && *now == before;
}

} // namespace

FormatKeeper::FormatKeeper() {
    const DWORD run = GetCurrentProcessId();
    const UniqueObject read(CreateEventW(nullptr, TRUE, FALSE, eventName(run, L"read").c_str()));
    m_over = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, eventName(run, L"over").c_str()));
    m_process = OwnProcess(L" --keep " + std::to_wstring(run));
    if (!m_process) return;
    const HANDLE either[] = {read.get(), m_process.handle()};
    WaitForMultipleObjects(2, either, FALSE, kLimitMs);
    if (WaitForSingleObject(read.get(), 0) == WAIT_OBJECT_0) return;
    m_process.codeWithin(0); // a filter that hangs or crashes at once; the tests will say so
}

std::string FormatKeeper::restore() {
    if (!m_process) return {};
    SetEvent(m_over.get());
    const auto code = m_process.codeWithin(kLimitMs);
    if (code == DWORD{0}) return {};
    return code == DWORD{1} ? "the format that the filter keeps for its user is not as it was before the tests"
                            : "the filter crashed or hung when the format that it keeps for its user was set again";
}

bool keepFormat(const SubjectName& name, DWORD run) {
    const UniqueObject tests(OpenProcess(SYNCHRONIZE, FALSE, run));
    const UniqueObject read(OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName(run, L"read").c_str()));
    const UniqueObject over(OpenEventW(SYNCHRONIZE, FALSE, eventName(run, L"over").c_str()));
    std::optional<Subject> subject;
    std::optional<Type> before;
    try {
        subject.emplace(name);
        before = formatOfNew(*subject);
    } catch (const NoSubject&) { // the run says so
        before = std::nullopt;
    }
    if (!tests || !over || !SetEvent(read.get())) return false;
    if (!before) return true;
    const HANDLE either[] = {over.get(), tests.get()};
    WaitForMultipleObjects(2, either, FALSE, INFINITE);
    return waitFor([&] { return isAsBefore(*subject, *before); }, 3000); // a device may be on its way back
}

} // namespace kestra::compliance
