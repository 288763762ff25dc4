// The DMA side of a simulated card: which buffer receives which frame, and who is told.
#include "simcard/model/card.h"

#include <cstring>

namespace kestra::simcard {

namespace {

/// A buffer's id names one filling of it, so that a late unlock never frees a later one.
constexpr uint32_t bufferId(uint32_t index, uint32_t serial) noexcept {
    return serial << 6 | index;
}

} // namespace

bool Card::matchesInput(const Channel& channel) const noexcept {
    return m_signal.present && channel.preparedFor.sameFormat(m_signal);
}

bool Card::wantsFrames() const noexcept {
    if (!m_plugged || !m_signal.present) return false;
    for (const Client& client : m_clients)
        for (const Channel& channel : client.channels)
            if (client.used && channel.grabbing && matchesInput(channel)) return true;
    for (const Pending& pending : m_pending)
        if (pending.used && pending.kind == PendingKind::Snap) return true;
    return false;
}

bool Card::allReady() const noexcept {
    for (const Client& client : m_clients)
        for (const Channel& channel : client.channels)
            if (client.used && channel.grabbing && matchesInput(channel) && freeBuffer(channel) == channel.bufferCount)
                return false;
    return true;
}

bool Card::anyReady() const noexcept {
    for (const Client& client : m_clients)
        for (const Channel& channel : client.channels)
            if (client.used && channel.grabbing && matchesInput(channel) && freeBuffer(channel) != channel.bufferCount)
                return true;
    for (const Pending& pending : m_pending)
        if (pending.used && pending.kind == PendingKind::Snap) return true;
    return false;
}

void Card::tick() noexcept {
    ++m_frameNumber;
    for (Fault& fault : m_faults)
        if (fault.count != 0 && fault.kind == FaultKind::SignalAtFrame && fault.value <= m_frameNumber) {
            fault.count = 0;
            setSignal(fault.signal);
        }
}

void Card::skip(uint32_t frames) noexcept {
    for (Client& client : m_clients)
        for (Channel& channel : client.channels)
            if (client.used && channel.grabbing && matchesInput(channel)) channel.counters.skipped += frames;
}

bool Card::beginFrame(FrameJob& job) noexcept {
    if (!m_plugged || !m_signal.present) return false;
    std::memset(static_cast<void*>(&job), 0, sizeof job);
    job.frameNumber = m_frameNumber;
    job.picture = m_options.picture;
    job.signal = m_signal;
    job.converter = m_converter;
    for (Pending& pending : m_pending) {
        if (!pending.used || pending.kind != PendingKind::Snap) continue;
        Channel& channel = m_clients[pending.request.client].channels[0];
        if (!matchesInput(channel)) continue;
        if (pending.request.outSize < channel.frameSize) { // prepared anew since it was asked for
            completePending(pending, kStatusBufferTooSmall, 0);
            continue;
        }
        job.snap = true;
        job.client = pending.request.client;
        job.target = pending.request.out;
        job.token = pending.request.token;
        job.bytes = channel.frameSize;
        job.selector = channel.selector;
        job.outputParameter = channel.outputParameter;
        // From here on the request cannot be cancelled: endFrame completes it.
        pending.used = false;
        logOutcome(pending.logSequence, pending.request, kStatusSuccess, job.bytes);
        return true;
    }
    for (uint32_t i = 0; i < kMaxClients; ++i)
        for (uint8_t port = 0; port < 2; ++port) {
            Channel& channel = m_clients[i].channels[port];
            if (!m_clients[i].used || !channel.grabbing || channel.lastTick == m_frameNumber || !matchesInput(channel))
                continue;
            channel.lastTick = m_frameNumber;
            ++channel.counters.frames;
            const uint32_t index = freeBuffer(channel);
            if (index == channel.bufferCount) {
                ++channel.counters.dropped;
                continue;
            }
            Buffer& buffer = channel.buffers[index];
            buffer.state = BufferState::Filling;
            buffer.frameNumber = m_frameNumber;
            buffer.serial = ++m_serial;
            job.client = i;
            job.processId = m_clients[i].processId;
            job.port = port;
            job.buffer = index;
            job.serial = buffer.serial;
            job.address = buffer.address;
            job.bytes = channel.frameSize;
            job.selector = channel.selector;
            job.outputParameter = channel.outputParameter;
            channel.nextFill = (index + 1) % channel.bufferCount;
            return true;
        }
    return false;
}

void Card::endFrame(const FrameJob& job, bool written) noexcept {
    if (job.snap) {
        m_host.complete(job.token, kStatusSuccess, job.bytes);
        return;
    }
    m_writes[m_writeCount++ % kWrittenFrames] = {job.serial, job.frameNumber, job.client,    job.processId, job.port,
                                                 job.bytes,  written,         job.sourceSum, job.address};
    Channel& channel = m_clients[job.client].channels[job.port];
    Buffer& buffer = channel.buffers[job.buffer];
    // The run that it was for may have ended meanwhile, and its client be another one.
    if (!channel.grabbing || buffer.state != BufferState::Filling || buffer.serial != job.serial) return;
    buffer.dmaStatus = written ? DMA_STATUS_GOOD : DMA_STATUS_FIFO_OVERRUN;
    if (const Fault* fault = matchFault(job.port, true)) buffer.dmaStatus = fault->value;
    if (!written) ++channel.counters.failed;
    buffer.state = BufferState::Filled;
    serveLocks(job.client, uint8_t(job.port));
}

void Card::serveLocks(uint32_t client, uint8_t port) noexcept {
    Channel& channel = m_clients[client].channels[port];
    if (!channel.grabbing) return;
    for (uint32_t index; (index = oldestFilled(channel)) != channel.bufferCount;) {
        Pending* pending = oldest(client, PendingKind::LockBuffer, port);
        if (!pending || !isLockDue(port)) return;
        const Outcome outcome = fillLockReply(channel, port, index, pending->request);
        completePending(*pending, outcome.status, outcome.replySize);
    }
}

uint32_t Card::freeBuffer(const Channel& channel) noexcept {
    for (uint32_t i = 0; i < channel.bufferCount; ++i) {
        const uint32_t index = (channel.nextFill + i) % channel.bufferCount;
        if (channel.buffers[index].state == BufferState::Free) return index;
    }
    return channel.bufferCount;
}

uint32_t Card::oldestFilled(const Channel& channel) noexcept {
    uint32_t found = channel.bufferCount;
    for (uint32_t i = 0; i < channel.bufferCount; ++i)
        if (channel.buffers[i].state == BufferState::Filled &&
            (found == channel.bufferCount || channel.buffers[i].serial < channel.buffers[found].serial))
            found = i;
    return found;
}

Outcome Card::fillLockReply(Channel& channel, uint8_t port, uint32_t index, const Request& request) noexcept {
    Buffer& buffer = channel.buffers[index];
    wire::LockBufferReply reply = {};
    reply.frameWord0 = buffer.frameNumber;
    reply.frameWord1 = channel.counters.dropped;
    reply.dmaStatus = buffer.dmaStatus;
    reply.bufferAddress = buffer.address;
    reply.frameByte = uint8_t(m_signal.interlaced);
    reply.bufferId = bufferId(index, buffer.serial);
    reply.frameWord2 = buffer.serial;
    uint32_t size = sizeof reply;
    if (const ReplayAnswer* recorded = m_replay.isLoaded() ? m_replay.takeLock(port) : nullptr) {
        if (recorded->status != kStatusSuccess) return {recorded->status, 0}; // the frame is the next lock's
        wire::LockBufferReply said = reply;
        if (recorded->replyBytes < size) size = recorded->replyBytes;
        std::memcpy(&said, m_replay.reply(*recorded), size);
        said.bufferAddress = reply.bufferAddress;
        said.bufferId = reply.bufferId;
        reply = said;
    }
    std::memcpy(request.out, &reply, size);
    buffer.state = BufferState::Held;
    ++channel.counters.delivered;
    return {kStatusSuccess, size};
}

void Card::startChannel(Channel& channel) noexcept {
    for (Buffer& buffer : channel.buffers)
        buffer.state = BufferState::Free;
    channel.nextFill = 0;
    channel.lastTick = m_frameNumber;
    channel.counters = {};
    channel.grabbing = true;
}

void Card::stopChannel(uint32_t client, uint8_t port, StopBehaviour behaviour) noexcept {
    Channel& channel = m_clients[client].channels[port];
    channel.grabbing = false;
    if (behaviour == StopBehaviour::LeavePending) return;
    while (Pending* pending = oldest(client, PendingKind::LockBuffer, port)) {
        ++channel.counters.aborted;
        if (behaviour == StopBehaviour::Cancel) {
            completePending(*pending, kStatusCancelled, 0);
            continue;
        }
        wire::LockBufferReply reply = {};
        reply.dmaStatus = DMA_STATUS_ABORTED;
        reply.bufferId = UINT32_MAX;
        std::memcpy(pending->request.out, &reply, sizeof reply);
        completePending(*pending, kStatusSuccess, sizeof reply);
    }
}

Outcome Card::takeChunkTable(Client& client, uint8_t port, const Request& request) noexcept {
    Channel& channel = client.channels[port];
    wire::ChunkTableHead head = {};
    if (!request.out || request.outSize < sizeof head) return {kStatusBufferTooSmall, 0};
    std::memcpy(&head, request.out, sizeof head);
    const auto reject = [&](uint32_t result) {
        std::memcpy(request.out, &result, sizeof result);
        return Outcome{kStatusSuccess, request.outSize};
    };
    if (!channel.prepared) return reject(kResultNotPrepared);
    if (channel.grabbing) return reject(kResultAlreadyGrabbing);
    if (head.chunkCount == 0 || head.chunkCount > kMaxBuffers ||
        request.outSize != sizeof head + head.chunkCount * sizeof(wire::Chunk) ||
        countPending(request.client, PendingKind::LockChunk, port) < head.chunkCount)
        return reject(kResultBadChunkTable);
    uint32_t buffers = 0;
    channel.bufferCount = 0;
    for (uint32_t i = 0; i < head.chunkCount; ++i) {
        wire::Chunk chunk;
        std::memcpy(&chunk, request.out + sizeof head + i * sizeof chunk, sizeof chunk);
        if (chunk.address == 0 || chunk.firstBuffer != buffers || chunk.bufferCount == 0 ||
            chunk.bufferCount > kMaxBuffers - buffers ||
            chunk.lengthBytes < uint64_t(chunk.bufferCount) * channel.frameSize)
            return reject(kResultBadChunkTable);
        for (uint32_t b = 0; b < chunk.bufferCount; ++b)
            channel.buffers[buffers++].address = chunk.address + uint64_t(b) * channel.frameSize;
    }
    channel.bufferCount = buffers;
    return reject(kResultOk);
}

} // namespace kestra::simcard
