// Records what is asked of a card and what happens around it, for a user who wants that: docs/trace.md. Otherwise a
// request costs one relaxed load. Any thread; nothing here waits, but for the beginning and the end of a TraceUse.
// Private to device/.
#pragma once

#include "trace/trace_format.h"

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace kestra {

inline std::atomic<bool> g_isTracing{false};
inline bool isTracing() noexcept {
    return g_isTracing.load(std::memory_order_relaxed);
}

/// Held by whoever is about to use cards. The first one looks whether the user wants a trace and begins to write it;
/// the last one waits until everything is in its file. All of a process goes into one trace.
class TraceUse {
public:
    TraceUse() noexcept;
    ~TraceUse();
    TraceUse(const TraceUse&) = delete;
    TraceUse& operator=(const TraceUse&) = delete;
};

/// The number of an opening of a card, which traces know it by.
uint32_t nextTraceOpening() noexcept;

/// One request. What it is answered must stay until its end.
class TracedRequest {
public:
    struct What {
        uint32_t code;
        int8_t port;
        uint32_t opening;
        const void* sent;
        uint32_t sentBytes;
        const void* answer;
        uint32_t answerBytes;
    };
    void begin(const What& what) noexcept {
        m_number = 0;
        if (isTracing()) recordBegin(what);
    }
    void end(DWORD error, uint32_t bytes) noexcept {
        if (m_number != 0) recordEnd(error, bytes);
    }
    bool isTraced() const noexcept { return m_number != 0; }

private:
    void recordBegin(const What& what) noexcept;
    void recordEnd(DWORD error, uint32_t bytes) noexcept;

    uint32_t m_number = 0; ///< 0: it is in no trace
    What m_what{};
};

void recordEvent(trace::EventKind kind, int8_t port, uint32_t value, uint32_t opening, const void* frame,
                 uint32_t frameBytes) noexcept;

/// @param frame  null: none
inline void traceEvent(trace::EventKind kind, int8_t port = 0, uint32_t value = 0, uint32_t opening = 0,
                       const void* frame = nullptr, uint32_t frameBytes = 0) noexcept {
    if (isTracing()) recordEvent(kind, port, value, opening, frame, frameBytes);
}

} // namespace kestra
