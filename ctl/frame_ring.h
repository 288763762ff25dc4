// Preallocated buffers between a thread that receives frames and one that writes them. Portable.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kestra::ctl {

/// A queue that never allocates and never waits. One producer, one consumer.
class FrameRing {
public:
    struct Slot {
        std::vector<uint8_t> bytes; ///< as long as the largest frame
        size_t size = 0;
        uint32_t number = 0;
    };

    /// Throws std::bad_alloc. Every page is touched, so that none is missing later.
    FrameRing(size_t slots, size_t bytes) : m_slots(slots) {
        for (Slot& slot : m_slots)
            slot.bytes.assign(bytes, 0);
    }

    /// Producer. @return false: no room, or the frame is larger than a slot
    bool put(uint32_t number, const void* frame, size_t size) noexcept {
        const size_t head = m_head.load(std::memory_order_relaxed);
        const size_t used = head - m_tail.load(std::memory_order_acquire);
        if (used == m_slots.size() || size > m_slots[0].bytes.size()) return false;
        Slot& slot = m_slots[head % m_slots.size()];
        std::memcpy(slot.bytes.data(), frame, size);
        slot.size = size;
        slot.number = number;
        m_head.store(head + 1, std::memory_order_release);
        if (used + 1 > m_most.load(std::memory_order_relaxed)) m_most.store(used + 1, std::memory_order_relaxed);
        return true;
    }

    /// Consumer. @return the oldest frame; null: none
    const Slot* front() const noexcept {
        const size_t tail = m_tail.load(std::memory_order_relaxed);
        return tail == m_head.load(std::memory_order_acquire) ? nullptr : &m_slots[tail % m_slots.size()];
    }
    /// Consumer: is done with the oldest frame.
    void release() noexcept { m_tail.store(m_tail.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    size_t slots() const noexcept { return m_slots.size(); }
    size_t used() const noexcept { return m_head.load() - m_tail.load(); }
    size_t mostUsed() const noexcept { return m_most.load(std::memory_order_relaxed); }

private:
    std::vector<Slot> m_slots;
    std::atomic<size_t> m_head{0}, m_tail{0}, m_most{0};
};

} // namespace kestra::ctl
