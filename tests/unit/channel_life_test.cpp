// A channel's life without threads: every order of events, up to a length that covers every pair of transitions at
// least twice. KESTRA_LONG=1: two events more.
#include "device/channel_life.h"
#include "tests/support/long_run.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace kestra::test {
namespace {

constexpr const char* kStateNames[kLifeStates] = {"Idle",        "Starting", "Running",  "Aborting", "Stopping",
                                                  "Interrupted", "Paused",   "Resuming", "Closed"};
constexpr const char* kEventNames[kLifeEvents] = {"Start",        "Started", "StartFailed", "Stop",
                                                  "FormatChange", "Gone",    "GivenUp",     "Removal",
                                                  "Arrival",      "Release", "Close"};
constexpr int kThreads = 3; // of one sequence: more tell nothing new
constexpr int kRows = kLifeStates * kLifeEvents;

constexpr int rowOf(LifeState state, LifeEvent event) {
    return int(state) * kLifeEvents + int(event);
}
/// True if the event means something in the state.
constexpr bool counts(int row) {
    const auto state = LifeState(row / kLifeEvents);
    return lifeTransition(state, LifeEvent(row % kLifeEvents)) != LifeTransition{state};
}

/// What a run's thread is at.
enum class Step : uint8_t { Start, Loop, Leaving, Gone };

struct Thread {
    Step step = Step::Start;
    uint8_t session = 0; ///< of the card, when it began; 0: it was pulled, and every request will be refused
    bool told = false;   ///< to leave
};

/// One life with the client, the card and the threads around it.
struct World {
    Life life;
    std::array<Thread, kThreads> threads{};
    uint8_t made = 0; ///< threads so far; the life is about the last, if about any
    uint8_t session = 1;
    bool plugged = true, cardStarted = false;
    bool wanted = false;   ///< the client's grab has once started, and the client has not stopped it
    bool waiting = false;  ///< somebody waits for the threads
    bool released = false; ///< a stop has waited for them: the client may have freed what callbacks use
};

class Explorer {
public:
    explicit Explorer(int longest) : m_longest(longest) {}

    void explore() { from(World{}, 0); }

    uint64_t sequences = 0;
    uint64_t met[kRows][kRows] = {}; ///< how often one transition followed another
    int firstMet[kRows][kRows] = {}; ///< the shortest sequence in which it did

private:
    void from(const World& world, int length) {
        if (m_failed) return;
        ++sequences;
        if (length == m_longest) return;
        // What may come at any time.
        for (const LifeEvent event : {LifeEvent::Start, LifeEvent::Stop, LifeEvent::AccessReleased, LifeEvent::Close})
            step(world, length, event, -1);
        step(world, length, world.plugged ? LifeEvent::Removal : LifeEvent::Arrival, -1);
        if (world.waiting && world.made > 0) step(world, length, LifeEvent::GivenUp, world.made - 1);
        // What each thread may tell next, the outlived ones too.
        for (int i = 0; i < world.made; ++i) {
            const Thread& thread = world.threads[size_t(i)];
            if (thread.step == Step::Start) {
                if (thread.session != 0) step(world, length, LifeEvent::Started, i);
                step(world, length, LifeEvent::StartFailed, i);
            }
            if (thread.step == Step::Loop) {
                step(world, length, LifeEvent::FormatChange, i);
                step(world, length, LifeEvent::Stop, i); // a wait that failed
            }
            if (thread.step == Step::Leaving || (thread.step == Step::Loop && thread.told))
                step(world, length, LifeEvent::Gone, i);
        }
    }

    void step(World world, int length, LifeEvent event, int thread) {
        const LifeState before = world.life.state();
        const bool outlived = thread >= 0 && !world.life.isAbout(run(thread));
        if (event == LifeEvent::Start || event == LifeEvent::Arrival) {
            if (lifeTransition(before, event).actions & kBegin && world.made == kThreads) return;
            m_path[length] = rowOf(before, event);
            begin(world, length, event);
        } else {
            m_path[length] = outlived ? -1 - int(event) : rowOf(before, event);
            tell(world, length, event, thread);
            check(world, length, "a thread that outlived its run touches nothing",
                  !outlived || world.life.state() == before);
        }
        checkState(world, length);
        if (length > 0 && m_path[length] >= 0 && m_path[length - 1] >= 0) {
            ++met[m_path[length - 1]][m_path[length]];
            int& first = firstMet[m_path[length - 1]][m_path[length]];
            if (first == 0 || first > length + 1) first = length + 1;
        }
        from(world, length + 1);
    }

