// A channel's life with real threads: two or three of them and the grabbing threads between, one moving at a time, and
// at every lock and every step a seed decides who moves next. What hands the turn over is invisible to ThreadSanitizer,
// so that it sees only the synchronisation of the code under test. KESTRA_LONG=1: many more seeds.
#include "device/channel_life.h"
#include "tests/support/long_run.h"

#include <gtest/gtest.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <thread>

namespace kestra::test {
namespace {

/// Lets one thread move at a time. All its state is relaxed on purpose: it orders nothing for others.
///
/// Every other seed lets whoever is drawn move. The rest give each thread a rank, and the highest moves until it has to
/// wait for others, or loses its rank at one of a few steps that the seed chose: so one thread stands still in the
/// middle of something while the others get far, which draws alone hardly ever bring.
class Scheduler {
public:
    static constexpr int kMost = 32;

    explicit Scheduler(uint64_t seed) : m_random(seed * 2654435769u + 1), m_ranked(seed % 2 != 0) {
        for (int i = 0; i < kMost; ++i)
            m_rank[size_t(i)].store(kMost + int(random(1000)), std::memory_order_relaxed);
        // Most runs are short: the later a step, the more seldom is it chosen.
        for (auto& change : m_changes)
            change.store(int(random(8u << random(8))), std::memory_order_relaxed);
    }

    int add() { return enlist(m_count.fetch_add(1, std::memory_order_relaxed)); }
    /// First call of a thread, with its number.
    void enter(int self) {
        t_self = self;
        awaitTurn();
    }
    void leave() {
        m_alive.fetch_and(~bit(t_self), std::memory_order_relaxed);
        m_waiting.store(0, std::memory_order_relaxed);
        handOver();
    }
    /// Whoever is next may be the caller again.
    void step() {
        m_waiting.store(0, std::memory_order_relaxed); // what the others wait for may have come
        pass();
    }
    /// The same, of a thread that can do nothing before others have moved.
    void stepWaiting() {
        m_waiting.fetch_or(bit(t_self), std::memory_order_relaxed);
        pass();
    }
    template <class Condition>
    void until(Condition condition) {
        while (!condition())
            stepWaiting();
    }
    /// A number below `below`, from the seed.
    uint32_t random(uint32_t below) {
        uint64_t value = m_random.load(std::memory_order_relaxed);
        value = value * 6364136223846793005u + 1442695040888963407u;
        m_random.store(value, std::memory_order_relaxed);
        return uint32_t(value >> 33) % below;
    }
    void start() { handOver(); }

private:
    static uint32_t bit(int thread) { return 1u << thread; }
    int enlist(int thread) {
        m_alive.fetch_or(bit(thread), std::memory_order_relaxed);
        return thread;
    }
    void pass() {
        const int now = m_steps.fetch_add(1, std::memory_order_relaxed);
        if (now > 2'000'000) {
            std::fprintf(stderr, "nobody gets on any more\n");
            std::abort();
        }
        for (const auto& change : m_changes)
            if (now == change.load(std::memory_order_relaxed))
                m_rank[size_t(t_self)].store(-now, std::memory_order_relaxed); // below all the others
        handOver();
        awaitTurn();
    }
    void handOver() {
        const uint32_t alive = m_alive.load(std::memory_order_relaxed);
        if (alive == 0) return;
        const int next = m_ranked ? highest(alive) : drawn(alive);
        if (next == t_self) return;
        m_turn.store(next, std::memory_order_relaxed);
        futex(FUTEX_WAKE_BITSET_PRIVATE, std::numeric_limits<int>::max(), bit(next));
    }
    int highest(uint32_t alive) {
        uint32_t able = alive & ~m_waiting.load(std::memory_order_relaxed);
        if (able == 0) { // all wait, some of them only for so many steps
            m_waiting.store(0, std::memory_order_relaxed);
            return drawn(alive);
        }
        int best = -1;
        for (int i = 0; i < kMost; ++i)
            if (able & bit(i) && (best < 0 || m_rank[size_t(i)].load(std::memory_order_relaxed) >
                                                  m_rank[size_t(best)].load(std::memory_order_relaxed)))
                best = i;
        return best;
    }
    int drawn(uint32_t alive) {
        // Now and then one is held back while the others get far.
        const int now = m_steps.load(std::memory_order_relaxed);
        if (random(24) == 0) {
            m_held.store(bit(int(random(uint32_t(m_count.load(std::memory_order_relaxed))))),
                         std::memory_order_relaxed);
            m_heldUntil.store(now + int(random(300)), std::memory_order_relaxed);
        }
        const uint32_t held = m_held.load(std::memory_order_relaxed);
        if (now < m_heldUntil.load(std::memory_order_relaxed) && (alive & ~held) != 0) alive &= ~held;
        int next = int(random(kMost));
        while (!(alive & bit(next)))
            next = (next + 1) % kMost;
        return next;
    }
    void awaitTurn() {
        for (int turn; (turn = m_turn.load(std::memory_order_relaxed)) != t_self;)
            futex(FUTEX_WAIT_BITSET_PRIVATE, turn, bit(t_self));
    }
    void futex(int operation, int value, uint32_t bits) {
        static_assert(sizeof m_turn == sizeof(int));
        syscall(SYS_futex, &m_turn, operation, value, nullptr, nullptr, bits);
    }

