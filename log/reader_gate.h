// Lets any number of threads read without a lock, and lets a thread that unpublished something wait until no reader can
// still see it. Portable.
#pragma once

#include "sync/mutex.h"

#include <atomic>
#include <cstdint>

namespace kestra {

class ReaderGate {
public:
    /// Stays inside the gate for its lifetime.
    class Pass {
    public:
        explicit Pass(ReaderGate& gate) noexcept : m_gate(gate), m_count(gate.m_inside[gate.m_phase.load() & 1]) {
            ++m_count;
        }
        ~Pass() {
            if (--m_count == 0 && m_gate.m_waiting.load()) m_gate.wake();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        ReaderGate& m_gate;
        std::atomic<uint32_t>& m_count;
    };

    /// Returns when every Pass that stood inside at the call has gone. Must not be called from inside.
    void waitForReaders() noexcept {
        const LockGuard oneAtATime(m_mutex);
        // Twice: a reader may have read the phase just before it turned, and counted itself after.
        for (int turn = 0; turn < 2; ++turn) {
            const uint32_t left = m_phase.fetch_add(1) & 1;
            // If nobody is inside, no lock is touched: at the end of the process a dead thread may still hold it.
            if (m_inside[left].load() == 0) continue;
            const LockGuard sleeping(m_wakeMutex);
            m_waiting.store(true); // before the count is read again: a reader reads them in the opposite order
            while (m_inside[left].load() != 0)
                m_left.wait(m_wakeMutex);
            m_waiting.store(false);
        }
    }

    bool isEmpty() const noexcept { return m_inside[0].load() == 0 && m_inside[1].load() == 0; }

private:
    void wake() noexcept {
        const LockGuard lock(m_wakeMutex);
        m_left.notifyAll();
    }

    std::atomic<uint32_t> m_phase{0};
    std::atomic<uint32_t> m_inside[2]{};
    std::atomic<bool> m_waiting{false};
    Mutex m_mutex, m_wakeMutex;
    Condition m_left;
};

} // namespace kestra
