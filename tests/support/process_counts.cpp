// Growth over many cycles, from the least counts of two thirds of them: single peaks are no trend.
#include "tests/support/process_counts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace kestra::test {
namespace {

constexpr size_t kDrawn = 400; // points a line

} // namespace

void CountsOverCycles::note(const ProcessCounts& counts) {
    m_last = Clock::now();
    if (m_noted.empty()) m_begin = m_last;
    m_noted.push_back({std::chrono::duration<double>(m_last - m_begin).count(), counts});
}

void CountsOverCycles::noteNowAndThen() {
    if (m_noted.empty() || Clock::now() - m_last >= std::chrono::milliseconds(100)) note();
}

ProcessCounts CountsOverCycles::leastOf(size_t begin, size_t end) const {
    if (m_noted.size() < 6) throw std::logic_error("too few cycles to tell a trend");
    ProcessCounts least = m_noted[begin].counts;
    for (size_t i = begin + 1; i < end; ++i) {
        const ProcessCounts& counts = m_noted[i].counts;
        least.handles = std::min(least.handles, counts.handles);
        least.threads = std::min(least.threads, counts.threads);
        least.privateBytes = std::min(least.privateBytes, counts.privateBytes);
        least.gdiObjects = std::min(least.gdiObjects, counts.gdiObjects);
        least.userObjects = std::min(least.userObjects, counts.userObjects);
    }
    return least;
}

ProcessCounts CountsOverCycles::second() const {
    return leastOf(m_noted.size() / 3, m_noted.size() * 2 / 3);
}

ProcessCounts CountsOverCycles::last() const {
    return leastOf(m_noted.size() * 2 / 3, m_noted.size());
}

CountsOverCycles::Growth CountsOverCycles::growth() const {
    const ProcessCounts before = second(), after = last();
    return {after.handles - before.handles, after.threads - before.threads,
            static_cast<long long>(after.privateBytes) - static_cast<long long>(before.privateBytes),
            after.gdiObjects - before.gdiObjects, after.userObjects - before.userObjects};
}

std::string CountsOverCycles::describe(const char* what) const {
    const ProcessCounts before = second(), after = last();
    char text[240];
    std::snprintf(
        text, sizeof text,
        "%zu %s: handles %d to %d, threads %d to %d, private memory %zu to %zu kB, GDI %d to %d, USER %d to %d",
        m_noted.size(), what, before.handles, after.handles, before.threads, after.threads, before.privateBytes / 1024,
        after.privateBytes / 1024, before.gdiObjects, after.gdiObjects, before.userObjects, after.userObjects);
    return text;
}

void CountsOverCycles::report(const char* what, const std::string& found) const {
    const std::string text = describe(what);
    std::printf("%s%s%s\n", text.c_str(), found.empty() ? "" : "; ", found.c_str());
    std::fflush(stdout);
    const char* path = std::getenv("KESTRA_SOAK_RESULTS");
    if (!path) return;
    const char* commit = std::getenv("KESTRA_SOAK_COMMIT");
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    std::ofstream file(path, std::ios::app | std::ios::binary);
    file << R"({"test":")" << test->test_suite_name() << '.' << test->name() << R"(","what":")" << what
         << R"(","counts":")" << text << R"(","found":")" << found << R"(","commit":")" << (commit ? commit : "unknown")
         << R"(","date":)" << std::time(nullptr) << R"(,"points":[)";
    const size_t stride = m_noted.size() / kDrawn + 1;
    for (size_t i = 0; i < m_noted.size(); i += stride) {
        const auto& [seconds, counts] = m_noted[i];
        file << (i ? ",[" : "[") << seconds << ',' << counts.handles << ',' << counts.threads << ','
             << counts.gdiObjects << ',' << counts.userObjects << ',' << counts.privateBytes / 1024 << ']';
    }
    file << "]}\n";
    if (!file.flush()) ADD_FAILURE() << "the counts cannot be written to " << path;
}

} // namespace kestra::test
