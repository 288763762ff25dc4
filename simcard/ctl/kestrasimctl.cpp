// kestrasimctl: the simulated card at the command line. Exit codes: 0 done, 1 failed, 2 wrong usage.
#include "simcard/ctl/control.h"
#include "win32/handle.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace kestra;
using namespace kestra::simcard;

namespace {

struct Command {
    const char* name;
    const char* arguments;
    const char* text;
};

constexpr Command kCommands[] = {
    {"install", "COUNT INF", "install COUNT simulated cards (1..8) from kestrasim.inf, in place of those there are"},
    {"remove", "", "remove all simulated cards"},
    {"hold", "", "keep the Wine prefix, and with it the cards, alive until `release`"},
    {"release", "", "end `hold`"},
    {"status", "", "signal, options and counters of the card"},
    {"plug", "", "put the card in"},
    {"unplug", "", "pull the card"},
    {"signal", "none | WxH RATE [i] [noaudio] [mode=N]",
     "what arrives at the input; RATE is frames per second, for example: signal 1920x1080 30000/1001 i"},
    {"picture", "bars | tinted | grey", "what the picture shows"},
    {"pace", "realtime | taken", "frames in real time, or as fast as the client takes buffers"},
    {"stop", "abort | pending | cancel", "what a stop does to a lock request that waits"},
    {"fault", "KIND CODE VALUE [COUNT [SKIP]]",
     "make requests fail\n"
     "  KIND    status (VALUE: NT status), result (first word of the reply), short (bytes of the reply),\n"
     "          delay (milliseconds), never, unplug, dma (CODE: port, VALUE: DMA status), open (until cleared)\n"
     "  CODE    request code in hexadecimal, 0 for any\n"
     "  COUNT   how many requests, 1 if not given, 0 until cleared; SKIP: after how many\n"
     "  fault signal CODE SKIP SIGNAL...            the input changes when a request arrives\n"
     "  fault signal-at-frame 0 FRAME SIGNAL...     the input changes before a frame; SIGNAL as in `signal`"},
    {"clear-faults", "", "forget all faults"},
    {"clear-log", "", "empty the request log"},
    {"reset", "", "plugged in, 1080p60 with audio, no faults, empty log"},
    {"log", "", "the requests that the card received: number, time, client, code, NT status, result, sizes, bytes"},
};

void printUsage(const Command& command) {
    std::printf("usage: kestrasimctl [--card N] [--json] %s%s%s\n%s\n", command.name, *command.arguments ? " " : "",
                command.arguments, command.text);
}

void printUsage(std::FILE* file) {
    std::fputs("usage: kestrasimctl [--card N] [--json] COMMAND [ARGUMENT...]\n", file);
    for (const Command& command : kCommands)
        std::fprintf(file, "  %-13s %s\n", command.name, command.arguments);
    std::fputs("kestrasimctl COMMAND --help explains a command. Exit codes: 0 done, 1 failed, 2 wrong usage.\n", file);
}

const Command* findCommand(const std::string& name) {
    for (const Command& command : kCommands)
        if (name == command.name) return &command;
    return nullptr;
}

struct UsageError {
    std::string text;
};

uint32_t number(const std::string& text, int base = 0) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, base);
    if (text.empty() || *end != 0) throw UsageError{"'" + text + "' is not a number"};
    return uint32_t(value);
}

Signal parseSignal(const std::vector<std::string>& arguments) {
    if (arguments.size() == 1 && arguments[0] == "none") return Signal{};
    if (arguments.size() < 2) throw UsageError{"signal needs a size and a rate, or 'none'"};
    Signal signal = kDefaultSignal;
    const std::string &size = arguments[0], &rate = arguments[1];
    const size_t x = size.find('x'), slash = rate.find('/');
    if (x == std::string::npos) throw UsageError{"'" + size + "' is not a size such as 1920x1080"};
    signal.width = uint16_t(number(size.substr(0, x)));
    signal.height = uint16_t(number(size.substr(x + 1)));
    signal.rateNumerator = number(rate.substr(0, slash));
    signal.rateDenominator = slash == std::string::npos ? 1 : number(rate.substr(slash + 1));
    if (signal.nominalFrameRate() == 24) signal.videoMode = kVideoMode24;
    for (size_t i = 2; i < arguments.size(); ++i) {
        if (arguments[i] == "i")
            signal.interlaced = 1;
        else if (arguments[i] == "noaudio")
            signal.audio = 0;
        else if (arguments[i].rfind("mode=", 0) == 0)
            signal.videoMode = uint8_t(number(arguments[i].substr(5)));
        else
            throw UsageError{"unknown word '" + arguments[i] + "'"};
    }
    return signal;
}

