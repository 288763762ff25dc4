// The fields of every request and reply by name, and which of them say the same whenever the same is asked. Portable;
// plain data.
#pragma once

#include "protocol/requests.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace kestra::wire {

enum class FieldKind : uint8_t {
    Value,   ///< follows from what is asked and what arrives at the card
    Own,     ///< a session's own: ids, handles, addresses
    Count,   ///< depends on the time of asking
    Reserved ///< has no known meaning
};

struct Field {
    const char* name;
    uint16_t offset, bytes;
    FieldKind kind;
    bool isSigned;
    bool isText; ///< UTF-16, NUL-terminated
    bool isArray;
};

/// "header.port" is "port".
constexpr const char* lastName(const char* name) noexcept {
    const char* last = name;
    for (; *name != '\0'; ++name)
        if (*name == '.') last = name + 1;
    return last;
}

/// The fields of a record, each beginning where the one before ends.
template <class Record>
struct FieldsOf {
    static constexpr std::array<Field, 0> kAll{};
};

#define KESTRA_FIELD(member, kind)                                                                                     \
    Field {                                                                                                            \
        lastName(#member), offsetof(Record, member), sizeof(static_cast<Record*>(nullptr)->member), FieldKind::kind,   \
            std::is_signed_v<decltype(static_cast<Record*>(nullptr)->member)>,                                         \
            std::is_same_v<std::remove_extent_t<decltype(static_cast<Record*>(nullptr)->member)>, char16_t>,           \
            std::is_array_v<decltype(static_cast<Record*>(nullptr)->member)>                                           \
    }
#define KESTRA_FIELDS(Type, ...)                                                                                       \
    template <>                                                                                                        \
    struct FieldsOf<Type> {                                                                                            \
        using Record = Type;                                                                                           \
        static constexpr std::array kAll{__VA_ARGS__};                                                                 \
        static constexpr bool areWhole() noexcept {                                                                    \
            size_t end = 0;                                                                                            \
            for (const Field& field : kAll) {                                                                          \
                if (field.offset != end) return false;                                                                 \
                end += field.bytes;                                                                                    \
            }                                                                                                          \
            return end == sizeof(Type);                                                                                \
        }                                                                                                              \
    };                                                                                                                 \
    static_assert(FieldsOf<Type>::areWhole());
#define KESTRA_HEADER_FIELDS KESTRA_FIELD(header.port, Value), KESTRA_FIELD(header.sessionId, Own)
#define KESTRA_CONVERTER_FIELDS                                                                                        \
    KESTRA_FIELD(converter.yOff, Value), KESTRA_FIELD(converter.crOff, Value), KESTRA_FIELD(converter.cbOff, Value),   \
        KESTRA_FIELD(converter.y1, Value), KESTRA_FIELD(converter.r1, Value), KESTRA_FIELD(converter.g1, Value),       \
        KESTRA_FIELD(converter.g2, Value), KESTRA_FIELD(converter.b1, Value), KESTRA_FIELD(converter.rMin, Value),     \
        KESTRA_FIELD(converter.rMax, Value), KESTRA_FIELD(converter.gMin, Value), KESTRA_FIELD(converter.gMax, Value), \
        KESTRA_FIELD(converter.bMin, Value), KESTRA_FIELD(converter.bMax, Value),                                      \
        KESTRA_FIELD(converter.redGain, Value), KESTRA_FIELD(converter.greenGain, Value),                              \
        KESTRA_FIELD(converter.blueGain, Value), KESTRA_FIELD(converter.redOffset, Value),                             \
        KESTRA_FIELD(converter.greenOffset, Value), KESTRA_FIELD(converter.blueOffset, Value)

KESTRA_FIELDS(Header, KESTRA_FIELD(port, Value), KESTRA_FIELD(sessionId, Own))
KESTRA_FIELDS(Reply, KESTRA_FIELD(result, Value))
KESTRA_FIELDS(OpenSessionReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(sessionId, Own))
KESTRA_FIELDS(SlotInfoRequest, KESTRA_FIELD(zero, Reserved))
KESTRA_FIELDS(SlotInfoReply, KESTRA_FIELD(unused, Reserved), KESTRA_FIELD(slotValue, Value),
              KESTRA_FIELD(description, Value))
KESTRA_FIELDS(VideoStatusReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(videoMode, Value),
              KESTRA_FIELD(signal, Value), KESTRA_FIELD(formatByte, Value), KESTRA_FIELD(reserved, Reserved))
KESTRA_FIELDS(ChannelAccessRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(channelFlags, Value))
KESTRA_FIELDS(ConnectionReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(connected, Value))
KESTRA_FIELDS(RegisterInputEventRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(eventHandle, Own))
KESTRA_FIELDS(FormatSizeReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(width, Value),
              KESTRA_FIELD(reserved0, Reserved), KESTRA_FIELD(height, Value), KESTRA_FIELD(reserved1, Reserved))
KESTRA_FIELDS(GrabStatisticsReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(reserved0, Reserved),
              KESTRA_FIELD(counter28, Count), KESTRA_FIELD(counter32, Count), KESTRA_FIELD(reserved1, Reserved),
              KESTRA_FIELD(counter48, Count), KESTRA_FIELD(reserved2, Reserved), KESTRA_FIELD(frameRate, Value),
              KESTRA_FIELD(reserved3, Reserved), KESTRA_FIELD(counter64, Count), KESTRA_FIELD(reserved4, Reserved))
KESTRA_FIELDS(ReadRegisterRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(registerNumber, Value))
KESTRA_FIELDS(ReadRegisterReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(value, Value))
KESTRA_FIELDS(SetConverterRequest, KESTRA_HEADER_FIELDS, KESTRA_CONVERTER_FIELDS)
KESTRA_FIELDS(GetConverterReply, KESTRA_FIELD(result, Value), KESTRA_CONVERTER_FIELDS)
KESTRA_FIELDS(PrepareRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(selector, Value), KESTRA_FIELD(videoMode, Value),
              KESTRA_FIELD(outputParameter, Value), KESTRA_FIELD(constants, Value), KESTRA_FIELD(reserved, Reserved))
KESTRA_FIELDS(PrepareReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(frameSizeBytes, Value))
KESTRA_FIELDS(ChunkTableHead, KESTRA_FIELD(result, Value), KESTRA_FIELD(chunkCount, Value))
KESTRA_FIELDS(Chunk, KESTRA_FIELD(address, Own), KESTRA_FIELD(lengthBytes, Value), KESTRA_FIELD(firstBuffer, Value),
              KESTRA_FIELD(bufferCount, Value), KESTRA_FIELD(reserved, Reserved))
KESTRA_FIELDS(StartGrabbingRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(startParameter, Value))
KESTRA_FIELDS(LockBufferReply, KESTRA_FIELD(result, Value), KESTRA_FIELD(frameWord0, Count),
              KESTRA_FIELD(frameWord1, Count), KESTRA_FIELD(dmaStatus, Value), KESTRA_FIELD(bufferAddress, Own),
              KESTRA_FIELD(frameByte, Value), KESTRA_FIELD(reserved0, Reserved), KESTRA_FIELD(bufferId, Own),
              KESTRA_FIELD(frameWord2, Count), KESTRA_FIELD(reserved1, Reserved))
KESTRA_FIELDS(UnlockBufferRequest, KESTRA_HEADER_FIELDS, KESTRA_FIELD(bufferId, Own))

#undef KESTRA_FIELDS
#undef KESTRA_FIELD
#undef KESTRA_HEADER_FIELDS
#undef KESTRA_CONVERTER_FIELDS

struct RequestFields {
    uint32_t code;
    std::span<const Field> sent, reply;
    std::span<const Field> repeated; ///< follow both, as often as there is room
};

#define KESTRA_RECORD(Type, code, Request, ReplyRecord, text)                                                          \
    RequestFields{(code), FieldsOf<Request>::kAll, FieldsOf<ReplyRecord>::kAll, {}},
/// Most direct requests' memory holds frames.
#define KESTRA_DIRECT(Type, code, stride, text)                                                                        \
    (code) == kChunkTable                                                                                              \
        ? RequestFields{(code), FieldsOf<ChunkTableHead>::kAll, FieldsOf<ChunkTableHead>::kAll, FieldsOf<Chunk>::kAll} \
        : RequestFields{(code), {}, {}, {}},
inline constexpr RequestFields kRequestFields[] = {KESTRA_REQUESTS(KESTRA_RECORD, KESTRA_DIRECT)};
#undef KESTRA_RECORD
#undef KESTRA_DIRECT
inline constexpr RequestFields kNoFields{};

/// @return kNoFields if there is no such request
constexpr const RequestFields& fieldsOf(uint32_t code) noexcept {
    const RequestShape* shape = shapeOf(code);
    for (const RequestFields& fields : kRequestFields)
        if (shape && fields.code == shape->code) return fields;
    return kNoFields;
}

/// Sets the bytes of the fields of these kinds to 0; what is not there of a record is left out.
inline void clearFields(std::span<uint8_t> record, std::span<const Field> fields,
                        std::initializer_list<FieldKind> kinds) noexcept {
    for (const Field& field : fields)
        for (const FieldKind kind : kinds)
            if (field.kind == kind && field.offset < record.size())
                std::memset(record.data() + field.offset, 0,
                            field.bytes < record.size() - field.offset ? field.bytes : record.size() - field.offset);
}

} // namespace kestra::wire
