// Makes an allocation with operator new fail, and counts what is allocated. Whoever links failing_allocations.cpp
// replaces the program's operator new.
#pragma once

namespace kestra::test {

/// Of this thread: the allocation after so many fails, once, and -1 stands here then. -1: none is to fail.
extern thread_local int allocationsThatPass;

/// For other allocators that count along: true if this very allocation is to fail.
bool allocationFails() noexcept;

/// How many blocks of operator new there are. Any thread.
long liveAllocations() noexcept;

} // namespace kestra::test
