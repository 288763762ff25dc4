// Making, walking and watching a walk.
#include "tests/walk/walk.h"

#include "tests/support/process_counts.h"
#include "tests/walk/lock.h"
#include "tests/walk/shrink.h"
#include "win32/handle.h"

#ifdef KESTRA_PAGE_HEAP
#include "tests/support/page_heap.h"
#endif

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace kestra::walk {
namespace {

constexpr ULONGLONG kRescueMs = 1000;
constexpr int kMostThreads = 4;
constexpr size_t kSuspects = 6;             ///< acts that are walked again when something has been left behind
constexpr long long kLeastGrowth = 4 << 20; ///< of private memory, in bytes
constexpr long long kMostKept = 32 << 20;   ///< by a heap, of what has been freed

/// What one thread of the act is doing. The last row is the main thread, which begins and ends acts.
struct Doing {
    std::atomic<ULONGLONG> sinceMs{0}; ///< 0: nothing
    std::atomic<const char*> call{""}, part{""};
    std::atomic<uint32_t> step{0}, a{0}, b{0};
    std::atomic<HANDLE> thread{nullptr};
};
std::array<Doing, kMostThreads + 1> g_doing;
thread_local Doing* t_doing = nullptr;
std::atomic<uint64_t> g_seed{0};
std::atomic<uint64_t> g_made{0}; ///< calls, of all acts
std::atomic<bool> g_ending{false};

void printFrame(uint64_t address) {
    HMODULE module = nullptr;
    char path[MAX_PATH] = "?";
    const auto* at = reinterpret_cast<const char*>(address);
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, at,
                           &module))
        GetModuleFileNameA(module, path, MAX_PATH);
    const char* slash = std::strrchr(path, '\\');
    std::printf("      %s+0x%llX\n", slash ? slash + 1 : path,
                static_cast<unsigned long long>(at - reinterpret_cast<const char*>(module)));
}

void printStack(CONTEXT context) {
    if (context.Rip == 0) { // a call to nowhere
        printFrame(context.Rip);
        context.Rip = *reinterpret_cast<const DWORD64*>(context.Rsp);
        context.Rsp += sizeof(DWORD64);
    }
    for (int depth = 0; depth < 24 && context.Rip != 0; ++depth) {
        printFrame(context.Rip);
        DWORD64 base = 0;
        RUNTIME_FUNCTION* function = RtlLookupFunctionEntry(context.Rip, &base, nullptr);
        if (!function) { // a leaf, or a call of the system
            context.Rip = *reinterpret_cast<const DWORD64*>(context.Rsp);
            context.Rsp += sizeof(DWORD64);
            continue;
        }
        void* data = nullptr;
        DWORD64 frame = 0;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, context.Rip, function, &context, &data, &frame, nullptr);
    }
}

void printStackOf(HANDLE thread) {
    if (!thread || SuspendThread(thread) == static_cast<DWORD>(-1)) return;
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    if (GetThreadContext(thread, &context)) printStack(context);
    ResumeThread(thread);
}

void printDoing(bool withStacks) {
    std::printf("    after %llu calls\n", static_cast<unsigned long long>(g_made.load()));
    const ULONGLONG now = GetTickCount64();
    for (size_t i = 0; i < g_doing.size(); ++i) {
        const Doing& doing = g_doing[i];
        const ULONGLONG since = doing.sinceMs;
        if (since == 0) continue;
        std::printf("    thread %zu: step %u %s %x %x %s for %.1f s%s\n", i, doing.step.load(), doing.call.load(),
                    doing.a.load(), doing.b.load(), doing.part.load(), double(now - since) / 1000,
                    &doing == t_doing ? " (this one)" : "");
        if (withStacks) printStackOf(doing.thread);
    }
}

/// The first one prints; a second failure of the same moment waits for the end.
void claimTheEnd() {
    if (g_ending.exchange(true)) Sleep(INFINITE);
}

[[noreturn]] void endProcess(unsigned code) {
    std::fflush(stdout);
    TerminateProcess(GetCurrentProcess(), code);
    std::abort();
}

