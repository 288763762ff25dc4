// Lets any number of threads pass without a lock, and lets one that took something out of reach wait until
// everybody who may still see it has left. Portable.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace kestra {

class ReaderGate {
public:
    /// Stands inside for as long as it lives.
    class Pass {
    public:
        explicit Pass(ReaderGate& gate) noexcept : m_count(gate.m_inside[gate.m_phase.load() & 1]) { ++m_count; }
        ~Pass() { --m_count; }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        std::atomic<uint32_t>& m_count;
    };

    /// Returns when every Pass that stood inside at the call has gone. Must not be called from inside.
    void waitForReaders() noexcept {
        const std::lock_guard lock(m_mutex);
        // Twice: a reader may have read the phase just before it turned, and counted itself after.
        for (int turn = 0; turn < 2; ++turn) {
            const uint32_t left = m_phase.fetch_add(1) & 1;
            while (m_inside[left].load() != 0)
                std::this_thread::yield();
        }
    }

    bool isEmpty() const noexcept { return m_inside[0].load() == 0 && m_inside[1].load() == 0; }

private:
    std::atomic<uint32_t> m_phase{0};
    std::atomic<uint32_t> m_inside[2]{};
    std::mutex m_mutex;
};

} // namespace kestra
