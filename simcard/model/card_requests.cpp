// The request protocol of a simulated card: what each code wants, and what it answers.
#include "simcard/model/card.h"

#include "protocol/raw_frame.h"
#include "protocol/request_fields.h"

#include <cstring>

namespace kestra::simcard {

namespace {

constexpr uint32_t kLargestRequest = sizeof(wire::SetConverterRequest);

template <class Record>
Record readAs(const uint8_t* bytes) noexcept {
    Record record;
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

template <class Record>
Outcome reply(const Request& request, const Record& record) noexcept {
    std::memcpy(request.out, &record, sizeof record);
    return {kStatusSuccess, sizeof record};
}

Outcome result(const Request& request, uint32_t value) noexcept {
    return reply(request, wire::Reply{value});
}

constexpr char16_t kSlotText[] = u"Kestra HD-SDI (simulated)";

} // namespace

Outcome Card::request(const Request& request) noexcept {
    if (request.client >= kMaxClients || !m_clients[request.client].used) return {kStatusInvalidHandle, 0};
    const uint64_t sequence = logRequest(request, m_clients[request.client].processId);
    const Outcome outcome = process(request, sequence);
    if (outcome.status != kStatusPending) logOutcome(sequence, request, outcome.status, outcome.replySize);
    return outcome;
}

Outcome Card::process(const Request& request, uint64_t logSequence) noexcept {
    if (m_clients[request.client].gone || !m_plugged) return {kStatusDeviceNotConnected, 0};
    const Fault* fault = matchFault(request.code, false);
    if (!fault && m_replay.isLoaded()) {
        const bool isDirect = !request.in;
        const uint64_t now = m_host.now100ns();
        const bool isTable = request.code == wire::kChunkTable || request.code == wire::kChunkTable + wire::kPortStride;
        const uint8_t* sent = isTable ? request.out : request.in;
        const uint32_t sentBytes = isTable ? request.outSize : isDirect ? 0 : request.inSize;
        if (const ReplayAnswer* recorded = m_replay.answerTo(request.code, sent, sentBytes, now)) {
            if (recorded->delayMs == 0) return answerAsRecorded(request, *recorded, logSequence);
            return pend(request, PendingKind::Delayed, 0, logSequence, now + uint64_t(recorded->delayMs) * 10000,
                        recorded);
        }
    }
    if (!fault) return answer(request, logSequence);
    switch (fault->kind) {
    case FaultKind::NtStatus:
        return {fault->value, 0};
    case FaultKind::Delay:
        return pend(request, PendingKind::Delayed, 0, logSequence, m_host.now100ns() + uint64_t(fault->value) * 10000);
    case FaultKind::NeverComplete:
        return pend(request, PendingKind::Hung, 0, logSequence);
    case FaultKind::Unplug:
        m_unplugRequested = true;
        return pend(request, PendingKind::Hung, 0, logSequence); // ends with the card
    case FaultKind::SignalChange:
        setSignal(fault->signal);
        return answer(request, logSequence);
    case FaultKind::DriverResult: {
        const wire::RequestShape* shape = wire::shapeOf(request.code);
        const uint32_t size = !shape || shape->replyBytes == 0 ? request.outSize : shape->replyBytes;
        if (size < sizeof(wire::Reply) || request.outSize < size) return {kStatusBufferTooSmall, 0};
        std::memset(request.out, 0, size);
        std::memcpy(request.out, &fault->value, sizeof fault->value);
        return {kStatusSuccess, size};
    }
    case FaultKind::ShortReply: {
        const uint32_t shortest = fault->value;
        const Outcome outcome = answer(request, logSequence);
        if (outcome.status != kStatusSuccess) return outcome;
        return {kStatusSuccess, outcome.replySize < shortest ? outcome.replySize : shortest};
    }
    default:
        return answer(request, logSequence);
    }
}

/// What the card holds changes as the model says; what is said of it is recorded, but for a session's own.
Outcome Card::answerAsRecorded(const Request& request, const ReplayAnswer& recorded, uint64_t logSequence) noexcept {
    if (recorded.status == kNeverAnswered) return pend(request, PendingKind::Hung, 0, logSequence);
    if (recorded.status != kStatusSuccess) return {recorded.status, 0};
    const uint8_t* reply = m_replay.reply(recorded);
    const uint32_t size = recorded.replyBytes < request.outSize ? recorded.replyBytes : request.outSize;
    wire::Reply head = {};
    if (request.code != wire::kGetSlotInfo && size >= sizeof head) std::memcpy(&head, reply, sizeof head);
    if (head.result == 0) {
        const Outcome outcome = answer(request, logSequence);
        if (outcome.status != kStatusSuccess) return outcome; // it waits, or the recorded card knew more of the past
    }
    for (const wire::Field& field : wire::fieldsOf(request.code).reply)
        if (field.offset < size && (head.result != 0 || field.kind != wire::FieldKind::Own))
            std::memcpy(request.out + field.offset, reply + field.offset,
                        field.bytes < size - field.offset ? field.bytes : size - field.offset);
    if (request.code == wire::kPrepare && head.result == 0 && size >= sizeof(wire::PrepareReply)) {
        const auto prepared = readAs<wire::PrepareReply>(reply);
        Channel& channel = m_clients[request.client].channels[m_preparedPort];
        if (prepared.frameSizeBytes != 0 && channel.prepared) channel.frameSize = prepared.frameSizeBytes;
    }
    return {kStatusSuccess, size};
}

Outcome Card::answer(const Request& request, uint64_t logSequence) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(request.code);
    if (!shape) return {kStatusInvalidDeviceRequest, 0};
    const uint32_t index = request.client;
    Client& client = m_clients[index];

