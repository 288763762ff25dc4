// Growth over many cycles, from the least counts of two thirds of them: single peaks are no trend.
#include "tests/support/process_counts.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace kestra::test {

ProcessCounts CountsOverCycles::leastOf(size_t begin, size_t end) const {
    if (m_counts.size() < 6) throw std::logic_error("too few cycles to tell a trend");
    ProcessCounts least = m_counts[begin];
    for (size_t i = begin + 1; i < end; ++i) {
        least.handles = std::min(least.handles, m_counts[i].handles);
        least.threads = std::min(least.threads, m_counts[i].threads);
        least.privateBytes = std::min(least.privateBytes, m_counts[i].privateBytes);
    }
    return least;
}

ProcessCounts CountsOverCycles::second() const {
    return leastOf(m_counts.size() / 3, m_counts.size() * 2 / 3);
}

ProcessCounts CountsOverCycles::last() const {
    return leastOf(m_counts.size() * 2 / 3, m_counts.size());
}

CountsOverCycles::Growth CountsOverCycles::growth() const {
    const ProcessCounts before = second(), after = last();
    return {after.handles - before.handles, after.threads - before.threads,
            static_cast<long long>(after.privateBytes) - static_cast<long long>(before.privateBytes)};
}

std::string CountsOverCycles::describe(const char* what) const {
    const ProcessCounts before = second(), after = last();
    char text[200];
    std::snprintf(text, sizeof text, "%zu %s: handles %d to %d, threads %d to %d, private memory %zu to %zu kB",
                  m_counts.size(), what, before.handles, after.handles, before.threads, after.threads,
                  before.privateBytes / 1024, after.privateBytes / 1024);
    return text;
}

} // namespace kestra::test
