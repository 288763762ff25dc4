// kestra-compliance: does a DirectShow capture filter keep the platform's rules?
#include "compliance/format_keeper.h"
#include "compliance/profile.h"
#include "compliance/report.h"
#include "compliance/second_process.h"

#include <CLI/CLI.hpp>
#include <kestra_version.h>

#include <algorithm>
#include <cstdio>
#include <set>

namespace kestra::compliance {
namespace {

struct Options {
    std::string name, clsid, dll, profile, json, html, child, second, report, unplug, plug;
    DWORD keep = 0, run = 0;
    std::vector<std::string> only, skip;
    bool list = false, quick = false, shared = false, quiet = false;
    int limitSeconds = 60;
};

/// One argument as a started program reads it back.
std::wstring asArgument(const std::wstring& argument) {
    std::wstring text = L" \"";
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'"') text.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        text += c;
    }
    return text.append(backslashes, L'\\') + L'"';
}

SubjectName subjectOf(const Options& options) {
    SubjectName name;
    name.friendlyName = wide(options.name);
    name.dll = wide(options.dll);
    if (!options.clsid.empty() && FAILED(CLSIDFromString(wide(options.clsid).c_str(), &name.clsid)))
        throw Failure{"a class identifier such as {01234567-89AB-CDEF-0123-456789ABCDEF}", options.clsid};
    if (name.friendlyName.empty() && name.dll.empty() && name.clsid == GUID_NULL)
        throw Failure{"a filter: --name, --clsid or --dll", "none"};
    return name;
}

bool selected(const Test& test, const Options& options) {
    const auto named = [&](const std::vector<std::string>& list) {
        return std::any_of(list.begin(), list.end(),
                           [&](const std::string& one) { return one == test.group || one == test.id(); });
    };
    return (options.only.empty() || named(options.only)) && !named(options.skip);
}

void checkNames(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const auto& tests = allTests();
        if (std::none_of(tests.begin(), tests.end(),
                         [&](const Test& test) { return name == test.group || name == test.id(); }))
            throw Failure{"a group or a test as --list names them", name};
    }
}

void writeFile(const std::string& path, const std::string& text) {
    FILE* file = path == "-" ? stdout : _wfopen(wide(path).c_str(), L"wb");
    if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size())
        throw Failure{"a file to write: " + path, "none"};
    if (file != stdout) std::fclose(file);
}