    if (shape->sentBytes == 0) {
        if (client.sessionId == 0) return {kStatusInvalidHandle, 0};
        if (!request.out || request.outSize == 0) return {kStatusBufferTooSmall, 0};
        switch (request.code) {
        case wire::kLockChunk:
        case wire::kLockChunk + wire::kPortStride: {
            const uint8_t port = request.code == wire::kLockChunk ? 0 : 1;
            if (m_owner[port] != index + 1) return {kStatusAccessDenied, 0};
            return pend(request, PendingKind::LockChunk, port, logSequence);
        }
        case wire::kChunkTable:
        case wire::kChunkTable + wire::kPortStride: {
            const uint8_t port = request.code == wire::kChunkTable ? 0 : 1;
            if (m_owner[port] != index + 1) return {kStatusAccessDenied, 0};
            return takeChunkTable(client, port, request);
        }
        default: {
            const Channel& channel = client.channels[0];
            if (m_owner[0] != index + 1) return {kStatusAccessDenied, 0};
            if (!channel.prepared) return {kStatusInvalidParameter, 0};
            if (request.outSize < channel.frameSize) return {kStatusBufferTooSmall, 0};
            return pend(request, PendingKind::Snap, 0, logSequence);
        }
        }
    }

    if (request.inSize != shape->sentBytes || !request.in) return {kStatusInvalidParameter, 0};
    if (request.outSize < shape->replyBytes || !request.out) return {kStatusBufferTooSmall, 0};
    // Request and reply share their memory in a buffered transfer: keep the request before answering.
    uint8_t in[kLargestRequest];
    std::memcpy(in, request.in, request.inSize);
    const auto header = readAs<wire::Header>(in);
    if (request.code != wire::kGetSlotInfo && header.port > 1) return {kStatusInvalidParameter, 0};
    if (shape->session && (client.sessionId == 0 || header.sessionId != client.sessionId))
        return {kStatusInvalidHandle, 0};
    const uint8_t port = header.port & 1;
    Channel& channel = client.channels[port];

    switch (request.code) {
    case wire::kOpenSession:
        return openSession(client, request);
    case wire::kSessionWatch:
        return pend(request, PendingKind::Watch, port, logSequence);
    case wire::kGetSlotInfo: {
        wire::SlotInfoReply info = {};
        info.slotValue = m_slot;
        std::memcpy(info.description, kSlotText, sizeof kSlotText);
        return reply(request, info);
    }
    case wire::kVideoStatus: {
        wire::VideoStatusReply status = {};
        status.signal = m_signal.present ? 1 : 0;
        status.videoMode = m_signal.present ? m_signal.videoMode : 0;
        status.formatByte = m_signal.present ? m_signal.formatByte : 0;
        return reply(request, status);
    }
    case wire::kChannelAccess:
        return channelAccess(index, request, in);
    case wire::kConnection:
        return reply(request, wire::ConnectionReply{0, uint8_t(m_signal.present ? 1 : 0)});
    case wire::kRegisterInputEvent:
        channel.eventHandle = readAs<wire::RegisterInputEventRequest>(in).eventHandle;
        return result(request, kResultOk);
    case wire::kFormatSize: {
        wire::FormatSizeReply size = {};
        if (m_signal.present) size.width = m_signal.width, size.height = m_signal.height;
        return reply(request, size);
    }
    case wire::kGrabStatistics:
        return statistics(channel, request);
    case wire::kReadRegister:
        return reply(request, wire::ReadRegisterReply{
                                  0, receiverRegister(m_signal, readAs<wire::ReadRegisterRequest>(in).registerNumber)});
    case wire::kSetConverter:
        m_converter = readAs<wire::SetConverterRequest>(in).converter;
        return result(request, kResultOk);
    case wire::kGetConverter:
        return reply(request, wire::GetConverterReply{0, m_converter});
    default:
        break;
    }

