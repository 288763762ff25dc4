// Any words for kestrasimctl: they mean what they say, or the error names what is wrong. Lines are words; the first
// line's first byte chooses what they are.
#include "simcard/ctl/command_words.h"

#include <algorithm>
#include <cstdlib>

using namespace kestra::simcard;

namespace {

/// A number's digits say the number itself, however long they are.
void checkNumber(const std::string& digits, uint32_t value) {
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) std::abort();
    const size_t begin = std::min(digits.find_first_not_of('0'), digits.size() - 1);
    if (digits.substr(begin) != std::to_string(value)) std::abort();
}

void checkSignal(const std::vector<std::string>& words) {
    const Signal signal = parseSignal(words);
    if (!signal.present) {
        if (words.size() != 1 || words[0] != "none") std::abort();
        return;
    }
    const size_t x = words[0].find('x');
    checkNumber(words[0].substr(0, x), signal.width);
    checkNumber(words[0].substr(x + 1), signal.height);
    if (signal.interlaced != (std::find(words.begin() + 2, words.end(), "i") != words.end() ? 1 : 0)) std::abort();
    if (signal.isValid() && signal.nominalFrameRate() == 0) std::abort();
}

void checkFault(const std::vector<std::string>& words) {
    const Fault fault = parseFault(words);
    if (fault.count == 0) std::abort(); // it would never happen
    if (fault.kind == FaultKind::SignalChange || fault.kind == FaultKind::SignalAtFrame)
        checkSignal({words.begin() + 3, words.end()});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(bytes) + 1, size - 1);
    std::vector<std::string> words;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    try {
        if (bytes[0] % 3 == 0) {
            const CommandLine line = parseCommandLine(words);
            if (!line.help && line.arguments.size() + !line.command.empty() > words.size()) std::abort();
        } else if (bytes[0] % 3 == 1) {
            checkSignal(words);
        } else {
            checkFault(words);
        }
    } catch (const UsageError& error) {
        if (error.text.empty()) std::abort();
    }
    return 0;
}
