// Any words: the command line answers with help, a verb's run or a usage error of two lines, and never ends otherwise.
// What looks like a converter's file is read as one, too.
#include "ctl/command_line.h"
#include "ctl/converter_values.h"
#include "ctl/exit_code.h"
#include "ctl/log_text.h"
#include "tests/ctl/verb_stubs.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

using namespace kestra;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    std::vector<std::string> words;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    test::KeptConsole console;
    test::lastRun() = {};
    const ctl::ExitCode code = ctl::runCommandLine(words, console);
    const bool ran = !test::lastRun().verb.empty();
    if (code != ctl::ExitCode::Done && (code != ctl::ExitCode::Usage || ran || console.error.empty())) std::abort();
    if (code == ctl::ExitCode::Done && !ran && console.output.empty()) std::abort();
    for (const std::string& value : test::lastRun().options.converter.values)
        try {
            TarnisConverterParams params{};
            ctl::setConverterValue(params, value);
        } catch (const ctl::Failure&) {
        }
    try {
        ctl::converterOfJson(text, "file");
    } catch (const ctl::Failure&) {
    }
    ctl::explainLogLine(text, [](uint32_t) { return std::string("error"); });
    ctl::lastLines(ctl::textOfLog(text), 3);
    return 0;
}
