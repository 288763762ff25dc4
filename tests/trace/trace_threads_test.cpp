// Many threads add to a queue while one takes: nothing is torn, doubled or out of its thread's order, and what is
// missing was counted.
#include "trace/record_queue.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace kestra::trace {
namespace {

TEST(RecordQueue, KeepsEveryThreadsEntriesWholeAndInOrder) {
    constexpr uint32_t kThreads = 4, kEntries = 20000;
    RecordQueue queue(4096); // small: it is full at times
    std::atomic<uint32_t> running{kThreads};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kEntries; ++i) {
                const uint32_t head[] = {t, i};
                const std::vector<uint8_t> rest(i % 50, static_cast<uint8_t>(t * 50 + i));
                if (!queue.add({reinterpret_cast<const uint8_t*>(head), sizeof head}, rest)) std::this_thread::yield();
            }
            --running;
        });
    uint64_t taken = 0;
    std::vector<int64_t> last(kThreads, -1);
    const auto take = [&](std::span<const uint8_t> bytes) {
        uint32_t head[2];
        ASSERT_GE(bytes.size(), sizeof head);
        std::memcpy(head, bytes.data(), sizeof head);
        ASSERT_LT(head[0], kThreads);
        ASSERT_GT(int64_t{head[1]}, last[head[0]]);
        last[head[0]] = head[1];
        ASSERT_EQ(bytes.size(), sizeof head + head[1] % 50);
        for (const uint8_t byte : bytes.subspan(sizeof head))
            ASSERT_EQ(byte, static_cast<uint8_t>(head[0] * 50 + head[1]));
        ++taken;
    };
    while (running != 0)
        queue.drain(take);
    for (std::thread& thread : threads)
        thread.join();
    queue.drain(take);
    EXPECT_EQ(taken + queue.takeLost(), uint64_t{kThreads} * kEntries);
    EXPECT_GT(taken, 0u);
}

} // namespace
} // namespace kestra::trace
