// The page heap stops what reaches past a block, before it, or back to it.
#include "tests/support/page_heap.h"

#include <windows.h>

#include <objbase.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kestra::test {
namespace {

/// The exception that the call ends in; 0: it returns.
template <class Call>
DWORD exceptionOf(Call call) {
    static thread_local DWORD found;
    static thread_local void* back[5];
    found = 0;
    void* handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* exception) -> LONG {
        found = exception->ExceptionRecord->ExceptionCode;
        __builtin_longjmp(back, 1);
    });
    if (__builtin_setjmp(back) == 0) call();
    RemoveVectoredExceptionHandler(handler);
    return found;
}

/// Whether the byte can be written.
bool isAccessible(uintptr_t address) {
    return exceptionOf([address] { *reinterpret_cast<volatile char*>(address) = 0; }) == 0;
}
bool isAccessible(char* at) {
    return isAccessible(reinterpret_cast<uintptr_t>(at));
}

/// A pointer that the compiler knows nothing of.
char* opaque(void* block) {
    char* volatile seen = static_cast<char*>(block);
    return seen;
}

} // namespace

TEST(PageHeap, BlockOfAnySizeEndsWhereItsMemoryEnds) {
    for (size_t bytes = 1; bytes < 300; ++bytes) {
        char* block = opaque(std::malloc(bytes));
        EXPECT_TRUE(isAccessible(block) && isAccessible(block + bytes - 1)) << bytes;
        EXPECT_FALSE(isAccessible(block + bytes)) << bytes;
        std::free(block);
    }
    for (const size_t bytes : {4095, 4096, 4097, 100000}) {
        const auto block = std::make_unique<char[]>(bytes);
        EXPECT_TRUE(isAccessible(block.get()) && isAccessible(block.get() + bytes - 1)) << bytes;
        EXPECT_FALSE(isAccessible(block.get() + bytes)) << bytes;
    }
}

TEST(PageHeap, OneByteTooManyStopsTheProgram) {
    std::vector<char> bytes(13);
    char* block = opaque(bytes.data());
    EXPECT_EQ(exceptionOf([&] { block[12] = 1; }), 0u);
    EXPECT_EQ(exceptionOf([&] { block[13] = 1; }), DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(exceptionOf([&] {
                  volatile char read = block[13];
                  (void)read;
              }),
              DWORD{EXCEPTION_ACCESS_VIOLATION});
}

TEST(PageHeap, UseAfterFreeStopsTheProgramForALongTime) {
    char* block = opaque(new int(7));
    EXPECT_EQ(exceptionOf([&] { block[0] = 1; }), 0u);
    delete reinterpret_cast<int*>(block);
    EXPECT_EQ(exceptionOf([&] { block[0] = 1; }), DWORD{EXCEPTION_ACCESS_VIOLATION});
    for (int i = 0; i < 10000; ++i)
        std::free(opaque(std::malloc(100)));
    EXPECT_EQ(exceptionOf([&] { block[0] = 1; }), DWORD{EXCEPTION_ACCESS_VIOLATION});
}

TEST(PageHeap, AWriteBeforeABlockIsFoundWhenItIsFreed) {
    char* block = opaque(std::malloc(100));
    block[-1] = 1;
    EXPECT_EQ(exceptionOf([&] { std::free(block); }), kHeapDamaged);
}

TEST(PageHeap, ASecondFreeIsFound) {
    char* block = opaque(std::malloc(100));
    std::free(block);
    EXPECT_EQ(exceptionOf([&] { std::free(block); }), kHeapDamaged);
}

TEST(PageHeap, FreshMemoryIsNoZeros) {
    char* block = opaque(std::malloc(50));
    EXPECT_EQ(std::string(block, 50), std::string(50, '\xCD'));
    std::free(block);
    block = opaque(std::calloc(10, 5));
    EXPECT_EQ(std::string(block, 50), std::string(50, '\0'));
    std::free(block);
}

TEST(PageHeap, ReallocKeepsWhatFits) {
    char* block = opaque(std::realloc(nullptr, 5));
    std::memcpy(block, "12345", 5);
    const auto former = reinterpret_cast<uintptr_t>(block);
    char* longer = opaque(std::realloc(block, 5000));
    EXPECT_EQ(std::string(longer, 5), "12345");
    EXPECT_FALSE(isAccessible(former));
    char* shorter = opaque(std::realloc(longer, 3));
    EXPECT_EQ(std::string(shorter, 3), "123");
    EXPECT_FALSE(isAccessible(shorter + 3));
    std::free(shorter);
    const volatile size_t tooMuch = ~size_t{0} / 2;
    EXPECT_EQ(std::malloc(tooMuch), nullptr);
    EXPECT_EQ(std::calloc(tooMuch, 3), nullptr);
}

TEST(PageHeap, MemoryOfOtherAllocatorsPassesThrough) {
    char* copy = opaque(_strdup("the C library's own"));
    copy = opaque(std::realloc(copy, 100));
    EXPECT_STREQ(copy, "the C library's own");
    std::free(copy);
}

TEST(PageHeap, CountsWhatLives) {
    const PageHeapCounts before = pageHeapCounts();
    char* block = opaque(std::malloc(1));
    EXPECT_EQ(pageHeapCounts().live, before.live + 1);
    std::free(block);
    EXPECT_EQ(pageHeapCounts().live, before.live);
    EXPECT_EQ(pageHeapCounts().blocks, before.blocks + 1);
}

TEST(PageHeap, ThreadsShareIt) {
    const PageHeapCounts before = pageHeapCounts();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                std::vector<int> numbers(static_cast<size_t>(1 + i % 50), t);
                for (const int number : numbers)
                    ASSERT_EQ(number, t);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    EXPECT_LT(pageHeapCounts().live, before.live + 20);
    EXPECT_GE(pageHeapCounts().blocks, before.blocks + 8000);
}

TEST(TaskMemoryGuard, TaskMemoryEndsWhereItsBlockEnds) {
    char* from = opaque(CoTaskMemAlloc(10)); // from before
    {
        const TaskMemoryGuard guard;
        for (const size_t bytes : {1, 12, 88, 5000}) {
            char* block = opaque(CoTaskMemAlloc(bytes));
            EXPECT_TRUE(isAccessible(block) && isAccessible(block + bytes - 1)) << bytes;
            EXPECT_FALSE(isAccessible(block + bytes)) << bytes;
            CoTaskMemFree(block);
            EXPECT_FALSE(isAccessible(block)) << bytes;
        }
        char* block = opaque(CoTaskMemAlloc(4));
        std::memcpy(block, "1234", 4);
        char* longer = opaque(CoTaskMemRealloc(block, 400));
        EXPECT_EQ(std::string(longer, 4), "1234");
        EXPECT_FALSE(isAccessible(longer + 400));
        EXPECT_FALSE(isAccessible(block));
        CoTaskMemFree(longer);
        CoTaskMemFree(from);
        from = opaque(CoTaskMemAlloc(10));
    }
    CoTaskMemFree(from); // from within
    char* after = opaque(CoTaskMemAlloc(10));
    CoTaskMemFree(after);
}

} // namespace kestra::test
