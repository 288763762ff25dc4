// What a driver's reply says, told from its bytes alone: nothing that a driver sends is trusted. Portable, so that any
// reply can be tried without a card. Pure functions. Private to device/.
#pragma once

#include "protocol/records.h"
#include "protocol/requests.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestra {

/// Outcome of one driver request.
struct RequestResult {
    uint16_t win32Error = 0;
    uint8_t driverResult = 0;        ///< low byte of a driver result that is not 0
    uint8_t status = TARNIS_SUCCESS; ///< 0, 4, 254 or 255
};
static_assert(sizeof(RequestResult) == 4);

/// The driver's own word, with which every reply begins; 0 means success.
inline uint32_t driverResultOf(const void* answer) noexcept {
    wire::Reply reply{};
    std::memcpy(&reply, answer, sizeof reply);
    return reply.result;
}

/// What has come back for a request that the system calls successful.
enum class ReplyKind : uint8_t {
    Good,
    Refused, ///< the driver's own word says so
    Short    ///< something is missing that is read
};

/// The driver's own word comes first: it counts in a reply that is too short otherwise, too.
/// @param bytes      as the system counted them
/// @param readBytes  of the answer that are read, at least
inline ReplyKind kindOfReply(const void* answer, uint32_t bytes, uint32_t readBytes) noexcept {
    if (bytes >= sizeof(wire::Reply) && driverResultOf(answer) != 0) return ReplyKind::Refused;
    return bytes < readBytes ? ReplyKind::Short : ReplyKind::Good;
}

/// Does the answer to a lock request say which buffer the card has locked? It may, even if it refuses or is short, and
/// then that buffer goes back.
inline bool namesBuffer(const wire::LockBufferReply& reply, uint32_t bytes) noexcept {
    constexpr uint32_t kNamesBufferBytes = offsetof(wire::LockBufferReply, bufferId) + sizeof(uint32_t);
    return bytes >= kNamesBufferBytes && (reply.result == 0 || reply.bufferAddress != 0);
}

/// Does one of the buffers that lie one after the other from base on begin at this address?
constexpr bool isBuffer(uint64_t address, uint64_t base, uint32_t sizeBytes, uint32_t count) noexcept {
    const uint64_t offset = address - base;
    return offset < uint64_t{sizeBytes} * count && offset % sizeBytes == 0;
}

} // namespace kestra
