// kestrasimctl: the simulated card at the command line. Exit codes: 0 done, 1 failed, 2 wrong usage.
#include "simcard/ctl/command_words.h"
#include "simcard/ctl/control.h"
#include "simcard/ctl/replay_script.h"
#include "win32/handle.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace kestra;
using namespace kestra::simcard;

namespace {

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

/// One run of a command.
struct Call {
    CardControl card;
    bool json;
    std::vector<std::string> arguments;
};

void install(const Call& call) {
    wchar_t path[MAX_PATH] = {};
    const std::wstring given(call.arguments[1].begin(), call.arguments[1].end());
    GetFullPathNameW(given.c_str(), MAX_PATH, path, nullptr);
    installCards(parseNumber(call.arguments[0]), path);
}

void remove(const Call& call) {
    std::printf(call.json ? "{\"removed\":%u}\n" : "%u cards removed\n", removeCards());
}

void hold(const Call&) {
    const UniqueObject event(CreateEventW(nullptr, TRUE, FALSE, kHoldEvent));
    WaitForSingleObject(event.get(), INFINITE);
}

void release(const Call&) {
    if (const UniqueObject event{OpenEventW(EVENT_MODIFY_STATE, FALSE, kHoldEvent)}) SetEvent(event.get());
}

/// Sets an option to the value that the given word stands for.
template <class Value>
void choose(const Call& call, Value Options::*option, std::initializer_list<std::pair<const char*, Value>> words) {
    Options options = call.card.state().options;
    for (const auto& [word, value] : words)
        if (call.arguments[0] == word) {
            options.*option = value;
            return call.card.setOptions(options);
        }
    throw UsageError{"unknown word '" + call.arguments[0] + "'"};
}

/// A trace's first file and those beside it: name.ktrace, name.1.ktrace, ...
trace::Trace loadTrace(const std::string& first) {
    std::vector<std::vector<uint8_t>> files;
    for (uint32_t i = 0; i < trace::kFiles; ++i) {
        std::string name = first;
        if (i != 0) name.insert(std::min(first.rfind(".ktrace"), first.size()), std::string{'.', char('0' + i)});
        std::ifstream file(name, std::ios::binary);
        if (!file && i == 0) throw std::runtime_error(first + " cannot be read");
        if (file) files.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return trace::readTrace(files);
}

void replay(const Call& call) {
    const ReplayScript script = replayScriptOf(loadTrace(call.arguments[0]));
    call.card.setReplay(script.bytes);
    if (script.openRefusal != 0) call.card.addFault({FaultKind::RefuseOpen, 0, script.openRefusal, 0, kForever, {}});
    for (const std::string& caution : script.cautions)
        std::fprintf(stderr, "kestrasimctl: %s\n", caution.c_str());
}

/// The names of the first requests that were not recorded.
std::string unrecordedNames(const ReplayReport& report) {
    std::string names;
    for (uint32_t i = 0; i < report.notRecorded && i < kReportedCodes; ++i)
        names += (names.empty() ? "" : ", ") + std::string(wire::requestName(report.codes[i]));
    return names;
}

void printReplay(const Call& call) {
    const ReplayReport report = call.card.replayReport();
    if (call.json) {
        std::printf("{\"replays\":%s,\"answered\":%u,\"notRecorded\":%u,\"askedAgain\":%u,\"notAsked\":%u,"
                    "\"events\":%u,\"eventsLeft\":%u}\n",
                    report.isLoaded ? "true" : "false", report.answered, report.notRecorded, report.askedAgain,
                    report.notAsked, report.events, report.eventsLeft);
        return;
    }
    if (!report.isLoaded) {
        std::printf("the card replays nothing\n");
        return;
    }
    std::printf("%u requests answered as recorded, %u events happened, %u are left\n", report.answered, report.events,
                report.eventsLeft);
    std::printf("%u requests were not recorded%s%s\n", report.notRecorded, report.notRecorded != 0 ? ": " : "",
                unrecordedNames(report).c_str());
    std::printf("%u requests were asked more often than recorded, or at another time\n", report.askedAgain);
    std::printf("%u recorded answers were not asked for\n", report.notAsked);
}

constexpr int kAnyCount = -1;

struct Command {
    const char* name;
    const char* arguments;
    int count; ///< of arguments
    const char* text;
    void (*run)(const Call& call);
};

const Command kCommands[] = {
    {"install", "COUNT INF", 2, "install COUNT simulated cards (1..8) from kestrasim.inf, in place of those there are",
     install},
    {"remove", "", 0, "remove all simulated cards", remove},
    {"hold", "", 0, "keep the Wine prefix, and with it the cards, alive until `release`", hold},
    {"release", "", 0, "end `hold`", release},
    {"status", "", 0, "signal, options and counters of the card",
     [](const Call& call) { printState(call.card.state(), call.json); }},
    {"plug", "", 0, "put the card in", [](const Call& call) { call.card.plug(); }},
    {"unplug", "", 0, "pull the card", [](const Call& call) { call.card.unplug(); }},
    {"signal", "none | WxH RATE [i] [noaudio] [mode=N]", kAnyCount,
     "what arrives at the input; RATE is frames per second, for example: signal 1920x1080 30000/1001 i",
     [](const Call& call) { call.card.setSignal(parseSignal(call.arguments)); }},
    {"picture", "bars | tinted | grey", 1, "what the picture shows",
     [](const Call& call) {
         choose(call, &Options::picture, {{"bars", 0}, {"tinted", 1}, {"grey", 2}});
     }},
    {"pace", "realtime | taken", 1, "frames in real time, or as fast as the client takes buffers",
     [](const Call& call) {
         choose(call, &Options::pace, {{"realtime", Pace::RealTime}, {"taken", Pace::AsTaken}});
     }},
    {"stop", "abort | pending | cancel", 1, "what a stop does to a lock request that waits",
     [](const Call& call) {
         choose(call, &Options::stopBehaviour,
                {{"abort", StopBehaviour::Abort},
                 {"pending", StopBehaviour::LeavePending},
                 {"cancel", StopBehaviour::Cancel}});
     }},
    {"fault", "KIND CODE VALUE [COUNT [SKIP]]", kAnyCount,
     "make requests fail\n"
     "  KIND    status (VALUE: NT status), result (first word of the reply), short (bytes of the reply),\n"
     "          delay (milliseconds), never, unplug, dma (CODE: port, VALUE: DMA status), open (until cleared)\n"
     "  CODE    request code in hexadecimal, 0 for any\n"
     "  COUNT   how many requests, 1 if not given, 0 until cleared; SKIP: after how many\n"
     "  fault signal CODE SKIP SIGNAL...            the input changes when a request arrives\n"
     "  fault signal-at-frame 0 FRAME SIGNAL...     the input changes before a frame; SIGNAL as in `signal`",
     [](const Call& call) { call.card.addFault(parseFault(call.arguments)); }},
    {"clear-faults", "", 0, "forget all faults", [](const Call& call) { call.card.clearFaults(); }},
    {"clear-log", "", 0, "empty the request log", [](const Call& call) { call.card.clearLog(); }},
    {"reset", "", 0, "plugged in, 1080p60 with audio, no faults, empty log",
     [](const Call& call) { call.card.reset(); }},
    {"replay", "FILE", 1,
     "answer as the card of this trace did, until `reset` or `replay-stop`\n"
     "  FILE    a trace (docs/trace.md); what it does not hold, the simulated card answers by itself",
     replay},
    {"replay-report", "", 0, "how far what was asked is what was recorded", printReplay},
    {"replay-stop", "", 0, "answer by itself again", [](const Call& call) { call.card.setReplay({}); }},
    {"log", "", 0, "the requests that the card received: number, time, client, code, NT status, result, sizes, bytes",
     [](const Call& call) { printLog(call.card.log(), call.json); }},
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

/// @throws UsageError, or what the card's driver refused
void run(const std::string& name, const Call& call) {
    const Command* command = findCommand(name);
    if (!command) throw UsageError{"there is no command '" + name + "'"};
    if (command->count != kAnyCount && call.arguments.size() != size_t(command->count))
        throw UsageError{"wrong number of arguments for '" + name + "'"};
    command->run(call);
}

} // namespace

int main(int argc, char** argv) {
    try {
        const CommandLine line = parseCommandLine({argv + 1, argv + argc});
        if (line.help) {
            if (const Command* explained = findCommand(line.command))
                printUsage(*explained);
            else
                printUsage(stdout);
            return 0;
        }
        if (line.command.empty()) throw UsageError{"no command given"};
        run(line.command, {CardControl(line.card), line.json, line.arguments});
        return 0;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestrasimctl: %s\n", error.text.c_str());
        printUsage(stderr);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrasimctl: %s\n", error.what());
        return 1;
    }
}