Fault parseFault(const std::vector<std::string>& arguments) {
    static constexpr struct {
        const char* name;
        FaultKind kind;
    } kKinds[] = {{"status", FaultKind::NtStatus},     {"result", FaultKind::DriverResult},
                  {"short", FaultKind::ShortReply},    {"delay", FaultKind::Delay},
                  {"never", FaultKind::NeverComplete}, {"unplug", FaultKind::Unplug},
                  {"dma", FaultKind::DmaStatus},       {"open", FaultKind::RefuseOpen}};
    if (arguments.size() < 3) throw UsageError{"fault needs a kind, a code and a value"};
    Fault fault = {};
    if (arguments[0] == "signal" || arguments[0] == "signal-at-frame") {
        fault.kind = arguments[0] == "signal" ? FaultKind::SignalChange : FaultKind::SignalAtFrame;
        fault.code = number(arguments[1], 16);
        (fault.kind == FaultKind::SignalChange ? fault.skip : fault.value) = number(arguments[2]);
        fault.count = 1;
        fault.signal = parseSignal({arguments.begin() + 3, arguments.end()});
        return fault;
    }
    bool known = false;
    for (const auto& kind : kKinds)
        if (arguments[0] == kind.name) fault.kind = kind.kind, known = true;
    if (!known) throw UsageError{"unknown kind of fault '" + arguments[0] + "'"};
    fault.code = number(arguments[1], 16);
    fault.value = number(arguments[2]);
    fault.count = arguments.size() > 3 ? number(arguments[3]) : 1;
    if (fault.count == 0) fault.count = kForever;
    fault.skip = arguments.size() > 4 ? number(arguments[4]) : 0;
    return fault;
}

void printState(const CardState& s, bool json) {
    if (json) {
        std::printf("{\"card\":%u,\"plugged\":%s,\"clients\":%u,\"sessions\":%u,\"pending\":%u,\"faults\":%u,"
                    "\"requests\":%llu,\"signal\":{\"present\":%s,\"width\":%u,\"height\":%u,\"interlaced\":%s,"
                    "\"rate\":\"%u/%u\",\"audio\":%s,\"mode\":%u},\"channels\":[",
                    s.card, s.plugged ? "true" : "false", s.clients, s.sessions, s.pendingRequests, s.faults,
                    static_cast<unsigned long long>(s.requests), s.signal.present ? "true" : "false", s.signal.width,
                    s.signal.height, s.signal.interlaced ? "true" : "false", s.signal.rateNumerator,
                    s.signal.rateDenominator, s.signal.audio ? "true" : "false", s.signal.videoMode);
        for (int i = 0; i < 2; ++i)
            std::printf("%s{\"grabbing\":%s,\"frames\":%u,\"delivered\":%u,\"dropped\":%u,\"skipped\":%u,"
                        "\"failed\":%u,"
                        "\"aborted\":%u,\"frameSize\":%u}",
                        i ? "," : "", s.channels[i].grabbing ? "true" : "false", s.channels[i].frames,
                        s.channels[i].delivered, s.channels[i].dropped, s.channels[i].skipped, s.channels[i].failed,
                        s.channels[i].aborted, s.channels[i].frameSizeBytes);
        std::printf("]}\n");
        return;
    }
    std::printf("card %u: %s, %u clients, %u pending requests, %u faults, %llu requests logged\n", s.card,
                s.plugged ? "plugged in" : "unplugged", s.clients, s.pendingRequests, s.faults,
                static_cast<unsigned long long>(s.requests));
    if (s.signal.present)
        std::printf("  signal %ux%u%s at %u/%u, mode %u, %s\n", s.signal.width, s.signal.height,
                    s.signal.interlaced ? "i" : "p", s.signal.rateNumerator, s.signal.rateDenominator,
                    s.signal.videoMode, s.signal.audio ? "audio" : "no audio");
    else
        std::printf("  no signal\n");
    for (int i = 0; i < 2; ++i)
        std::printf("  port %d %s: %u frames, %u delivered, %u dropped, %u skipped, %u failed, %u aborted\n", i,
                    s.channels[i].grabbing ? "grabbing" : "idle", s.channels[i].frames, s.channels[i].delivered,
                    s.channels[i].dropped, s.channels[i].skipped, s.channels[i].failed, s.channels[i].aborted);
}

