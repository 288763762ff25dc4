// The records and codes that cross the device library's API. Portable: the decoder, the simulated card and
// the native tests use them too. Plain data, entered by any thread.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Result of every TARNIS_ function; the value always fits in one byte.
enum TarnisResult {
    TARNIS_SUCCESS = 0,
    TARNIS_INVALID_ARGUMENT = 1, ///< null handle or pointer, port outside 0..1; also a size query's answer
    TARNIS_NO_MORE_DEVICES = 3,  ///< the enumeration is at its end
    TARNIS_ACCESS_DENIED = 4,    ///< the driver refused with Win32 error 5
    TARNIS_OUT_OF_MEMORY = 5,
    TARNIS_NO_DMA_ACCESS = 253, ///< the channel's DMA access has not been claimed
    TARNIS_NOT_SUPPORTED = 254, ///< the driver refused with Win32 error 50; an unknown raw format
    TARNIS_FAILURE = 255        ///< any other failure
};

/// DMA status of a frame. Spelled as the capture pins print them: see docs/compatibility.md.
enum TarnisDmaStatus {
    DMA_STATUS_GOOD = 0,
    DMA_STATUS_FRAME_DROPED = 1,
    DMA_STATUS_FIFO_OVERRUN = 2,
    DMA_STATUS_ABORTED = 16,
    DMA_STATUS_DICONNECTED = 32 ///< made by the grabbing thread: the input's format changed or was lost
};

/// Raw layouts that the card writes, as the output selector names them.
enum TarnisOutputSelector {
    TARNIS_OUTPUT_YUV422_10 = 0, ///< 10-bit 4:2:2, six samples in each little-endian 64-bit word
    TARNIS_OUTPUT_YUV422_8 = 1,  ///< 8-bit 4:2:2: Y0, Cb, Y1, Cr
    TARNIS_OUTPUT_RGB24 = 2      ///< 24-bit RGB made by the card's own converter: B, G, R
};

/// Bits of TarnisCameraStatus::signalFlags.
enum TarnisSignalFlags { TARNIS_SIGNAL_PRESENT = 1, TARNIS_SIGNAL_AUDIO = 2 };

#pragma pack(push, 1)

/// What the card reports of a channel's input.
typedef struct TarnisCameraStatus {
    uint32_t videoMode;  ///< the card's code of the video standard; 16 means 24 frames per second
    uint32_t interlaced; ///< 1: two fields a frame
    uint8_t frameRate;   ///< frames per second, doubled when interlaced (so fields); 0 if not measured
    uint8_t reserved;
    uint16_t width;      ///< active pixels a line
    uint16_t height;     ///< active lines a frame, both fields together
    uint8_t formatByte;  ///< further code reported with the video mode
    uint8_t signalFlags; ///< TarnisSignalFlags
} TarnisCameraStatus;

/// What a channel is asked to produce, and the input it was prepared for.
typedef struct TarnisCameraData {
    uint32_t outputSelector;  ///< TarnisOutputSelector on a video channel
    uint32_t outputParameter; ///< 1 with an interlaced input: the decoder takes the first field only
    TarnisCameraStatus status;
    uint32_t extra; ///< audio channel: 1 = 16-bit samples, 0 = 24-bit samples
} TarnisCameraData;

#pragma pack(pop)

/// What the frame callback receives. Lives on the grabbing thread's stack: valid during the call only.
typedef struct TarnisFrameInfo {
    uint32_t frameWord0;
    uint32_t frameWord1;
    const void* lpRawBuffer; ///< the locked DMA buffer; null unless dmaStatus is 0
    uint32_t bufferSize;     ///< bytes of one DMA buffer of the channel
    uint32_t dmaStatus;      ///< TarnisDmaStatus
    uint8_t frameByte;
    uint8_t reserved[3];
    uint32_t frameWord2;
} TarnisFrameInfo;

/// The driver's counters of one channel.
typedef struct TarnisGrabStat {
    uint32_t frameRate; ///< frames per second as the driver measured them
    uint32_t counters[4];
} TarnisGrabStat;

/// Colour space converter parameters as a program sees them. Offsets of the samples are in 10-bit units.
typedef struct TarnisConverterParams {
    int32_t YOff, CrOff, CbOff;
    float Y1, R1, G1, G2, B1;
    uint8_t RMin, RMax, GMin, GMax, BMin, BMax;
    int8_t RedOffset, GreenOffset, BlueOffset;
    uint8_t reserved;
    float RedGain, GreenGain, BlueGain;
} TarnisConverterParams;

/// Called on the channel's grabbing thread: once per completed or failed buffer, and once with
/// DMA_STATUS_DICONNECTED before the thread ends by itself. A pulled card is no reason for a call: when it comes back,
/// it goes on with the same callback.
typedef void (*TarnisFrameCallback)(uint64_t context, const TarnisFrameInfo* frame);

static_assert(sizeof(TarnisCameraStatus) == 16 && offsetof(TarnisCameraStatus, width) == 10 &&
                  offsetof(TarnisCameraStatus, signalFlags) == 15,
              "programs and filters have it compiled in");
static_assert(sizeof(TarnisCameraData) == 28 && offsetof(TarnisCameraData, status) == 8 &&
                  offsetof(TarnisCameraData, extra) == 24,
              "programs and filters have it compiled in");
static_assert(sizeof(TarnisFrameInfo) == 32 && offsetof(TarnisFrameInfo, bufferSize) == 16 &&
                  offsetof(TarnisFrameInfo, frameWord2) == 28,
              "programs and filters have it compiled in");
static_assert(sizeof(TarnisGrabStat) == 20, "programs and filters have it compiled in");
static_assert(sizeof(TarnisConverterParams) == 56 && offsetof(TarnisConverterParams, RMin) == 32 &&
                  offsetof(TarnisConverterParams, RedOffset) == 38 && offsetof(TarnisConverterParams, RedGain) == 44,
              "programs and filters have it compiled in");

#ifdef __cplusplus
}
#endif
