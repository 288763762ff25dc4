// What the control program and the driver's control device say to each other: one packed record per request.
// Portable; plain data.
#pragma once

#include "protocol/requests.h"
#include "simcard/model/signal.h"

#include <cstdint>

namespace kestra::simcard {

constexpr uint32_t kMaxCards = 8;
constexpr uint32_t kMaxFaults = 32;
constexpr uint32_t kLoggedBytes = 80;
constexpr uint32_t kForever = 0xFFFFFFFF;
constexpr uint32_t kAnyCode = 0;

/// Requests to the control device \\.\KestraSimControl (buffered). Each begins with the card's number.
enum ControlCode : uint32_t {
    kControlGetCards = 0xCE338000, ///< CardNumber -> CardState of that card; error "no such card" past the last
    kControlSetPlugged = 0xCE338004,
    kControlSetSignal = 0xCE338008,
    kControlSetOptions = 0xCE33800C,
    kControlAddFault = 0xCE338010,
    kControlClearFaults = 0xCE338014,
    kControlReadLog = 0xCE338018,
    kControlClearLog = 0xCE33801C,
    kControlReset = 0xCE338020,      ///< default signal, options and converter; no faults, log, counters, replay
    kControlSetReplay = 0xCE338024,  ///< CardNumber, then a script of replay.h, or nothing: no replay
    kControlReadReplay = 0xCE338028, ///< CardNumber -> ReplayReport
    kControlReadWrites = 0xCE33802C  ///< CardNumber -> the last frames written, oldest first
};

enum class Pace : uint32_t { RealTime = 0, AsTaken = 1 };

/// What a stop does to a lock-buffer request that still waits.
enum class StopBehaviour : uint32_t { Abort = 0, LeavePending = 1, Cancel = 2 };

enum class FaultKind : uint32_t {
    NtStatus = 0,      ///< value: the request fails with this status
    DriverResult = 1,  ///< value: first word of the reply
    ShortReply = 2,    ///< value: the reply is cut to this many bytes
    Delay = 3,         ///< value: milliseconds before the request is looked at
    NeverComplete = 4, ///< until cancelled, unplugged or the faults are cleared
    Unplug = 5,        ///< the card goes when the request arrives
    SignalChange = 6,  ///< the fault's signal is at the input before the request is answered
    DmaStatus = 7,     ///< value: DMA status of the next buffers; code: the port
    RefuseOpen = 8, ///< new clients cannot open the card. Value: access denied, sharing violation; others: no such name
    SignalAtFrame = 9 ///< the signal changes before the frame of that number (value)
};

#pragma pack(push, 1)

struct CardNumber {
    uint32_t card;
};

struct SetPlugged {
    uint32_t card;
    uint32_t plugged;
};

struct SetSignal {
    uint32_t card;
    Signal signal;
};

struct Options {
    Pace pace;
    StopBehaviour stopBehaviour;
    uint32_t picture; ///< which test picture; see picture.h
    uint32_t reserved;
};

struct SetOptions {
    uint32_t card;
    Options options;
};

struct Fault {
    FaultKind kind;
    uint32_t code;  ///< request code, kAnyCode for every one; the port for DmaStatus
    uint32_t value; ///< see FaultKind
    uint32_t skip;  ///< this many matching requests (buffers) pass first
    uint32_t count; ///< then this many are hit; kForever: until cleared
    Signal signal;  ///< for the signal changes
};

struct AddFault {
    uint32_t card;
    Fault fault;
};

struct ChannelCounters {
    uint32_t grabbing;
    uint32_t frames;    ///< frames of the signal since the last start
    uint32_t delivered; ///< buffers handed to the client since the last start
    uint32_t dropped;   ///< frames without a free buffer since the last start
    uint32_t skipped;   ///< frames that were never made because the card's own clock stood still
    uint32_t failed;    ///< buffers that the card could not write into the client's memory
    uint32_t aborted;   ///< lock requests ended by a stop
    uint32_t lateUnlocks;
    uint32_t frameSizeBytes;
};

struct CardState {
    uint32_t card;
    uint32_t plugged;
    uint32_t clients;
    uint32_t sessions;
    uint32_t pendingRequests;
    uint32_t faults;
    uint64_t requests; ///< received since the log was cleared
    uint32_t frameNumber;
    uint32_t plugChanges; ///< how often it has come or gone: each is told to every process
    Signal signal;
    Options options;
    ChannelCounters channels[2];
    wire::Converter converter;
    uint8_t reserved2[3];
    char16_t devicePath[256]; ///< of the card's interface, NUL-terminated
};

constexpr uint32_t kReportedCodes = 16;

/// How far what was asked is what was recorded.
struct ReplayReport {
    uint32_t isLoaded;
    uint32_t answered;              ///< as recorded
    uint32_t notRecorded;           ///< answered by the model: never asked in the recording
    uint32_t askedAgain;            ///< answered by the model: more often than in the recording, or at another time
    uint32_t notAsked;              ///< recorded answers that nobody has asked for until now
    uint32_t events, eventsLeft;    ///< that have happened, that have not
    uint32_t codes[kReportedCodes]; ///< of the first that were not recorded
};

struct LogRequest {
    uint32_t card;
    uint64_t firstSequence; ///< entries from this one on; older ones may have been overwritten
};

/// One request that a client made.
struct LogEntry {
    uint64_t sequence; ///< 1 for the first since the log was cleared
    uint64_t time100ns;
    uint32_t clientId;
    uint32_t processId;
    uint32_t code;
    uint32_t status; ///< NT status; 0x103 while pending
    uint32_t result; ///< first word of the reply, if there was one
    uint32_t inSize;
    uint32_t outSize;
    uint32_t replySize;
    uint32_t byteCount; ///< valid bytes below: the request; of a chunk table, the reply buffer as it was sent
    uint8_t bytes[kLoggedBytes];
};

/// One frame that the card has written into a client's memory.
struct WrittenFrame {
    uint32_t serial; ///< the third word of its lock reply
    uint32_t frameNumber;
    uint32_t clientId;
    uint32_t processId;
    uint32_t port;
    uint32_t bytes;
    uint32_t written;   ///< 1: the system took all of them
    uint32_t sourceSum; ///< of some of its bytes, before they were written; 0: they were all zero
    uint64_t address;
};
constexpr uint32_t kWrittenFrames = 64; ///< that a card remembers

#pragma pack(pop)
static_assert(sizeof(Fault) == 44 && sizeof(Options) == 16 && sizeof(LogEntry) == 132);

constexpr Options kDefaultOptions = {Pace::RealTime, StopBehaviour::Abort, 0, 0};

} // namespace kestra::simcard
