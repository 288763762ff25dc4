// The allocation functions of a program or module, with each block at the end of its pages and an inaccessible page
// behind it: linking page_heap.cpp replaces malloc, which operator new uses, too. What has been freed stays
// inaccessible until two million allocations later. Memory of other allocators passes through free() untouched. Any
// thread.
#pragma once

#include <cstdint>

namespace kestra::test {

/// What this program or module has allocated.
struct PageHeapCounts {
    uint64_t blocks; ///< ever
    uint64_t live;   ///< of them not freed
};
PageHeapCounts pageHeapCounts() noexcept;

/// While it lives, what the system's task allocator gives to this process comes from here, too: media types, format
/// blocks, texts. One at a time; the blocks that it gave may live longer.
class TaskMemoryGuard {
public:
    TaskMemoryGuard() noexcept;
    ~TaskMemoryGuard();
    TaskMemoryGuard(const TaskMemoryGuard&) = delete;
    TaskMemoryGuard& operator=(const TaskMemoryGuard&) = delete;
};

/// How a block that was written into before its beginning, or freed twice, ends the process when it is freed.
constexpr uint32_t kHeapDamaged = 0xC0000374; // STATUS_HEAP_CORRUPTION

} // namespace kestra::test