LONG WINAPI onCrash(EXCEPTION_POINTERS* exception) {
    claimTheEnd();
    std::printf("FAILED crash: exception 0x%08lX in act 0x%llX\n", exception->ExceptionRecord->ExceptionCode,
                static_cast<unsigned long long>(g_seed.load()));
    printStack(*exception->ContextRecord);
    printDoing(false);
    endProcess(kFailed);
}

class Watch {
public:
    explicit Watch(World& world) : m_world(world), m_thread([this] { run(); }) {}
    ~Watch() {
        SetEvent(m_end.get());
        m_thread.join();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    void run() {
        ULONGLONG rescued = 0;
        while (WaitForSingleObject(m_end.get(), 100) == WAIT_TIMEOUT) {
            const ULONGLONG now = GetTickCount64();
            ULONGLONG longest = 0;
            for (const Doing& doing : g_doing)
                if (const ULONGLONG since = doing.sinceMs; since != 0 && now > since && now - since > longest)
                    longest = now - since;
            if (longest >= m_world.hangMs()) hang(longest);
            if (longest >= kRescueMs && now - rescued >= kRescueMs) {
                m_world.rescue();
                rescued = now;
            }
        }
    }
    [[noreturn]] static void hang(ULONGLONG tookMs) {
        claimTheEnd();
        std::printf("FAILED hang: a call has taken %.1f s in act 0x%llX\n", double(tookMs) / 1000,
                    static_cast<unsigned long long>(g_seed.load()));
        printDoing(true);
        endProcess(kFailed);
    }

    World& m_world;
    const UniqueObject m_end{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::thread m_thread;
};

/// While it lives, the thread is in that call.
class InCall {
public:
    InCall(const char* call, uint32_t step, uint32_t a, uint32_t b) {
        t_doing->call = call;
        t_doing->part = "";
        t_doing->step = step;
        t_doing->a = a;
        t_doing->b = b;
        t_doing->sinceMs = GetTickCount64();
    }
    ~InCall() { t_doing->sinceMs = 0; }
    InCall(const InCall&) = delete;
    InCall& operator=(const InCall&) = delete;
};

/// While it lives, this thread is that row of what is being done.
class Row {
public:
    explicit Row(size_t index) : m_thread(OpenThread(THREAD_ALL_ACCESS, FALSE, GetCurrentThreadId())) {
        t_doing = &g_doing[index];
        t_doing->thread = m_thread.get();
    }
    ~Row() {
        t_doing->thread = nullptr;
        t_doing = nullptr;
    }
    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;

private:
    const UniqueObject m_thread;
};

/// Wine 10's heap keeps groups of small blocks, of 230 kB for those of a block of sound, and a walk over the heap does
/// not tell whether they are free: a walk of 10,000 calls ends up to 8 MB higher, one of 30,000 no more than 22, and no
/// act that is repeated leaves any. Wine 8 ends where it began.
bool heapKeepsGroups() {
    const auto version = reinterpret_cast<const char* (*)()>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
    return version && std::atoi(version()) >= 9;
}

using Results = std::map<std::pair<uint16_t, uint32_t>, uint64_t>;

class Walk {
public:
    explicit Walk(World& world) : m_world(world) {}

    void walk(const Act& act) {
        g_seed = act.seed;
        {
            const InCall call("begin", 0, 0, 0);
            m_world.begin(act);
        }
        std::vector<std::thread> threads;
        for (int i = 0; i < act.threads; ++i)
            threads.emplace_back([this, &act, i] { part(act, static_cast<uint8_t>(i)); });
        for (std::thread& thread : threads)
            thread.join();
        const InCall call("end", 0, 0, 0);
        m_world.end();
        test::ProcessCounts counts = test::processCounts();
        counts.handles -= m_world.handlesOfTheSystem();
        counts.gdiObjects -= m_world.gdiObjectsOfTheSystem();
        m_counts.note(counts);
        m_ends.push_back({act.seed, counts});
#ifdef KESTRA_PAGE_HEAP
        if (std::getenv("KESTRA_WALK_COUNTS"))
            std::printf("%llu of %llu blocks live\n", static_cast<unsigned long long>(test::pageHeapCounts().live),
                        static_cast<unsigned long long>(test::pageHeapCounts().blocks));
#endif
        if (std::getenv("KESTRA_WALK_COUNTS"))
            std::printf("act 0x%llX: %d handles, %d threads, %zu kB, %d GDI, %d USER\n",
                        static_cast<unsigned long long>(act.seed), counts.handles, counts.threads,
                        counts.privateBytes / 1024, counts.gdiObjects, counts.userObjects);
    }

    void print(uint64_t seed, unsigned acts, double seconds) const {
        std::printf("walk 0x%llX: %u acts, %llu calls in %.1f s, %.0f a second\n",
                    static_cast<unsigned long long>(seed), acts, static_cast<unsigned long long>(g_made.load()),
                    seconds, double(g_made.load()) / seconds);
        const std::vector<Call>& calls = m_world.calls();
        for (size_t i = 0; i < calls.size(); ++i) {
            std::string line;
            for (const auto& [key, count] : m_results)
                if (key.first == i)
                    line.append(" ")
                        .append(m_world.resultText(key.second))
                        .append(" x ")
                        .append(std::to_string(count))
                        .append(",");
            if (!line.empty()) std::printf("  %s:%.*s\n", calls[i].name, int(line.size()) - 1, line.c_str());
        }
        std::printf("%s", m_world.summary().c_str());
    }
    /// What the acts left in the process, if there were enough to tell.
    void judgeCounts(unsigned acts) {
        if (acts < 12) return;
        const std::string counts = m_counts.describe("acts");
        std::printf("%s\n", counts.c_str());
        if (!hasGrown({9, 1, kLeastGrowth, 5, 5})) return;
        const test::CountsOverCycles whole = m_counts;
        for (const uint64_t seed : suspects())
            judgeRepeated(makeAct(seed, m_world.calls()), kRepeated);
        m_counts = whole;
        // No single act does it each time.
        g_seed = 0;
        if (hasGrown({9, 1, heapKeepsGroups() ? kMostKept : kLeastGrowth, 9, 9})) fail("growth", counts);
    }
    /// Walks one act so often that what it leaves shows.
    void judgeRepeated(const Act& act, uint64_t times) {
        m_counts = {};
        for (uint64_t i = 0; i < times; ++i)
            walk(act);
        const int each = static_cast<int>(times / 3);
        if (times >= kRepeated && hasGrown({each, each, each * (200 << 10), each, each}))
            fail("growth", m_counts.describe("times"));
    }

private:
    struct End {
        uint64_t seed;
        test::ProcessCounts counts;
    };
    bool hasGrown(const test::CountsOverCycles::Growth& least) const {
        const test::CountsOverCycles::Growth growth = m_counts.growth();
        return growth.handles >= least.handles || growth.threads >= least.threads ||
               growth.privateBytes >= least.privateBytes || growth.gdiObjects >= least.gdiObjects ||
               growth.userObjects >= least.userObjects;
    }
    /// The acts after which there was more than ever before, but for the first ones.
    std::vector<uint64_t> suspects() const {
        std::vector<uint64_t> found;
        test::ProcessCounts most{};
        const auto raise = [](int& to, int value) { return value > to ? (to = value, true) : false; };
        for (size_t i = 0; i < m_ends.size() && found.size() < kSuspects; ++i) {
            const test::ProcessCounts& counts = m_ends[i].counts;
            int raised = raise(most.handles, counts.handles) + raise(most.threads, counts.threads) +
                         raise(most.gdiObjects, counts.gdiObjects) + raise(most.userObjects, counts.userObjects);
            if (counts.privateBytes > most.privateBytes + (kLeastGrowth >> 4)) {
                most.privateBytes = counts.privateBytes;
                ++raised;
            }
            if (raised != 0 && i >= m_ends.size() / 3) found.push_back(m_ends[i].seed);
        }
        return found;
    }

    void part(const Act& act, uint8_t thread) {
        const Row row(thread);
        Results results;
        {
            const InCall call("threadBegins", 0, 0, 0);
            m_world.threadBegins();
        }
        for (size_t i = 0; i < act.steps.size(); ++i) {
            const Step& step = act.steps[i];
            if (step.thread != thread) continue;
            const InCall call(m_world.calls()[step.call].name, static_cast<uint32_t>(i), step.a, step.b);
            const uint32_t result = m_world.step(step);
            if (result == kNotMade) continue;
            ++results[{step.call, result}];
            ++g_made;
        }
        {
            const InCall call("threadEnds", 0, 0, 0);
            m_world.threadEnds();
        }
        const std::lock_guard lock(m_lock);
        for (const auto& [key, count] : results)
            m_results[key] += count;
    }

    World& m_world;
    Lock m_lock;
    Results m_results;
    test::CountsOverCycles m_counts;
    std::vector<End> m_ends;
};

struct Options {
    std::optional<uint64_t> seed, act, print;
    uint64_t calls = 0, times = 1;
    std::optional<std::vector<size_t>> keep;
};

bool read(int argc, char** argv, Options& options) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        const uint64_t number = std::strtoull(value, nullptr, 0);
        if (name == "--seed")
            options.seed = number;
        else if (name == "--act")
            options.act = number;
        else if (name == "--print")
            options.print = number;
        else if (name == "--calls")
            options.calls = number;
        else if (name == "--times")
            options.times = number;
        else if (name == "--keep")
            options.keep = stepsFromText(value);
        else
            return false;
    }
    return argc % 2 == 1 && int(bool(options.seed)) + int(bool(options.act)) + int(bool(options.print)) == 1;
}