    static thread_local int t_self;
    std::atomic<uint64_t> m_random;
    const bool m_ranked;
    std::array<std::atomic<int>, kMost> m_rank;
    std::array<std::atomic<int>, 4> m_changes;
    std::atomic<uint32_t> m_alive{0}, m_waiting{0}, m_held{0};
    std::atomic<int> m_count{0}, m_turn{-1}, m_steps{0}, m_heldUntil{0};
};
thread_local int Scheduler::t_self = -1;

Scheduler* g_scheduler;

/// A lock at which others may get in between, before and after.
class CAPABILITY("mutex") ScheduledMutex {
public:
    void lock() ACQUIRE() {
        g_scheduler->step();
        g_scheduler->until([&] { return !m_held.exchange(true, std::memory_order_acquire); });
    }
    void unlock() RELEASE() {
        m_held.store(false, std::memory_order_release);
        g_scheduler->step();
    }

private:
    std::atomic<bool> m_held{false};
};

std::atomic<const char*> g_broken{nullptr}; ///< the first promise that was not kept

void promise(bool kept, const char* what) {
    const char* none = nullptr;
    if (!kept) g_broken.compare_exchange_strong(none, what, std::memory_order_relaxed);
}

/// What a client gives with a start, and frees once a stop has waited. Plain: ThreadSanitizer watches over it.
struct Context {
    int frames = 0;
    std::atomic<int> inside{0};
    std::atomic<bool> freed{false}, goesOn{false};
};

/// The card, whose threads and client are real. Its own fields are as invisible as the scheduler's.
class World {
public:
    using Mutex = ScheduledMutex;
    struct Run : LifeRun<Run> {
        Context* context = nullptr;
        int session = 0, thread = 0;
        std::atomic<bool> begun{false}, announced{false}, told{false}, ended{false}, reported{false};
    };
    using Life = ChannelLife<World>;
    using RunPointer = std::shared_ptr<Run>;

    Life life{*this};
    std::atomic<int> session{1};  ///< 0: pulled
    std::atomic<int> grabbing{0}; ///< session in which the card is started; 0: it is not
    bool calm = false;            ///< nothing fails, the input stays, and callbacks are short
    uint32_t failing = 6;         ///< one step of a start in so many fails
    uint32_t changing = 24;       ///< before one frame in so many the input changes
    int pullsOnArrival = 0;       ///< so many times the card is pulled again while it is dealt with

