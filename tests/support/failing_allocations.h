// Makes an allocation with operator new fail, and counts allocations. Linking failing_allocations.cpp replaces the
// program's operator new.
#pragma once

namespace kestra::test {

/// Allocations of this thread that succeed before one fails; -1 if none is to fail, and after the failure.
extern thread_local int allocationsThatPass;

/// For other allocators that take part: true if this allocation is to fail.
bool allocationFails() noexcept;

/// The number of live blocks from operator new. Any thread.
long liveAllocations() noexcept;

} // namespace kestra::test
