// Waits for a condition with a deadline: the only way in which tests wait. Any thread.
#pragma once

#include <chrono>
#include <thread>

namespace kestra::test {

/// A stop that waits in vain for a callback takes the device library's whole second. What another one takes is the
/// machine's affair.
inline constexpr unsigned long long kVainStopMs = 1000;

/// Polls `condition` every millisecond until it is true or the deadline has passed.
/// @return the condition's last answer, so that EXPECT_TRUE(waitUntil(...)) fails on a time-out.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace kestra::test
