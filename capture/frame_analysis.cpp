// Grabs or borrows one frame and measures its colours with the image library.
#include "capture/frame_analysis.h"

#include "capture/color_controls.h"
#include "capture/frame_writer.h"
#include "decode/decode.h"
#include "imagelib/ipp.h"
#include "log/log.h"
#include "protocol/raw_frame.h"
#include "win32/module.h"

#include <memory>

namespace kestra {
namespace {

constexpr LogUnit kUnit{"\"White Balance\"", L".\\frame_analysis.cpp"};
constexpr int8_t kPort = 0;

struct Pages {
    void operator()(uint8_t* base) const noexcept { VirtualFree(base, 0, MEM_RELEASE); }
};
using Memory = std::unique_ptr<uint8_t, Pages>;

Memory allocate(size_t bytes) noexcept {
    return Memory(static_cast<uint8_t*>(VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)));
}

/// Claims the channel for a scope. A refusal is not yet a failure: the capture reports it if it matters.
class DmaAccess {
public:
    explicit DmaAccess(TARNIS_HANDLE grabber) noexcept
        : m_grabber(grabber), m_obtained(TARNIS_GetDMAAccess(grabber, kPort) == TARNIS_SUCCESS) {}
    ~DmaAccess() {
        if (m_obtained) TARNIS_ReleaseDMAAccess(m_grabber, kPort);
    }
    DmaAccess(const DmaAccess&) = delete;
    DmaAccess& operator=(const DmaAccess&) = delete;

private:
    TARNIS_HANDLE m_grabber;
    const bool m_obtained;
};

/// The image library's function, for a scope.
class ImageLibrary {
public:
    ImageLibrary() noexcept : m_module(loadFromOwnFolder(kLibrary)) {
        if (m_module) m_mean = reinterpret_cast<Mean>(reinterpret_cast<void*>(GetProcAddress(m_module.get(), kMean)));
        if (!m_mean)
            KESTRA_LOG(kUnit, __func__, LOG_ERROR, GetLastError(), L"%ls with %hs cannot be loaded", kLibrary, kMean);
    }
    explicit operator bool() const noexcept { return m_mean != nullptr; }
    IppStatus mean(const uint8_t* image, int stride, IppiSize size, double (&means)[3]) const noexcept {
        return m_mean(image, stride, size, means);
    }

private:
    using Mean = decltype(&ippiMean_8u_C3R);
    static constexpr wchar_t kLibrary[] = L"ippLib.dll";
    static constexpr char kMean[] = "ippiMean_8u_C3R";

    const UniqueLibrary m_module;
    Mean m_mean = nullptr;
};

/// True if the input is still the one that the channel was prepared for. Preparing it for another would take away the
/// buffers of a running capture, which would then end when its own signal comes back.
bool isStillPrepared(TARNIS_HANDLE grabber, const TarnisCameraStatus& prepared) noexcept {
    TarnisCameraStatus live{};
    if (TARNIS_GetCameraStatus(grabber, kPort, &live) == TARNIS_SUCCESS && live.width == prepared.width &&
        live.height == prepared.height && live.signalFlags == prepared.signalFlags)
        return true;
    KESTRA_LOG(kUnit, __func__, LOG_ERROR, live.signalFlags,
               L"no frame to analyse: %ux%u is not what is being captured", unsigned{live.width},
               unsigned{live.height});
    return false;
}

/// True if a frame as the record describes it lies within so many bytes.
bool isFrame(const TarnisCameraData& camera, uint32_t bytes) noexcept {
    const uint64_t needed = rawFrameBytes(camera.outputSelector, camera.status.width, camera.status.height);
    if ((camera.status.signalFlags & TARNIS_SIGNAL_PRESENT) && needed != 0 && bytes >= needed) return true;
    KESTRA_LOG(kUnit, __func__, LOG_ERROR, bytes, L"no frame to analyse: %ux%u, %u bytes",
               unsigned{camera.status.width}, unsigned{camera.status.height}, bytes);
    return false;
}

/// Captures one raw frame. @return null on failure; `hr` says why
Memory snap(TARNIS_HANDLE grabber, TarnisCameraData& cameraData, HRESULT& hr) noexcept {
    uint32_t bytes = 0;
    const uint32_t asked = TARNIS_SnapFrames(grabber, kPort, &cameraData, nullptr, 0, &bytes);
    hr = asked == TARNIS_INVALID_ARGUMENT ? S_OK : FAILED(hresultOf(asked)) ? hresultOf(asked) : E_FAIL;
    if (FAILED(hr)) return nullptr; // a size query is answered with "invalid argument"
    if (!isFrame(cameraData, bytes)) {
        hr = E_FAIL;
        return nullptr;
    }
    Memory raw = allocate(bytes);
    uint32_t now = 0;
    hr = raw ? hresultOf(TARNIS_SnapFrames(grabber, kPort, &cameraData, raw.get(), bytes, &now)) : E_OUTOFMEMORY;
    // The record is the second answer's: the signal may have changed since the memory was made.
    if (SUCCEEDED(hr) && !isFrame(cameraData, bytes)) hr = E_FAIL;
    if (FAILED(hr)) raw.reset();
    return raw;
}

} // namespace

HRESULT analyzeLiveFrame(TARNIS_HANDLE grabber, ColorControls& colors, bool isGrabbing, TarnisCameraData& cameraData,
                         WhiteBalance& result) {
    const ImageLibrary library;
    if (!library) return kImageLibraryMissing;
    Memory raw;
    HRESULT hr = colors.withNeutralGains([&] {
        if (isGrabbing && !isStillPrepared(grabber, cameraData.status)) return E_FAIL;
        const DmaAccess access(grabber);
        HRESULT snapped = S_OK;
        raw = snap(grabber, cameraData, snapped);
        return snapped;
    });
    if (FAILED(hr)) return hr;
    int32_t stride = 0;
    TARNIS_Decode(&cameraData, raw.get(), nullptr, &stride, TARNIS_OUTPUT_RGB24, nullptr, nullptr);
    const IppiSize size{cameraData.status.width, cameraData.status.height};
    const Memory image = allocate(size_t(stride) * size_t(size.height));
    if (!image) return E_OUTOFMEMORY;
    hr = hresultOf(TARNIS_Decode(&cameraData, raw.get(), image.get(), &stride, TARNIS_OUTPUT_RGB24, nullptr, nullptr));
    if (FAILED(hr)) return hr;
    double means[3];
    const IppStatus status = library.mean(image.get(), stride, size, means);
    if (status != ippStsNoErr) {
        KESTRA_LOG(kUnit, __func__, LOG_ERROR, status, L"ippiMean_8u_C3R: %d", status);
        return E_FAIL;
    }
    result = whiteBalanceOf(means);
    return S_OK;
}

} // namespace kestra
