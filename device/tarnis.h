// The device library: finds Kestra cards, opens them and grabs frames. C linkage; no function throws.
//
// Results are TarnisResult values. Every failure is logged once. A port is 0 (video) or 1 (audio). All functions of
// one handle may be called from several threads at once, but for TARNIS_Done, which must be the last.
#pragma once

#include "protocol/records.h"

#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

/// One opened card.
typedef struct TARNIS_GIS TARNIS_GIS;
typedef TARNIS_GIS* TARNIS_HANDLE;

/// One list of the cards that were present when it was made. Not to be shared between threads.
typedef struct CDeviceEnumerator CDeviceEnumerator;

/// A device interface as it was found.
typedef struct DeviceInterfaceDetail {
    uint32_t size;         ///< bytes of the whole block
    wchar_t devicePath[1]; ///< NUL-terminated
} DeviceInterfaceDetail;

/// One enumerated card. Both texts are borrowed from the enumerator.
typedef struct DeviceEnumData {
    uint32_t size;      ///< set by the caller to sizeof(DeviceEnumData)
    uint32_t slotValue; ///< from the driver's slot information
    const DeviceInterfaceDetail* interfaceDetail;
    const wchar_t* slotText; ///< null if the driver has none
} DeviceEnumData;

/// Lists the present cards. @return null if there is none or memory is short; release with TARNIS_EnumClose.
CDeviceEnumerator* TARNIS_EnumOpen(void);
/// Copies the next card's record. @return 0; 3 at the end; 1 if an argument is null or pEnumData->size below 24.
uint32_t TARNIS_EnumNext(CDeviceEnumerator* hDevEnum, DeviceEnumData* pEnumData);
void TARNIS_EnumClose(CDeviceEnumerator* hDevEnum);

/// Opens a card and follows it through removal and arrival. @return null if the card cannot be opened.
TARNIS_HANDLE TARNIS_InitByHandle(const DeviceInterfaceDetail* pDevice);
/// Stops what is grabbing, closes the card and frees the handle; waits at most 1000 ms for each callback that is
/// running, but not for one that it is called from. May be called by another thread than opened it. The memory of a
/// frame stays valid for a callback that is still running; what it holds is then no longer guaranteed.
uint32_t TARNIS_Done(TARNIS_HANDLE hGrabber);

/// Claims the channel for this handle. Counted: every successful call needs its own release.
/// @return 4 if another client holds the channel.
uint32_t TARNIS_GetDMAAccess(TARNIS_HANDLE hGrabber, int8_t port);
/// The last release ends what the channel still grabs, and waits for it as TARNIS_StopGrab does.
uint32_t TARNIS_ReleaseDMAAccess(TARNIS_HANDLE hGrabber, int8_t port);

/// Reads what arrives at the card's input (both ports ask about the same one).
uint32_t TARNIS_GetCameraStatus(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraStatus* pCameraStatus);
/// @param pConnected 1: a signal is present; left alone on failure.
uint32_t TARNIS_IsCameraConnected(TARNIS_HANDLE hGrabber, int8_t port, uint8_t* pConnected);

/// Every channel runs with ten buffers: the count is accepted and not used.
uint32_t TARNIS_SetBufferCount(TARNIS_HANDLE hGrabber, int8_t port, uint32_t count);

/// Fills the defaults: ITU-R BT.601 studio to full range. Needs no card.
uint32_t TARNIS_GetDefaultColorSpaceConverterParams(TarnisConverterParams* pCSC);
uint32_t TARNIS_GetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, TarnisConverterParams* pCSC);
/// The card keeps coefficients and gains as multiples of 1/256, truncated toward zero.
uint32_t TARNIS_SetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, const TarnisConverterParams* pCSC);

/// Starts the channel's grabbing thread and returns when frames are on their way.
/// @param pCameraData in: the first two words, and `extra` on port 1; out: what the channel was prepared for. Must stay
///                    valid until the call returns.
/// @param callback    runs on the grabbing thread; must return before the next buffer comes; may be null. It may call
///                    TARNIS_StopGrab.
uint32_t TARNIS_StartGrab(TARNIS_HANDLE hGrabber, int8_t port, uint32_t startParam, TarnisCameraData* pCameraData,
                          TarnisFrameCallback callback, uint64_t context);
/// Stops it, also a start that is under way or a grab whose card is pulled: it does not go on then. Waits at most 1000
/// ms for callbacks that are running, whoever else has waited for them; not for the one that it is called from. Once it
/// has waited, nothing is called back.
uint32_t TARNIS_StopGrab(TARNIS_HANDLE hGrabber, int8_t port);
uint32_t TARNIS_GetGrabStat(TARNIS_HANDLE hGrabber, int8_t port, TarnisGrabStat* pGrabStat);

/// Captures one raw frame of port 0, whatever port is given; gives up after five seconds without one.
/// @param pBufferSize receives the frame's size in bytes, also if lpBuffer is null (then the result is 1).
uint32_t TARNIS_SnapFrames(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraData* pCameraData, void* lpBuffer,
                           uint32_t bufferLength, uint32_t* pBufferSize);

/// Library-internal: programs the channel and allocates its buffers.
uint32_t noexp_TARNIS_Prepare(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraData* pCameraData);
/// Library-internal: reads a register of the channel's receiver.
uint32_t noexp_TARNIS_ReadI2C(TARNIS_HANDLE hGrabber, int8_t port, uint16_t registerNumber, uint16_t* pValue);

static_assert(sizeof(DeviceEnumData) == 24 && offsetof(DeviceInterfaceDetail, devicePath) == 4,
              "programs and filters have it compiled in");

#ifdef __cplusplus
}
#endif
