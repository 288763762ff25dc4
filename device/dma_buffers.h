// The DMA buffers of one channel: one committed region, locked by pending requests. Entered by one thread at a time,
// but for contains(), which any thread may ask. Private to device/.
#pragma once

#include "device/card_requests.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kestra {

/// Lives as long as somebody may look at a frame in it; the locks end when the channel is prepared anew or the card is
/// closed.
class DmaBuffers {
public:
    /// Commits the region and divides it into chunks. Throws std::bad_alloc.
    /// @return null: no chunk holds a buffer, or the system gives no memory
    static std::shared_ptr<DmaBuffers> allocate(uint32_t count, uint32_t sizeBytes);
    ~DmaBuffers();
    DmaBuffers(const DmaBuffers&) = delete;
    DmaBuffers& operator=(const DmaBuffers&) = delete;

    /// Locks every chunk and sends the table that tells the card where they lie. @return a TarnisResult
    uint32_t lock(CardRequests& requests, int8_t port);
    void unlock(CardRequests& requests) noexcept;
    bool isLocked() const noexcept;

    uint32_t bufferSizeBytes() const noexcept { return m_bufferSize; }
    /// True if a whole buffer begins there.
    bool contains(uint64_t address) const noexcept;

private:
    struct Chunk {
        uint64_t offset, length;
        uint32_t firstBuffer, bufferCount;
        PendingRequest lock;
    };
    DmaBuffers() = default;
    uint32_t sendTable(CardRequests& requests, int8_t port);
    uint32_t refusedLock(CardRequests& requests) const noexcept;

    bool m_isWritten = false; ///< for good: a lock could not be ended
    std::byte* m_base = nullptr;
    uint32_t m_bufferSize = 0, m_bufferCount = 0;
    std::vector<std::unique_ptr<Chunk>> m_chunks;
    std::vector<std::byte> m_table; ///< has its size beforehand: with locks pending nothing may fail for memory
};

} // namespace kestra
