// One simulated card: signal, sessions, channels, faults and counters behind its request protocol. Knows no
// operating system, takes no memory, throws nothing. Not thread-safe: the owner calls it under one lock.
#pragma once

#include "simcard/model/control_wire.h"
#include "simcard/model/replay.h"

#include <cstddef>
#include <cstdint>

namespace kestra::simcard {

/// NT status values that the card answers with.
enum Status : uint32_t {
    kStatusSuccess = 0,
    kStatusPending = 0x103,
    kStatusInvalidHandle = 0xC0000008,        ///< the session id is not the client's
    kStatusInvalidParameter = 0xC000000D,     ///< request of a wrong size, or a port other than 0 and 1
    kStatusInvalidDeviceRequest = 0xC0000010, ///< unknown code
    kStatusNoSuchName = 0xC0000034,           ///< to an opening: Win32 error 2
    kStatusAccessDenied = 0xC0000022,         ///< the channel's DMA access belongs to another, or to nobody
    kStatusBufferTooSmall = 0xC0000023,       ///< the reply does not fit
    kStatusSharingViolation = 0xC0000043,     ///< to an opening: Win32 error 32
    kStatusInsufficientResources = 0xC000009A,
    kStatusDeviceNotConnected = 0xC000009D,
    kStatusNotSupported = 0xC00000BB,
    kStatusCancelled = 0xC0000120
};

/// First word of a reply.
enum DriverResult : uint32_t {
    kResultOk = 0,
    kResultNotPrepared = 1,
    kResultNoSignal = 2,
    kResultBadFormat = 3,
    kResultBadChunkTable = 4,
    kResultAlreadyGrabbing = 5,
    kResultNotGrabbing = 6
};

/// A request as it came in. The buffers stay valid until the request is completed; they may be the same
/// memory. `token` is the owner's name for it.
struct Request {
    void* token;
    uint32_t client;
    uint32_t code;
    const uint8_t* in;
    uint32_t inSize;
    uint8_t* out;
    uint32_t outSize;
};

/// What the card needs from its surroundings.
class CardHost {
public:
    /// The request is done; `replySize` bytes of its out buffer are valid. Called once per pending token.
    virtual void complete(void* token, uint32_t status, uint32_t replySize) = 0;
    /// Signals the client's input-check event.
    virtual void signalEvent(uint32_t client, uint64_t handle) = 0;
    /// Time in units of 100 ns from any origin; never goes back.
    virtual uint64_t now100ns() = 0;

protected:
    ~CardHost() = default;
};

/// What a completed request returns at once; `status` kStatusPending: completed later through the host.
struct Outcome {
    uint32_t status;
    uint32_t replySize;
};

/// One buffer to be filled: made by beginFrame, given back with endFrame.
struct FrameJob {
    bool snap; ///< write to `target`; else into the client's memory at `address`
    uint32_t client;
    uint32_t processId; ///< whose memory `address` is in
    uint32_t port;
    uint32_t buffer;
    uint32_t serial; ///< of this filling of the buffer
    uint64_t address;
    uint8_t* target;
    void* token;
    uint32_t bytes;
    uint32_t selector;
    uint32_t outputParameter;
    uint32_t frameNumber;
    uint32_t picture;
    uint32_t sourceSum; ///< the owner's, for the record of written frames
    Signal signal;
    wire::Converter converter;
};

class Card {
public:
    static constexpr uint32_t kMaxClients = 32;
    static constexpr uint32_t kMaxBuffers = 64;
    static constexpr uint32_t kMaxPending = 256;
    static constexpr uint32_t kLogEntries = 2048;

    /// @param slot what the slot information reports.
    Card(CardHost& host, uint32_t slot) noexcept;

    // What clients do. A client is one opening of the card.

