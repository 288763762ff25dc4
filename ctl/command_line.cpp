// The command line's parser, set up from the table of verbs.
#include "ctl/command_line.h"

#include "ctl/console.h"
#include "ctl/text.h"
#include "ctl/verbs.h"

#include <CLI/CLI.hpp>
#include <kestra_version.h>

#include <algorithm>
#include <sstream>

namespace kestra::ctl {

namespace {

constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failure, 2 wrong usage, 3 no card, 4 no signal, 5 in use.";
constexpr char kProblemCodes[] = "Exit code: the number of problems; 0: none was found.";

void addCommonOptions(CLI::App& app, uint32_t takes, Options& options) {
    if (takes & kTakesCard)
        app.add_option("--card", options.card,
                       std::string("a card's number, or a part of its slot text; without it, ") +
                           (takes & kCountsProblems ? "all of them" : "card 0"))
            ->type_name("CARD");
    if (takes & kTakesJson) app.add_flag("--json", options.json, "JSON in place of text");
}

std::string footerOf(const Verb& verb) {
    std::string footer = "Example:\n";
    std::istringstream lines(verb.example);
    for (std::string line; std::getline(lines, line);)
        footer += "  " + line + "\n";
    return footer + "\n" + (verb.takes & kCountsProblems ? kProblemCodes : kExitCodes);
}

const Verb* findVerb(const std::string& name) noexcept {
    const Verb* verb =
        std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const Verb& v) { return v.name == name; });
    return verb == std::end(kVerbs) ? nullptr : verb;
}

/// What went wrong, what to do about it.
void report(Console& console, const Failure& failure) noexcept {
    console.writeError("kestra-ctl: " + std::string(failure.what()) + "\n            " + failure.remedy() + "\n");
}

ExitCode parseAndRun(const std::vector<std::string>& arguments, Console& console) {
    constexpr char kVerbsHint[] = "kestra-ctl --help shows them all";
    if (arguments.empty()) throw Failure(ExitCode::Usage, "which verb?", kVerbsHint);
    if (!arguments[0].starts_with('-') && !findVerb(arguments[0]))
        throw Failure(ExitCode::Usage, "there is no verb '" + arguments[0] + "'", kVerbsHint);
    Options options;
    CLI::App app("kestra-ctl: Kestra capture cards at the command line", "kestra-ctl");
    app.footer("kestra-ctl VERB --help explains a verb, with an example.\n" + std::string(kExitCodes));
    app.set_help_flag("--help,-h", "this text");
    app.set_version_flag("--version", "kestra-ctl " KESTRA_VERSION_TEXT, "the program's version");
    app.require_subcommand(1, 1);
    for (const Verb& verb : kVerbs) {
        CLI::App& sub = *app.add_subcommand(verb.name, verb.help);
        sub.footer(footerOf(verb));
        addCommonOptions(sub, verb.takes, options);
        verb.addOptions(sub, options);
    }
    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& asked) { // for help
        std::ostringstream text;
        app.exit(asked, text, text);
        console.write(text.str());
        return ExitCode::Done;
    } catch (const CLI::ParseError& error) {
        std::string verb;
        for (const CLI::App* sub : app.get_subcommands())
            verb = sub->get_name() + " ";
        throw Failure(ExitCode::Usage, error.what(), "see: kestra-ctl " + verb + "--help");
    }
    return findVerb(app.get_subcommands().front()->get_name())->run(options, console);
}

} // namespace

ExitCode runCommandLine(const std::vector<std::string>& arguments, Console& console) noexcept {
    try {
        return parseAndRun(arguments, console);
    } catch (const Failure& failure) {
        report(console, failure);
        return failure.code();
    } catch (const std::bad_alloc&) {
        report(console, Failure(ExitCode::Failure, "there is not enough memory", "close other programs and try again"));
    } catch (const std::exception& error) {
        report(console, Failure(ExitCode::Failure, error.what(), "this should not happen: please report it"));
    }
    return ExitCode::Failure;
}

} // namespace kestra::ctl
