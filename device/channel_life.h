// The life of a grabbing channel: one state, one transition function, and the order in which clients, the notifier and
// the grabbing threads may change it. Portable: the library drives it with system threads and a card, the native tests
// with a model of both. Private to device/.
#pragma once

#include "sync/mutex.h"

#include <cstdint>
#include <memory>
#include <utility>

namespace kestra {

/// What a channel is doing. A run is one grabbing thread, from its making until it has gone.
enum class LifeState : uint8_t {
    Idle,        ///< no run that anybody waits for
    Starting,    ///< a client's start: the thread prepares the channel and starts the card
    Running,     ///< the card is started and the thread's loop runs
    Aborting,    ///< the start will come to nothing; its thread may still be in a request to the card
    Stopping,    ///< the run is over; its thread is on its way out
    Interrupted, ///< the card was pulled; arrival goes on with the run, whose thread is on its way out
    Paused,      ///< the card was pulled; arrival goes on with the run, whose thread has gone
    Resuming,    ///< arrival's start
    Closed
};
constexpr int kLifeStates = 9;

/// What happens to a channel. Those that a run's thread tells count only while its run is the channel's.
enum class LifeEvent : uint8_t {
    Start,       ///< a client wants frames
    Started,     ///< thread: the card is started
    StartFailed, ///< thread: prepare or the start request failed
    Stop,
    FormatChange, ///< thread: the input has another format than was prepared
    Gone,         ///< thread: its last word
    GivenUp,      ///< whoever waited for the thread waits no longer
    Removal,
    Arrival,
    AccessReleased,
    Close
};
constexpr int kLifeEvents = 11;

/// What the one who reports an event has to do next.
enum LifeAction : uint8_t {
    kNothing = 0,
    kBegin = 1,       ///< make a run
    kGoOn = 2,        ///< the thread enters its loop
    kStopCard = 4,    ///< ask the card to stop
    kEndThreads = 8,  ///< tell every thread to leave, and wait for it
    kTellClient = 16, ///< call back: another format
    kStopFirst = 32,  ///< stop the run that there is, then tell the event again
    kWaitFirst = 64,  ///< wait for the run's thread, then tell the event again
    kRefuse = 128
};

struct LifeTransition {
    LifeState to;
    uint8_t actions = kNothing;
    bool operator==(const LifeTransition&) const = default;
};

/// The whole life in one place. What a state does not name leaves it as it is and asks for nothing.
constexpr LifeTransition lifeTransition(LifeState state, LifeEvent event) noexcept {
    using S = LifeState;
    using E = LifeEvent;
    switch (state) {
    case S::Idle: // threads that were given up may still be in a callback: every stop waits for them anew
        if (event == E::Start) return {S::Starting, kBegin};
        if (event == E::Stop) return {S::Idle, kStopCard | kEndThreads};
        if (event == E::Close) return {S::Closed, kEndThreads};
        break;
    case S::Starting:
        if (event == E::Start) return {state, kStopFirst};
        if (event == E::Started) return {S::Running, kGoOn};
        if (event == E::StartFailed) return {S::Aborting, kStopCard};
        if (event == E::Stop || event == E::Removal) return {S::Aborting, kStopCard | kEndThreads};
        if (event == E::AccessReleased) return {S::Aborting, kEndThreads};
        if (event == E::Close) return {S::Closed, kStopCard | kEndThreads};
        break;
    case S::Running:
        if (event == E::Start) return {state, kStopFirst};
        if (event == E::Stop) return {S::Stopping, kStopCard | kEndThreads};
        if (event == E::FormatChange) return {S::Stopping, kStopCard | kTellClient};
        if (event == E::Removal) return {S::Interrupted, kStopCard | kEndThreads};
        if (event == E::AccessReleased) return {S::Stopping, kEndThreads}; // the card stops with the access
        if (event == E::Close) return {S::Closed, kStopCard | kEndThreads};
        break;
    case S::Aborting: // a new run must not meet what this one's thread may still ask of the card
        if (event == E::Start) return {state, kWaitFirst};
        if (event == E::Started || event == E::StartFailed) return {state, kStopCard};
        if (event == E::Stop) return {state, kStopCard | kEndThreads};
        if (event == E::Removal || event == E::AccessReleased) return {state, kEndThreads};
        if (event == E::Gone) return {S::Idle};
        if (event == E::Close) return {S::Closed, kEndThreads};
        break;
    case S::Stopping:
        if (event == E::Start) return {S::Starting, kBegin};
        if (event == E::Stop) return {state, kStopCard | kEndThreads};
        if (event == E::Removal || event == E::AccessReleased) return {state, kEndThreads};
        if (event == E::Gone || event == E::GivenUp) return {S::Idle};
        if (event == E::Close) return {S::Closed, kEndThreads};
        break;
    case S::Interrupted:
        if (event == E::Start) return {S::Starting, kBegin};
        if (event == E::Stop) return {S::Stopping, kStopCard | kEndThreads};
        if (event == E::AccessReleased) return {S::Stopping, kEndThreads};
        if (event == E::Removal) return {state, kEndThreads};
        if (event == E::Gone || event == E::GivenUp) return {S::Paused};
        if (event == E::Arrival) return {S::Resuming, kBegin};
        if (event == E::Close) return {S::Closed, kEndThreads};
        break;
    case S::Paused:
        if (event == E::Start) return {S::Starting, kBegin};
        if (event == E::Stop) return {S::Idle, kStopCard | kEndThreads};
        if (event == E::AccessReleased) return {S::Idle, kEndThreads};
        if (event == E::Arrival) return {S::Resuming, kBegin};
        if (event == E::Close) return {S::Closed, kEndThreads};
        break;
    case S::Resuming: // the card may be pulled again while it starts: a failure waits for the next arrival
        if (event == E::Start) return {state, kStopFirst};
        if (event == E::Started) return {S::Running, kGoOn};
        if (event == E::StartFailed) return {S::Interrupted, kStopCard};
        if (event == E::Removal) return {S::Interrupted, kStopCard | kEndThreads};
        if (event == E::Stop) return {S::Aborting, kStopCard | kEndThreads};
        if (event == E::AccessReleased) return {S::Aborting, kEndThreads};
        if (event == E::Close) return {S::Closed, kStopCard | kEndThreads};
        break;
    case S::Closed:
        if (event == E::Start) return {state, kRefuse};
        if (event == E::Stop) return {state, kStopCard | kEndThreads};
        if (event == E::Close) return {state, kEndThreads};
        break;
    }
    return {state};
}

/// A state and the run that it is about, which is known by an address that only identifies it.
class Life {
public:
    LifeState state() const noexcept { return m_state; }
    bool isAbout(const void* run) const noexcept { return m_run == run; }

