// Clients, faults, pending requests and the log of a simulated card.
#include "simcard/model/card.h"

#include "protocol/converter.h"

#include <cstring>

namespace kestra::simcard {

Card::Card(CardHost& host, uint32_t slot) noexcept : m_host(host), m_slot(slot) {
    std::memset(m_clients, 0, sizeof m_clients);
    std::memset(m_pending, 0, sizeof m_pending);
    std::memset(m_log, 0, sizeof m_log);
    m_plugged = true;
    m_unplugRequested = m_plugRequested = false;
    m_frameNumber = m_lastSession = m_serial = 0;
    m_order = m_requests = 0;
    m_owner[0] = m_owner[1] = 0;
    m_signal = kDefaultSignal;
    reset();
}

void Card::reset() noexcept {
    clearFaults();
    clearLog();
    setReplay(nullptr, 0);
    m_options = kDefaultOptions;
    m_converter = wire::toWire(wire::kDefaultConverter);
    setSignal(kDefaultSignal);
    m_frameNumber = 0;
    std::memset(m_lastCounters, 0, sizeof m_lastCounters);
}

uint32_t Card::open(uint32_t processId, uint32_t& client) noexcept {
    if (!m_plugged) return kStatusDeviceNotConnected;
    for (Fault& fault : m_faults)
        if (fault.count != 0 && fault.kind == FaultKind::RefuseOpen) {
            const uint32_t status = fault.value;
            if (consume(fault)) return status;
        }
    for (uint32_t i = 0; i < kMaxClients; ++i)
        if (!m_clients[i].used) {
            std::memset(&m_clients[i], 0, sizeof m_clients[i]);
            m_clients[i].used = true;
            m_clients[i].processId = processId;
            client = i;
            return kStatusSuccess;
        }
    return kStatusInsufficientResources;
}

void Card::close(uint32_t client) noexcept {
    if (client >= kMaxClients || !m_clients[client].used) return;
    endSession(client, kStatusCancelled);
    completeAllOf(client, kStatusCancelled);
    m_clients[client].used = false;
}

uint32_t Card::processOf(uint32_t client) const noexcept {
    return client < kMaxClients && m_clients[client].used ? m_clients[client].processId : 0;
}

void Card::setPlugged(bool plugged) noexcept {
    m_unplugRequested = m_plugRequested = false;
    if (plugged == m_plugged) return;
    m_plugged = plugged;
    ++m_plugChanges;
    if (plugged) return;
    // Handles that were open stay dead when the card comes back; their clients must open it again.
    for (uint32_t i = 0; i < kMaxClients; ++i)
        if (m_clients[i].used) {
            endSession(i, kStatusDeviceNotConnected);
            completeAllOf(i, kStatusDeviceNotConnected);
            m_clients[i].gone = true;
        }
    m_converter = wire::toWire(wire::kDefaultConverter);
}

bool Card::setSignal(const Signal& signal) noexcept {
    if (!signal.isValid()) return false;
    if (signal == m_signal) return true;
    const Signal before = m_signal;
    m_signal = signal;
    raiseInputEvents();
    // A client that saw the signal vanish waits for its lock request. If another format comes back, no frame
    // can answer that request any more.
    if (!before.present && signal.present)
        for (uint32_t i = 0; i < kMaxClients; ++i)
            for (uint8_t port = 0; port < 2; ++port) {
                Channel& channel = m_clients[i].channels[port];
                if (m_clients[i].used && channel.grabbing && !matchesInput(channel))
                    stopChannel(i, port, StopBehaviour::Abort);
            }
    return true;
}

void Card::raiseInputEvents() noexcept {
    for (uint32_t i = 0; i < kMaxClients; ++i)
        for (Channel& channel : m_clients[i].channels)
            if (m_clients[i].used && !m_clients[i].gone && channel.eventHandle != 0)
                m_host.signalEvent(i, channel.eventHandle);
}

bool Card::setOptions(const Options& options) noexcept {
    if (static_cast<uint32_t>(options.pace) > 1 || static_cast<uint32_t>(options.stopBehaviour) > 2 ||
        options.picture > 2)
        return false;
    m_options = options;
    return true;
}

// Faults.

bool Card::addFault(const Fault& fault) noexcept {
    if (static_cast<uint32_t>(fault.kind) > static_cast<uint32_t>(FaultKind::SignalAtFrame) || fault.count == 0)
        return false;
    const bool changesSignal = fault.kind == FaultKind::SignalChange || fault.kind == FaultKind::SignalAtFrame;
    if (changesSignal && !fault.signal.isValid()) return false;
    for (Fault& slot : m_faults)
        if (slot.count == 0) {
            slot = fault;
            return true;
        }
    return false;
}

uint32_t Card::openRefusal() const noexcept {
    for (const Fault& fault : m_faults)
        if (fault.count != 0 && fault.kind == FaultKind::RefuseOpen)
            return fault.value == kStatusSuccess ? kStatusNoSuchName : fault.value;
    return kStatusSuccess;
}

void Card::clearFaults() noexcept {
    std::memset(m_faults, 0, sizeof m_faults);
    for (Pending& pending : m_pending)
        if (pending.used && pending.kind == PendingKind::Hung) completePending(pending, kStatusCancelled, 0);
}

bool Card::consume(Fault& fault) noexcept {
    if (fault.skip != 0) {
        --fault.skip;
        return false;
    }
    if (fault.count != kForever) --fault.count;
    return true;
}

Fault* Card::matchFault(uint32_t code, bool dma) noexcept {
    for (Fault& fault : m_faults) {
        if (fault.count == 0 || (fault.kind == FaultKind::DmaStatus) != dma) continue;
        if (fault.kind == FaultKind::RefuseOpen || fault.kind == FaultKind::SignalAtFrame) continue;
        if (fault.code != code && (dma || fault.code != kAnyCode)) continue;
        if (consume(fault)) return &fault;
    }
    return nullptr;
}

// Pending requests.

Outcome Card::pend(const Request& request, PendingKind kind, uint8_t port, uint64_t logSequence, uint64_t due100ns,
                   const ReplayAnswer* recorded) noexcept {
    for (Pending& pending : m_pending)
        if (!pending.used) {
            pending = {true, kind, port, request, logSequence, due100ns, ++m_order, recorded};
            return {kStatusPending, 0};
        }
    return {kStatusInsufficientResources, 0};
}

void Card::completePending(Pending& pending, uint32_t status, uint32_t replySize) noexcept {
    pending.used = false;
    logOutcome(pending.logSequence, pending.request, status, replySize);
    m_host.complete(pending.request.token, status, replySize);
}

void Card::completeKind(uint32_t client, PendingKind kind, int port, uint32_t status, uint32_t replySize) noexcept {
    for (Pending& pending : m_pending)
        if (pending.used && pending.kind == kind && pending.request.client == client &&
            (port < 0 || pending.port == port)) {
            if (replySize != 0) std::memset(pending.request.out, 0, replySize);
            completePending(pending, status, replySize);
        }
}

void Card::completeAllOf(uint32_t client, uint32_t status) noexcept {
    for (Pending& pending : m_pending)
        if (pending.used && pending.request.client == client) completePending(pending, status, 0);
}

Card::Pending* Card::oldest(uint32_t client, PendingKind kind, uint8_t port) noexcept {
    Pending* found = nullptr;
    for (Pending& pending : m_pending)
        if (pending.used && pending.kind == kind && pending.port == port && pending.request.client == client &&
            (!found || pending.order < found->order))
            found = &pending;
    return found;
}

uint32_t Card::countPending(uint32_t client, PendingKind kind, uint8_t port) const noexcept {
    uint32_t count = 0;
    for (const Pending& pending : m_pending)
        count += pending.used && pending.kind == kind && pending.port == port && pending.request.client == client;
    return count;
}

bool Card::cancel(void* token) noexcept {
    for (Pending& pending : m_pending)
        if (pending.used && pending.request.token == token) {
            const uint32_t client = pending.request.client;
            const uint8_t port = pending.port;
            const bool chunk = pending.kind == PendingKind::LockChunk;
            completePending(pending, kStatusCancelled, 0);
            // Without its lock the memory may be gone at any time: no more DMA into it.
            if (chunk) {
                stopChannel(client, port, StopBehaviour::Abort);
                m_clients[client].channels[port].bufferCount = 0;
            }
            return true;
        }
    return false;
}

bool Card::setReplay(uint8_t* script, size_t bytes) noexcept {
    m_replay.unload();
    for (Pending& pending : m_pending)
        pending.recorded = nullptr;
    if (!script) return true;
    if (!m_replay.load(script, bytes)) return false;
    return setSignal(m_replay.signal());
}

void Card::replayEvents() noexcept {
    while (const ReplayEvent* event = m_replay.takeEvent(m_host.now100ns()))
        switch (event->kind) {
        case ReplayEventKind::Removal:
            m_unplugRequested = true;
            return; // what follows comes after it
        case ReplayEventKind::Arrival:
            m_plugRequested = true;
            setSignal(event->signal);
            return;
        case ReplayEventKind::Input:
            if (event->signal == m_signal)
                raiseInputEvents();
            else
                setSignal(event->signal);
            break;
        }
    for (uint32_t i = 0; i < kMaxClients; ++i)
        for (uint8_t port = 0; port < 2; ++port)
            if (m_clients[i].used) serveLocks(i, port); // whose time may have come
}

void Card::poll() noexcept {
    const uint64_t now = m_host.now100ns();
    if (m_replay.isLoaded()) replayEvents();
    for (Pending& pending : m_pending)
        if (pending.used && pending.kind == PendingKind::Delayed && pending.due100ns <= now) {
            const Pending taken = pending;
            pending.used = false;
            const Outcome outcome = taken.recorded ? answerAsRecorded(taken.request, *taken.recorded, taken.logSequence)
                                                   : answer(taken.request, taken.logSequence);
            if (outcome.status == kStatusPending) continue;
            logOutcome(taken.logSequence, taken.request, outcome.status, outcome.replySize);
            m_host.complete(taken.request.token, outcome.status, outcome.replySize);
        }
}

uint64_t Card::nextPoll100ns() const noexcept {
    uint64_t next = UINT64_MAX;
    for (const Pending& pending : m_pending)
        if (pending.used && pending.kind == PendingKind::Delayed && pending.due100ns < next) next = pending.due100ns;
    return next;
}

// Log and state.

void Card::clearLog() noexcept {
    m_requests = 0;
    std::memset(m_log, 0, sizeof m_log);
    for (Pending& pending : m_pending)
        pending.logSequence = 0;
}

uint64_t Card::logRequest(const Request& request, uint32_t processId) noexcept {
    LogEntry& entry = m_log[m_requests % kLogEntries];
    ++m_requests;
    std::memset(&entry, 0, sizeof entry);
    entry.sequence = m_requests;
    entry.time100ns = m_host.now100ns();
    entry.clientId = request.client;
    entry.processId = processId;
    entry.code = request.code;
    entry.status = kStatusPending;
    entry.inSize = request.inSize;
    entry.outSize = request.outSize;
    const bool table = request.code == wire::kChunkTable || request.code == wire::kChunkTable + wire::kPortStride;
    const uint8_t* bytes = table ? request.out : request.in;
    const uint32_t size = table ? request.outSize : request.inSize;
    entry.byteCount = bytes ? (size < kLoggedBytes ? size : kLoggedBytes) : 0;
    if (entry.byteCount != 0) std::memcpy(entry.bytes, bytes, entry.byteCount);
    return entry.sequence;
}

void Card::logOutcome(uint64_t sequence, const Request& request, uint32_t status, uint32_t replySize) noexcept {
    if (sequence == 0) return;
    LogEntry& entry = m_log[(sequence - 1) % kLogEntries];
    if (entry.sequence != sequence) return;
    entry.status = status;
    entry.replySize = replySize;
    if (replySize >= 4 && request.out && request.code != wire::kSnap)
        std::memcpy(&entry.result, request.out, sizeof entry.result);
}

uint32_t Card::readLog(uint64_t firstSequence, LogEntry* entries, uint32_t capacity) const noexcept {
    uint64_t first = m_requests > kLogEntries ? m_requests - kLogEntries + 1 : 1;
    if (firstSequence > first) first = firstSequence;
    uint32_t count = 0;
    for (uint64_t sequence = first; sequence <= m_requests && count < capacity; ++sequence)
        entries[count++] = m_log[(sequence - 1) % kLogEntries];
    return count;
}

uint32_t Card::readWrites(WrittenFrame* frames, uint32_t capacity) const noexcept {
    const uint32_t known = m_writeCount < kWrittenFrames ? m_writeCount : kWrittenFrames;
    const uint32_t count = known < capacity ? known : capacity;
    for (uint32_t i = 0; i < count; ++i)
        frames[i] = m_writes[(m_writeCount - count + i) % kWrittenFrames];
    return count;
}

void Card::readState(CardState& state) const noexcept {
    state.plugged = m_plugged;
    state.requests = m_requests;
    state.frameNumber = m_frameNumber;
    state.plugChanges = m_plugChanges;
    state.signal = m_signal;
    state.options = m_options;
    state.converter = m_converter;
    state.clients = state.sessions = state.pendingRequests = state.faults = 0;
    for (const Fault& fault : m_faults)
        state.faults += fault.count != 0;
    for (const Pending& pending : m_pending)
        state.pendingRequests += pending.used;
    std::memset(state.channels, 0, sizeof state.channels);
    for (const Client& client : m_clients) {
        state.clients += client.used;
        state.sessions += client.used && client.sessionId != 0;
    }
    for (int port = 0; port < 2; ++port) {
        if (m_owner[port] == 0) {
            state.channels[port] = m_lastCounters[port];
            continue;
        }
        const Channel& channel = m_clients[m_owner[port] - 1].channels[port];
        state.channels[port] = channel.counters;
        state.channels[port].grabbing = channel.grabbing;
        state.channels[port].frameSizeBytes = channel.frameSize;
    }
}

} // namespace kestra::simcard
