#include "compliance/second_process.h"

#include "compliance/check.h"
#include "compliance/tests.h"
#include "win32/handle.h"

namespace kestra::compliance {
namespace {

std::wstring g_ownCommand;

} // namespace

void setOwnCommand(std::wstring command) {
    g_ownCommand = std::move(command);
}

DWORD runSecondProcess(const wchar_t* role, DWORD milliseconds) {
    std::wstring line = g_ownCommand + L" --second " + role;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return 1;
    const UniqueObject thread(process.hThread), owner(process.hProcess);
    if (WaitForSingleObject(process.hProcess, milliseconds) != WAIT_OBJECT_0) {
        TerminateProcess(process.hProcess, STILL_ACTIVE);
        return STILL_ACTIVE;
    }
    DWORD code = 1;
    GetExitCodeProcess(process.hProcess, &code);
    return code;
}

int secondProcess(const SubjectName& name, const std::wstring& role) {
    try {
        const Subject subject(name);
        ComRef<IBaseFilter> filter;
        if (FAILED(subject.create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())))) return 2;
        const auto pin = capturePin(filter.get());
        ComRef<Sink> sink(new Sink);
        if (FAILED(pin->Connect(sink->pin(), nullptr))) return 2;
        sink->Run(0);
        const bool runs = SUCCEEDED(filter->Run(0));
        const bool came = runs && waitFor([&] { return sink->samples().size() >= 3; }, 8000);
        if (came && role == L"die") TerminateProcess(GetCurrentProcess(), 9);
        filter->Stop();
        sink->pin()->Disconnect();
        pin->Disconnect();
        return came ? 0 : runs ? 1 : 2;
    } catch (const Failure&) {
        return 2;
    }
}

} // namespace kestra::compliance
