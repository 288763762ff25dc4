// A random walk: a list of steps made from a seed, walked by several threads over a world of calls. The list is plain
// data, so that a walk which fails is shortened by leaving steps out. The program that walks runs as a child process: a
// failed check, a call that hangs and a crash all end it, with what was being done.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::walk {

/// Random numbers that are the same on every system.
class Random {
public:
    explicit Random(uint64_t seed) noexcept : m_state(seed) {}
    uint64_t next() noexcept {
        uint64_t z = m_state += 0x9E3779B97F4A7C15;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
        z = (z ^ z >> 27) * 0x94D049BB133111EB;
        return z ^ z >> 31;
    }
    uint32_t below(uint32_t end) noexcept { return static_cast<uint32_t>((next() >> 32) * end >> 32); }

private:
    uint64_t m_state;
};

/// One call. What `a` and `b` say is the call's own matter.
struct Step {
    uint8_t thread;
    uint16_t call;
    uint32_t a, b;
};

/// A row of the calls that a world knows.
struct Call {
    const char* name;
    uint32_t weight;     ///< how often it comes, among the others
    uint32_t calmWeight; ///< in an act without disturbances
};

/// A walk is a row of acts: each begins with nothing, and must leave nothing.
struct Act {
    uint64_t seed;
    bool calm;   ///< nothing disturbs the card: all that a call answers is known
    int threads; ///< 1 to 4
    std::vector<Step> steps;
};

constexpr size_t kStepsOfAct = 170;
/// An act that is suspected of leaving something behind is walked so often.
constexpr uint64_t kRepeated = 9;

/// The act that a seed stands for.
Act makeAct(uint64_t seed, const std::vector<Call>& calls, size_t steps = kStepsOfAct);

/// What is walked over. step() is entered by the act's threads at once.
class World {
public:
    virtual ~World() = default;
    virtual const std::vector<Call>& calls() const = 0;
    virtual void begin(const Act& act) = 0;
    /// @return the call's result; kNotMade if it was not made
    virtual uint32_t step(const Step& step) = 0;
    /// Undoes all that is left, and checks that nothing is.
    virtual void end() = 0;
    /// A call that takes longer hangs.
    virtual uint32_t hangMs() const { return 30'000; }
    /// A call has taken a second: the card may be keeping it, and now lets it go.
    virtual void rescue() = 0;
    /// Handles that the system, not what is walked over, has kept until now.
    virtual int handlesOfTheSystem() const { return 0; }
    /// The same for GDI objects.
    virtual int gdiObjectsOfTheSystem() const { return 0; }
    /// Figures of its own, for the end of the walk.
    virtual std::string summary() const { return {}; }
    /// The thread begins or has ended its part of an act.
    virtual void threadBegins() {}
    virtual void threadEnds() {}
    /// A result as text.
    virtual std::string resultText(uint32_t result) const { return std::to_string(result); }
};
constexpr uint32_t kNotMade = 0xFFFFFFFF;

/// A check has failed: says what, and in which steps the threads are, and ends the process. Any thread.
/// @param kind  one word; a walk that is shortened must go on failing with the same
[[noreturn]] void fail(const char* kind, const std::string& what);

/// The thread's present call has another part, which the watch for hanging calls should name.
void nowIn(const char* part);

/// How the process ends.
enum ExitCode : unsigned { kPassed = 0, kFailed = 1, kBadUsage = 2 };

/// main() of a program that walks.
///   --seed S --calls N       acts S, S + 1, ... until N calls have been made; then the figures
///   --act S [--keep 0,2-5] [--times N]   one act, or only those of its steps; if often, then what it leaves is judged
///   --print S [--keep ...]   the steps, one a line
int walkMain(int argc, char** argv, World& world);

} // namespace kestra::walk
