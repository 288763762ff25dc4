// Both sides of the second process.
#include "compliance/second_process.h"

#include "compliance/check.h"
#include "compliance/tests.h"

#include <atomic>
#include <cstdlib>
#include <cwchar>
#include <thread>

namespace kestra::compliance {
namespace {

std::wstring g_ownCommand, g_reportTo;

// Generous: on a busy machine a process may need seconds for its start alone.
constexpr int kSamplesMs = 20'000;
constexpr DWORD kProcessMs = 60'000, kEndMs = 5000;
constexpr wchar_t kReport[] = L"kestra-compliance.report.";
constexpr LONG kMostReported = 100;

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

UniqueObject startProcess(std::wstring line) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
            const UniqueObject thread(process.hThread);
            return UniqueObject(process.hProcess);
        }
        if (GetLastError() != ERROR_INTERNAL_ERROR) break; // so Wine says now and then on a busy machine
    }
    return UniqueObject();
}

OwnProcess::OwnProcess(const std::wstring& options) {
    static std::atomic<int> number{0};
    const std::wstring name = std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(number++);
    m_reported = UniqueObject(CreateSemaphoreW(nullptr, 0, kMostReported, (kReport + name).c_str()));
    m_process = startProcess(g_ownCommand + options + L" --report " + name);
}

std::optional<DWORD> OwnProcess::codeWithin(DWORD milliseconds) {
    const UniqueObject process = std::move(m_process);
    const HANDLE either[] = {m_reported.get(), process.get()};
    std::optional<DWORD> code;
    switch (WaitForMultipleObjects(2, either, FALSE, milliseconds)) {
    case WAIT_OBJECT_0: // released once for each unit, and once more for none
        code = 0;
        while (WaitForSingleObject(m_reported.get(), 0) == WAIT_OBJECT_0)
            ++*code;
        break;
    case WAIT_OBJECT_0 + 1:
        GetExitCodeProcess(process.get(), &code.emplace(1));
        return code;
    default:
        break;
    }
    TerminateProcess(process.get(), 1);
    WaitForSingleObject(process.get(), kEndMs);
    return code;
}

std::optional<DWORD> runCommand(const std::wstring& line, DWORD milliseconds) {
    const UniqueObject process = startProcess(line);
    if (!process) return std::nullopt;
    if (WaitForSingleObject(process.get(), milliseconds) != WAIT_OBJECT_0) {
        TerminateProcess(process.get(), 1);
        return std::nullopt;
    }
    DWORD code = 1;
    GetExitCodeProcess(process.get(), &code);
    return code;
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
        return "captures and is ended";
    case Outcome::NotStarted:
        return "cannot be started";
    case Outcome::NotEnded:
        return format("does not end within %lu s", kProcessMs / 1000);
    }
    return format("ends with code 0x%lX", static_cast<unsigned long>(outcome));
}

Outcome runSecondProcess(const wchar_t* role) {
    OwnProcess process(std::wstring(L" --second ") + role);
    if (!process) return Outcome::NotStarted;
    const auto code = process.codeWithin(kProcessMs);
    return code ? static_cast<Outcome>(*code) : Outcome::NotEnded;
}

void reportTo(const std::wstring& name) {
    g_reportTo = name;
}

void endProcess(DWORD code) noexcept {
    if (!g_reportTo.empty()) {
        const UniqueObject other(OpenProcess(SYNCHRONIZE, FALSE, std::wcstoul(g_reportTo.c_str(), nullptr, 10)));
        const UniqueObject reported(OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, (kReport + g_reportTo).c_str()));
        if (other && reported && ReleaseSemaphore(reported.get(), static_cast<LONG>(code) + 1, nullptr))
            WaitForSingleObject(other.get(), INFINITE); // it ends this process, unless it was ended itself
    }
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
