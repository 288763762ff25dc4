// How many handles and threads this process has and how much memory it holds: for tests that must leave
// everything as it was.
#pragma once

#include "compliance/process_counts.h"

#include <cstddef>
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
    };

    void note() { note(processCounts()); }
    void note(const ProcessCounts& counts) { m_counts.push_back(counts); }
    Growth growth() const; ///< from at least six cycles; throws std::logic_error for fewer
    /// "25 starts: handles 52 to 52, threads 4 to 4, private memory 63,744 to 63,808 kB" with the least counts
    /// compared.
    std::string describe(const char* what) const;

private:
    ProcessCounts leastOf(size_t begin, size_t end) const;
    ProcessCounts second() const;
    ProcessCounts last() const;

    std::vector<ProcessCounts> m_counts;
};

} // namespace kestra::test
