// Runs a program that walks, and finds the shortest walk that fails like one that has failed. One thread's.
#pragma once

#include "tests/support/child_program.h"
#include "tests/walk/shrink.h"
#include "tests/walk/walk.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestra::walk {

/// How a walk has failed.
struct Fault {
    std::string kind;
    uint64_t seed; ///< of the act
    std::string output;
    bool operator==(const Fault& other) const { return kind == other.kind; }
};

/// What a program that walks has said. @return empty: it passed
inline std::optional<Fault> faultOf(const test::ProgramResult& result) {
    if (result.exitCode == 0) return {};
    Fault fault{"end", 0, result.output + result.error};
    const size_t at = result.output.rfind("FAILED ");
    if (at == std::string::npos) return fault;
    const size_t colon = result.output.find(':', at), act = result.output.find(" in act 0x", at);
    if (colon != std::string::npos) fault.kind = result.output.substr(at + 7, colon - at - 7);
    if (act != std::string::npos) fault.seed = std::strtoull(result.output.c_str() + act + 8, nullptr, 16);
    return fault;
}

/// A short walk that fails.
struct Shortest {
    std::vector<size_t> steps;
    std::string listing; ///< of the steps
    Fault fault;
};

class Walker {
public:
    using Clock = std::chrono::steady_clock;

    explicit Walker(std::string program) : m_program(std::move(program)) {}

    std::optional<Fault> walk(uint64_t seed, uint64_t calls, std::string& output, std::chrono::seconds deadline) const {
        const auto deadlineMs = std::chrono::duration_cast<std::chrono::milliseconds>(deadline).count();
        const test::ProgramResult result =
            run("--seed " + std::to_string(seed) + " --calls " + std::to_string(calls), static_cast<DWORD>(deadlineMs));
        output = result.output;
        return faultOf(result);
    }
    std::optional<Fault> act(uint64_t seed, const std::vector<size_t>& steps, uint64_t times) const {
        return faultOf(
            run("--act " + std::to_string(seed) + " --times " + std::to_string(times) + " --keep " + textOfSteps(steps),
                120'000));
    }
    std::string listing(uint64_t seed, const std::vector<size_t>& steps) const {
        return run("--print " + std::to_string(seed) + " --keep " + textOfSteps(steps), 60'000).output;
    }

    /// @param steps  of a whole act
    /// @return empty: the act does not fail like that again
    std::optional<Shortest> shortest(const Fault& fault, size_t steps, Clock::time_point until) const {
        std::vector<size_t> all(steps);
        for (size_t i = 0; i < steps; ++i)
            all[i] = i;
        std::optional<Fault> last;
        const auto inTime = [&] { return Clock::now() < until; };
        // Several threads do not meet every time: a few attempts for the whole, fewer for each of the many parts.
        const auto fails = [&](const std::vector<size_t>& some, int attempts) {
            for (int i = 0; i < attempts && inTime(); ++i)
                if (const std::optional<Fault> now = act(fault.seed, some, fault.kind == "growth" ? kRepeated : 1);
                    now && *now == fault) {
                    last = now;
                    return true;
                }
            return false;
        };
        if (!fails(all, 5)) return {};
        Shortest found{shrink(
                           all, [&](const std::vector<size_t>& some) { return fails(some, 2); }, inTime),
                       {},
                       {}};
        found.listing = listing(fault.seed, found.steps);
        found.fault = *last;
        return found;
    }

private:
    test::ProgramResult run(const std::string& arguments, DWORD deadlineMs) const {
        return test::ChildProgram("\"" + m_program + "\" " + arguments).finish(deadlineMs);
    }

    const std::string m_program;
};

} // namespace kestra::walk
