// What trace takes.
#include "ctl/verbs.h"

#include <CLI/CLI.hpp>

namespace kestra::ctl {

void addTraceOptions(CLI::App& verb, Options& options) {
    Options::Trace& trace = options.trace;
    const auto addAction = [&](const char* name, const char* help) -> CLI::App& {
        CLI::App& action = *verb.add_subcommand(name, help);
        action.fallthrough();
        action.callback([&trace, name] { trace.action = name; });
        return action;
    };
    const auto addFile = [](CLI::App& action, const char* name, std::string& file, const char* help) {
        action.add_option(name, file, help)->required()->type_name("FILE");
    };
    constexpr char kFileHelp[] = "the trace's first file, those that follow beside it";
    verb.require_subcommand(1, 1);
    CLI::App& start = addAction("start", "records programs that open a card from then on");
    start.add_option("folder", trace.folder, "where each of them writes its trace")->required()->type_name("FOLDER");
    start.add_option("--frames", trace.frames, "keeps the contents of so many frames; without it, none")
        ->check(CLI::Range(0, 100000))
        ->type_name("N");
    start.add_option("--megabytes", trace.megabytes, "the most that a trace may take; without it, 64")
        ->check(CLI::Range(1, 100000))
        ->type_name("MB");
    addAction("stop", "records no more, within a second");
    addAction("status", "whether programs are recorded, and the last trace");
    addFile(addAction("show", "requests and replies, field by field"), "file", trace.file, kFileHelp);
    addFile(addAction("stat", "latencies, frame intervals, losses"), "file", trace.file, kFileHelp);
    CLI::App& plot = addAction("plot", "a page with a time line and a histogram");
    addFile(plot, "file", trace.file, kFileHelp);
    addFile(plot, "--html", trace.page, "the page; - is the standard output");
    CLI::App& diff = addAction("diff", "whether the same was asked and answered; the exit code is 1 if not");
    addFile(diff, "first", trace.file, "a trace");
    addFile(diff, "second", trace.second, "another one");
}

} // namespace kestra::ctl