    /// @param teller  the run whose thread tells it; null: nobody's thread. A thread that has outlived its run changes
    ///                nothing and has nothing to do but to leave.
    /// @return LifeActions
    uint8_t tell(LifeEvent event, const void* teller) noexcept {
        if (teller && teller != m_run) return kNothing;
        const LifeTransition transition = lifeTransition(m_state, event);
        m_state = transition.to;
        if (m_state == LifeState::Idle || m_state == LifeState::Closed) m_run = nullptr;
        return transition.actions;
    }
    /// Start or Arrival, once there is a thread for it.
    void begin(LifeEvent event, const void* run) noexcept {
        tell(event, nullptr);
        m_run = run;
    }
    /// False once the run is not the channel's any more, or its session is over: its thread only leaves then.
    bool mayTouchCard(const void* run) const noexcept {
        return m_run == run && (m_state == LifeState::Starting || m_state == LifeState::Resuming ||
                                m_state == LifeState::Running || m_state == LifeState::Stopping);
    }

private:
    LifeState m_state = LifeState::Idle;
    const void* m_run = nullptr;
};

/// What a life keeps in a run, written under its lock.
template <class Run>
struct LifeRun {
    bool started = false;
    uint64_t number = 0;       ///< runs are numbered in the order in which they were made
    uint64_t grab = 0;         ///< number of the run that a client started: arrival goes on with the same grab
    std::shared_ptr<Run> next; ///< in the list of those whose threads have not gone
};

/// One channel's life, entered by any thread. The Port is what is done about it:
///
///   Mutex, Run          types; a Run is a LifeRun<Run>
///   Patience            type: how much longer somebody is willing to wait for threads
///   makeThread(setup)   a run with a thread that waits for release(run); null: there is none to be had
///   resumedSetup(run)   the setup that goes on with an interrupted run
///   release(run)        lets the thread go, which calls live(run)
///   awaitStart(run)     until the thread has said started(run), was told to leave or has ended
///   prepare(run)        thread: all that a start needs but the card's start; false: it failed
///   startCard(run)      thread: the start request; false: it failed
///   stopCard(run)       the stop request, in the run's session; run may be null
///   started(run)        thread: the start has gone well
///   awaitEarlier(run, earlier)  thread: until the other's thread has ended; false: told to leave meanwhile
///   loop(run)           thread: frames, until told to leave or the input changes
///   tellClient(run)     thread: the last callback
///   tellToLeave(run)
///   stopPatience()      what a stop has; a Patience made with {} has no end
///   awaitEnd(run, patience)  until its thread has ended, unless that is the calling one; false: the time was over
///
/// None of them is called under m_mutex but makeThread and resumedSetup. Nothing here needs memory but
/// makeThread: a card can be pulled, come back and be closed when there is none.
template <class Port>
class ChannelLife {
public:
    using Run = typename Port::Run;
    using RunPointer = std::shared_ptr<Run>;
    enum class LoopEnd { ToldToLeave, FormatChange, Broken };

