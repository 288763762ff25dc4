// The protocol, request by request.
#include "simcard/client/raw_client.h"

#include <winioctl.h>

namespace kestra::simcard {

RawClient::RawClient(const std::wstring& devicePath)
    : m_file(CreateFileW(devicePath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_ALWAYS, FILE_FLAG_OVERLAPPED, nullptr)),
      m_openError(m_file ? DWORD{ERROR_SUCCESS} : GetLastError()) {}

DWORD RawClient::begin(Pending& pending, uint32_t code, const void* in, DWORD inSize, void* out, DWORD outSize) {
    DWORD error = ERROR_SUCCESS;
    auto issue = [&] {
        if (!DeviceIoControl(m_file.get(), code, const_cast<void*>(in), inSize, out, outSize, nullptr,
                             &pending.overlapped))
            error = GetLastError();
    };
    if ((code & 3) == METHOD_OUT_DIRECT)
        m_direct.call(issue);
    else
        issue();
    return error;
}

DWORD RawClient::end(Pending& pending, DWORD timeoutMs) {
    if (WaitForSingleObject(pending.overlapped.hEvent, timeoutMs) != WAIT_OBJECT_0) return WAIT_TIMEOUT;
    return GetOverlappedResult(m_file.get(), &pending.overlapped, &m_size, FALSE) ? ERROR_SUCCESS : GetLastError();
}

void RawClient::cancel(Pending& pending) {
    CancelIoEx(m_file.get(), &pending.overlapped);
    WaitForSingleObject(pending.overlapped.hEvent, 10000);
}

DWORD RawClient::call(uint32_t code, const void* in, DWORD inSize, void* out, DWORD outSize) {
    Pending pending;
    const DWORD error = begin(pending, code, in, inSize, out, outSize);
    if (error != ERROR_SUCCESS && error != ERROR_IO_PENDING) return error;
    const DWORD ended = end(pending);
    if (ended == WAIT_TIMEOUT) cancel(pending);
    return ended;
}

DWORD RawClient::openSession() {
    wire::OpenSessionReply reply = {};
    const DWORD error = call(wire::kOpenSession, wire::Header{}, reply);
    m_session = reply.sessionId;
    return error;
}

DWORD RawClient::setAccess(uint8_t port, bool claimed) {
    const uint32_t bit = 0x100u << port;
    const uint32_t flags = claimed ? m_channelFlags | bit : m_channelFlags & ~bit;
    wire::Reply reply = {};
    const DWORD error = call(wire::kChannelAccess, wire::ChannelAccessRequest{header(port), flags}, reply);
    if (error == ERROR_SUCCESS) m_channelFlags = flags;
    return error;
}

RawStream::~RawStream() {
    if (m_claimed) {
        stop();
        m_client.setAccess(m_port, false);
    }
    if (m_chunkLocked) m_client.cancel(m_chunk);
}

DWORD RawStream::judge(DWORD error, uint32_t driverResult) {
    m_driverResult = driverResult;
    return error == ERROR_SUCCESS && driverResult != 0 ? DWORD{ERROR_GEN_FAILURE} : error;
}

DWORD RawStream::prepare() {
    if (const DWORD error = m_client.setAccess(m_port, true)) return error;
    m_claimed = true;
    wire::VideoStatusReply status = {};
    if (const DWORD error = m_client.call(wire::kVideoStatus, m_client.header(), status)) return error;
    wire::PrepareReply prepared = {};
    const wire::PrepareRequest request = {
        m_client.header(m_port), m_selector, status.videoMode, 0, {0, 1, 0, 1}, {0, 0}};
    const DWORD asked = m_client.call(wire::kPrepare, request, prepared);
    if (const DWORD error = judge(asked, prepared.result)) return error;
    m_frameSizeBytes = prepared.frameSizeBytes;
    m_memory.assign(size_t{kBuffers} * m_frameSizeBytes, 0xEE);
    const uint32_t portOffset = wire::kPortStride * m_port;
    const DWORD locked = m_client.begin(m_chunk, wire::kLockChunk + portOffset, nullptr, 0, m_memory.data(),
                                        static_cast<DWORD>(m_memory.size()));
    if (locked != ERROR_IO_PENDING) return locked == ERROR_SUCCESS ? DWORD{ERROR_GEN_FAILURE} : locked;
    m_chunkLocked = true;
#pragma pack(push, 1)
    struct {
        wire::ChunkTableHead head;
        wire::Chunk chunk;
    } table = {{0, 1}, {reinterpret_cast<uint64_t>(m_memory.data()), m_memory.size(), 0, kBuffers, 0}};
#pragma pack(pop)
    const DWORD sent = m_client.call(wire::kChunkTable + portOffset, nullptr, 0, &table, sizeof table);
    return judge(sent, table.head.result);
}

DWORD RawStream::start() {
    if (!m_chunkLocked)
        if (const DWORD error = prepare()) return error;
    wire::Reply reply = {};
    const DWORD started =
        m_client.call(wire::kStartGrabbing, wire::StartGrabbingRequest{m_client.header(m_port), 0}, reply);
    return judge(started, reply.result);
}

DWORD RawStream::lock(wire::LockBufferReply& reply, DWORD timeoutMs) {
    const wire::Header header = m_client.header(m_port);
    RawClient::Pending pending;
    const DWORD error = m_client.begin(pending, wire::kLockBuffer, &header, sizeof header, &reply, sizeof reply);
    if (error != ERROR_SUCCESS && error != ERROR_IO_PENDING) return error;
    const DWORD ended = m_client.end(pending, timeoutMs);
    if (ended == WAIT_TIMEOUT) m_client.cancel(pending);
    return judge(ended, ended == ERROR_SUCCESS ? reply.result : 0);
}

DWORD RawStream::unlock(uint32_t bufferId) {
    wire::Reply reply = {};
    const DWORD error =
        m_client.call(wire::kUnlockBuffer, wire::UnlockBufferRequest{m_client.header(m_port), bufferId}, reply);
    return judge(error, reply.result);
}

DWORD RawStream::stop() {
    wire::Reply reply = {};
    const DWORD error = m_client.call(wire::kStopGrabbing, m_client.header(m_port), reply);
    return judge(error, reply.result);
}

const uint8_t* RawStream::bytes(const wire::LockBufferReply& reply) const {
    const auto* frame = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(reply.bufferAddress));
    const uint8_t* end = m_memory.data() + m_memory.size();
    return frame >= m_memory.data() && frame < end && end - frame >= ptrdiff_t(m_frameSizeBytes) ? frame : nullptr;
}

} // namespace kestra::simcard