    void begin(World& world, int length, LifeEvent event) {
        const uint8_t actions = lifeTransition(world.life.state(), event).actions;
        const bool arrival = event == LifeEvent::Arrival;
        if (arrival) {
            world.plugged = true;
            ++world.session;
        }
        if (!(actions & kBegin)) {
            check(world, length, "what the client wants goes on", !arrival || !world.wanted);
            check(world, length, "a start that begins nothing says what comes first",
                  arrival || (actions & (kStopFirst | kWaitFirst | kRefuse)) != 0);
            return;
        }
        check(world, length, "nothing resumes what the client stopped", !arrival || world.wanted);
        for (int i = 0; i < world.made; ++i) {
            const Thread& thread = world.threads[size_t(i)];
            check(world, length, "a start never meets another's request",
                  thread.step != Step::Start || !world.plugged || thread.session != world.session);
        }
        world.threads[world.made] = {Step::Start, world.plugged ? world.session : uint8_t{0}, false};
        if (!arrival) world.wanted = false; // until it has started
        world.released = false;
        world.life.begin(event, run(world.made));
        ++world.made;
    }

    void tell(World& world, int length, LifeEvent event, int index) {
        Thread* thread = index >= 0 ? &world.threads[size_t(index)] : nullptr;
        if (event == LifeEvent::Started && world.plugged && thread->session == world.session) world.cardStarted = true;
        if (event == LifeEvent::Removal || event == LifeEvent::Close) world.plugged = world.cardStarted = false;
        if (event == LifeEvent::AccessReleased) world.cardStarted = false;
        const uint8_t actions = world.life.tell(event, thread ? run(index) : nullptr);
        if (actions & kStopCard) world.cardStarted = false;
        if (actions & kEndThreads) {
            for (Thread& each : world.threads)
                each.told = true;
            world.waiting = true;
        }
        switch (event) {
        case LifeEvent::Started:
            thread->step = actions & kGoOn ? Step::Loop : Step::Leaving;
            if (actions & kGoOn) world.wanted = true;
            break;
        case LifeEvent::StartFailed:
            thread->step = Step::Leaving;
            break;
        case LifeEvent::FormatChange:
            check(world, length, "the last callback is for a client that has not stopped",
                  !(actions & kTellClient) || (world.wanted && !thread->told));
            thread->step = Step::Leaving;
            if (actions & kTellClient) world.wanted = false;
            break;
        case LifeEvent::Gone:
            thread->step = Step::Gone;
            break;
        case LifeEvent::GivenUp:
            world.waiting = false;
            break;
        case LifeEvent::Stop:
            if (thread) thread->step = Step::Leaving;
            if (actions != kNothing) world.wanted = false;
            break;
        case LifeEvent::AccessReleased:
        case LifeEvent::Close:
            world.wanted = false;
            break;
        default:
            break;
        }
        bool allGone = true;
        for (int i = 0; i < world.made; ++i)
            allGone = allGone && world.threads[size_t(i)].step == Step::Gone;
        if (world.waiting && allGone) {
            world.waiting = false;
            world.released = !world.wanted;
        }
    }

    void checkState(const World& world, int length) {
        const LifeState state = world.life.state();
        int calling = 0;
        for (int i = 0; i < world.made; ++i) {
            const Thread& thread = world.threads[size_t(i)];
            if (thread.step != Step::Loop || thread.told) continue;
            ++calling;
            check(world, length, "only the running thread of the channel calls back",
                  world.life.isAbout(run(i)) && state == LifeState::Running);
        }
        check(world, length, "no callback after a stop that waited has returned", !world.released || calling == 0);
        check(world, length, "a running channel has one thread", calling == (state == LifeState::Running ? 1 : 0));
        const bool mayBeStarted = state == LifeState::Starting || state == LifeState::Resuming ||
                                  state == LifeState::Running || state == LifeState::Aborting;
        check(world, length, "every started run is stopped on the card", mayBeStarted || !world.cardStarted);
        check(world, length, "what runs is started on the card", state != LifeState::Running || world.cardStarted);
        if (m_path[length] >= 0 && m_path[length] % kLifeEvents == int(LifeEvent::Stop))
            check(world, length, "a stop in any state cancels a resume",
                  state == LifeState::Idle || state == LifeState::Aborting || state == LifeState::Stopping ||
                      state == LifeState::Closed);
    }

