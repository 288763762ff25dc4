// A log engine under the test's own handle, with outputs that keep what they are given.
#pragma once

#include "tests/support/recording_output.h"

#include <gtest/gtest.h>

namespace kestra::test {

inline constexpr uint32_t kHandle = 0x54455354; // TEST
inline constexpr uint64_t kModule = 0x7FFF00001234;

class LogEngineTest : public testing::Test {
protected:
    ~LogEngineTest() override {
        logIgnoreModule(kModule, kHandle);
        LogClose(kHandle);
        EXPECT_EQ(logFindEngine(kHandle), nullptr);
    }

    LogEngine& engine() { return *logFindOrCreateEngine(kHandle); }
    void listen(uint32_t detail, uint32_t threshold, LogOutput::Type type = LogOutput::kFile) {
        ASSERT_TRUE(engine().append(std::make_unique<RecordingOutput>(m_seen, type, detail, threshold)));
        logUpdateFloor();
    }
    static LogRecord record(uint32_t severity, uint64_t moduleKey = 1) {
        LogRecord r;
        r.severity = severity;
        r.message = L"message";
        r.moduleKey = moduleKey;
        r.threadId = 77;
        return r;
    }

    RecordingOutput::Seen m_seen;
};

} // namespace kestra::test
