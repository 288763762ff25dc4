// The API: checks the arguments, logs, and translates to the card and its channels. Any thread.
#include "device/tarnis.h"

#include "device/card.h"
#include "device/card_queries.h"
#include "log/log.h"
#include "protocol/converter.h"

#include <new>
#include <system_error>

using namespace kestra;

namespace {

constexpr LogUnit kGrabUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
constexpr LogUnit kInitUnit{"Initializing functions", L".\\TARNIS_Init.cpp"};
constexpr LogUnit kInternalUnit{"\"Internal Functions\"", L".\\TARNIS_noexp.cpp"};
constexpr int32_t kAlreadyOpened = 0x444D412B; // DMA+
constexpr DWORD kSnapMs = 5000;                // no frame takes so long: the signal has gone meanwhile

/// The checks that every function with a handle and a port makes. @return 0 or 1, logged
uint32_t check(const LogUnit& unit, const char* function, int line, TARNIS_HANDLE hGrabber, int8_t port) noexcept {
    if (!hGrabber) {
        KESTRA_LOG_AT(line, unit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"hGrabber is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    if (port < 0 || port > 1) {
        KESTRA_LOG_AT(line, unit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"Invalid port %d",
                      static_cast<int>(port));
        return TARNIS_INVALID_ARGUMENT;
    }
    return TARNIS_SUCCESS;
}

/// Logs and returns the code for a pointer that must not be null.
uint32_t nullPointer(const LogUnit& unit, const char* function, int line, const wchar_t* text) noexcept {
    KESTRA_LOG_AT(line, unit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"%ls", text);
    return TARNIS_INVALID_ARGUMENT;
}

/// Runs what may be short of memory.
template <class Work>
uint32_t guarded(Work work) noexcept {
    try {
        return work();
    } catch (const std::exception&) { // nothing else is thrown there
        return TARNIS_OUT_OF_MEMORY;
    }
}

} // namespace

TARNIS_HANDLE TARNIS_InitByHandle(const DeviceInterfaceDetail* pDevice) {
    if (!pDevice) return nullptr;
    try {
        auto* card = new TARNIS_GIS(pDevice->devicePath);
        if (card->isUsable()) return card;
        card->closeAndRelease();
        return nullptr;
    } catch (const std::exception&) { // no memory, or no thread
        KESTRA_LOG(kInitUnit, __func__, LOG_ERROR, TARNIS_OUT_OF_MEMORY, L"Can't allocate GIS structure");
        return nullptr;
    }
}

uint32_t TARNIS_Done(TARNIS_HANDLE hGrabber) {
    if (const uint32_t code = check(kInitUnit, __func__, __LINE__, hGrabber, 0)) return code;
    hGrabber->closeAndRelease();
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_GetDMAAccess(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (const std::optional<uint32_t> code = hGrabber->claim(port)) return *code;
    KESTRA_LOG(kGrabUnit, __func__, LOG_TRACE, kAlreadyOpened, L"Channel %d already opened", static_cast<int>(port));
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_ReleaseDMAAccess(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    std::optional<uint32_t> code;
    const uint32_t failed = guarded([&]() -> uint32_t {
        code = hGrabber->giveUp(port);
        return TARNIS_SUCCESS;
    });
    if (failed != TARNIS_SUCCESS) return failed;
    if (code) return *code;
    KESTRA_LOG(kGrabUnit, __func__, LOG_ERROR, TARNIS_SUCCESS, L"Channel %d has not been open", static_cast<int>(port));
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_SetBufferCount(TARNIS_HANDLE hGrabber, int8_t port, uint32_t /*count: every channel has ten*/) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    return hGrabber->hasAccess(port) ? TARNIS_SUCCESS : TARNIS_NO_DMA_ACCESS;
}

uint32_t TARNIS_IsCameraConnected(TARNIS_HANDLE hGrabber, int8_t port, uint8_t* pConnected) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pConnected) return nullPointer(kGrabUnit, __func__, __LINE__, L"pConnected is NULL");
    const CallGuard call(*hGrabber);
    return isConnected(hGrabber->requests(), port, *pConnected);
}

uint32_t TARNIS_GetCameraStatus(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraStatus* pCameraStatus) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pCameraStatus) return nullPointer(kGrabUnit, __func__, __LINE__, L"pCameraStatus is NULL");
    const CallGuard call(*hGrabber);
    return cameraStatus(hGrabber->requests(), port, *pCameraStatus);
}