    explicit ChannelLife(Port& port) noexcept : m_port(port) {}
    ChannelLife(const ChannelLife&) = delete;
    ChannelLife& operator=(const ChannelLife&) = delete;

    /// A client's start; takes the place of what is running. @return its run, started or not; null: no thread
    template <class Setup>
    RunPointer start(const Setup& setup) {
        for (;;) {
            RunPointer run;
            uint8_t actions = kNothing;
            {
                const Guard cardOrder(m_cardOrder); // a stop that is on its way to the card comes first
                const Guard lock(m_mutex);
                actions = lifeTransition(m_life.state(), LifeEvent::Start).actions;
                run = actions & kBegin ? begin(LifeEvent::Start, setup) : m_current;
            }
            if (actions & kBegin) return letGo(run);
            if (actions & kRefuse) return nullptr;
            if (actions & kStopFirst)
                stop();
            else if (run)
                awaitEnd(*run);
        }
    }

    /// Arrival: goes on with what removal interrupted. @return false: it would, but there is no thread; the next may
    bool arrive() {
        RunPointer run;
        {
            const Guard cardOrder(m_cardOrder);
            const Guard lock(m_mutex);
            if (!(lifeTransition(m_life.state(), LifeEvent::Arrival).actions & kBegin)) return true;
            run = begin(LifeEvent::Arrival, m_port.resumedSetup(*m_current));
        }
        return letGo(run) != nullptr;
    }

    /// A client's stop: cancels a resume, ends the run, and waits for every thread but the calling one.
    /// @return what the card answered
    uint32_t stop() {
        Ending ending;
        uint32_t answer = 0;
        {
            const Guard cardOrder(m_cardOrder);
            ending = told(LifeEvent::Stop);
            answer = m_port.stopCard(ending.run.get());
        }
        end(ending);
        return answer;
    }

    /// The card has been pulled, or closed for good, or the client gave its access up.
    void leave(LifeEvent event) {
        const Ending ending = told(event);
        if (ending.actions & kStopCard) m_port.stopCard(ending.run.get());
        end(ending);
    }

    /// The whole of a run, on its thread. The run may not be the channel's any more at any step.
    void live(const RunPointer& run) {
        const bool prepared = m_port.prepare(*run) && mayTouchCard(*run);
        const bool cardStarted = prepared && m_port.startCard(*run);
        if (tellCardOrder(*run, cardStarted ? LifeEvent::Started : LifeEvent::StartFailed, prepared) & kGoOn) {
            m_port.started(*run);
            grab(*run);
        }
        const Guard lock(m_mutex);
        tell(LifeEvent::Gone, run.get());
        forget(*run);
    }

    /// See Life. A stop or a removal may come a moment later.
    bool mayTouchCard(const Run& run) {
        const Guard lock(m_mutex);
        return m_life.mayTouchCard(&run);
    }
    bool hasStarted(const Run& run) {
        const Guard lock(m_mutex);
        return run.started;
    }
    LifeState state() {
        const Guard lock(m_mutex);
        return m_life.state();
    }

private:
    using Mutex = typename Port::Mutex;
    using Guard = LockGuard<Mutex>;

    struct Ending {
        uint8_t actions = kNothing;
        RunPointer run;    ///< the channel's, when the event was told
        uint64_t last = 0; ///< number of the latest run that there was then
    };

