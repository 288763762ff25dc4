// How many handles and threads this process has and how much memory it holds: for tests that must leave
// everything as it was.
#pragma once

#include "compliance/process_counts.h"

#include <chrono>
#include <string>
#include <vector>

namespace kestra::test {

using compliance::ProcessCounts;
using compliance::processCounts;

/// Follows what a process holds over cycles that should leave nothing behind. The first third of the cycles is what the
/// system takes up once; compared are the least counts of the second third and of the last. So what a cycle holds for a
/// moment more than another does not show, and what each cycle leaves behind does.
class CountsOverCycles {
public:
    struct Growth {
        int handles, threads;
        long long privateBytes;
        int gdiObjects, userObjects;
    };

    void note() { note(processCounts()); }
    void note(const ProcessCounts& counts);
    /// As note(), unless the last was less than a tenth of a second ago: for a test that waits in a loop.
    void noteNowAndThen();
    Growth growth() const; ///< from at least six cycles; throws std::logic_error for fewer
    /// "25 starts: handles 52 to 52, threads 4 to 4, private memory 63744 to 63808 kB, GDI 5 to 5, USER 12 to 12" with
    /// the least counts compared.
    std::string describe(const char* what) const;
    /// Prints the description and what else the test found, and adds the counts over time to the file that
    /// KESTRA_SOAK_RESULTS names, a JSON object a line, from which `./kestra soak` draws its page. None of the texts
    /// holds a quotation mark or a backslash.
    void report(const char* what, const std::string& found = {}) const;

private:
    using Clock = std::chrono::steady_clock;
    struct Noted {
        double seconds; ///< since the first
        ProcessCounts counts;
    };
    ProcessCounts leastOf(size_t begin, size_t end) const;
    ProcessCounts second() const;
    ProcessCounts last() const;

    std::vector<Noted> m_noted;
    Clock::time_point m_begin, m_last;
};

} // namespace kestra::test
