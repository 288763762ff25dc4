// Takes records from any number of threads for one that writes them. Adding never waits: what finds no room is counted.
// Portable.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace kestra::trace {

/// A ring of memory. An entry is a word with its size, then its bytes, up to a multiple of eight. Room is claimed by
/// moving the head; the word, which is 0 in free room, is written last and makes the entry visible.
class RecordQueue {
public:
    /// @param bytes  a power of two. Throws std::bad_alloc.
    explicit RecordQueue(size_t bytes) : m_bytes(bytes), m_words(std::make_unique<uint64_t[]>(bytes / 8)) {}
    RecordQueue(const RecordQueue&) = delete;
    RecordQueue& operator=(const RecordQueue&) = delete;

    /// Adds one entry made of two parts. Any thread. @return false: there was no room, which is counted
    bool add(std::span<const uint8_t> first, std::span<const uint8_t> second = {}) noexcept {
        const size_t payload = first.size() + second.size();
        const size_t needed = entryBytes(payload);
        size_t skipped;
        uint64_t head;
        do {
            const uint64_t tail = m_tail.load(std::memory_order_acquire);
            head = m_head.load(std::memory_order_relaxed); // after the tail: never less
            const size_t toEnd = m_bytes - head % m_bytes;
            skipped = needed <= toEnd ? 0 : toEnd;
            if (payload == 0 || head + skipped + needed - tail > m_bytes) {
                m_lost.fetch_add(1, std::memory_order_relaxed);
                return false;
            }
        } while (!m_head.compare_exchange_weak(head, head + skipped + needed, std::memory_order_relaxed));
        if (skipped != 0) publish(head, kSkip | skipped);
        uint8_t* to = at(head + skipped) + kWordBytes;
        std::memcpy(to, first.data(), first.size());
        if (!second.empty()) std::memcpy(to + first.size(), second.data(), second.size());
        publish(head + skipped, payload);
        return true;
    }

    /// Calls take(bytes) for each entry, oldest first, until an unfinished one. One thread at a time.
    template <class Take>
    void drain(Take take) {
        uint64_t tail = m_tail.load(std::memory_order_relaxed);
        while (const uint64_t word = std::atomic_ref(wordAt(tail)).load(std::memory_order_acquire)) {
            size_t bytes = static_cast<size_t>(word & ~kSkip);
            if ((word & kSkip) == 0) {
                take(std::span<const uint8_t>(at(tail) + kWordBytes, bytes));
                bytes = entryBytes(bytes);
            }
            std::memset(at(tail), 0, bytes);
            tail += bytes;
            m_tail.store(tail, std::memory_order_release);
        }
    }

    /// How many entries have found no room since the last call.
    uint64_t takeLost() noexcept { return m_lost.exchange(0, std::memory_order_relaxed); }

private:
    static constexpr size_t kWordBytes = sizeof(uint64_t);
    static constexpr uint64_t kSkip = uint64_t{1} << 63; ///< nothing up to the end of the ring

    static constexpr size_t entryBytes(size_t payload) noexcept { return kWordBytes + (payload + 7) / 8 * 8; }
    uint64_t& wordAt(uint64_t position) noexcept { return m_words[position % m_bytes / kWordBytes]; }
    uint8_t* at(uint64_t position) noexcept { return reinterpret_cast<uint8_t*>(&wordAt(position)); }
    void publish(uint64_t position, uint64_t word) noexcept {
        std::atomic_ref(wordAt(position)).store(word, std::memory_order_release);
    }

    const size_t m_bytes;
    const std::unique_ptr<uint64_t[]> m_words;
    alignas(64) std::atomic<uint64_t> m_head{0}; ///< all that was ever claimed
    alignas(64) std::atomic<uint64_t> m_tail{0}; ///< all that was ever taken
    std::atomic<uint64_t> m_lost{0};
};

} // namespace kestra::trace
