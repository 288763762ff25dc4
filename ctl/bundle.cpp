// Asks the program's own verbs, as a user would.
#include "ctl/bundle.h"

#include "ctl/cards.h"
#include "ctl/log_file.h"
#include "ctl/output_file.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/trace_files.h"
#include "ctl/verbs.h"

#include <kestra_version.h>

#include <windows.h>

#include <algorithm>
#include <string_view>

namespace kestra::ctl {

namespace {

/// Keeps what a verb says.
class CollectingConsole final : public Console {
public:
    explicit CollectingConsole(Console& real) : m_real(real) {}
    void write(std::string_view text) override { said += text; }
    void writeError(std::string_view text) noexcept override {
        try {
            said += text;
        } catch (const std::exception&) { // no memory for what is only told
        }
    }
    bool isTerminal() const noexcept override { return false; }
    void showScreen(std::string_view) override {}
    void showProgress(std::string_view) noexcept override {}
    bool isInterrupted(uint32_t waitMs) noexcept override { return m_real.isInterrupted(waitMs); }

    std::string said;

private:
    Console& m_real;
};

std::string saidBy(const Verb& verb, const Options& options, Console& console) {
    CollectingConsole collecting(console);
    try {
        verb.run(options, collecting);
    } catch (const Failure& failure) {
        collecting.writeError(std::string(failure.what()) + "\n" + failure.remedy() + "\n");
    }
    return collecting.said;
}

const Verb& verbOf(std::string_view name) {
    return *std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const Verb& verb) { return name == verb.name; });
}

std::string versions() {
    OSVERSIONINFOEXW system{};
    system.dwOSVersionInfoSize = sizeof system;
    GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&system)); // of the system as far as it tells this program
    return format("kestra-ctl " KESTRA_VERSION_TEXT "\nWindows %lu.%lu build %lu\n", system.dwMajorVersion,
                  system.dwMinorVersion, system.dwBuildNumber);
}

} // namespace

Bundle::Bundle(std::string folder, Console& console)
    : m_folder(std::move(folder)), m_console(console), m_trace(lastTraceFiles()) {
    Options asked;
    asked.trace.action = "status";
    m_traceStatus = saidBy(verbOf("trace"), asked, console);
    if (!CreateDirectoryW(wideOfUtf8(m_folder).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        throw Failure(ExitCode::Failure, m_folder + " cannot be made: " + systemErrorText(GetLastError()),
                      "choose another folder");
}

std::string Bundle::fill(const std::string& log, const std::optional<std::string>& doctor) const {
    std::string made;
    const auto put = [&](const std::string& name, const std::string& text) {
        writeFile(m_folder + '\\' + name, text.data(), text.size());
        made += "  " + name + '\n';
    };
    Options asked;
    asked.formats.name = asked.log.action = "show";
    const auto said = [&](const char* verb) { return saidBy(verbOf(verb), asked, m_console); };
    put("versions.txt", versions());
    for (const std::string verb : {"list", "formats", "log"})
        put(verb + ".txt", said(verb.c_str()));
    put("doctor.txt", doctor ? *doctor : said("doctor"));
    for (const CardEntry& card : findCards()) {
        asked.card = std::to_string(card.number);
        put("status-" + asked.card + ".txt", said("status"));
    }
    put("trace.txt", m_traceStatus);
    for (const std::string& file : m_trace)
        put(file.substr(file.find_last_of('\\') + 1), readFile(file));
    try {
        put("TARNIS.txt", readLog(log));
    } catch (const Failure& failure) {
        put("no-log.txt", std::string(failure.what()) + '\n');
    }
    return m_folder + " holds:\n" + made + "Look through it before you pass it on: it names folders of yours.\n";
}

} // namespace kestra::ctl