    // The port.
    RunPointer makeThread(Context* context) {
        if (m_threadCount == int(m_threads.size())) return nullptr; // as many as a scenario may have
        auto run = std::make_shared<Run>();
        run->context = context;
        run->session = session.load(std::memory_order_relaxed);
        run->thread = g_scheduler->add();
        m_runs[size_t(m_threadCount)] = run;
        m_threads[size_t(m_threadCount++)] = std::thread([this, run] {
            g_scheduler->enter(run->thread);
            g_scheduler->until([&] { return run->begun.load(std::memory_order_acquire); });
            life.live(run);
            run->ended.store(true, std::memory_order_release);
            g_scheduler->leave();
        });
        return run;
    }
    static Context* resumedSetup(const Run& run) { return run.context; }
    static void release(const RunPointer& run) { run->begun.store(true, std::memory_order_release); }
    static void awaitStart(Run& run) {
        g_scheduler->until([&] { return run.told || run.ended || run.announced; });
    }
    bool prepare(Run& run) {
        if (run.grab != run.number && pullsOnArrival > 0) {
            --pullsOnArrival;
            session.store(0, std::memory_order_relaxed); // the notifier hears of it later
        }
        return request(run) && !happens(failing);
    }
    bool startCard(Run& run) {
        if (!request(run) || happens(failing)) return false;
        grabbing.store(run.session, std::memory_order_relaxed);
        return true;
    }
    uint32_t stopCard(const Run*) {
        g_scheduler->step();
        if (session.load(std::memory_order_relaxed) == 0) return 255;
        grabbing.store(0, std::memory_order_relaxed);
        return 0;
    }
    static void started(Run& run) { run.announced.store(true, std::memory_order_release); }
    static bool awaitEarlier(Run& run, Run& earlier) {
        g_scheduler->until([&] { return run.told || earlier.ended.load(std::memory_order_acquire); });
        return !run.told;
    }
    Life::LoopEnd loop(Run& run) {
        for (;;) {
            g_scheduler->stepWaiting(); // for a frame: it never keeps the others from moving
            if (run.told.load(std::memory_order_acquire)) return Life::LoopEnd::ToldToLeave;
            if (happens(changing)) return Life::LoopEnd::FormatChange;
            if (happens(48)) return Life::LoopEnd::Broken;
            callBack(run);
            if (!life.mayTouchCard(run)) return Life::LoopEnd::ToldToLeave;
            request(run); // gives the buffer back
        }
    }
    void tellClient(Run& run) { callBack(run); }
    static void tellToLeave(Run& run) { run.told.store(true, std::memory_order_release); }
    struct Patience {
        uint32_t steps = ~0u;
    };
    static Patience stopPatience() { return {g_scheduler->random(g_scheduler->random(2) == 0 ? 4 : 200)}; }
    static bool awaitEnd(Run& run, Patience& patience) {
        for (; &run != t_own && !run.ended.load(std::memory_order_acquire); g_scheduler->stepWaiting()) {
            if (patience.steps == 0) {
                t_timedOut = true;
                return false;
            }
            if (patience.steps != ~0u) --patience.steps;
        }
        return true;
    }

    // What clients and the notifier do.
    bool startGrab(Context* context) {
        const RunPointer run = life.start(context);
        if (run) run->reported = life.hasStarted(*run);
        return run && run->reported;
    }
    /// @return whether every thread has gone, so that the client may free what it gave
    bool stopGrab() {
        t_timedOut = false;
        life.stop();
        return !t_timedOut && !t_own;
    }
    void pull() {
        session.store(0, std::memory_order_relaxed);
        grabbing.store(0, std::memory_order_relaxed);
        life.leave(LifeEvent::Removal);
    }
    void plug() {
        session.store(++m_sessions, std::memory_order_relaxed);
        life.arrive();
    }
    void close() {
        session.store(0, std::memory_order_relaxed);
        grabbing.store(0, std::memory_order_relaxed);
        life.leave(LifeEvent::Close);
    }
    bool allEnded() const {
        return std::all_of(m_runs.begin(), m_runs.begin() + m_threadCount,
                           [](const RunPointer& run) { return run->ended.load(std::memory_order_acquire); });
    }
    /// With no client and no notifier about: waits for what is under way, and compares the card with the state.
    void settle() {
        LifeState state = life.state();
        g_scheduler->until([&] { return (state = life.state()) == LifeState::Running || allEnded(); });
        const int now = grabbing.load(std::memory_order_relaxed);
        if (state != LifeState::Running)
            promise(now == 0, "every started run is stopped on the card");
        else if (life.state() == LifeState::Running) // the input has not changed meanwhile
            promise(now == session.load(std::memory_order_relaxed), "what runs is started on the card");
    }
    void join() {
        for (std::thread& thread : m_threads)
            if (thread.joinable()) thread.join();
        for (int i = 0; i < m_threadCount; ++i)
            promise(!m_runs[size_t(i)]->reported || m_runs[size_t(i)]->announced,
                    "a start is reported as one only if its loop was entered");
    }

private:
    /// A request of a run reaches the card only in the session that the run began in.
    bool request(const Run& run) {
        g_scheduler->step();
        return run.session != 0 && run.session == session.load(std::memory_order_relaxed);
    }
    /// Once in so many times, unless the world is calm.
    bool happens(uint32_t times) const { return !calm && g_scheduler->random(times) == 0; }
    void callBack(Run& run) {
        Context& context = *run.context;
        promise(!context.freed.load(std::memory_order_relaxed), "no callback after a stop that waited has returned");
        promise(context.inside.fetch_add(1, std::memory_order_relaxed) == 0, "one grab calls back once at a time");
        ++context.frames;
        context.goesOn.store(true, std::memory_order_relaxed);
        t_own = &run;
        const uint32_t length = happens(8) ? 300 : g_scheduler->random(4);
        for (uint32_t i = 0; i < length; ++i)
            g_scheduler->step();
        if (happens(40)) life.stop();
        t_own = nullptr;
        promise(!context.freed.load(std::memory_order_relaxed), "a stop that waited has waited for the callback");
        context.inside.fetch_sub(1, std::memory_order_relaxed);
    }