    void check(const World& world, int length, const char* what, bool holds) {
        if (holds || m_failed) return;
        m_failed = true;
        std::string text;
        for (int i = 0; i <= length; ++i) {
            const int row = m_path[i];
            text += row < 0 ? std::string(" late+") + kEventNames[-1 - row]
                            : std::string(" ") + kStateNames[row / kLifeEvents] + "+" + kEventNames[row % kLifeEvents];
        }
        ADD_FAILURE() << what << ":" << text << " -> " << kStateNames[int(world.life.state())];
    }

    static const void* run(int thread) {
        static constexpr char kRuns[kThreads] = {};
        return &kRuns[thread];
    }

    const int m_longest;
    int m_path[16] = {}; ///< rows; below 0 for what a thread told that had outlived its run
    bool m_failed = false;
};

} // namespace

/// What a state answers to each event that counts in it, in words.
static std::string answersOf(LifeState state) {
    constexpr const char* kActionNames[] = {"begin",       "go on",      "stop card",  "end threads",
                                            "tell client", "stop first", "wait first", "refuse"};
    std::string text;
    for (int event = 0; event < kLifeEvents; ++event) {
        if (!counts(rowOf(state, LifeEvent(event)))) continue;
        const LifeTransition transition = lifeTransition(state, LifeEvent(event));
        text += std::string(kEventNames[event]) + ": ";
        for (int action = 0; action < 8; ++action)
            if (transition.actions >> action & 1) text += std::string(kActionNames[action]) + ", ";
        text += transition.to == state ? "stays\n" : std::string(kStateNames[int(transition.to)]) + "\n";
    }
    return text;
}

TEST(ChannelLife, EachStateAnswersEachEventAsItShould) {
    EXPECT_EQ(answersOf(LifeState::Idle), "Start: begin, Starting\n"
                                          "Stop: stop card, end threads, stays\n"
                                          "Close: end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Starting), "Start: stop first, stays\n"
                                              "Started: go on, Running\n"
                                              "StartFailed: stop card, Aborting\n"
                                              "Stop: stop card, end threads, Aborting\n"
                                              "Removal: stop card, end threads, Aborting\n"
                                              "Release: end threads, Aborting\n"
                                              "Close: stop card, end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Running), "Start: stop first, stays\n"
                                             "Stop: stop card, end threads, Stopping\n"
                                             "FormatChange: stop card, tell client, Stopping\n"
                                             "Removal: stop card, end threads, Interrupted\n"
                                             "Release: end threads, Stopping\n"
                                             "Close: stop card, end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Aborting), "Start: wait first, stays\n"
                                              "Started: stop card, stays\n"
                                              "StartFailed: stop card, stays\n"
                                              "Stop: stop card, end threads, stays\n"
                                              "Gone: Idle\n"
                                              "Removal: end threads, stays\n"
                                              "Release: end threads, stays\n"
                                              "Close: end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Stopping), "Start: begin, Starting\n"
                                              "Stop: stop card, end threads, stays\n"
                                              "Gone: Idle\n"
                                              "GivenUp: Idle\n"
                                              "Removal: end threads, stays\n"
                                              "Release: end threads, stays\n"
                                              "Close: end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Interrupted), "Start: begin, Starting\n"
                                                 "Stop: stop card, end threads, Stopping\n"
                                                 "Gone: Paused\n"
                                                 "GivenUp: Paused\n"
                                                 "Removal: end threads, stays\n"
                                                 "Arrival: begin, Resuming\n"
                                                 "Release: end threads, Stopping\n"
                                                 "Close: end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Paused), "Start: begin, Starting\n"
                                            "Stop: stop card, end threads, Idle\n"
                                            "Arrival: begin, Resuming\n"
                                            "Release: end threads, Idle\n"
                                            "Close: end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Resuming), "Start: stop first, stays\n"
                                              "Started: go on, Running\n"
                                              "StartFailed: stop card, Interrupted\n"
                                              "Stop: stop card, end threads, Aborting\n"
                                              "Removal: stop card, end threads, Interrupted\n"
                                              "Release: end threads, Aborting\n"
                                              "Close: stop card, end threads, Closed\n");
    EXPECT_EQ(answersOf(LifeState::Closed), "Start: refuse, stays\n"
                                            "Stop: stop card, end threads, stays\n"
                                            "Close: end threads, stays\n");
}

