// Both sides of a test: the child runs it; the parent waits, and ends a child that takes too long.
#include "compliance/runner.h"

#include "compliance/second_process.h"
#include "win32/handle.h"

#include <cstdio>
#include <cstring>
#include <sstream>

namespace kestra::compliance {
namespace {

struct ViewTraits {
    static Exchange* none() noexcept { return nullptr; }
    static void close(Exchange* view) noexcept { UnmapViewOfFile(view); }
};
using View = UniqueHandle<ViewTraits>;

View viewOf(HANDLE mapping) {
    return View(static_cast<Exchange*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Exchange))));
}

/// The memory between the two processes, and the events by which they take turns.
struct Meeting {
    UniqueObject mapping, go, done;
    View view;
};

constexpr wchar_t kGo[] = L".go", kDone[] = L".done";

// Child

Exchange* g_exchange = nullptr;
HANDLE g_done = nullptr;

LONG WINAPI onCrash(EXCEPTION_POINTERS* exception) {
    TestRecord& record = g_exchange->record;
    record.exceptionCode = exception->ExceptionRecord->ExceptionCode;
    HMODULE module = nullptr;
    const auto* address = static_cast<const char*>(exception->ExceptionRecord->ExceptionAddress);
    char path[MAX_PATH] = "?";
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           address, &module))
        GetModuleFileNameA(module, path, MAX_PATH);
    const char* slash = std::strrchr(path, '\\');
    std::snprintf(record.exceptionAt, sizeof record.exceptionAt, "%s+0x%llX", slash ? slash + 1 : path,
                  static_cast<unsigned long long>(address - reinterpret_cast<const char*>(module)));
    SetEvent(g_done);
    Sleep(INFINITE); // until the parent ends this process
    return EXCEPTION_EXECUTE_HANDLER;
}

void runOne(const Test& test, Context& context, TestRecord& record) {
    const double began = nowMs();
    Verdict verdict = Verdict::Ok;
    const auto keep = [&](const std::string& expected, const std::string& got) {
        std::strncpy(record.expected, expected.c_str(), sizeof record.expected - 1);
        std::strncpy(record.got, got.c_str(), sizeof record.got - 1);
    };
    try {
        test.run(context);
        if (record.warnings[0]) verdict = Verdict::Warning;
    } catch (const Failure& failure) {
        verdict = Verdict::Fail;
        keep(failure.expected, failure.got);
    } catch (const NotApplicable& reason) {
        verdict = Verdict::NotApplicable;
        keep("", reason.why);
    } catch (const std::exception& error) {
        verdict = Verdict::Fail;
        keep("a test that runs", error.what());
    }
    record.milliseconds = nowMs() - began;
    record.verdict = verdict;
    record.finished = 1;
}

// Parent

class Child {
public:
    Child(const std::wstring& command, int number) {
        const std::wstring name =
            L"kestra-compliance." + std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(number);
        m_meeting.mapping = UniqueObject(
            CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Exchange), name.c_str()));
        m_meeting.view = viewOf(m_meeting.mapping.get());
        m_meeting.go = UniqueObject(CreateEventW(nullptr, FALSE, FALSE, (name + kGo).c_str()));
        m_meeting.done = UniqueObject(CreateEventW(nullptr, FALSE, FALSE, (name + kDone).c_str()));
        if (m_meeting.view) m_process = startProcess(command + L" --child " + name);
        if (!m_process) throw Failure{"a child process", format("error %lu", GetLastError())};
    }
    ~Child() { // from here, where it can neither be held up by what a filter left behind nor stay half-ended
        TerminateProcess(m_process.get(), 4);
        WaitForSingleObject(m_process.get(), 5000);
    }
    Child(const Child&) = delete;

    /// Whether there is a filter to test. @return false: the question ended in a crash or a hang
    /// @throws NoSubject if there is none
    bool probe(DWORD limitMs) {
        ask(Exchange::kProbe, limitMs);
        const TestRecord& record = m_meeting.view.get()->record;
        if (record.finished && record.verdict != Verdict::Ok) throw NoSubject{record.got};
        return record.finished;
    }

    Result run(size_t index, DWORD limitMs) {
        const double began = nowMs();
        const DWORD woken = ask(static_cast<LONG>(index), limitMs);
        const TestRecord& record = m_meeting.view.get()->record;
        Result result{};
        result.test = &allTests()[index];
        result.call = record.call;
        result.milliseconds = record.finished ? record.milliseconds : nowMs() - began;
        result.warnings = record.warnings;
        if (record.finished) {
            result.verdict = record.verdict;
            result.expected = record.expected;
            result.got = record.got;
        } else if (woken == WAIT_TIMEOUT) {
            result.verdict = Verdict::Hang;
            result.expected = "an end";
            result.got = format("none within %lu s", limitMs / 1000);
        } else {
            DWORD code = 0;
            GetExitCodeProcess(m_process.get(), &code);
            result.verdict = Verdict::Crash;
            result.expected = "a process that lives";
            result.got = record.exceptionCode
                             ? format("exception 0x%08lX at %s", record.exceptionCode, record.exceptionAt)
                             : format("its end with code 0x%lX", code);
        }
        for (LONG i = 0; i < record.seriesCount; ++i)
            result.series.push_back(record.series[i]);
        std::istringstream facts(record.facts);
        for (std::string line; std::getline(facts, line);)
            if (const size_t tab = line.find('\t'); tab != std::string::npos)
                result.facts.emplace_back(line.substr(0, tab), line.substr(tab + 1));
        return result;
    }