Act wantedAct(uint64_t seed, const World& world, const Options& options) {
    Act act = makeAct(seed, world.calls());
    if (!options.keep) return act;
    std::vector<Step> kept;
    for (const size_t i : *options.keep)
        if (i < act.steps.size()) kept.push_back(act.steps[i]);
    act.steps = std::move(kept);
    return act;
}

} // namespace

Act makeAct(uint64_t seed, const std::vector<Call>& calls, size_t steps) {
    Random random(seed * 0x2545F4914F6CDD1D + 1);
    Act act{seed, random.below(5) == 0, 1 + static_cast<int>(random.below(kMostThreads)), {}};
    uint32_t all = 0;
    for (const Call& call : calls)
        all += act.calm ? call.calmWeight : call.weight;
    for (size_t i = 0; i < steps; ++i) {
        Step step{static_cast<uint8_t>(random.below(static_cast<uint32_t>(act.threads))), 0,
                  static_cast<uint32_t>(random.next()), static_cast<uint32_t>(random.next())};
        uint32_t at = random.below(all);
        for (;; ++step.call) {
            const uint32_t weight = act.calm ? calls[step.call].calmWeight : calls[step.call].weight;
            if (at < weight) break;
            at -= weight;
        }
        act.steps.push_back(step);
    }
    return act;
}

