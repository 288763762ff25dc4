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

/// Common options that a verb takes.
enum TakesOptions : uint32_t { kTakesNothing = 0, kTakesCard = 1, kTakesJson = 2 };

/// VERB(name, Function, common options, what it does in one line, example and what it means)
#define KESTRA_CTL_VERBS(VERB)                                                                                         \
    VERB("list", List, kTakesJson, "the cards, whether they open, and what arrives at them", "kestra-ctl list")        \
    VERB("doctor", Doctor, kTakesCard | kTakesJson,                                                                    \
         "why an application does not see, start or keep the card; the exit code is the number of problems",           \
         "kestra-ctl doctor")

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
