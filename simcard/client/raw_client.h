// The card's request protocol without the device library: for tests of the simulated card and for kestraprobe.
// One thread per object, except that begin and end of different Pending records may run side by side.
#pragma once

#include "protocol/requests.h"
#include "sync/request_thread.h"
#include "win32/handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace kestra::simcard {

/// One opening of a card. All calls return 0 or a Win32 error.
class RawClient {
public:
    /// A request that is under way, and must not outlive this: cancel it first.
    struct Pending {
        OVERLAPPED overlapped = {};
        const UniqueObject event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        Pending() { overlapped.hEvent = event.get(); }
        Pending(const Pending&) = delete;
        Pending& operator=(const Pending&) = delete;
    };

    explicit RawClient(const std::wstring& devicePath);
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    /// Why the card could not be opened; 0: it is open.
    DWORD openError() const { return m_openError; }
    /// Opens a session; its id goes into header() from then on.
    DWORD openSession();
    uint32_t session() const { return m_session; }
    wire::Header header(uint8_t port = 0) const { return {port, m_session}; }

    DWORD begin(Pending& pending, uint32_t code, const void* in, DWORD inSize, void* out, DWORD outSize);
    /// Waits for the end of a request. @return WAIT_TIMEOUT if it is still under way.
    DWORD end(Pending& pending, DWORD timeoutMs = 10000);
    /// Cancels a request and waits until the system has let go of its buffers.
    void cancel(Pending& pending);
    DWORD call(uint32_t code, const void* in, DWORD inSize, void* out, DWORD outSize);
    template <class In, class Out>
    DWORD call(uint32_t code, const In& in, Out& out) {
        return call(code, &in, sizeof in, &out, sizeof out);
    }
    /// Bytes of the last reply.
    DWORD size() const { return m_size; }

    /// Claims or releases the DMA access of a port.
    DWORD setAccess(uint8_t port, bool claimed);

private:
    const UniqueFile m_file;
    const DWORD m_openError; // read right after the opening: whatever is made next changes it
    /// Sends the memory of frames: while one is written into this process, Wine stops the process's first thread, and
    /// loses it if it is just sending more than a pipe holds.
    RequestThread m_direct;
    DWORD m_size = 0;
    uint32_t m_session = 0;
    uint32_t m_channelFlags = 0;
};

/// One port from claim to release, with ten buffers of its own.
class RawStream {
public:
    static constexpr uint32_t kBuffers = 10;

    /// @param selector  output selector of port 0; sample format of port 1 (1: 16 bits, 0: 24 bits)
    RawStream(RawClient& client, uint8_t port, uint8_t selector)
        : m_client(client), m_port(port), m_selector(selector) {}
    ~RawStream();
    RawStream(const RawStream&) = delete;
    RawStream& operator=(const RawStream&) = delete;

    /// Claims, prepares, locks the buffers and starts; after a stop it starts again with the same buffers.
    DWORD start();
    /// Waits for a buffer. @return 0 also for a buffer whose DMA status is not 0.
    DWORD lock(wire::LockBufferReply& reply, DWORD timeoutMs = 10000);
    DWORD unlock(uint32_t bufferId);
    DWORD stop();

    uint32_t frameSizeBytes() const { return m_frameSizeBytes; }
    const uint8_t* bytes(const wire::LockBufferReply& reply) const;
    /// First word of the reply that made a call fail with ERROR_GEN_FAILURE.
    uint32_t driverResult() const { return m_driverResult; }

private:
    DWORD prepare();
    DWORD judge(DWORD error, uint32_t driverResult);

    RawClient& m_client;
    const uint8_t m_port, m_selector;
    uint32_t m_frameSizeBytes = 0, m_driverResult = 0;
    bool m_claimed = false, m_chunkLocked = false;
    std::vector<uint8_t> m_memory;
    RawClient::Pending m_chunk;
};

} // namespace kestra::simcard