    /// @param processId kept for the log and for DMA.
    /// @return kStatusSuccess with a client number, or why the card cannot be opened.
    uint32_t open(uint32_t processId, uint32_t& client) noexcept;
    /// The client's last handle has gone: completes its requests and frees what it held.
    void close(uint32_t client) noexcept;
    Outcome request(const Request& request) noexcept;
    /// @return true: the pending request was taken out and completed with kStatusCancelled.
    bool cancel(void* token) noexcept;
    uint32_t processOf(uint32_t client) const noexcept;

    // What time does.

    /// Carries out the delayed requests and input changes that are due.
    void poll() noexcept;
    /// When poll next has something to do; UINT64_MAX: never.
    uint64_t nextPoll100ns() const noexcept;
    /// True if anybody wants a frame of the signal.
    bool wantsFrames() const noexcept;
    /// True if every grabbing channel has a free buffer (some channel has one, for the second).
    bool allReady() const noexcept;
    bool anyReady() const noexcept;
    /// A frame of the signal begins: numbers it. Then beginFrame is called until it returns false.
    void tick() noexcept;
    /// The clock stood still for this many frames: they are counted and never made, and their numbers are not used.
    void skip(uint32_t frames) noexcept;
    bool beginFrame(FrameJob& job) noexcept;
    /// @param written false: the client's memory could not be written.
    void endFrame(const FrameJob& job, bool written) noexcept;

    // What the control program does.

    void setPlugged(bool plugged) noexcept;
    bool plugged() const noexcept { return m_plugged; }
    /// A fault wants the card to be pulled; the owner does that and calls setPlugged.
    bool unplugRequested() const noexcept { return m_unplugRequested; }
    /// A replay wants it to come back; the same holds.
    bool plugRequested() const noexcept { return m_plugRequested; }
    /// Answers as the script says, as far as it goes. The memory must stay until the next call, or a reset.
    /// @return false: it is no script
    bool setReplay(uint8_t* script, size_t bytes) noexcept;
    void readReplay(ReplayReport& report) const noexcept { m_replay.readReport(report); }
    bool setSignal(const Signal& signal) noexcept;
    const Signal& signal() const noexcept { return m_signal; }
    bool setOptions(const Options& options) noexcept;
    const Options& options() const noexcept { return m_options; }
    bool addFault(const Fault& fault) noexcept;
    /// While a fault refuses openings, so that the owner keeps new clients out.
    /// @return the status that they are to get; kStatusSuccess: they may come in
    uint32_t openRefusal() const noexcept;
    void clearFaults() noexcept;
    void clearLog() noexcept;
    void reset() noexcept;
    void readState(CardState& state) const noexcept;
    /// @return number of entries written, oldest first, from `firstSequence` on.
    uint32_t readLog(uint64_t firstSequence, LogEntry* entries, uint32_t capacity) const noexcept;
    /// @return number of frames written, oldest first: the last ones.
    uint32_t readWrites(WrittenFrame* frames, uint32_t capacity) const noexcept;

private:
    enum class BufferState : uint8_t { Free, Filling, Filled, Held };
    enum class PendingKind : uint8_t { Watch, LockChunk, LockBuffer, Snap, Delayed, Hung };

    struct Buffer {
        uint64_t address;
        BufferState state;
        uint32_t serial;
        uint32_t frameNumber;
        uint32_t dmaStatus;
    };
    struct Channel {
        bool prepared, grabbing;
        uint8_t selector, outputParameter;
        Signal preparedFor;
        uint32_t frameSize;
        uint32_t bufferCount, nextFill;
        uint32_t lastTick;
        uint64_t eventHandle;
        ChannelCounters counters;
        Buffer buffers[kMaxBuffers];
    };
    struct Client {
        bool used, gone;
        uint32_t processId, sessionId;
        Channel channels[2];
    };
    struct Pending {
        bool used;
        PendingKind kind;
        uint8_t port;
        Request request;
        uint64_t logSequence, due100ns, order;
        const ReplayAnswer* recorded; ///< of a delayed request; null: the model answers
    };

