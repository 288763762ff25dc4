// log: how the library logs and what it has logged.
#include "ctl/bundle.h"
#include "ctl/console.h"
#include "ctl/json.h"
#include "ctl/log_file.h"
#include "ctl/log_text.h"
#include "ctl/output_file.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/user_registry.h"
#include "ctl/verbs.h"
#include "protocol/user_settings.h"

#include <algorithm>
#include <charconv>
#include <span>

namespace kestra::ctl {

namespace {

constexpr uint32_t kFollowMs = 250;
constexpr uint32_t kMostDetail = 5, kDefaultSeverity = 4;

struct Value {
    const char* name; ///< on the command line
    const wchar_t* value;
    bool isSeverity;
    const char* text;
};
constexpr Value kValues[] = {{"detail", L"FileOutDetail", false, "file detail"},
                             {"severity", L"FileSeverityThrsh", true, "file from"},
                             {"debugger-detail", L"IdeOutDetail", false, "debug detail"},
                             {"debugger-severity", L"IdeSeverityThrsh", true, "debug from"}};
constexpr const char* kSeverities[] = {"debug", "trace", "notice", "warning", "error"};

uint32_t severityOf(std::optional<uint32_t> stored) noexcept {
    return stored && *stored < std::size(kSeverities) ? *stored : kDefaultSeverity;
}

/// @param isTrial  only says what is wrong
void setValue(const std::string& assignment, bool isTrial) {
    const size_t equals = assignment.find('=');
    const std::string name = assignment.substr(0, equals);
    const std::string wanted = equals == std::string::npos ? "" : assignment.substr(equals + 1);
    if (name == "folder") {
        const std::string folder = fullFolder(wanted);
        if (!isTrial) writeText(kLogKey, L"LogDir", folder);
        return;
    }
    const auto* value =
        std::find_if(std::begin(kValues), std::end(kValues), [&](const Value& known) { return name == known.name; });
    if (value == std::end(kValues))
        throw Failure(ExitCode::Usage, "the log has no '" + name + "'",
                      "it has: detail, severity, folder, debugger-detail, debugger-severity");
    uint32_t number = 0;
    if (value->isSeverity) {
        const auto* severity = std::find(std::begin(kSeverities), std::end(kSeverities), wanted);
        if (severity == std::end(kSeverities))
            throw Failure(ExitCode::Usage, "'" + wanted + "' is no severity",
                          "there are: debug, trace, notice, warning, error");
        number = static_cast<uint32_t>(severity - kSeverities);
    } else {
        const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), number);
        if (error != std::errc() || end != wanted.data() + wanted.size() || number > kMostDetail)
            throw Failure(ExitCode::Usage, "'" + wanted + "' is no detail",
                          "it takes a number from 0 (off) to 5 (all)");
    }
    if (!isTrial) writeNumber(kLogKey, value->value, number);
}

ExitCode show(const Options& options, Console& console) {
    Json json = jsonOf("log");
    std::string text;
    for (const Value& value : kValues) {
        const std::optional<uint32_t> stored = readNumber(kLogKey, value.value);
        if (value.isSeverity) {
            const char* severity = kSeverities[severityOf(stored)];
            json[value.name] = severity;
            text += field(value.text, severity);
        } else {
            json[value.name] = stored.value_or(0);
            text += field(value.text, stored.value_or(0) == 0 ? "0: off" : std::to_string(*stored) + " of 5");
        }
    }
    const std::string folder = logFolder();
    json["folder"] = folder.empty() ? Json(nullptr) : Json(folder);
    text += field("folder", folder.empty() ? "none: each program logs into its current folder" : folder);
    if (readNumber(kLogKey, L"FileOutDetail").value_or(0) == 0)
        text += std::string("The log is off: ") + kLogSwitchOn + ".\n";
    console.write(options.json ? jsonLine(json) : text);
    return ExitCode::Done;
}

/// Writes lines as they are, or as JSON, with or without what their numbers mean.
void writeLines(const Options& options, Console& console, std::string_view text, bool explains) {
    std::string out;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string line(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::string meaning = explains ? explainLogLine(line, systemErrorText) : "";
        if (options.json) {
            Json json = jsonOf("log");
            json["line"] = line;
            if (explains) json["meaning"] = meaning.empty() ? Json(nullptr) : Json(meaning);
            out += jsonLine(json);
        } else {
            out += line + '\n' + (meaning.empty() ? "" : "    = " + meaning + '\n');
        }
    }
    console.write(out);
}

ExitCode tail(const Options& options, Console& console) {
    const std::string name = logFile(options.log.file);
    std::string bytes = readLog(options.log.file);
    size_t known = bytes.size() & ~size_t{1};
    writeLines(options, console, lastLines(textOfLog(bytes), options.log.lines), false);
    while (options.log.follow && !console.isInterrupted(kFollowMs)) {
        bytes = readFile(name);
        if (bytes.size() < known) known = 0; // begun anew
        const std::string fresh = textOfLog(std::string_view(bytes).substr(known));
        const size_t whole = fresh.rfind('\n');
        if (whole == std::string::npos) continue;
        writeLines(options, console, std::string_view(fresh).substr(0, whole + 1), false);
        known = bytes.size() & ~size_t{1};
    }
    return ExitCode::Done;
}

} // namespace

ExitCode runLog(const Options& options, Console& console) {
    const std::string& action = options.log.action;
    if (action == "tail") return tail(options, console);
    if (action == "bundle") {
        const std::string made = Bundle(options.log.folder, console).fill(options.log.file, {});
        Json json = jsonOf("log");
        json["folder"] = options.log.folder;
        console.write(options.json ? jsonLine(json) : made);
        return ExitCode::Done;
    }
    if (action == "decode") {
        writeLines(options, console, textOfLog(readLog(options.log.file)), true);
        return ExitCode::Done;
    }
    for (const bool isTrial : {true, false}) // all are sensible before one is changed
        for (const std::string& assignment : options.log.values)
            setValue(assignment, isTrial);
    return show(options, console);
}

} // namespace kestra::ctl
