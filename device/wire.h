// The wire format between the device library and the card's kernel driver: request codes, and every request
// and reply as a packed little-endian record. The library, the simulated card and their tests share it.
// Portable; plain data.
#pragma once

#include "device/records.h"

#include <cstdint>
#include <limits>
#include <type_traits>

namespace kestra::wire {

/// Request codes (device type 0xCE32). The low two bits are the transfer method: 0 buffered, 2 direct output.
enum Code : uint32_t {
    kOpenSession = 0xCE322040,
    kSessionWatch = 0xCE322044, ///< left pending until the driver closes the session
    kGetSlotInfo = 0xCE32204C,
    kVideoStatus = 0xCE322058,
    kChannelAccess = 0xCE322060,
    kConnection = 0xCE322068,
    kRegisterInputEvent = 0xCE32206C,
    kFormatSize = 0xCE3220C0,
    kGrabStatistics = 0xCE3220C4,
    kReadRegister = 0xCE322100,
    kSetConverter = 0xCE32210C,
    kGetConverter = 0xCE322110,
    kPrepare = 0xCE322600,
    kLockChunk = 0xCE322606,  ///< + kPortStride * port; no request buffer, the chunk is the reply buffer
    kChunkTable = 0xCE32260E, ///< + kPortStride * port; no request buffer
    kStartGrabbing = 0xCE322614,
    kStopGrabbing = 0xCE322618,
    kSnap = 0xCE32261E, ///< no request buffer, the caller's buffer is the reply buffer
    kLockBuffer = 0xCE322630,
    kUnlockBuffer = 0xCE322634
};
constexpr uint32_t kPortStride = 4;

#pragma pack(push, 1)

/// Opens every request that has a request buffer, but for the slot information.
struct Header {
    uint8_t port; ///< some requests carry it with its lowest bit cleared
    uint32_t sessionId;
};

/// Opens every reply: 0 means success.
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
    uint8_t rMin, rMax, gMin, gMax, bMin, bMax; //
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
    uint8_t videoMode;       //
    uint8_t outputParameter; //
    uint8_t constants[4];    ///< 0, 1, 0, 1
    uint8_t reserved[2];     ///< 0
};

struct PrepareReply {
    uint32_t result;
    uint32_t frameSizeBytes;
};

/// Opens the chunk table; one Chunk per locked chunk follows.
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

/// Bit 7 is the sign, bits 0..6 the magnitude. The card has no -128; it arrives there as 0.
constexpr uint8_t offsetToWire(int8_t v) noexcept {
    return uint8_t(v < 0 ? 0x80 | -v : v);
}
constexpr int8_t offsetFromWire(uint8_t b) noexcept {
    return int8_t(b & 0x80 ? -(b & 0x7F) : b);
}
static_assert(offsetToWire(-5) == 0x85 && offsetFromWire(0x85) == -5 && offsetToWire(-128) == 0x80);

/// 8.8 fixed point, truncated toward zero. What no 32-bit integer holds (and NaN) becomes INT32_MIN, as the
/// processor's own conversion gives it.
constexpr int32_t fixedToWire(float v) noexcept {
    const float scaled = v * 256.0f;
    if (!(scaled >= -2147483648.0f && scaled < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(scaled);
}
constexpr float fixedFromWire(int32_t v) noexcept {
    return static_cast<float>(v) * 0.00390625f;
}
static_assert(fixedToWire(1.164f) == 297 && fixedFromWire(297) == 1.16015625f);

constexpr Converter toWire(const TarnisConverterParams& p) noexcept {
    return {p.YOff,
            p.CrOff,
            p.CbOff,
            fixedToWire(p.Y1),
            fixedToWire(p.R1),
            fixedToWire(p.G1),
            fixedToWire(p.G2),
            fixedToWire(p.B1),
            p.RMin,
            p.RMax,
            p.GMin,
            p.GMax,
            p.BMin,
            p.BMax,
            fixedToWire(p.RedGain),
            fixedToWire(p.GreenGain),
            fixedToWire(p.BlueGain),
            offsetToWire(p.RedOffset),
            offsetToWire(p.GreenOffset),
            offsetToWire(p.BlueOffset)};
}

constexpr TarnisConverterParams fromWire(const Converter& w) noexcept {
    return {w.yOff,
            w.crOff,
            w.cbOff,
            fixedFromWire(w.y1),
            fixedFromWire(w.r1),
            fixedFromWire(w.g1),
            fixedFromWire(w.g2),
            fixedFromWire(w.b1),
            w.rMin,
            w.rMax,
            w.gMin,
            w.gMax,
            w.bMin,
            w.bMax,
            offsetFromWire(w.redOffset),
            offsetFromWire(w.greenOffset),
            offsetFromWire(w.blueOffset),
            0,
            fixedFromWire(w.redGain),
            fixedFromWire(w.greenGain),
            fixedFromWire(w.blueGain)};
}

/// The converter parameters of a fresh card and of the software decoder (ITU-R BT.601, studio to full range).
constexpr TarnisConverterParams kDefaultConverter = {
    64, 512, 512, 1.164f, 1.596f, 0.813f, 0.392f, 2.017f, 0, 255, 0, 255, 0, 255, 0, 0, 0, 0, 1.0f, 1.0f, 1.0f};

} // namespace kestra::wire
