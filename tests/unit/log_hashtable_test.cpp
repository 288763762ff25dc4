// The log's hash table, alone and under threads.
#include "log/hashtable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using Table = CHashtable<const uint32_t>;

bool insert(Table& table, uint32_t key, uint32_t value) {
    auto owned = std::make_unique<const uint32_t>(value);
    return table.exchange(key, owned);
}
/// The key's value, or -1.
int64_t valueOf(const Table& table, uint32_t key) {
    const uint32_t* value = table.find(key);
    return value ? *value : -1;
}

} // namespace

TEST(LogHashtable, StartsWith151BucketsAndFindsNothing) {
    Table table;
    EXPECT_EQ(table.find(0), nullptr);
    EXPECT_EQ(table.bucketCount(), 0u) << "made on first use";
    ASSERT_TRUE(insert(table, 0, 1));
    EXPECT_EQ(table.bucketCount(), 151u);
}

TEST(LogHashtable, KeysOfOneBucketAreToldApartWhole) {
    Table table;
    // The bucket ignores the top bit, the comparison does not.
    ASSERT_TRUE(insert(table, 5, 1));
    ASSERT_TRUE(insert(table, 5 + 151, 2));
    ASSERT_TRUE(insert(table, 0x80000005, 3));
    EXPECT_EQ(valueOf(table, 5), 1);
    EXPECT_EQ(valueOf(table, 5 + 151), 2);
    EXPECT_EQ(valueOf(table, 0x80000005), 3);
    std::unique_ptr<const uint32_t> taken;
    ASSERT_TRUE(table.exchange(5 + 151, taken));
    EXPECT_EQ(*taken, 2u);
    EXPECT_EQ(table.find(5 + 151), nullptr);
    EXPECT_EQ(valueOf(table, 5), 1);
    taken.reset();
    ASSERT_TRUE(table.exchange(5 + 151, taken));
    EXPECT_EQ(taken, nullptr);
    size_t visited = 0;
    table.forEach([&](uint32_t, const uint32_t&) { ++visited; });
    EXPECT_EQ(visited, 2u);
}

TEST(LogHashtable, OwnsItsValuesToTheEnd) {
    struct Counted {
        explicit Counted(int& count) : m_count(count) { ++m_count; }
        Counted(const Counted&) = delete;
        Counted& operator=(const Counted&) = delete;
        ~Counted() { --m_count; }
        int& m_count;
    };
    int living = 0;
    {
        CHashtable<Counted> table(3, 1.0f);
        for (uint32_t key = 0; key < 20; ++key)
            ASSERT_TRUE(table.findOrInsert(key, std::make_unique<Counted>(living)));
        EXPECT_NE(table.findOrInsert(3, std::make_unique<Counted>(living)), nullptr);
        EXPECT_EQ(living, 20) << "the second of a key has gone at once";
        auto other = std::make_unique<Counted>(living);
        ASSERT_TRUE(table.exchange(4, other));
        other.reset();
        EXPECT_EQ(living, 20);
    }
    EXPECT_EQ(living, 0);
}

TEST(LogHashtable, SecondInsertionReplacesTheValue) {
    Table table;
    ASSERT_TRUE(insert(table, 7, 1));
    ASSERT_TRUE(insert(table, 7, 2));
    EXPECT_EQ(valueOf(table, 7), 2);
}

TEST(LogHashtable, FindOrInsertKeepsTheFirstValue) {
    Table table;
    EXPECT_EQ(*table.findOrInsert(7, std::make_unique<const uint32_t>(1)), 1u);
    EXPECT_EQ(*table.findOrInsert(7, std::make_unique<const uint32_t>(2)), 1u);
    EXPECT_EQ(valueOf(table, 7), 1);
    EXPECT_EQ(table.findOrInsert(8, nullptr), nullptr);
    EXPECT_EQ(table.find(8), nullptr);
}

TEST(LogHashtable, GrowsPastItsLoadFactorAndKeepsEverything) {
    Table table;
    for (uint32_t key = 0; key < 113; ++key)
        ASSERT_TRUE(insert(table, key, key + 1));
    EXPECT_EQ(table.bucketCount(), 151u) << "113 entries are within 0.75 of 151";
    for (uint32_t key = 113; key < 5000; ++key)
        ASSERT_TRUE(insert(table, key, key + 1));
    EXPECT_GT(table.bucketCount(), 5000u);
    for (uint32_t key = 0; key < 5000; ++key)
        ASSERT_EQ(valueOf(table, key), key + 1);
    size_t visited = 0;
    table.forEach([&](uint32_t key, const uint32_t& value) {
        EXPECT_EQ(value, key + 1);
        ++visited;
    });
    EXPECT_EQ(visited, 5000u);
}

TEST(LogHashtable, ReadersSeeEveryFinishedInsertionWhileItGrows) {
    Table table;
    constexpr uint32_t kThreads = 4, kKeys = 3000;
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kKeys; ++i) {
                const uint32_t key = t * kKeys + i;
                if (table.find(key) || !insert(table, key, key + 1)) wrong = true;
                for (uint32_t back = 0; back <= i; back += 97)
                    if (valueOf(table, key - back) != key - back + 1) wrong = true;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(wrong);
    size_t visited = 0;
    table.forEach([&](uint32_t, const uint32_t&) { ++visited; });
    EXPECT_EQ(visited, size_t{kThreads} * kKeys);
}
