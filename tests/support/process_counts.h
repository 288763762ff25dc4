// How many handles and threads this process has and how much memory it holds: for tests that must leave
// everything as it was.
#pragma once

#include <cstddef>

namespace kestra::test {

struct ProcessCounts {
    int handles;
    int threads;
    size_t privateBytes; ///< committed, not shared with other processes
};

/// Counts now. Throws std::runtime_error if the system refuses.
ProcessCounts processCounts();

} // namespace kestra::test