int run(const Options& options) {
    if (options.list) {
        for (const Test& test : allTests())
            std::printf("%-36s %s\n", test.id().c_str(), test.rule);
        return 0;
    }
    checkNames(options.only);
    checkNames(options.skip);
    const SubjectName subject = subjectOf(options);
    Settings settings;
    settings.quick = options.quick;
    settings.limitSeconds = options.limitSeconds;
    settings.unplug = wide(options.unplug);
    settings.plug = wide(options.plug);

    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring command = asArgument(program).substr(1);
    for (const auto& [option, value] :
         {std::pair{L" --name", subject.friendlyName}, {L" --dll", subject.dll}, {L" --clsid", wide(options.clsid)}})
        if (!value.empty()) command += option + asArgument(value);
    setOwnCommand(command);
    if (!options.report.empty()) reportTo(wide(options.report));
    if (!options.second.empty()) secondProcess(subject, wide(options.second));
    if (options.keep != 0) endProcess(keepFormat(subject, options.keep) ? 0 : 1);
    if (options.run != 0) endWithProcess(options.run);
    if (!options.child.empty()) return runAsChild(wide(options.child), subject, settings);

    const Profile profile = options.profile.empty() ? Profile{} : readProfile(wide(options.profile), subject);
    if (settings.unplug.empty()) settings.unplug = profile.unplug;
    if (settings.plug.empty()) settings.plug = profile.plug;
    command += L" --run " + std::to_wstring(GetCurrentProcessId());
    if (settings.quick) command += L" --quick";
    if (!settings.unplug.empty()) command += L" --unplug" + asArgument(settings.unplug);
    if (!settings.plug.empty()) command += L" --plug" + asArgument(settings.plug);
    std::vector<size_t> tests;
    for (size_t i = 0; i < allTests().size(); ++i)
        if (selected(allTests()[i], options)) tests.push_back(i);

    const std::string title = !options.name.empty()  ? options.name
                              : !options.dll.empty() ? options.dll + (options.clsid.empty() ? "" : " " + options.clsid)
                                                     : options.clsid;
    const bool text = options.json != "-" && !options.quiet;
    std::vector<Result> results;
    std::string group;
    FormatKeeper keeper;
    runTests(tests, command, settings, options.shared, [&](Result result) {
        if (text && results.empty())
            std::printf("kestra-compliance %s, %zu tests of %s\n", KESTRA_VERSION_TEXT, tests.size(), title.c_str());
        applyProfile(profile, result);
        if (result.test->id() == "loss.unplug-and-plug" && result.failed() && !settings.plug.empty())
            runCommand(settings.plug, 20'000); // it may have crashed or hung while the device was away
        if (text) std::fputs(textOf(result, group != result.test->group).c_str(), stdout);
        std::fflush(stdout);
        group = result.test->group;
        results.push_back(std::move(result));
    });
    if (const std::string trouble = keeper.restore(); !trouble.empty())
        std::fprintf(stderr, "kestra-compliance: %s\n", trouble.c_str());
    const Totals totals = totalsOf(results);
    if (text) std::fputs(textOf(totals).c_str(), stdout);
    if (!options.json.empty()) writeFile(options.json, jsonOf(title, results));
    if (!options.html.empty()) writeFile(options.html, htmlOf(title, results));
    return std::min(totals.failures(), 125);
}

int runProgram(int argc, char** argv) {
    Options options;
    CLI::App app("kestra-compliance: does a DirectShow capture filter keep the platform's rules?", "kestra-compliance");
    app.set_version_flag("--version", KESTRA_VERSION_TEXT);
    app.add_option("--name", options.name, "the filter by its friendly name, as a capture device");
    app.add_option("--clsid", options.clsid, "the filter by its class: {…}; with --dll, the class in it");
    app.add_option("--dll", options.dll, "a DLL that need not be registered");
    app.add_option("--profile", options.profile, "a file that names deviations on purpose, each with its reason");
    app.add_option("--only", options.only, "these groups or tests only")->delimiter(',');
    app.add_option("--skip", options.skip, "not these groups or tests")->delimiter(',');
    app.add_flag("--list", options.list, "the tests and their rules");
    app.add_flag("--quick", options.quick, "fewer rounds of what is done often");
    app.add_option("--limit", options.limitSeconds, "seconds that a test may take (some have ten times that)")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_flag("--shared-process", options.shared,
                 "go on in the same process until a test fails: faster, less clean");
    app.add_option("--json", options.json,
                   "write the results into a file; -: to the standard output, in place of the text");
    app.add_option("--html", options.html, "write a page with everything and its plots into a file");
    app.add_flag("--quiet", options.quiet, "no text");
    app.add_option("--unplug", options.unplug, "a command that takes the device away, in place of the profile's");
    app.add_option("--plug", options.plug, "a command that brings it back");
    app.add_option("--child", options.child)->group("");
    app.add_option("--second", options.second)->group("");
    app.add_option("--report", options.report)->group("");
    app.add_option("--keep", options.keep)->group("");
    app.add_option("--run", options.run)->group("");
    app.footer("Exit code: the number of failures, 125 at most; 126: nothing was tested.\n"
               "Example:\n  kestra-compliance --name \"USB Video Device\" --html report.html");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 126;
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try {
        return run(options);
    } catch (const NoSubject& reason) {
        std::fprintf(stderr, "kestra-compliance: nothing was tested: %s\n", reason.why.c_str());
    } catch (const Failure& failure) {
        std::fprintf(stderr, "kestra-compliance: expected %s, got %s\n", failure.expected.c_str(), failure.got.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestra-compliance: %s\n", error.what());
    }
    return 126;
}

} // namespace
} // namespace kestra::compliance

int main(int argc, char** argv) {
    try {
        return kestra::compliance::runProgram(argc, argv);
    } catch (...) { // without memory even for the options
        return 126;
    }
}