    uint8_t tell(LifeEvent event, const Run* teller) REQUIRES(m_mutex) {
        const uint8_t actions = m_life.tell(event, teller);
        if (m_life.isAbout(nullptr)) m_current.reset();
        return actions;
    }

    Ending told(LifeEvent event) {
        const Guard lock(m_mutex);
        Ending ending{kNothing, m_current, m_lastNumber};
        ending.actions = tell(event, nullptr);
        return ending;
    }

    /// Tells what the thread has to ask the card for in the same breath: no start comes between.
    uint8_t tellCardOrder(Run& run, LifeEvent event, bool cardWasAsked) {
        const Guard cardOrder(m_cardOrder);
        uint8_t actions = kNothing;
        {
            const Guard lock(m_mutex);
            actions = tell(event, &run);
            if (actions & kGoOn) run.started = true;
        }
        if (actions & kStopCard && cardWasAsked) m_port.stopCard(&run);
        return actions;
    }

    /// Makes a run the channel's. @return null: no thread, and all stays as it was
    template <class Setup>
    RunPointer begin(LifeEvent event, const Setup& setup) REQUIRES(m_cardOrder, m_mutex) {
        RunPointer run = m_port.makeThread(setup);
        if (!run) return run;
        run->number = ++m_lastNumber;
        run->grab = event == LifeEvent::Arrival ? m_current->grab : run->number;
        RunPointer* end = &m_threads;
        while (*end)
            end = &(*end)->next;
        *end = run;
        m_life.begin(event, run.get());
        m_current = run;
        return run;
    }

    /// Takes a run whose thread has gone out of the list, where it has been since it was made.
    void forget(const Run& run) REQUIRES(m_mutex) {
        RunPointer* at = &m_threads;
        while (at->get() != &run)
            at = &(*at)->next;
        *at = std::exchange((*at)->next, nullptr);
    }

    /// The first of those whose threads have not gone after the run with that number.
    RunPointer nextThread(uint64_t after) {
        const Guard lock(m_mutex);
        RunPointer run = m_threads;
        while (run && run->number <= after)
            run = run->next;
        return run;
    }

    RunPointer letGo(const RunPointer& run) {
        if (!run) return run;
        m_port.release(run);
        m_port.awaitStart(*run);
        return run;
    }

    void grab(Run& run) {
        // Of one grab never two threads call back: the one that the card's removal met may be late.
        for (RunPointer other = nextThread(0); other->number < run.number; other = nextThread(other->number))
            if (other->grab == run.grab && !m_port.awaitEarlier(run, *other)) return;
        const LoopEnd why = m_port.loop(run);
        if (why == LoopEnd::ToldToLeave) return;
        const LifeEvent event = why == LoopEnd::FormatChange ? LifeEvent::FormatChange : LifeEvent::Stop;
        if (tellCardOrder(run, event, true) & kTellClient) m_port.tellClient(run);
    }

    void end(const Ending& ending) {
        if (!(ending.actions & kEndThreads)) return;
        if (ending.run) m_port.tellToLeave(*ending.run); // the others have been told, or leave by themselves
        typename Port::Patience patience = m_port.stopPatience();
        bool ended = !ending.run || m_port.awaitEnd(*ending.run, patience);
        for (RunPointer run = nextThread(0); ended && run && run->number <= ending.last; run = nextThread(run->number))
            ended = m_port.awaitEnd(*run, patience);
        if (ended) return;
        const Guard lock(m_mutex);
        if (ending.run) tell(LifeEvent::GivenUp, ending.run.get());
    }

    void awaitEnd(Run& run) {
        typename Port::Patience forever{};
        m_port.awaitEnd(run, forever);
    }

    Port& m_port;
    /// Held over a change of the state and the card's request that belongs to it.
    Mutex m_cardOrder ACQUIRED_BEFORE(m_mutex);
    Mutex m_mutex;
    Life m_life GUARDED_BY(m_mutex);
    RunPointer m_current GUARDED_BY(m_mutex); ///< the channel's run; the interrupted one while arrival goes on with it
    RunPointer m_threads GUARDED_BY(m_mutex); ///< the oldest run whose thread has not gone, and those after it
    uint64_t m_lastNumber GUARDED_BY(m_mutex) = 0;
};

} // namespace kestra
