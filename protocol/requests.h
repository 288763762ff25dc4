// Every request that the card's driver knows, in one list: its code, what is sent, what comes back, its name. Portable;
// plain data.
// A request is a type: Prepare::kCode, Prepare::Sent, Prepare::Answer. A Prepare can be sent and answered with its own
// records only.
#pragma once

#include "protocol/wire.h"

#include <cstdint>
#include <type_traits>

namespace kestra::wire {

/// Device type 0xCE32; the low two bits of a code are its transfer method: 0 buffered, 2 direct output.
///
/// RECORD(type, code, what is sent, what comes back, name): records both ways.
/// DIRECT(type, code, distance of port 1's code, name): no request buffer; the caller's memory is the reply buffer.
// clang-format off
#define KESTRA_REQUESTS(RECORD, DIRECT)                                                                                \
    RECORD(OpenSession,        0xCE322040, Header,                    OpenSessionReply,    "open session")             \
    RECORD(SessionWatch,       0xCE322044, Header,                    Reply,               "session watch")            \
    RECORD(GetSlotInfo,        0xCE32204C, SlotInfoRequest,           SlotInfoReply,       "slot information")         \
    RECORD(VideoStatus,        0xCE322058, Header,                    VideoStatusReply,    "video status")             \
    RECORD(ChannelAccess,      0xCE322060, ChannelAccessRequest,      Reply,               "channel access")           \
    RECORD(Connection,         0xCE322068, Header,                    ConnectionReply,     "connection")               \
    RECORD(RegisterInputEvent, 0xCE32206C, RegisterInputEventRequest, Reply,               "register input event")     \
    RECORD(FormatSize,         0xCE3220C0, Header,                    FormatSizeReply,     "format size")              \
    RECORD(GrabStatistics,     0xCE3220C4, Header,                    GrabStatisticsReply, "grab statistics")          \
    RECORD(ReadRegister,       0xCE322100, ReadRegisterRequest,       ReadRegisterReply,   "read register")            \
    RECORD(SetConverter,       0xCE32210C, SetConverterRequest,       Reply,               "set converter")            \
    RECORD(GetConverter,       0xCE322110, Header,                    GetConverterReply,   "get converter")            \
    RECORD(Prepare,            0xCE322600, PrepareRequest,            PrepareReply,        "prepare")                  \
    DIRECT(LockChunk,          0xCE322606, 4,                                              "lock DMA chunk")           \
    DIRECT(ChunkTable,         0xCE32260E, 4,                                              "chunk table")              \
    RECORD(StartGrabbing,      0xCE322614, StartGrabbingRequest,      Reply,               "start grabbing")           \
    RECORD(StopGrabbing,       0xCE322618, Header,                    Reply,               "stop grabbing")            \
    DIRECT(Snap,               0xCE32261E, 0,                                              "snap")                     \
    RECORD(LockBuffer,         0xCE322630, Header,                    LockBufferReply,     "lock buffer")              \
    RECORD(UnlockBuffer,       0xCE322634, UnlockBufferRequest,       Reply,               "unlock buffer")
// clang-format on

// The codes by name, for code that handles any request.
#define KESTRA_RECORD(Type, code, Request, ReplyRecord, text) k##Type = (code),
#define KESTRA_DIRECT(Type, code, stride, text) k##Type = (code),
enum Code : uint32_t { KESTRA_REQUESTS(KESTRA_RECORD, KESTRA_DIRECT) };
#undef KESTRA_RECORD
#undef KESTRA_DIRECT

/// A direct request carries its port in its code.
constexpr uint32_t kPortStride = 4;

#define KESTRA_RECORD(Type, code, Request, ReplyRecord, text)                                                          \
    struct Type {                                                                                                      \
        static constexpr uint32_t kCode = (code);                                                                      \
        using Sent = Request;                                                                                          \
        using Answer = ReplyRecord;                                                                                    \
    };
#define KESTRA_DIRECT(Type, code, stride, text)                                                                        \
    struct Type {                                                                                                      \
        static constexpr uint32_t codeOf(int port) noexcept {                                                          \
            return (code) + (stride) * static_cast<uint32_t>(port);                                                    \
        }                                                                                                              \
    };
KESTRA_REQUESTS(KESTRA_RECORD, KESTRA_DIRECT)
#undef KESTRA_RECORD
#undef KESTRA_DIRECT

/// Size and form of a request.
struct RequestShape {
    uint32_t code;
    uint32_t portStride; ///< distance of port 1's code; 0: the port is not in the code
    uint32_t sentBytes;  ///< 0: no request buffer
    uint32_t replyBytes; ///< 0: whatever the caller gives
    bool session;        ///< the request carries a session id, which must be the client's
    const char* name;
};

#define KESTRA_RECORD(Type, code, Request, ReplyRecord, text)                                                          \
    {(code), 0, sizeof(Request), sizeof(ReplyRecord), (code) != kOpenSession && (code) != kGetSlotInfo, text},
#define KESTRA_DIRECT(Type, code, stride, text) {(code), (stride), 0, 0, false, text},
constexpr RequestShape kRequests[] = {KESTRA_REQUESTS(KESTRA_RECORD, KESTRA_DIRECT)};
#undef KESTRA_RECORD
#undef KESTRA_DIRECT

/// @return null if there is no such request
constexpr const RequestShape* shapeOf(uint32_t code) noexcept {
    for (const RequestShape& shape : kRequests)
        if (code == shape.code || (shape.portStride != 0 && code == shape.code + shape.portStride)) return &shape;
    return nullptr;
}

/// Name of a request, for logs and tools.
constexpr const char* requestName(uint32_t code) noexcept {
    const RequestShape* shape = shapeOf(code);
    return shape ? shape->name : "unknown";
}

/// How much of a reply is read: a driver may omit the rest.
template <class Answer>
inline constexpr uint32_t kReadBytes = sizeof(Answer);
template <>
inline constexpr uint32_t kReadBytes<VideoStatusReply> = offsetof(VideoStatusReply, reserved);
template <>
inline constexpr uint32_t kReadBytes<FormatSizeReply> = offsetof(FormatSizeReply, reserved1);
template <>
inline constexpr uint32_t kReadBytes<GrabStatisticsReply> = offsetof(GrabStatisticsReply, reserved4);
template <>
inline constexpr uint32_t kReadBytes<LockBufferReply> = offsetof(LockBufferReply, reserved1);
static_assert(kReadBytes<GrabStatisticsReply> == 68 && kReadBytes<LockBufferReply> == 45);

/// Questions about an input go to the even port of the pair.
constexpr int8_t inputPort(int8_t port) noexcept {
    return static_cast<int8_t>(port & ~1);
}

/// The bit of a channel-flags word that claims a channel's DMA access.
constexpr uint32_t accessBit(int port) noexcept {
    return 1u << (port + 8);
}

} // namespace kestra::wire