uint32_t TARNIS_GetGrabStat(TARNIS_HANDLE hGrabber, int8_t port, TarnisGrabStat* pGrabStat) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pGrabStat) return nullPointer(kGrabUnit, __func__, __LINE__, L"pGrabStat is NULL");
    const CallGuard call(*hGrabber);
    return grabStatistics(hGrabber->requests(), port, *pGrabStat);
}

uint32_t TARNIS_GetDefaultColorSpaceConverterParams(TarnisConverterParams* pCSC) {
    if (!pCSC) return nullPointer(kGrabUnit, __func__, __LINE__, L"pCSC is NULL");
    *pCSC = wire::kDefaultConverter;
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_GetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, TarnisConverterParams* pCSC) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, 0)) return code;
    if (!pCSC) return nullPointer(kGrabUnit, __func__, __LINE__, L"pCSC is NULL");
    const CallGuard call(*hGrabber);
    return getConverter(hGrabber->requests(), *pCSC);
}

uint32_t TARNIS_SetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, const TarnisConverterParams* pCSC) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, 0)) return code;
    if (!pCSC) return nullPointer(kGrabUnit, __func__, __LINE__, L"pCSC is NULL");
    const CallGuard call(*hGrabber);
    return setConverter(hGrabber->requests(), *pCSC);
}

uint32_t TARNIS_StartGrab(TARNIS_HANDLE hGrabber, int8_t port, uint32_t startParam, TarnisCameraData* pCameraData,
                          TarnisFrameCallback callback, uint64_t context) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(port)) {
        KESTRA_LOG(kGrabUnit, __func__, LOG_ERROR, TARNIS_NO_DMA_ACCESS, L"No DMA Access!");
        return TARNIS_NO_DMA_ACCESS;
    }
    constexpr const char* kFunction = __func__;
    return guarded([&]() -> uint32_t {
        switch (hGrabber->channel(port).start(startParam, pCameraData, callback, context)) {
        case Channel::Start::Started:
            return TARNIS_SUCCESS;
        case Channel::Start::NotStarted:
            KESTRA_LOG(kGrabUnit, kFunction, LOG_ERROR, TARNIS_FAILURE, L"Grab not started!");
            return TARNIS_FAILURE;
        default:
            KESTRA_LOG(kGrabUnit, kFunction, LOG_ERROR, TARNIS_FAILURE, L"Grabbing thread not started!");
            return TARNIS_FAILURE;
        }
    });
}

uint32_t TARNIS_StopGrab(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(port)) return TARNIS_NO_DMA_ACCESS;
    return guarded([&] { return hGrabber->channel(port).stop(); });
}

uint32_t TARNIS_SnapFrames(TARNIS_HANDLE hGrabber, int8_t /*port: always 0*/, TarnisCameraData* pCameraData,
                           void* lpBuffer, uint32_t bufferLength, uint32_t* pBufferSize) {
    if (const uint32_t code = check(kGrabUnit, __func__, __LINE__, hGrabber, 0)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(0)) return TARNIS_NO_DMA_ACCESS;
    if (const uint32_t code = noexp_TARNIS_Prepare(hGrabber, 0, pCameraData)) return code;
    if (pBufferSize) *pBufferSize = hGrabber->channel(0).bufferSizeBytes();
    if (!lpBuffer) return nullPointer(kGrabUnit, __func__, __LINE__, L"lpBuffer is NULL");
    return hGrabber->requests().askDirect(wire::kSnap, lpBuffer, bufferLength, kSnapMs).status;
}

uint32_t noexp_TARNIS_Prepare(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraData* pCameraData) {
    if (const uint32_t code = check(kInternalUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pCameraData) return nullPointer(kInternalUnit, __func__, __LINE__, L"pCameraData is NULL");
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(port)) return TARNIS_NO_DMA_ACCESS;
    return guarded([&] { return hGrabber->channel(port).prepare(*pCameraData); });
}

uint32_t noexp_TARNIS_ReadI2C(TARNIS_HANDLE hGrabber, int8_t port, uint16_t registerNumber, uint16_t* pValue) {
    if (const uint32_t code = check(kInternalUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    uint16_t value = 0;
    const uint32_t code = readRegister(hGrabber->requests(), port, registerNumber, value);
    if (code == TARNIS_SUCCESS && pValue) *pValue = value;
    return code;
}
