// Both sides of the second process.
#include "compliance/second_process.h"

#include "compliance/check.h"
#include "compliance/tests.h"

#include <cstdlib>
#include <thread>

namespace kestra::compliance {
namespace {

std::wstring g_ownCommand;

// Generous: on a busy machine a process may need seconds for its start alone.
constexpr int kSamplesMs = 20'000;
constexpr DWORD kProcessMs = 60'000;

UniqueObject start(std::wstring line) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return UniqueObject();
    const UniqueObject thread(process.hThread);
    return UniqueObject(process.hProcess);
}

/// @return none: it did not end in time, and was ended
std::optional<DWORD> exitCodeOf(const UniqueObject& process, DWORD milliseconds) {
    if (WaitForSingleObject(process.get(), milliseconds) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), 1);
        return std::nullopt;
    }
    DWORD code = 1;
    GetExitCodeProcess(process.get(), &code);
    return code;
}

/// Ends the process while it still holds filter and receiver: what is sent late finds them.
[[noreturn]] void capture(const SubjectName& name, bool dies) {
    const auto end = [](Outcome outcome) { endProcess(static_cast<DWORD>(outcome)); };
    const Subject subject(name);
    ComRef<IBaseFilter> filter;
    if (FAILED(subject.create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())))) end(Outcome::Refused);
    const auto pin = capturePin(filter.get());
    const ComRef<Sink> sink(new Sink);
    if (FAILED(pin->Connect(sink->pin(), nullptr))) end(Outcome::Refused);
    sink->Run(0);
    if (FAILED(filter->Run(0))) end(Outcome::Refused);
    if (!waitFor([&] { return sink->samples().size() >= 3; }, kSamplesMs)) end(Outcome::NoSamples);
    if (dies) end(Outcome::Died);
    filter->Stop();
    endProcess(static_cast<DWORD>(Outcome::Captured));
}

} // namespace

void setOwnCommand(std::wstring command) {
    g_ownCommand = std::move(command);
}

UniqueObject startOwn(const std::wstring& options) {
    return start(g_ownCommand + options);
}

std::optional<DWORD> runCommand(const std::wstring& line, DWORD milliseconds) {
    const UniqueObject process = start(line);
    return process ? exitCodeOf(process, milliseconds) : std::nullopt;
}

std::string outcomeText(Outcome outcome) {
    switch (outcome) {
    case Outcome::Captured:
        return "captures";
    case Outcome::Refused:
        return "is refused";
    case Outcome::NoSamples:
        return format("runs, and has no three samples within %d s", kSamplesMs / 1000);
    case Outcome::Died:
        return "captures and ends itself";
    case Outcome::NotStarted:
        return "cannot be started";
    case Outcome::NotEnded:
        return format("does not end within %lu s", kProcessMs / 1000);
    }
    return format("ends with code 0x%lX", static_cast<unsigned long>(outcome));
}

Outcome runSecondProcess(const wchar_t* role) {
    const UniqueObject process = startOwn(std::wstring(L" --second ") + role);
    if (!process) return Outcome::NotStarted;
    const auto code = exitCodeOf(process, kProcessMs);
    return code ? static_cast<Outcome>(*code) : Outcome::NotEnded;
}

void endProcess(DWORD code) noexcept {
    TerminateProcess(GetCurrentProcess(), code);
    std::abort(); // not reached
}

void endWithProcess(DWORD other) {
    std::thread([process = UniqueObject(OpenProcess(SYNCHRONIZE, FALSE, other))] {
        WaitForSingleObject(process.get(), INFINITE);
        endProcess(1);
    }).detach();
}

void secondProcess(const SubjectName& name, const std::wstring& role) {
    try {
        capture(name, role == L"die");
    } catch (const NoSubject&) { // taken away meanwhile
    } catch (const Failure&) {   // without a pin: the first process says so
    }
    endProcess(static_cast<DWORD>(Outcome::Refused));
}

} // namespace kestra::compliance
