// What this process holds: for tests that must leave everything as it was. Any thread.
#pragma once

#include <cstddef>

namespace kestra::compliance {

struct ProcessCounts {
    int handles;
    int threads;
    size_t privateBytes; ///< committed, not shared with other processes, not free in a heap
    int gdiObjects = 0;
    int userObjects = 0; ///< Wine does not count them: 0
};

int countGdiObjects();
/// Counts now. Throws std::runtime_error if the system refuses.
ProcessCounts processCounts();

} // namespace kestra::compliance
