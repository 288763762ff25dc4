// trace: has what is asked of cards recorded, and reads it.
#include "ctl/console.h"
#include "ctl/json.h"
#include "ctl/output_file.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/trace_diff.h"
#include "ctl/trace_files.h"
#include "ctl/trace_plot.h"
#include "ctl/trace_stat.h"
#include "ctl/trace_text.h"
#include "ctl/user_registry.h"
#include "ctl/verbs.h"
#include "protocol/user_settings.h"

#include <windows.h>

namespace kestra::ctl {

namespace {

/// Throws Failure.
std::string existingFolder(const std::string& folder) {
    const std::string full = fullFolder(folder);
    return full.substr(0, full.size() - 1);
}

ExitCode status(const Options& options, Console& console) {
    const std::string folder = traceFolder();
    const std::vector<std::string> last = lastTraceFiles();
    const uint32_t frames = readNumber(kLogKey, kTraceFramesValue).value_or(0);
    const uint32_t megabytes = readNumber(kLogKey, kTraceMegabytesValue).value_or(kTraceMegabytes);
    if (options.json) {
        Json json = jsonOf("trace");
        json["folder"] = folder.empty() ? Json(nullptr) : Json(folder);
        json["frames"] = frames;
        json["megabytes"] = megabytes;
        json["last"] = last.empty() ? Json(nullptr) : Json(last.front());
        console.write(jsonLine(json));
        return ExitCode::Done;
    }
    std::string text = field("recording", folder.empty() ? "no" : "programs that open a card from now on");
    if (!folder.empty())
        text +=
            field("folder", folder) +
            field("frames", frames == 0 ? "their sizes and hashes" : "the first " + std::to_string(frames) + " kept") +
            field("limit", std::to_string(megabytes) + " MB a trace");
    console.write(text + field("last trace", last.empty() ? "none" : last.front()));
    return ExitCode::Done;
}

void start(const Options::Trace& trace) {
    const std::string folder = existingFolder(trace.folder);
    OutputFile(folder + "\\kestra-trial").remove(); // programs would only tell their logs that they cannot write there
    writeNumber(kLogKey, kTraceFramesValue, trace.frames);
    writeNumber(kLogKey, kTraceMegabytesValue, trace.megabytes);
    writeText(kLogKey, kTraceLastFolderValue, folder);
    writeText(kLogKey, kTraceFolderValue, folder);
}

} // namespace

ExitCode runTrace(const Options& options, Console& console) {
    const Options::Trace& what = options.trace;
    if (what.action == "start") start(what);
    if (what.action == "stop") removeValue(kLogKey, kTraceFolderValue);
    if (what.action == "start" || what.action == "stop" || what.action == "status") return status(options, console);

    const trace::Trace trace = loadTrace(what.file);
    console.writeError(traceCaution(trace));
    if (what.action == "show") {
        console.write(options.json ? showTraceJson(trace) : showTrace(trace, systemErrorText));
    } else if (what.action == "stat") {
        const TraceStat stat = statOf(trace);
        console.write(options.json ? jsonLine(statJson(stat)) : statText(stat));
    } else if (what.action == "plot") {
        const std::string page = tracePage(trace, what.file.substr(what.file.find_last_of("/\\") + 1));
        writeFile(what.page, page.data(), page.size());
    } else {
        const trace::Trace second = loadTrace(what.second);
        console.writeError(traceCaution(second));
        const TraceDiff diff = diffOf(trace, second);
        console.write(options.json ? jsonLine(diffJson(diff)) : diffText(diff, trace, second));
        if (!diff.lanes.empty()) return ExitCode::Failure;
    }
    return ExitCode::Done;
}

} // namespace kestra::ctl