TEST(ChannelLife, IsAboutItsRunUntilItIsIdleOrClosed) {
    const int first = 1, second = 2;
    Life life;
    EXPECT_TRUE(life.isAbout(nullptr));
    life.begin(LifeEvent::Start, &first);
    EXPECT_TRUE(life.isAbout(&first));
    EXPECT_EQ(life.tell(LifeEvent::Started, &second), kNothing) << "a thread that has outlived its run";
    EXPECT_EQ(life.state(), LifeState::Starting);
    EXPECT_EQ(life.tell(LifeEvent::Started, &first), kGoOn);
    life.tell(LifeEvent::Stop, nullptr);
    EXPECT_TRUE(life.isAbout(&first)) << "its thread is on its way out";
    life.tell(LifeEvent::Gone, &first);
    EXPECT_EQ(life.state(), LifeState::Idle);
    EXPECT_TRUE(life.isAbout(nullptr));
    life.begin(LifeEvent::Start, &second);
    EXPECT_TRUE(life.isAbout(&second));
    life.tell(LifeEvent::Close, nullptr);
    EXPECT_TRUE(life.isAbout(nullptr));
}

TEST(ChannelLife, RunTouchesTheCardWhileItIsTheChannelsAndItsSessionLasts) {
    const int run = 1, other = 2;
    Life life;
    const auto mayTouch = [&] {
        EXPECT_FALSE(life.mayTouchCard(&other));
        return life.mayTouchCard(&run);
    };
    EXPECT_FALSE(mayTouch());
    life.begin(LifeEvent::Start, &run);
    EXPECT_TRUE(mayTouch()) << "Starting";
    life.tell(LifeEvent::Started, &run);
    EXPECT_TRUE(mayTouch()) << "Running";
    life.tell(LifeEvent::Removal, nullptr);
    EXPECT_FALSE(mayTouch()) << "Interrupted";
    life.tell(LifeEvent::Gone, &run);
    EXPECT_FALSE(mayTouch()) << "Paused";
    life.begin(LifeEvent::Arrival, &run);
    EXPECT_TRUE(mayTouch()) << "Resuming";
    life.tell(LifeEvent::Started, &run);
    life.tell(LifeEvent::FormatChange, &run);
    EXPECT_TRUE(mayTouch()) << "Stopping: its last buffer is given back";
    life.begin(LifeEvent::Start, &run);
    life.tell(LifeEvent::Stop, nullptr);
    EXPECT_FALSE(mayTouch()) << "Aborting";
    life.tell(LifeEvent::Close, nullptr);
    EXPECT_FALSE(mayTouch()) << "Closed";
}

TEST(ChannelLife, HoldsItsPromisesOverEveryOrderOfEvents) {
    const int longest = isLongRun() ? 11 : 9;
    Explorer explorer(longest);
    explorer.explore();
    if (HasFailure()) return;
    int pairs = 0, never = 0;
    for (int first = 0; first < kRows; ++first)
        for (int second = 0; second < kRows; ++second) {
            const auto to = lifeTransition(LifeState(first / kLifeEvents), LifeEvent(first % kLifeEvents)).to;
            if (!counts(first) || !counts(second) || to != LifeState(second / kLifeEvents)) continue;
            const uint64_t met = explorer.met[first][second];
            if (met == 0) {
                ++never;
                continue;
            }
            ++pairs;
            EXPECT_GE(met, 2u) << kStateNames[first / kLifeEvents] << "+" << kEventNames[first % kLifeEvents]
                               << ", then " << kEventNames[second % kLifeEvents];
            EXPECT_LT(explorer.firstMet[first][second], longest) << "a longer sequence may meet more pairs";
        }
    std::printf("%llu sequences of up to %d events; %d pairs of transitions, %d that no order of events brings\n",
                static_cast<unsigned long long>(explorer.sequences), longest, pairs, never);
}

} // namespace kestra::test
