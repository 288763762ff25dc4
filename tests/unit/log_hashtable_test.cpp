// The log's hash table, alone and under threads.
#include "log/hashtable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

void* value(uintptr_t n) {
    return reinterpret_cast<void*>(n);
}

} // namespace

TEST(LogHashtable, StartsWith151BucketsAndFindsNothing) {
    const CHashtable table;
    EXPECT_EQ(table.bucketCount(), 151u);
    EXPECT_EQ(table.find(0), nullptr);
}

TEST(LogHashtable, KeysOfOneBucketAreToldApartWhole) {
    CHashtable table;
    // The bucket ignores the top bit, the comparison does not.
    ASSERT_TRUE(table.insert(5, value(1)));
    ASSERT_TRUE(table.insert(5 + 151, value(2)));
    ASSERT_TRUE(table.insert(0x80000005, value(3)));
    EXPECT_EQ(table.find(5), value(1));
    EXPECT_EQ(table.find(5 + 151), value(2));
    EXPECT_EQ(table.find(0x80000005), value(3));
    EXPECT_EQ(table.remove(5 + 151), value(2));
    EXPECT_EQ(table.find(5 + 151), nullptr);
    EXPECT_EQ(table.find(5), value(1));
    EXPECT_EQ(table.remove(5 + 151), nullptr);
    EXPECT_EQ(table.size(), 2u);
}

TEST(LogHashtable, SecondInsertionReplacesTheValue) {
    CHashtable table;
    ASSERT_TRUE(table.insert(7, value(1)));
    ASSERT_TRUE(table.insert(7, value(2)));
    EXPECT_EQ(table.find(7), value(2));
    EXPECT_EQ(table.size(), 1u);
}

TEST(LogHashtable, FindOrInsertKeepsTheFirstValue) {
    CHashtable table;
    EXPECT_EQ(table.findOrInsert(7, value(1)), value(1));
    EXPECT_EQ(table.findOrInsert(7, value(2)), value(1));
    EXPECT_EQ(table.find(7), value(1));
}

TEST(LogHashtable, GrowsPastItsLoadFactorAndKeepsEverything) {
    CHashtable table;
    for (uint32_t key = 0; key < 113; ++key)
        ASSERT_TRUE(table.insert(key, value(key + 1)));
    EXPECT_EQ(table.bucketCount(), 151u) << "113 entries are within 0.75 of 151";
    for (uint32_t key = 113; key < 5000; ++key)
        ASSERT_TRUE(table.insert(key, value(key + 1)));
    EXPECT_GT(table.bucketCount(), 5000u);
    for (uint32_t key = 0; key < 5000; ++key)
        ASSERT_EQ(table.find(key), value(key + 1));
    size_t visited = 0;
    table.forEach([&](uint32_t key, void* v) {
        EXPECT_EQ(v, value(key + 1));
        ++visited;
    });
    EXPECT_EQ(visited, 5000u);
}

TEST(LogHashtable, ReadersSeeEveryFinishedInsertionWhileItGrows) {
    CHashtable table;
    constexpr uint32_t kThreads = 4, kKeys = 3000;
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kKeys; ++i) {
                const uint32_t key = t * kKeys + i;
                if (table.find(key) || !table.insert(key, value(key + 1))) wrong = true;
                for (uint32_t back = 0; back <= i; back += 97)
                    if (table.find(key - back) != value(key - back + 1)) wrong = true;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(wrong);
    EXPECT_EQ(table.size(), size_t{kThreads} * kKeys);
}
