// Anonymous pipes, one reading thread each.
#include "tests/support/child_program.h"

#include <array>
#include <cstdio>
#include <mutex>
#include <utility>

namespace kestra::test {

struct ChildProgram::Reader {
    UniqueObject pipe;
    std::mutex mutex;
    std::string text;
    std::function<bool(const char*, size_t)> take;
    std::thread thread;

    void loop() {
        std::array<char, 65536> buffer;
        for (DWORD bytes = 0;
             ReadFile(pipe.get(), buffer.data(), DWORD(buffer.size()), &bytes, nullptr) && bytes != 0;) {
            if (take) {
                if (take(buffer.data(), bytes)) continue;
                break;
            }
            const std::lock_guard lock(mutex);
            text.append(buffer.data(), bytes);
        }
        pipe = UniqueObject();
    }
};

namespace {

std::pair<UniqueObject, UniqueObject> makePipe(DWORD bytes) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    UniqueObject read, write;
    CreatePipe(read.out(), write.out(), &inherit, bytes);
    SetHandleInformation(read.get(), HANDLE_FLAG_INHERIT, 0);
    return {std::move(read), std::move(write)};
}

} // namespace

ChildProgram::ChildProgram(std::string command, std::function<bool(const char*, size_t)> onOutput)
    : m_output(std::make_shared<Reader>()), m_error(std::make_shared<Reader>()) {
    auto [outRead, outWrite] = makePipe(1 << 20);
    auto [errorRead, errorWrite] = makePipe(1 << 16);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = outWrite.get();
    startup.hStdError = errorWrite.get();
    PROCESS_INFORMATION child = {};
    const auto start = [&] {
        return CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child);
    };
    bool started = start() != FALSE;
    // A busy system may refuse a program that is there.
    if (const DWORD error = GetLastError();
        !started && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
        std::fprintf(stderr, "%s could not be started: Windows error %lu; once more\n", command.c_str(), error);
        started = start() != FALSE;
    }
    if (started) {
        m_process = UniqueObject(child.hProcess);
        CloseHandle(child.hThread);
    } else {
        m_error->text = "could not be started: Windows error " + std::to_string(GetLastError()) + "\n";
    }
    outWrite = UniqueObject();
    errorWrite = UniqueObject();
    m_output->take = std::move(onOutput);
    m_output->pipe = std::move(outRead);
    m_error->pipe = std::move(errorRead);
    for (Reader* reader : {m_output.get(), m_error.get()})
        reader->thread = std::thread([reader] { reader->loop(); });
}

ChildProgram::~ChildProgram() {
    if (m_process && isRunning()) TerminateProcess(m_process.get(), ~0u);
    for (Reader* reader : {m_output.get(), m_error.get()})
        if (reader->thread.joinable()) reader->thread.join();
}

ProgramResult ChildProgram::finish(DWORD deadlineMs) {
    ProgramResult result;
    if (m_process) {
        if (WaitForSingleObject(m_process.get(), deadlineMs) == WAIT_OBJECT_0)
            GetExitCodeProcess(m_process.get(), &result.exitCode);
        else
            TerminateProcess(m_process.get(), ~0u);
    }
    for (Reader* reader : {m_output.get(), m_error.get()})
        if (reader->thread.joinable()) reader->thread.join();
    result.output = std::move(m_output->text);
    result.error = std::move(m_error->text);
    return result;
}

std::string ChildProgram::outputSoFar() const {
    const std::lock_guard lock(m_output->mutex);
    return m_output->text;
}

} // namespace kestra::test
