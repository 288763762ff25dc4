// Words into numbers, signals and faults.
#include "simcard/ctl/command_words.h"

#include <cctype>
#include <cstdlib>

namespace kestra::simcard {

CommandLine parseCommandLine(const std::vector<std::string>& words) {
    CommandLine line;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--help") {
            line.help = true;
            break;
        }
        if (word == "--json")
            line.json = true;
        else if (word == "--card" && i + 1 < words.size())
            line.card = parseNumber(words[++i]);
        else if (line.command.empty())
            line.command = word;
        else
            line.arguments.push_back(word);
    }
    return line;
}

uint32_t parseNumber(const std::string& text, int base, uint32_t most) {
    // The library's function also takes blanks and signs, and a number that is too large for the largest one.
    const bool begins =
        !text.empty() && (base == 16 ? std::isxdigit(uint8_t(text[0])) : std::isdigit(uint8_t(text[0])));
    char* end = nullptr;
    const unsigned long long value = begins ? std::strtoull(text.c_str(), &end, base) : 0;
    if (!begins || end != text.c_str() + text.size()) throw UsageError{"'" + text + "' is not a number"};
    if (value > most) throw UsageError{"'" + text + "' is too large: " + std::to_string(most) + " at most"};
    return uint32_t(value);
}

Signal parseSignal(const std::vector<std::string>& words) {
    if (words.size() == 1 && words[0] == "none") return Signal{};
    if (words.size() < 2) throw UsageError{"signal needs a size and a rate, or 'none'"};
    Signal signal = kDefaultSignal;
    const std::string &size = words[0], &rate = words[1];
    const size_t x = size.find('x'), slash = rate.find('/');
    if (x == std::string::npos) throw UsageError{"'" + size + "' is not a size such as 1920x1080"};
    signal.width = uint16_t(parseNumber(size.substr(0, x), 10, UINT16_MAX));
    signal.height = uint16_t(parseNumber(size.substr(x + 1), 10, UINT16_MAX));
    signal.rateNumerator = parseNumber(rate.substr(0, slash));
    signal.rateDenominator = slash == std::string::npos ? 1 : parseNumber(rate.substr(slash + 1));
    if (signal.nominalFrameRate() == 24) signal.videoMode = kVideoMode24;
    for (size_t i = 2; i < words.size(); ++i) {
        if (words[i] == "i")
            signal.interlaced = 1;
        else if (words[i] == "noaudio")
            signal.audio = 0;
        else if (words[i].rfind("mode=", 0) == 0)
            signal.videoMode = uint8_t(parseNumber(words[i].substr(5), 0, UINT8_MAX));
        else
            throw UsageError{"unknown word '" + words[i] + "'"};
    }
    return signal;
}

Fault parseFault(const std::vector<std::string>& words) {
    static constexpr struct {
        const char* name;
        FaultKind kind;
    } kKinds[] = {{"status", FaultKind::NtStatus},     {"result", FaultKind::DriverResult},
                  {"short", FaultKind::ShortReply},    {"delay", FaultKind::Delay},
                  {"never", FaultKind::NeverComplete}, {"unplug", FaultKind::Unplug},
                  {"dma", FaultKind::DmaStatus},       {"open", FaultKind::RefuseOpen}};
    if (words.size() < 3) throw UsageError{"fault needs a kind, a code and a value"};
    Fault fault = {};
    if (words[0] == "signal" || words[0] == "signal-at-frame") {
        fault.kind = words[0] == "signal" ? FaultKind::SignalChange : FaultKind::SignalAtFrame;
        fault.code = parseNumber(words[1], 16);
        (fault.kind == FaultKind::SignalChange ? fault.skip : fault.value) = parseNumber(words[2]);
        fault.count = 1;
        fault.signal = parseSignal({words.begin() + 3, words.end()});
        return fault;
    }
    bool known = false;
    for (const auto& kind : kKinds)
        if (words[0] == kind.name) fault.kind = kind.kind, known = true;
    if (!known) throw UsageError{"unknown kind of fault '" + words[0] + "'"};
    fault.code = parseNumber(words[1], 16);
    fault.value = parseNumber(words[2]);
    fault.count = words.size() > 3 ? parseNumber(words[3]) : 1;
    if (fault.count == 0) fault.count = kForever;
    fault.skip = words.size() > 4 ? parseNumber(words[4]) : 0;
    return fault;
}

} // namespace kestra::simcard