    Outcome process(const Request& request, uint64_t logSequence) noexcept;
    Outcome answer(const Request& request, uint64_t logSequence) noexcept;
    Outcome answerAsRecorded(const Request& request, const ReplayAnswer& recorded, uint64_t logSequence) noexcept;
    void replayEvents() noexcept;
    bool isLockDue(uint8_t port) noexcept {
        return !m_replay.isLoaded() || m_replay.isLockDue(port, m_host.now100ns());
    }
    Outcome openSession(Client& client, const Request& request) noexcept;
    Outcome channelAccess(uint32_t index, const Request& request, const uint8_t* in) noexcept;
    Outcome prepare(Channel& channel, uint8_t port, const uint8_t* in, const Request& request) noexcept;
    Outcome takeChunkTable(Client& client, uint8_t port, const Request& request) noexcept;
    Outcome statistics(const Channel& channel, const Request& request) const noexcept;
    void startChannel(Channel& channel) noexcept;
    void stopChannel(uint32_t client, uint8_t port, StopBehaviour behaviour) noexcept;
    void endSession(uint32_t client, uint32_t watchStatus) noexcept;
    void disown(uint32_t client, uint8_t port) noexcept;
    void completeAllOf(uint32_t client, uint32_t status) noexcept;
    void completePending(Pending& pending, uint32_t status, uint32_t replySize) noexcept;
    void completeKind(uint32_t client, PendingKind kind, int port, uint32_t status, uint32_t replySize) noexcept;
    Outcome pend(const Request& request, PendingKind kind, uint8_t port, uint64_t logSequence, uint64_t due100ns = 0,
                 const ReplayAnswer* recorded = nullptr) noexcept;
    Pending* oldest(uint32_t client, PendingKind kind, uint8_t port) noexcept;
    uint32_t countPending(uint32_t client, PendingKind kind, uint8_t port) const noexcept;
    void serveLocks(uint32_t client, uint8_t port) noexcept;
    /// Index of the next buffer to fill: the first free one from nextFill on. A buffer that a client never gives back
    /// is passed over. @return bufferCount: all are in use.
    static uint32_t freeBuffer(const Channel& channel) noexcept;
    /// Index of the filled buffer that has waited longest. @return bufferCount: none is filled.
    static uint32_t oldestFilled(const Channel& channel) noexcept;
    Outcome fillLockReply(Channel& channel, uint8_t port, uint32_t index, const Request& request) noexcept;
    Fault* matchFault(uint32_t code, bool dma) noexcept;
    bool consume(Fault& fault) noexcept;
    bool matchesInput(const Channel& channel) const noexcept;
    void raiseInputEvents() noexcept;
    uint64_t logRequest(const Request& request, uint32_t processId) noexcept;
    void logOutcome(uint64_t sequence, const Request& request, uint32_t status, uint32_t replySize) noexcept;

    CardHost& m_host;
    uint32_t m_slot;
    bool m_plugged, m_unplugRequested, m_plugRequested;
    Replay m_replay;
    Signal m_signal;
    Options m_options;
    wire::Converter m_converter;
    uint32_t m_frameNumber, m_lastSession, m_serial;
    uint32_t m_plugChanges = 0;
    uint8_t m_preparedPort = 0; ///< of the last prepare
    uint64_t m_order, m_requests;
    uint32_t m_owner[2];               ///< client + 1 that holds the channel's DMA access; 0: nobody
    ChannelCounters m_lastCounters[2]; ///< of the channel's last owner: they outlive it
    Fault m_faults[kMaxFaults];
    Client m_clients[kMaxClients];
    Pending m_pending[kMaxPending];
    LogEntry m_log[kLogEntries];
    WrittenFrame m_writes[kWrittenFrames]{};
    uint32_t m_writeCount = 0;
};

} // namespace kestra::simcard