private:
    /// @return as of the wait for its answer and its end
    DWORD ask(LONG test, DWORD limitMs) {
        Exchange& exchange = *m_meeting.view.get();
        exchange.record = {};
        exchange.test = test;
        SetEvent(m_meeting.go.get());
        const HANDLE events[] = {m_meeting.done.get(), m_process.get()};
        return WaitForMultipleObjects(2, events, FALSE, limitMs);
    }

    Meeting m_meeting;
    UniqueObject m_process;
};

} // namespace

std::vector<Result> runTests(const std::vector<size_t>& tests, const std::wstring& childCommand,
                             const Settings& settings, bool shared, const std::function<void(const Result&)>& done) {
    std::vector<Result> results;
    std::optional<Child> child;
    int children = 0;
    const DWORD limitMs = 1000UL * static_cast<DWORD>(settings.limitSeconds);
    child.emplace(childCommand, children++);
    if (!child->probe(limitMs)) child.reset(); // the tests will name what crashed or hung
    for (const size_t index : tests) {
        if (!child) child.emplace(childCommand, children++);
        const Test& test = allTests()[index];
        results.push_back(child->run(index, limitMs * static_cast<DWORD>(test.limitFactor)));
        if (!shared || results.back().failed()) child.reset();
        done(results.back());
    }
    return results;
}

int runAsChild(const std::wstring& mapping, const SubjectName& name, const Settings& settings) {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    Meeting meeting;
    meeting.mapping = UniqueObject(OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, mapping.c_str()));
    meeting.view = viewOf(meeting.mapping.get());
    meeting.go = UniqueObject(OpenEventW(SYNCHRONIZE, FALSE, (mapping + kGo).c_str()));
    meeting.done = UniqueObject(OpenEventW(EVENT_MODIFY_STATE, FALSE, (mapping + kDone).c_str()));
    if (!meeting.view) return 1;
    g_exchange = meeting.view.get();
    g_done = meeting.done.get();
    SetUnhandledExceptionFilter(onCrash);
    std::optional<Subject> subject;
    while (WaitForSingleObject(meeting.go.get(), INFINITE) == WAIT_OBJECT_0) {
        TestRecord& record = g_exchange->record;
        recordInto(&record);
        try {
            if (!subject) subject.emplace(name);
            if (g_exchange->test == Exchange::kProbe) {
                subject->probe();
                record.finished = 1;
            } else {
                Context context{*subject, settings, g_exchange};
                runOne(allTests()[static_cast<size_t>(g_exchange->test)], context, record);
            }
        } catch (const NoSubject& reason) {
            std::strncpy(record.expected, "a filter to test", sizeof record.expected - 1);
            std::strncpy(record.got, reason.why.c_str(), sizeof record.got - 1);
            record.verdict = Verdict::Fail;
            record.finished = 1;
        }
        recordInto(nullptr);
        SetEvent(meeting.done.get());
    }
    return 1; // not reached: the parent ends this process
}

} // namespace kestra::compliance
