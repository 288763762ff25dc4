// main() of every test program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifdef KESTRA_PAGE_HEAP
#include "tests/support/page_heap.h"
#endif

int main(int argc, char** argv) {
#ifdef KESTRA_PAGE_HEAP
    const kestra::test::TaskMemoryGuard guard;
#endif
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