void fail(const char* kind, const std::string& what) {
    claimTheEnd();
    std::printf("FAILED %s: %s in act 0x%llX\n", kind, what.c_str(), static_cast<unsigned long long>(g_seed.load()));
    printDoing(false);
    endProcess(kFailed);
}

void nowIn(const char* part) {
    if (t_doing) t_doing->part = part;
}

int walkMain(int argc, char** argv, World& world) {
#ifdef KESTRA_PAGE_HEAP
    const test::TaskMemoryGuard guard;
#endif
    Options options;
    if (!read(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: --seed S --calls N | --act S [--keep 0,2-5] [--times N] | --print S [--keep 0,2-5]\n");
        return kBadUsage;
    }
    if (options.print) {
        for (const Step& step : wantedAct(*options.print, world, options).steps)
            std::printf("%u %s %x %x\n", unsigned{step.thread}, world.calls()[step.call].name, step.a, step.b);
        return kPassed;
    }
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    SetUnhandledExceptionFilter(onCrash);
    const Row row(kMostThreads);
    Walk walk(world);
    const Watch watch(world);
    if (options.act) {
        walk.judgeRepeated(wantedAct(*options.act, world, options), options.times);
        return kPassed;
    }
    unsigned acts = 0;
    const ULONGLONG began = GetTickCount64();
    for (uint64_t seed = *options.seed; g_made < options.calls; ++seed, ++acts) {
        walk.walk(makeAct(seed, world.calls()));
        if (acts % 600 == 599) {
            std::printf("%llu calls in %llu s\n", static_cast<unsigned long long>(g_made.load()),
                        (GetTickCount64() - began) / 1000);
            std::fflush(stdout);
        }
    }
    walk.print(*options.seed, acts, double(GetTickCount64() - began) / 1000);
    walk.judgeCounts(acts);
    return kPassed;
}

} // namespace kestra::walk