    static thread_local const Run* t_own; ///< the run in whose callback this thread is
    static thread_local bool t_timedOut;
    std::array<std::thread, 24> m_threads;
    std::array<RunPointer, 24> m_runs;
    int m_threadCount = 0; // under the life's locks
    int m_sessions = 1;    // the notifier's
};
thread_local const World::Run* World::t_own = nullptr;
thread_local bool World::t_timedOut = false;

int seeds(int ordinary) {
    return repetitions(ordinary, ordinary * 50);
}

/// Runs the programs on a thread each, one moving at a time, and the world's threads between them. The first program's
/// thread closes the channel when all have ended.
void runScheduled(uint64_t seed, const std::function<void(World&)>& makeUp,
                  const std::vector<std::function<void(World&, Scheduler&)>>& programs) {
    Scheduler scheduler(seed);
    g_scheduler = &scheduler;
    World world;
    makeUp(world);
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    std::vector<int> numbers;
    for (size_t i = 0; i < programs.size(); ++i)
        numbers.push_back(scheduler.add());
    for (size_t i = 0; i < programs.size(); ++i)
        threads.emplace_back([&, i] {
            scheduler.enter(numbers[i]);
            programs[i](world, scheduler);
            ++done;
            if (i == 0) {
                scheduler.until([&] { return done == int(programs.size()); });
                world.settle();
                world.stopGrab();
                world.settle();
                promise(world.life.state() == LifeState::Idle, "what was stopped is idle when its threads have gone");
                world.close();
                promise(world.life.start(nullptr) == nullptr, "a closed channel is not started");
            }
            scheduler.leave();
        });
    scheduler.start();
    for (std::thread& thread : threads)
        thread.join();
    world.join();
}

/// Starts and stops as the seed says; frees what it gave once a stop has waited.
void client(World& world, Scheduler& scheduler, std::array<Context, 6>& contexts) {
    for (Context& context : contexts) {
        world.startGrab(&context);
        for (uint32_t i = scheduler.random(30); i != 0; --i)
            scheduler.step();
        if (scheduler.random(2) == 0) continue; // the next start takes its place
        if (!world.stopGrab()) continue;
        for (Context* each = contexts.data(); each <= &context; ++each) {
            each->freed.store(true, std::memory_order_relaxed);
            each->frames = -1;
        }
        if (scheduler.random(2) == 0) continue;
        for (uint32_t i = scheduler.random(200); i != 0; --i)
            scheduler.step();
    }
}

/// Pulls the card and puts it back, and leaves it in.
void notifier(World& world, Scheduler& scheduler) {
    for (int i = 0; i < 5; ++i) {
        for (uint32_t steps = scheduler.random(scheduler.random(2) == 0 ? 60 : 200); steps != 0; --steps)
            scheduler.step();
        world.pull();
        for (uint32_t steps = scheduler.random(30); steps != 0; --steps)
            scheduler.step();
        world.plug();
    }
}

class ChannelThreads : public testing::Test {
protected:
    void SetUp() override { g_broken = nullptr; }
    /// @return false: a promise was broken with this seed
    static bool keeps(uint64_t seed) {
        const char* broken = g_broken;
        if (broken) ADD_FAILURE() << "seed " << seed << ": " << broken;
        return !broken;
    }
};

} // namespace

TEST_F(ChannelThreads, AClientAndTheNotifierMeetInEveryOrder) {
    for (int seed = 0; seed < seeds(1000); ++seed) {
        std::array<Context, 6> contexts;
        runScheduled(uint64_t(seed), [&](World& world) { world.failing = seed % 4 < 2 ? 6 : 2; },
                     {[&](World& world, Scheduler& scheduler) { client(world, scheduler, contexts); }, notifier});
        ASSERT_TRUE(keeps(uint64_t(seed)));
    }
}

TEST_F(ChannelThreads, TwoClientsAndTheNotifierMeetInEveryOrder) {
    for (int seed = 0; seed < seeds(500); ++seed) {
        std::array<Context, 6> first, second;
        runScheduled(uint64_t(seed), [](World&) {},
                     {[&](World& world, Scheduler& scheduler) { client(world, scheduler, first); },
                      [&](World& world, Scheduler& scheduler) { client(world, scheduler, second); }, notifier});
        ASSERT_TRUE(keeps(uint64_t(seed)));
    }
}

TEST_F(ChannelThreads, AStopThatMeetsAStartLeavesTheCardStoppedAndOneBeforeItDoesNot) {
    for (int seed = 0; seed < seeds(2000); ++seed) {
        std::array<Context, 2> contexts;
        runScheduled(uint64_t(seed), [&](World& world) { world.calm = seed % 8 > 1; },
                     {[&](World& world, Scheduler& scheduler) {
                          world.startGrab(&contexts[0]);
                          if (scheduler.random(2) == 0) world.stopGrab();
                      },
                      [&](World& world, Scheduler& scheduler) {
                          for (uint32_t steps = scheduler.random(20); steps != 0; --steps)
                              scheduler.step();
                          const uint32_t kind = scheduler.random(3);
                          if (kind != 0) world.stopGrab();
                          if (kind != 1) world.startGrab(&contexts[1]);
                      }});
        ASSERT_TRUE(keeps(uint64_t(seed)));
    }
}

TEST_F(ChannelThreads, AStartThatMeetsARunOnItsWayOutIsNotStoppedByIt) {
    for (int seed = 0; seed < seeds(2000); ++seed) {
        std::array<Context, 3> contexts;
        runScheduled(uint64_t(seed), [](World& world) { world.changing = 3; },
                     {[&](World& world, Scheduler& scheduler) {
                         for (Context& context : contexts) {
                             world.startGrab(&context);
                             for (uint32_t steps = scheduler.random(40); steps != 0; --steps)
                                 scheduler.step();
                         }
                     }});
        ASSERT_TRUE(keeps(uint64_t(seed)));
    }
}

TEST_F(ChannelThreads, WhatNobodyStoppedGoesOnHoweverOftenTheCardIsPulled) {
    for (int seed = 0; seed < seeds(500); ++seed) {
        Context context;
        std::atomic<bool> back{false};
        runScheduled(uint64_t(seed),
                     [&](World& world) {
                         world.calm = true;
                         world.pullsOnArrival = seed % 3;
                     },
                     {[&](World& world, Scheduler& scheduler) {
                          promise(world.startGrab(&context), "a start that got through is reported");
                          scheduler.until([&] { return back.load(); });
                          context.goesOn = false;
                          scheduler.until([&] { return context.goesOn.load(std::memory_order_relaxed); });
                      },
                      [&](World& world, Scheduler& scheduler) {
                          scheduler.until([&] { return world.life.state() == LifeState::Running; });
                          notifier(world, scheduler);
                          back = true;
                      }});
        ASSERT_TRUE(keeps(uint64_t(seed)));
    }
}

} // namespace kestra::test
