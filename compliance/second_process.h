// Processes beside the tests' own: one that captures from the same device, commands of the profile, and this program's
// own.
#pragma once

#include "compliance/subject.h"
#include "win32/handle.h"

#include <optional>

namespace kestra::compliance {

/// Starts a program. @return the process; none if it could not be started
UniqueObject startProcess(std::wstring line);
/// The command line that starts this program for the same subject. Set once at the start.
void setOwnCommand(std::wstring command);

/// This program for the same subject, as a process of its own that reports a code when it is done. It is then ended
/// from here: a process that ends itself while others start may stay half-ended on Wine. One thread's.
class OwnProcess {
public:
    OwnProcess() = default;
    /// Starts it.
    explicit OwnProcess(const std::wstring& options);
    explicit operator bool() const noexcept { return bool{m_process}; }
    HANDLE handle() const noexcept { return m_process.get(); }
    /// Waits for what it reports, or else its exit code, and ends it. @return none: neither came in time
    std::optional<DWORD> codeWithin(DWORD milliseconds);

private:
    UniqueObject m_reported, m_process;
};

/// Runs a command line. @return its exit code; none: it could not be started, or did not end in time and was ended
std::optional<DWORD> runCommand(const std::wstring& line, DWORD milliseconds);

/// What became of a second process that captures: its exit code while it can say so itself.
enum class Outcome : DWORD { Captured = 0, Refused = 2, NoSamples = 3, Died = 9, NotStarted = 1000, NotEnded = 1001 };
/// Other values are codes with which it ended otherwise. @return "captures", "is refused", ...
std::string outcomeText(Outcome outcome);

/// @param role  capture; die: it is ended while it runs
Outcome runSecondProcess(const wchar_t* role);
/// Of an OwnProcess: whom endProcess reports to, as its command line says.
void reportTo(const std::wstring& name);
/// Ends this process, or has it ended by the one that it reports to: what a filter has left behind can neither hold
/// that up nor change the code.
[[noreturn]] void endProcess(DWORD code) noexcept;
/// From now on this process ends when another one does, wherever it hangs then.
void endWithProcess(DWORD other);
/// What a second process does, to the end of its process.
[[noreturn]] void secondProcess(const SubjectName& name, const std::wstring& role);

} // namespace kestra::compliance
