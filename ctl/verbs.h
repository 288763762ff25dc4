// Every verb of the program in one table. A new verb is one row here, and two functions: add…Options, which is portable
// and tells the command line what the verb takes, and run…, which does it.
#pragma once

#include "ctl/exit_code.h"
#include "ctl/options.h"

#include <cstdint>

namespace CLI {
class App;
}

namespace kestra::ctl {

class Console;

/// Common options that a verb takes, and whether its exit code is one of its own: the number of problems.
enum TakesOptions : uint32_t { kTakesNothing = 0, kTakesCard = 1, kTakesJson = 2, kCountsProblems = 4 };

/// VERB(name, Function, common options, what it does in one line, example and what it means)
#define KESTRA_CTL_VERBS(VERB)                                                                                         \
    VERB("list", List, kTakesJson, "the cards, whether they open, and what arrives at them", "kestra-ctl list")        \
    VERB("status", Status, kTakesCard | kTakesJson,                                                                    \
         "everything that a card tells, and the settings of FFmpeg and OBS that fit", "kestra-ctl status --card 1")    \
    VERB("watch", Watch, kTakesCard | kTakesJson, "what arrives and what is lost, once a second, until Ctrl-C",        \
         "kestra-ctl watch --passive")                                                                                 \
    VERB("snap", Snap, kTakesCard | kTakesJson, "one picture as a PNG file", "kestra-ctl snap picture.png --depth 10") \
    VERB("capture", Capture, kTakesCard | kTakesJson, "picture and sound into files, or into another program",         \
         "kestra-ctl capture film.y4m --seconds 60\n"                                                                  \
         "kestra-ctl capture - --depth 10 | ffmpeg -i - -c:v ffv1 film.mkv")                                           \
    VERB("converter", Converter, kTakesCard | kTakesJson, "how the card makes RGB: matrix, gains, offsets, limits",    \
         "kestra-ctl converter preset bt709\nkestra-ctl converter set RedGain=1.25 BlueOffset=-3")                     \
    VERB("formats", Formats, kTakesJson, "the formats that DirectShow applications chose last",                        \
         "kestra-ctl formats set video=uyvy audio=16")                                                                 \
    VERB(                                                                                                              \
        "log", Log, kTakesJson, "what the library has logged, and how it does",                                        \
        "kestra-ctl log set detail=3 folder=C:\\Temp\nkestra-ctl log tail --follow\nkestra-ctl log bundle C:\\report") \
    VERB("doctor", Doctor, kTakesCard | kTakesJson | kCountsProblems,                                                  \
         "why an application does not see, start or keep the card; the exit code is the number of problems",           \
         "kestra-ctl doctor")                                                                                          \
    VERB("trace", Trace, kTakesJson, "what was asked of cards and what they answered: recorded, shown, compared",      \
         "kestra-ctl trace start C:\\Temp --frames 3\nkestra-ctl trace show kestra-20260301-181502-4711.ktrace")

#define KESTRA_CTL_DECLARE(name, Function, takes, help, example)                                                       \
    void add##Function##Options(CLI::App& verb, Options& options);                                                     \
    /** Does what the verb is for. Throws Failure. */                                                                  \
    ExitCode run##Function(const Options& options, Console& console);
KESTRA_CTL_VERBS(KESTRA_CTL_DECLARE)
#undef KESTRA_CTL_DECLARE

struct Verb {
    const char* name;
    uint32_t takes; ///< TakesOptions
    const char* help;
    const char* example; ///< one a line
    void (*addOptions)(CLI::App& verb, Options& options);
    ExitCode (*run)(const Options& options, Console& console);
};

#define KESTRA_CTL_ROW(name, Function, takes, help, example)                                                           \
    {name, takes, help, example, add##Function##Options, run##Function},
inline constexpr Verb kVerbs[] = {KESTRA_CTL_VERBS(KESTRA_CTL_ROW)};
#undef KESTRA_CTL_ROW

} // namespace kestra::ctl
