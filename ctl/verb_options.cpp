// What each verb takes on the command line.
#include "ctl/verbs.h"

#include <CLI/CLI.hpp>

namespace kestra::ctl {

namespace {

void addDepth(CLI::App& verb, uint32_t& depth) {
    verb.add_option("--depth", depth, "bits of a sample: 8 or 10; without it, 8")
        ->check(CLI::IsMember({8, 10}))
        ->type_name("BITS");
}

void addSeconds(CLI::App& verb, double& seconds) {
    verb.add_option("--seconds", seconds, "ends after so long; without it, with Ctrl-C")
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("SECONDS");
}

/// One of several things that a verb does; the verb's own options may stand behind it.
CLI::App& addAction(CLI::App& verb, std::string& chosen, const std::string& name, const std::string& help) {
    CLI::App& action = *verb.add_subcommand(name, help);
    action.fallthrough();
    action.callback([&chosen, name] { chosen = name; });
    return action;
}

void addAssignments(CLI::App& action, std::vector<std::string>& values, const char* help) {
    action.add_option("values", values, help)->required()->type_name("NAME=VALUE");
}

} // namespace

void addListOptions(CLI::App&, Options&) {}

void addStatusOptions(CLI::App&, Options&) {}

void addSnapOptions(CLI::App& verb, Options& options) {
    verb.add_option("file", options.snap.file, "the PNG file; - is the standard output")->required()->type_name("FILE");
    addDepth(verb, options.snap.depth);
    verb.add_flag("--raw", options.snap.raw, "keeps the raw frame, too, beside the picture with the extension .raw");
}

void addWatchOptions(CLI::App& verb, Options& options) {
    verb.add_flag("--passive", options.watch.passive,
                  "only looks: counts no frames, and leaves the card to other programs");
    addSeconds(verb, options.watch.seconds);
}

void addCaptureOptions(CLI::App& verb, Options& options) {
    Options::Capture& what = options.capture;
    verb.add_option("file", what.file, "the file of the pictures; - is the standard output")
        ->required()
        ->type_name("FILE");
    addDepth(verb, what.depth);
    verb.add_flag("--raw", what.raw, "raw frames as the card writes them, in place of YUV4MPEG2");
    verb.add_option("--sound", what.sound, "bits of the sound: 16 or 24, or none; without it, 16")
        ->check(CLI::IsMember({"16", "24", "none"}))
        ->type_name("BITS");
    verb.add_option("--wav", what.wav, "the file of the sound; without it, beside the pictures with the ending .wav")
        ->type_name("FILE");
    verb.add_option("--frames", what.frames, "ends after so many frames")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000}))
        ->type_name("N");
    addSeconds(verb, what.seconds);
    verb.add_flag("--until-loss", what.untilLoss, "ends when the first frame is lost");
    verb.add_option("--buffer", what.bufferMegabytes, "megabytes between grabbing and writing; without it, 512")
        ->check(CLI::Range(1, 65536))
        ->type_name("MB");
}

void addConverterOptions(CLI::App& verb, Options& options) {
    Action& action = options.converter;
    verb.require_subcommand(1, 1);
    addAction(verb, action.name, "show", "what the card has");
    addAssignments(addAction(verb, action.name, "set", "changes single values"), action.values,
                   "for example RedGain=1.25 BlueOffset=-3");
    addAction(verb, action.name, "default", "what a fresh card has: BT.601, gains 1, offsets 0");
    addAction(verb, action.name, "preset", "the matrix of a standard: bt601, bt709, bt601-full or bt709-full")
        .add_option("preset", action.values, "its name")
        ->required()
        ->expected(1)
        ->type_name("PRESET");
    for (const auto& [name, help] : {std::pair{"save", "into a JSON file"}, {"load", "from such a file"}})
        addAction(verb, action.name, name, help)
            .add_option("file", action.file, "the file")
            ->required()
            ->type_name("FILE");
}

void addFormatsOptions(CLI::App& verb, Options& options) {
    Action& action = options.formats;
    verb.require_subcommand(1, 1);
    addAction(verb, action.name, "show", "the stored choices");
    addAssignments(addAction(verb, action.name, "set", "stores choices for the next application"), action.values,
                   "video=yuy2|rgb24|uyvy|rgb32, audio=16|24");
    addAction(verb, action.name, "restore", "forgets them: YUY2 and 16 bits");
}

void addLogOptions(CLI::App& verb, Options& options) {
    Options::Log& log = options.log;
    const auto addFile = [&](CLI::App& action) {
        action.add_option("--file", log.file, "the log's file; without it, the one in the configured folder")
            ->type_name("FILE");
    };
    verb.require_subcommand(1, 1);
    addAction(verb, log.action, "show", "how the library logs");
    addAssignments(addAction(verb, log.action, "set", "changes that for programs that start then"), log.values,
                   "detail=0..5, severity=debug|trace|notice|warning|error, folder=FOLDER, debugger-detail, "
                   "debugger-severity");
    CLI::App& tail = addAction(verb, log.action, "tail", "the last lines");
    tail.add_option("--lines", log.lines, "how many; without it, 20")->check(CLI::Range(1, 1000000))->type_name("N");
    tail.add_flag("--follow", log.follow, "and those that follow, until Ctrl-C");
    addFile(tail);
    addFile(addAction(verb, log.action, "decode", "all lines, with the meaning of their numbers"));
    CLI::App& bundle = addAction(verb, log.action, "bundle", "everything that helps to help, into a folder");
    bundle.add_option("folder", log.folder, "the folder; it is made")->required()->type_name("FOLDER");
    addFile(bundle);
}

} // namespace kestra::ctl
