// The wire format between the device library and the card's kernel driver: every request and reply as a packed
// little-endian record. requests.h says which belong together. Portable; plain data.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestra::wire {

#pragma pack(push, 1)

/// Starts every request that has a request buffer, except the slot information.
struct Header {
    uint8_t port; ///< some requests carry it with its lowest bit cleared
    uint32_t sessionId;
};

/// Starts every reply; 0 means success.
struct Reply {
    uint32_t result;
};

struct OpenSessionReply {
    uint32_t result;
    uint32_t sessionId;
};

struct SlotInfoRequest {
    uint8_t zero[5];
};

struct SlotInfoReply {
    uint32_t unused;
    uint32_t slotValue;
    char16_t description[256]; ///< NUL-terminated
};

struct VideoStatusReply {
    uint32_t result;
    uint8_t videoMode;
    uint8_t signal; ///< not 0: a signal is present
    uint8_t formatByte;
    uint8_t reserved[3];
};

struct ChannelAccessRequest {
    Header header;
    uint32_t channelFlags; ///< bit 8 + port: the channel's DMA access is claimed
};

struct ConnectionReply {
    uint32_t result;
    uint8_t connected;
};

struct RegisterInputEventRequest {
    Header header;
    uint64_t eventHandle; ///< the client's handle of the channel's input-check event
};

struct FormatSizeReply {
    uint32_t result;
    uint16_t width;
    uint16_t reserved0;
    uint16_t height;
    uint16_t reserved1;
};

struct GrabStatisticsReply {
    uint32_t result;
    uint8_t reserved0[24];
    uint32_t counter28;
    uint32_t counter32;
    uint8_t reserved1[12];
    uint32_t counter48;
    uint8_t reserved2[4];
    uint32_t frameRate; ///< frames per second
    uint8_t reserved3[4];
    uint32_t counter64;
    uint8_t reserved4[12];
};

struct ReadRegisterRequest {
    Header header;
    uint16_t registerNumber;
};

struct ReadRegisterReply {
    uint32_t result;
    uint16_t value;
};

/// Converter parameters as the card holds them.
struct Converter {
    int32_t yOff, crOff, cbOff;                 // 10-bit sample units
    int32_t y1, r1, g1, g2, b1;                 // coefficient * 256, truncated toward zero; 1.164 is 297
    uint8_t rMin, rMax, gMin, gMax, bMin, bMax; // 8-bit levels
    int32_t redGain, greenGain, blueGain;       // gain * 256; unaligned: copy out, bind no reference
    uint8_t redOffset, greenOffset, blueOffset; // sign-magnitude, see offsetToWire
};

struct SetConverterRequest {
    Header header;
    Converter converter;
};

struct GetConverterReply {
    uint32_t result;
    Converter converter;
};

struct PrepareRequest {
    Header header;
    uint8_t selector;        ///< output selector, or the record's last word on the alternate-format channel
    uint8_t videoMode;       ///< low byte of the input's video mode
    uint8_t outputParameter; ///< low byte; 0 for a progressive input
    uint8_t constants[4];    ///< 0, 1, 0, 1
    uint8_t reserved[2];     ///< 0
};

struct PrepareReply {
    uint32_t result;
    uint32_t frameSizeBytes;
};

/// Starts the chunk table; one Chunk per locked chunk follows.
struct ChunkTableHead {
    uint32_t result; ///< 0 when sent; the driver's answer
    uint32_t chunkCount;
};

struct Chunk {
    uint64_t address; ///< in the client's address space
    uint64_t lengthBytes;
    uint32_t firstBuffer;
    uint32_t bufferCount;
    uint64_t reserved;
};

struct StartGrabbingRequest {
    Header header;
    uint32_t startParameter;
};

struct LockBufferReply {
    uint32_t result;
    uint32_t frameWord0;
    uint32_t frameWord1;
    uint32_t dmaStatus;
    uint64_t bufferAddress;
    uint8_t frameByte;
    uint8_t reserved0[12];
    uint32_t bufferId;
    uint32_t frameWord2;
    uint8_t reserved1[4];
};

struct UnlockBufferRequest {
    Header header;
    uint32_t bufferId;
};

#pragma pack(pop)

static_assert(sizeof(Header) == 5 && sizeof(Reply) == 4 && sizeof(OpenSessionReply) == 8);
static_assert(sizeof(SlotInfoRequest) == 5 && sizeof(SlotInfoReply) == 520);
static_assert(sizeof(VideoStatusReply) == 10 && offsetof(VideoStatusReply, formatByte) == 6);
static_assert(sizeof(ChannelAccessRequest) == 9 && sizeof(ConnectionReply) == 5);
static_assert(sizeof(RegisterInputEventRequest) == 13);
static_assert(sizeof(FormatSizeReply) == 12 && offsetof(FormatSizeReply, height) == 8);
static_assert(sizeof(GrabStatisticsReply) == 80 && offsetof(GrabStatisticsReply, counter28) == 28 &&
              offsetof(GrabStatisticsReply, counter32) == 32 && offsetof(GrabStatisticsReply, counter48) == 48 &&
              offsetof(GrabStatisticsReply, frameRate) == 56 && offsetof(GrabStatisticsReply, counter64) == 64);
static_assert(sizeof(ReadRegisterRequest) == 7 && sizeof(ReadRegisterReply) == 6);
static_assert(sizeof(Converter) == 53 && offsetof(Converter, redGain) == 38 && offsetof(Converter, redOffset) == 50);
static_assert(sizeof(SetConverterRequest) == 58 && sizeof(GetConverterReply) == 57);
static_assert(sizeof(PrepareRequest) == 14 && offsetof(PrepareRequest, reserved) == 12 && sizeof(PrepareReply) == 8);
static_assert(sizeof(ChunkTableHead) == 8 && sizeof(Chunk) == 32);
static_assert(sizeof(StartGrabbingRequest) == 9 && sizeof(UnlockBufferRequest) == 9);
static_assert(sizeof(LockBufferReply) == 49 && offsetof(LockBufferReply, dmaStatus) == 12 &&
              offsetof(LockBufferReply, bufferAddress) == 16 && offsetof(LockBufferReply, frameByte) == 24 &&
              offsetof(LockBufferReply, bufferId) == 37 && offsetof(LockBufferReply, frameWord2) == 41);

} // namespace kestra::wire
