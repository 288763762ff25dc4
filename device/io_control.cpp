// Every request to the driver passes through here. Entered by application threads and grabbing threads at once.
#include "device/grabber.h"
#include "log/log.h"

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"IO Control wrapper", L".\\TARNIS_ioctl.cpp"};
constexpr char kFunction[] = "TARNIS_GIS::IOCtl";
constexpr int32_t kRequestFailed = 0x494F4641; // IOFA
constexpr int32_t kDriverRefused = 0x494F4652; // IOFR

/// Waits for the end of a pending request, which is cancelled when its time is over. @return its Win32 error
DWORD awaitReply(HANDLE device, OVERLAPPED& overlapped, DWORD patienceMs, DWORD& bytes) noexcept {
    if (patienceMs != INFINITE && WaitForSingleObject(overlapped.hEvent, patienceMs) == WAIT_TIMEOUT)
        CancelIoEx(device, &overlapped);
    return GetOverlappedResult(device, &overlapped, &bytes, TRUE) ? DWORD{ERROR_SUCCESS} : GetLastError();
}

} // namespace

uint8_t kestra::statusOf(DWORD error) noexcept {
    switch (error) {
    case ERROR_SUCCESS:
        return TARNIS_SUCCESS;
    case ERROR_ACCESS_DENIED:
        return TARNIS_ACCESS_DENIED;
    case ERROR_NOT_SUPPORTED:
        return TARNIS_NOT_SUPPORTED;
    default:
        return TARNIS_FAILURE;
    }
}

RequestResult TARNIS_GIS::rawIOCtl(uint32_t code, const void* request, uint32_t requestSize, void* reply,
                                   uint32_t replySize, OVERLAPPED* overlapped, bool asynchronous, DWORD* replyBytes,
                                   DWORD patienceMs) noexcept {
    const CallGuard call(*this);
    ++m_requestCount;
    DWORD error = ERROR_OPERATION_ABORTED;
    if (!m_stopped) {
        OVERLAPPED local{};
        UniqueObject localEvent;
        if (!overlapped) {
            localEvent = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr));
            local.hEvent = localEvent.get();
            overlapped = &local;
        }
        const HANDLE device = deviceHandle();
        DWORD bytes = 0;
        if (!overlapped->hEvent) {
            error = GetLastError(); // without an event its end could not be awaited
        } else if (DeviceIoControl(device, code, const_cast<void*>(request), requestSize, reply, replySize, &bytes,
                                   overlapped)) {
            error = ERROR_SUCCESS;
        } else {
            error = GetLastError();
            if (error == ERROR_IO_PENDING)
                error = asynchronous ? DWORD{ERROR_SUCCESS} : awaitReply(device, *overlapped, patienceMs, bytes);
        }
        if (replyBytes) *replyBytes = bytes;
    }
    if (--m_requestCount == 0 && m_stopped) SetEvent(m_ioctlEmpty.get()); // somebody may be waiting for it
    RequestResult result;
    result.win32Error = static_cast<uint16_t>(error);
    result.status = statusOf(error);
    return result;
}

RequestResult TARNIS_GIS::IOCtl(uint32_t code, int8_t port, void* request, uint32_t requestSize, void* reply,
                                uint32_t replySize, OVERLAPPED* overlapped, bool asynchronous,
                                DWORD patienceMs) noexcept {
    const CallGuard call(*this);
    const wire::Header header{static_cast<uint8_t>(port), sessionId()};
    std::memcpy(request, &header, sizeof header);
    DWORD replyBytes = 0;
    RequestResult result =
        rawIOCtl(code, request, requestSize, reply, replySize, overlapped, asynchronous, &replyBytes, patienceMs);
    // A synchronous reply that is shorter than its layout is no reply.
    if (result.status == TARNIS_SUCCESS && !asynchronous && replyBytes < replySize) {
        result.win32Error = ERROR_INVALID_DATA;
        result.status = TARNIS_FAILURE;
    }
    if (result.win32Error != ERROR_SUCCESS) {
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, kRequestFailed, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d(0x%08X).",
                   code, static_cast<int>(result.win32Error), static_cast<unsigned>(result.win32Error));
        return result;
    }
    uint32_t driverResult = 0;
    if (reply && !asynchronous) std::memcpy(&driverResult, reply, sizeof driverResult);
    if (driverResult != 0) {
        result.driverResult = static_cast<uint8_t>(driverResult);
        result.status = TARNIS_FAILURE;
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, kDriverRefused, L"DeviceIOCtl(0x%08X) returned with result=%d(0x%08X).",
                   code, static_cast<int>(driverResult), driverResult);
    }
    return result;
}

RequestResult TARNIS_GIS::issueLasting(uint32_t code, const void* request, uint32_t requestSize, void* reply,
                                       uint32_t replySize, PendingRequest& pending) noexcept {
    RequestResult result;
    auto work = [&]() noexcept {
        result = rawIOCtl(code, request, requestSize, reply, replySize, &pending.overlapped, true);
        pending.issued = result.status == TARNIS_SUCCESS;
    };
    m_requestThread.call(work);
    return result;
}