    // The rest moves data: only the session that holds the channel may ask for it.
    if (m_owner[port] != index + 1) return {kStatusAccessDenied, 0};
    switch (request.code) {
    case wire::kPrepare:
        return prepare(channel, port, in, request);
    case wire::kStartGrabbing:
        if (!channel.prepared || channel.bufferCount == 0) return result(request, kResultNotPrepared);
        if (channel.grabbing) return result(request, kResultAlreadyGrabbing);
        startChannel(channel);
        if (m_replay.isLoaded()) m_replay.started(port, m_host.now100ns());
        // A lock request that an earlier stop left waiting is served by the new run.
        return result(request, kResultOk);
    case wire::kStopGrabbing:
        stopChannel(index, port, m_options.stopBehaviour);
        return result(request, kResultOk);
    case wire::kLockBuffer: {
        if (!channel.grabbing) {
            wire::LockBufferReply refused = {};
            refused.result = kResultNotGrabbing;
            return reply(request, refused);
        }
        const uint32_t filled = oldestFilled(channel);
        if (filled == channel.bufferCount || oldest(index, PendingKind::LockBuffer, port) || !isLockDue(port))
            return pend(request, PendingKind::LockBuffer, port, logSequence);
        return fillLockReply(channel, port, filled, request);
    }
    case wire::kUnlockBuffer: {
        const uint32_t id = readAs<wire::UnlockBufferRequest>(in).bufferId;
        Buffer& buffer = channel.buffers[id % kMaxBuffers];
        if (buffer.state == BufferState::Held && (buffer.serial << 6 | id % kMaxBuffers) == id)
            buffer.state = BufferState::Free;
        else
            ++channel.counters.lateUnlocks; // of an earlier run: harmless
        return result(request, kResultOk);
    }
    default:
        return {kStatusInvalidDeviceRequest, 0};
    }
}

Outcome Card::openSession(Client& client, const Request& request) noexcept {
    endSession(request.client, kStatusSuccess);
    if (++m_lastSession == 0) ++m_lastSession;
    client.sessionId = m_lastSession;
    return reply(request, wire::OpenSessionReply{0, client.sessionId});
}

void Card::endSession(uint32_t index, uint32_t watchStatus) noexcept {
    Client& client = m_clients[index];
    for (uint8_t port = 0; port < 2; ++port) {
        stopChannel(index, port, StopBehaviour::Abort);
        completeKind(index, PendingKind::LockChunk, port, kStatusCancelled, 0);
        completeKind(index, PendingKind::Snap, port, kStatusCancelled, 0);
        disown(index, port);
        std::memset(static_cast<void*>(&client.channels[port]), 0, sizeof client.channels[port]);
    }
    completeKind(index, PendingKind::Watch, -1, watchStatus, watchStatus == kStatusSuccess ? sizeof(wire::Reply) : 0);
    client.sessionId = 0;
}

void Card::disown(uint32_t index, uint8_t port) noexcept {
    if (m_owner[port] != index + 1) return;
    m_lastCounters[port] = m_clients[index].channels[port].counters;
    m_owner[port] = 0;
}

Outcome Card::channelAccess(uint32_t index, const Request& request, const uint8_t* in) noexcept {
    const uint32_t flags = readAs<wire::ChannelAccessRequest>(in).channelFlags;
    // All or nothing: a refused claim changes neither channel.
    for (uint32_t port = 0; port < 2; ++port)
        if ((flags & wire::accessBit(int(port))) != 0 && m_owner[port] != 0 && m_owner[port] != index + 1)
            return {kStatusAccessDenied, 0};
    for (uint8_t port = 0; port < 2; ++port) {
        if ((flags & wire::accessBit(port)) != 0) {
            m_owner[port] = index + 1;
        } else if (m_owner[port] == index + 1) {
            stopChannel(index, port, StopBehaviour::Abort);
            disown(index, port); // what was prepared and locked stays for the session's next claim
        }
    }
    return result(request, kResultOk);
}

Outcome Card::prepare(Channel& channel, uint8_t port, const uint8_t* in, const Request& request) noexcept {
    const auto wanted = readAs<wire::PrepareRequest>(in);
    if (channel.grabbing) return reply(request, wire::PrepareReply{kResultAlreadyGrabbing, 0});
    if (!m_signal.present) return reply(request, wire::PrepareReply{kResultNoSignal, 0});
    // Output parameter 1 concerns the decoder: the card writes both fields in any case.
    const auto size = static_cast<uint32_t>(port == 0 // a valid signal's frame has at most 201 MB
                                                ? rawFrameBytes(wanted.selector, m_signal.width, m_signal.height)
                                                : audioBlockBytes(wanted.selector, m_signal.nominalFrameRate()));
    if (size == 0) return reply(request, wire::PrepareReply{kResultBadFormat, 0});
    channel.prepared = true;
    m_preparedPort = port;
    channel.selector = wanted.selector;
    channel.outputParameter = wanted.outputParameter;
    channel.preparedFor = m_signal;
    channel.frameSize = size;
    channel.bufferCount = 0; // the next chunk table says where the frames go
    return reply(request, wire::PrepareReply{kResultOk, size});
}

Outcome Card::statistics(const Channel& channel, const Request& request) const noexcept {
    wire::GrabStatisticsReply counters = {};
    counters.frameRate = m_signal.reportedFrameRate();
    counters.counter64 = channel.counters.frames;
    counters.counter48 = channel.counters.dropped;
    counters.counter28 = channel.counters.failed;
    counters.counter32 = channel.counters.aborted;
    return reply(request, counters);
}

} // namespace kestra::simcard
