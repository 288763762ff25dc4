// A verb that goes on until Ctrl-C, run in this process on a thread of its own: what it says can be looked at
// meanwhile.
#pragma once

#include "ctl/command_line.h"
#include "ctl/console.h"
#include "tests/support/child_program.h"
#include "tests/support/wait_until.h"

#include <windows.h>

#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kestra::test {

class LiveProgram {
public:
    /// @param arguments  words with blanks between them
    explicit LiveProgram(const std::string& arguments)
        : m_thread([this, arguments] {
              std::istringstream stream(arguments);
              std::vector<std::string> words;
              for (std::string word; stream >> word;)
                  words.push_back(word);
              m_exitCode = static_cast<DWORD>(ctl::runCommandLine(words, m_console));
          }) {}
    ~LiveProgram() {
        if (m_thread.joinable()) interrupt();
    }
    LiveProgram(const LiveProgram&) = delete;
    LiveProgram& operator=(const LiveProgram&) = delete;

    bool waitFor(const std::string& text) { return m_console.waitFor(text, &LiveConsole::output); }
    bool waitForError(const std::string& text) { return m_console.waitFor(text, &LiveConsole::error); }
    bool has(const std::string& text) { return m_console.has(text, &LiveConsole::output); }

    /// Waits until it ends by itself.
    ProgramResult finish() {
        m_thread.join();
        return {m_exitCode, m_console.output, m_console.error};
    }
    /// Presses Ctrl-C and waits for the end.
    ProgramResult interrupt() {
        m_console.interrupt();
        return finish();
    }

private:
    class LiveConsole final : public ctl::Console {
    public:
        void write(std::string_view text) override {
            const std::lock_guard lock(m_mutex);
            output += text;
        }
        void writeError(std::string_view text) noexcept override {
            const std::lock_guard lock(m_mutex);
            error += text;
        }
        bool isTerminal() const noexcept override { return false; }
        void showScreen(std::string_view lines) override { write(lines); }
        void showProgress(std::string_view) noexcept override {}
        bool isInterrupted(uint32_t waitMs) noexcept override {
            return WaitForSingleObject(m_interrupted.get(), waitMs) == WAIT_OBJECT_0;
        }
        void interrupt() { SetEvent(m_interrupted.get()); }
        bool has(const std::string& text, std::string LiveConsole::*where) {
            const std::lock_guard lock(m_mutex);
            return (this->*where).find(text) != std::string::npos;
        }
        bool waitFor(const std::string& text, std::string LiveConsole::*where) {
            return waitUntil([&] { return has(text, where); }, std::chrono::seconds(30));
        }

        std::string output, error;

    private:
        std::mutex m_mutex;
        const UniqueObject m_interrupted{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    };

    LiveConsole m_console;
    DWORD m_exitCode = ~0u;
    std::thread m_thread;
};

} // namespace kestra::test