void printLog(const std::vector<LogEntry>& log, bool json) {
    if (json) std::printf("[");
    for (size_t i = 0; i < log.size(); ++i) {
        const LogEntry& e = log[i];
        std::string bytes;
        for (uint32_t b = 0; b < e.byteCount; ++b) {
            char text[3];
            std::snprintf(text, sizeof text, "%02x", e.bytes[b]);
            bytes += text;
        }
        std::printf(json ? "%s{\"n\":%llu,\"time100ns\":%llu,\"client\":%u,\"code\":\"%08X\",\"status\":\"%08X\","
                           "\"result\":%u,\"in\":%u,\"out\":%u,\"reply\":%u,\"bytes\":\"%s\"}"
                         : "%s%6llu %14llu client %u code %08X status %08X result %u in %u out %u reply %u %s\n",
                    json && i ? "," : "", static_cast<unsigned long long>(e.sequence),
                    static_cast<unsigned long long>(e.time100ns), e.clientId, e.code, e.status, e.result, e.inSize,
                    e.outSize, e.replySize, bytes.c_str());
    }
    if (json) std::printf("]\n");
}

constexpr wchar_t kHoldEvent[] = L"KestraSimHold";

int run(uint32_t card, bool json, const std::string& command, const std::vector<std::string>& arguments) {
    const CardControl control(card);
    const auto expect = [&](size_t count) {
        if (arguments.size() != count) throw UsageError{"wrong number of arguments for '" + command + "'"};
    };
    if (command == "install") {
        expect(2);
        wchar_t path[MAX_PATH] = {};
        const std::wstring given(arguments[1].begin(), arguments[1].end());
        GetFullPathNameW(given.c_str(), MAX_PATH, path, nullptr);
        installCards(number(arguments[0]), path);
    } else if (command == "remove") {
        std::printf(json ? "{\"removed\":%u}\n" : "%u cards removed\n", removeCards());
    } else if (command == "hold") {
        const UniqueObject event(CreateEventW(nullptr, TRUE, FALSE, kHoldEvent));
        WaitForSingleObject(event.get(), INFINITE);
    } else if (command == "release") {
        if (const UniqueObject event{OpenEventW(EVENT_MODIFY_STATE, FALSE, kHoldEvent)}) SetEvent(event.get());
    } else if (command == "status") {
        expect(0);
        printState(control.state(), json);
    } else if (command == "plug") {
        control.plug();
    } else if (command == "unplug") {
        control.unplug();
    } else if (command == "signal") {
        control.setSignal(parseSignal(arguments));
    } else if (command == "pace" || command == "stop" || command == "picture") {
        expect(1);
        Options options = control.state().options;
        const std::string& word = arguments[0];
        if (command == "pace" && word == "realtime")
            options.pace = Pace::RealTime;
        else if (command == "pace" && word == "taken")
            options.pace = Pace::AsTaken;
        else if (command == "picture" && word == "bars")
            options.picture = 0;
        else if (command == "picture" && word == "tinted")
            options.picture = 1;
        else if (command == "picture" && word == "grey")
            options.picture = 2;
        else if (command == "stop" && word == "abort")
            options.stopBehaviour = StopBehaviour::Abort;
        else if (command == "stop" && word == "pending")
            options.stopBehaviour = StopBehaviour::LeavePending;
        else if (command == "stop" && word == "cancel")
            options.stopBehaviour = StopBehaviour::Cancel;
        else
            throw UsageError{"unknown word '" + word + "'"};
        control.setOptions(options);
    } else if (command == "fault") {
        control.addFault(parseFault(arguments));
    } else if (command == "clear-faults") {
        control.clearFaults();
    } else if (command == "clear-log") {
        control.clearLog();
    } else if (command == "reset") {
        control.reset();
    } else if (command == "log") {
        printLog(control.log(), json);
    } else {
        throw UsageError{"there is no command '" + command + "'"};
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    uint32_t card = 0;
    bool json = false;
    std::string command;
    std::vector<std::string> arguments;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string word = argv[i];
            if (word == "--help") {
                if (const Command* explained = findCommand(command))
                    printUsage(*explained);
                else
                    printUsage(stdout);
                return 0;
            }
            if (word == "--json")
                json = true;
            else if (word == "--card" && i + 1 < argc)
                card = number(argv[++i]);
            else if (command.empty())
                command = word;
            else
                arguments.push_back(word);
        }
        if (command.empty()) throw UsageError{"no command given"};
        return run(card, json, command, arguments);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestrasimctl: %s\n", error.text.c_str());
        printUsage(stderr);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrasimctl: %s\n", error.what());
        return 1;
    }
}
