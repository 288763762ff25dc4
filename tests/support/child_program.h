// A Windows program as a person or a script runs it: what it prints and how it exits. One thread's.
#pragma once

#include "win32/handle.h"

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace kestra::test {

struct ProgramResult {
    DWORD exitCode = ~0u; ///< ~0: it did not end within the deadline, and was ended
    std::string output, error;
};

/// A program that is running, with its two outputs read as they come.
class ChildProgram {
public:
    /// @param command  the command line, program first
    /// @param onOutput called on a thread of this object's with each piece of the standard output; null: kept for
    ///                 finish(). False: stops reading and closes the pipe.
    explicit ChildProgram(std::string command, std::function<bool(const char*, size_t)> onOutput = nullptr);
    /// Ends the program if it still runs.
    ~ChildProgram();

    bool isRunning() const noexcept { return WaitForSingleObject(m_process.get(), 0) == WAIT_TIMEOUT; }
    /// Waits for its end.
    ProgramResult finish(DWORD deadlineMs = 60000);
    /// What it has written to the standard output until now.
    std::string outputSoFar() const;

private:
    struct Reader;
    UniqueObject m_process;
    std::shared_ptr<Reader> m_output, m_error;
};

/// Runs it to its end.
inline ProgramResult runProgram(const std::string& command) {
    return ChildProgram(command).finish();
}

} // namespace kestra::test
