#include "tests/com/failing_allocations.h"

#include <cstdlib>
#include <new>

namespace kestra::test {

thread_local int allocationsThatPass = -1;

bool allocationFails() noexcept {
    return allocationsThatPass >= 0 && allocationsThatPass-- == 0;
}

} // namespace kestra::test

void* operator new(size_t bytes) {
    void* block = kestra::test::allocationFails() ? nullptr : std::malloc(bytes ? bytes : 1);
    if (!block) throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
