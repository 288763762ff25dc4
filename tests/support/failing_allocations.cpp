// Replaces the allocation functions of the test program.
#include "tests/support/failing_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> live{0};

} // namespace

namespace kestra::test {

thread_local int allocationsThatPass = -1;

bool allocationFails() noexcept {
    return allocationsThatPass >= 0 && allocationsThatPass-- == 0;
}

long liveAllocations() noexcept {
    return live;
}

} // namespace kestra::test

void* operator new(size_t bytes) {
    void* block = kestra::test::allocationFails() ? nullptr : std::malloc(bytes ? bytes : 1);
    if (!block) throw std::bad_alloc();
    ++live;
    return block;
}

// The sanitizers have these forms, too: all of them are ours, or a block would be released by another allocator.
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    try {
        return operator new(bytes);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](size_t bytes) {
    return operator new(bytes);
}

void* operator new[](size_t bytes, const std::nothrow_t& kind) noexcept {
    return operator new(bytes, kind);
}

void operator delete(void* block) noexcept {
    if (block) --live;
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}

void operator delete[](void* block) noexcept {
    operator delete(block);
}

void operator delete[](void* block, size_t) noexcept {
    operator delete(block);
}
