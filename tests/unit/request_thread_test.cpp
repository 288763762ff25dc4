// The thread that works for others.
#include "sync/request_thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <vector>

using kestra::RequestThread;

namespace {

TEST(RequestThreadTest, WorkRunsOnItsThreadAndTheCallerWaits) {
    RequestThread worker;
    std::optional<std::thread::id> first, second;
    auto keepFirst = [&] { first = std::this_thread::get_id(); };
    auto keepSecond = [&] { second = std::this_thread::get_id(); };
    worker.call(keepFirst);
    ASSERT_TRUE(first.has_value()) << "done before the call returns";
    worker.call(keepSecond);
    EXPECT_EQ(first, second) << "one thread for all";
    EXPECT_NE(first, std::this_thread::get_id());
}

TEST(RequestThreadTest, ManyCallersTakeTurnsAndNobodysWorkIsLostOrDoubled) {
    constexpr int kCallers = 8, kCalls = 500;
    std::vector<int> done(kCallers);
    int inside = 0, most = 0, all = 0; // without a lock: calls take turns
    {
        RequestThread worker;
        std::vector<std::thread> callers;
        for (int caller = 0; caller < kCallers; ++caller)
            callers.emplace_back([&, caller] {
                for (int i = 0; i < kCalls; ++i) {
                    auto work = [&] {
                        most = std::max(most, ++inside);
                        ++done[caller];
                        ++all;
                        --inside;
                    };
                    worker.call(work);
                    ASSERT_EQ(done[caller], i + 1) << "done before the call returns";
                }
            });
        for (std::thread& caller : callers)
            caller.join();
    }
    EXPECT_EQ(most, 1);
    EXPECT_EQ(all, kCallers * kCalls);
}

TEST(RequestThreadTest, EndsWithoutEverHavingWorked) {
    const RequestThread worker;
}

} // namespace
