// One filter of the module with what it may be connected to: two sinks and an allocator that behave as their shape
// says, and perhaps the system's graph. Any thread; whoever uses it holds it.
#pragma once

#include "compliance/sink.h"
#include "tests/com/test_allocator.h"
#include "tests/walk/lock.h"
#include "tests/walk/sample_check.h"
#include "win32/com_ref.h"

#include <windows.h>

#include <dshow.h>

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

namespace kestra::walk {

class Rig {
public:
    Rig(ComRef<IBaseFilter> filter, bool isVideo, uint32_t shape, SampleCheck& check);
    /// Stops and disconnects, and waits until the filter holds nothing of this any more.
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    /// Makes a call that may start the filter, or one that stops it. After a stop that nothing has met nothing arrives.
    template <class Call>
    HRESULT start(Call call) {
        ++m_starts;
        ++m_starting;
        m_silent = false;
        const HRESULT hr = call();
        --m_starting;
        return hr;
    }
    template <class Call>
    HRESULT stop(Call call) {
        const bool met = m_starting != 0;
        const uint32_t starts = m_starts;
        const ULONGLONG since = GetTickCount64();
        m_silent = false; // a stop ends the stream of a pin that another pin has started
        const HRESULT hr = call();
        // A stop waits a second for a receiver; then it goes on without. A graph that is stopped does not stop a filter
        // that was started without it.
        FILTER_STATE state = State_Running;
        const bool isStopped = filter->GetState(0, &state) == S_OK && state == State_Stopped;
        if (isStopped && !met && starts == m_starts && m_starting == 0 && GetTickCount64() - since < 900)
            m_silent = true;
        return hr;
    }

    uint64_t samples() const { return m_samples; }
    /// Whether the filter may stop without a call of the walk's.
    bool isStoppedBySink() const { return m_behaviour == 9; }

    /// Wine's graph leaves a handle behind, each time.
    static int graphsMade() { return s_graphs; }

    const bool isVideo;
    ComRef<IBaseFilter> filter;
    ComRef<IPin> pin;
    std::array<ComRef<compliance::Sink>, 2> sinks;
    ComRef<IGraphBuilder> graph; ///< may be null

private:
    HRESULT receive(compliance::Sink& sink, IMediaSample* sample, int number);
    HRESULT answer(IMediaSample* sample, int number);
    void askOnAnotherThread() const;

    inline static std::atomic<int> s_graphs{0};

    SampleCheck& m_check;
    const uint32_t m_behaviour;
    test::TestAllocator m_allocator;
    std::atomic<uint32_t> m_starts{0};
    std::atomic<int> m_starting{0};
    std::atomic<bool> m_silent{false};
    std::atomic<uint32_t> m_lastFrame{0};
    std::atomic<uint64_t> m_samples{0};
    Lock m_lock;
    std::vector<ComRef<IMediaSample>> m_queued; ///< guarded by m_lock
};

} // namespace kestra::walk
