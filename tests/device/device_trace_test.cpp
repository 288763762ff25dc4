// What the library records of its requests, against what the card says it received; and that nothing is recorded unless
// the user wants it.
#include "protocol/requests.h"
#include "protocol/user_settings.h"
#include "tests/device/device_test.h"
#include "tests/support/child_program.h"
#include "tests/support/registry_sandbox.h"
#include "trace/trace_reader.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <thread>

namespace kestra::test {
namespace {

using trace::Event;
using trace::EventKind;
using trace::Request;
using trace::Trace;

class DeviceTraceTest : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_folder = std::filesystem::temp_directory_path() /
                   ("kestra-trace-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++s_number));
        std::filesystem::create_directories(m_folder);
        m_card.clearLog();
    }
    void TearDown() override {
        SetEnvironmentVariableW(kTraceVariable, nullptr);
        SetEnvironmentVariableW(kTraceFramesVariable, nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        CardTest::TearDown();
    }
    void record() { SetEnvironmentVariableW(kTraceVariable, m_folder.wstring().c_str()); }

    std::vector<std::vector<uint8_t>> files() const {
        std::vector<std::vector<uint8_t>> files;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
            std::ifstream file(entry.path(), std::ios::binary);
            files.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        }
        return files;
    }
    Trace trace() const { return trace::readTrace(files()); }
    Trace traceIfAny() const {
        const auto all = files();
        return all.empty() || all[0].empty() ? Trace() : trace::readTrace(all);
    }

    /// Opens the card, grabs so many frames of a channel and closes it.
    void session(int frames) {
        TARNIS_HANDLE grabber = openCard();
        ASSERT_NE(grabber, nullptr);
        FrameCounter counter;
        TarnisCameraData data{};
        data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        ASSERT_EQ(TARNIS_GetDMAAccess(grabber, 0), 0u);
        ASSERT_EQ(TARNIS_StartGrab(grabber, 0, 0, &data, FrameCounter::onFrame, counter.context()), 0u);
        EXPECT_TRUE(counter.waitForFrames(frames));
        TARNIS_StopGrab(grabber, 0);
        TARNIS_ReleaseDMAAccess(grabber, 0);
        TARNIS_Done(grabber);
        EXPECT_EQ(counter.wrong, 0);
    }

    static inline int s_number = 0;
    std::filesystem::path m_folder;
};

size_t count(const Trace& trace, EventKind kind) {
    return size_t(
        std::count_if(trace.events.begin(), trace.events.end(), [=](const Event& e) { return e.kind == kind; }));
}

TEST_F(DeviceTraceTest, WithoutAWishThereIsNoFile) {
    session(3);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder));
}

TEST_F(DeviceTraceTest, HoldsEveryRequestThatTheCardReceivedWithItsBytes) {
    record();
    session(5);
    const Trace traced = trace();
    EXPECT_EQ(traced.lost, 0u);
    EXPECT_FALSE(traced.isCut);
    // By code, size of what was sent, room for the reply, its size, and the bytes: the card's minus the trace's.
    std::map<std::vector<uint32_t>, int> difference;
    const auto times = [&](std::vector<uint32_t> request, std::span<const uint8_t> sent) -> int& {
        request.insert(request.end(), sent.begin(), sent.end());
        return difference[request];
    };
    for (const simcard::LogEntry& entry : m_card.log())
        if (entry.code != wire::kGetSlotInfo)
            ++times({entry.code, entry.code == wire::kChunkTable ? entry.outSize : entry.inSize, entry.outSize,
                     entry.replySize},
                    {entry.bytes, entry.byteCount});
    for (const Request& request : traced.requests) {
        EXPECT_TRUE(request.hasBegun);
        EXPECT_TRUE(request.hasEnded) << wire::requestName(request.code);
        EXPECT_GT(request.end100ns, request.begin100ns) << wire::requestName(request.code);
        if (request.code != wire::kGetSlotInfo) // asked of every card
            --times({request.code, request.sentBytes, request.replyRoom, request.replyBytes}, request.sent);
    }
    for (const auto& [request, more] : difference)
        EXPECT_EQ(more, 0) << wire::requestName(request[0]);
    const auto& open = *std::find_if(traced.requests.begin(), traced.requests.end(),
                                     [](const Request& r) { return r.code == wire::kOpenSession; });
    ASSERT_EQ(open.reply.size(), sizeof(wire::OpenSessionReply));
    EXPECT_EQ(open.reply[0], 0);
    EXPECT_NE(open.reply[4], 0) << "the session's id";
    EXPECT_EQ(count(traced, EventKind::Opened), 1u);
    EXPECT_EQ(count(traced, EventKind::Closed), 1u);
    EXPECT_GE(count(traced, EventKind::CallbackBegin), 5u);
    EXPECT_EQ(count(traced, EventKind::CallbackBegin), count(traced, EventKind::CallbackEnd));
    for (const Event& event : traced.events) {
        if (event.kind != EventKind::CallbackBegin || event.value != DMA_STATUS_GOOD) continue;
        EXPECT_EQ(event.frameBytes, FrameCounter().frameBytes());
        EXPECT_TRUE(event.content.empty()) << "no picture unless it is asked for";
        EXPECT_NE(event.frameHash, 0u);
    }
}

TEST_F(DeviceTraceTest, SaysWhoAskedWhichOpeningOfWhichPortAndWhen) {
    record();
    const ULONGLONG before = GetTickCount64();
    session(5);
    const uint64_t elapsed100ns = (GetTickCount64() - before + 20) * 10'000; // the clock's steps
    const Trace traced = trace();
    const auto ofKind = [&](uint32_t code) {
        std::vector<const Request*> found;
        for (const Request& request : traced.requests)
            if (request.code == code) found.push_back(&request);
        return found;
    };
    const Request& open = *ofKind(wire::kOpenSession).at(0);
    EXPECT_EQ(open.threadId, GetCurrentThreadId());
    EXPECT_NE(open.opening, 0u);
    const auto locks = ofKind(wire::kLockBuffer);
    ASSERT_GE(locks.size(), 5u);
    for (const Request* lock : locks) {
        EXPECT_NE(lock->thread, open.thread) << "the grabbing thread's";
        EXPECT_NE(lock->threadId, open.threadId);
        EXPECT_EQ(lock->opening, open.opening);
        EXPECT_EQ(lock->port, 0u);
    }
    for (const Request* ofList : ofKind(wire::kGetSlotInfo))
        EXPECT_EQ(ofList->opening, 0u);
    const auto inputEvents = ofKind(wire::kRegisterInputEvent);
    ASSERT_EQ(inputEvents.size(), 2u);
    EXPECT_EQ(inputEvents[0]->port, 0u);
    EXPECT_EQ(inputEvents[1]->port, 1u);
    const uint64_t length = traced.events.back().time100ns;
    EXPECT_GT(length, 600'000u) << "five frames of sixty a second";
    EXPECT_LT(length, elapsed100ns);
    EXPECT_GT(locks[4]->end100ns - locks[0]->begin100ns, 500'000u);
    const auto opened = std::find_if(traced.events.begin(), traced.events.end(),
                                     [](const Event& event) { return event.kind == EventKind::Opened; });
    ASSERT_NE(opened, traced.events.end());
    EXPECT_EQ(opened->opening, open.opening);
    EXPECT_EQ(opened->thread, open.thread);
}

TEST_F(DeviceTraceTest, AFramesHashIsThatOfItsBytes) {
    record();
    static std::vector<uint64_t> hashes;
    hashes.clear();
    std::atomic<int> frames{0};
    TARNIS_HANDLE grabber = openCard();
    ASSERT_NE(grabber, nullptr);
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    ASSERT_EQ(TARNIS_GetDMAAccess(grabber, 0), 0u);
    const auto onFrame = [](uint64_t context, const TarnisFrameInfo* frame) {
        if (frame->dmaStatus == DMA_STATUS_GOOD)
            hashes.push_back(
                trace::frameHash({static_cast<const uint8_t*>(frame->lpRawBuffer), size_t{frame->bufferSize}}));
        ++*reinterpret_cast<std::atomic<int>*>(context);
    };
    ASSERT_EQ(TARNIS_StartGrab(grabber, 0, 0, &data, onFrame, reinterpret_cast<uint64_t>(&frames)), 0u);
    EXPECT_TRUE(waitUntil([&] { return frames >= 4; }));
    TARNIS_StopGrab(grabber, 0);
    TARNIS_ReleaseDMAAccess(grabber, 0);
    TARNIS_Done(grabber);
    std::vector<uint64_t> traced;
    for (const Event& event : trace().events)
        if (event.kind == EventKind::CallbackBegin && event.value == DMA_STATUS_GOOD) traced.push_back(event.frameHash);
    EXPECT_EQ(traced, hashes);
    EXPECT_GT(std::set<uint64_t>(traced.begin(), traced.end()).size(), 1u) << "the pictures differ";
}

TEST_F(DeviceTraceTest, KeepsAsManyFramesAsWanted) {
    record();
    SetEnvironmentVariableW(kTraceFramesVariable, L"2");
    session(5);
    int kept = 0;
    for (const Event& event : trace().events) {
        if (event.content.empty()) continue;
        ++kept;
        EXPECT_EQ(event.content.size(), event.frameBytes);
        EXPECT_EQ(trace::frameHash(event.content), event.frameHash);
    }
    EXPECT_EQ(kept, 2);
}

TEST_F(DeviceTraceTest, ARefusalIsRecordedWithItsError) {
    record();
    m_card.failNext(wire::kConnection, 0xC0000022);
    m_card.refuseNext(wire::kVideoStatus, 9);
    TARNIS_HANDLE grabber = openCard();
    uint8_t connected = 0;
    EXPECT_EQ(TARNIS_IsCameraConnected(grabber, 0, &connected), 4u);
    TarnisCameraStatus status{};
    EXPECT_EQ(TARNIS_GetCameraStatus(grabber, 0, &status), 255u);
    TARNIS_Done(grabber);
    for (const Request& request : trace().requests) {
        if (request.code == wire::kConnection) {
            EXPECT_EQ(request.win32Error, DWORD{ERROR_ACCESS_DENIED});
            EXPECT_TRUE(request.reply.empty());
        }
        if (request.code == wire::kVideoStatus) {
            EXPECT_EQ(request.win32Error, 0u);
            EXPECT_EQ(request.reply[0], 9);
        }
    }
}

TEST_F(DeviceTraceTest, ARequestThatIsNeverAnsweredIsInTheFileWhileItHangs) {
    record();
    m_card.addFault({simcard::FaultKind::NeverComplete, wire::kConnection, 0, 0, 1, {}});
    TARNIS_HANDLE grabber = openCard();
    std::thread asking([&] {
        uint8_t connected = 0;
        TARNIS_IsCameraConnected(grabber, 0, &connected);
    });
    EXPECT_TRUE(waitUntil([&] {
        const Trace now = traceIfAny();
        return std::any_of(now.requests.begin(), now.requests.end(),
                           [](const Request& r) { return r.code == wire::kConnection && !r.hasEnded; });
    }));
    m_card.clearFaults();
    asking.join();
    TARNIS_Done(grabber);
    for (const Request& request : trace().requests) {
        if (request.code == wire::kConnection) {
            EXPECT_EQ(request.win32Error, DWORD{ERROR_OPERATION_ABORTED});
        }
    }
}

TEST_F(DeviceTraceTest, ACardThatCannotBeOpenedAndOneThatComesAndGoesAreEvents) {
    record();
    TARNIS_HANDLE grabber = openCard();
    m_card.unplug();
    EXPECT_TRUE(waitUntil([&] { return count(traceIfAny(), EventKind::Closed) == 1; }));
    m_card.plug();
    EXPECT_TRUE(waitUntil([&] { return count(traceIfAny(), EventKind::Opened) == 2; }));
    TARNIS_Done(grabber);
    const Trace traced = trace();
    EXPECT_EQ(count(traced, EventKind::Removal), 1u);
    EXPECT_EQ(count(traced, EventKind::Arrival), 1u);
}

TEST_F(DeviceTraceTest, AChangeOfTheInputIsAnEvent) {
    record();
    TARNIS_HANDLE grabber = openCard();
    FrameCounter counter;
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    TARNIS_GetDMAAccess(grabber, 0);
    TARNIS_StartGrab(grabber, 0, 0, &data, FrameCounter::onFrame, counter.context());
    EXPECT_TRUE(counter.waitForFrames(2));
    simcard::Signal other = simcard::kDefaultSignal;
    other.width = 1280;
    other.height = 720;
    m_card.setSignal(other);
    EXPECT_TRUE(waitUntil([&] { return counter.disconnected == 1; }));
    TARNIS_Done(grabber);
    const Trace traced = trace();
    EXPECT_GE(count(traced, EventKind::InputEvent), 1u);
    EXPECT_TRUE(std::any_of(traced.events.begin(), traced.events.end(), [](const Event& event) {
        return event.kind == EventKind::CallbackBegin && event.value == DMA_STATUS_DICONNECTED;
    }));
}

TEST_F(DeviceTraceTest, TheRegistrysWishHoldsForEveryProcessAndEndsWithinSeconds) {
    RegistrySandbox registry;
    registry.setText(kLogKey, kTraceFolderValue, m_folder.wstring());
    TARNIS_HANDLE grabber = openCard();
    uint8_t connected = 0;
    TARNIS_IsCameraConnected(grabber, 0, &connected);
    EXPECT_TRUE(waitUntil([&] { return !traceIfAny().requests.empty(); }));
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kLogKey, kTraceFolderValue);
    EXPECT_TRUE(waitUntil([&] {
        const size_t before = traceIfAny().requests.size();
        TARNIS_IsCameraConnected(grabber, 0, &connected);
        // Within three times the writer's pause it would be in the file.
        return !waitUntil([&] { return traceIfAny().requests.size() > before; }, std::chrono::milliseconds(300));
    }));
    TARNIS_Done(grabber);
}

TEST_F(DeviceTraceTest, AFolderThatIsNotThereIsLoggedAndCostsNothingElse) {
    SetEnvironmentVariableW(kTraceVariable, (m_folder / "missing").wstring().c_str());
    LibraryLogCapture log;
    session(3);
    const auto records = log.records();
    EXPECT_EQ(std::count_if(
                  records.begin(), records.end(),
                  [](const auto& record) { return record.message.find(L"cannot be written") != std::wstring::npos; }),
              1);
}

TEST_F(DeviceTraceTest, AProgramThatIsEndedLosesAtMostTheLastSecond) {
    record();
    uint64_t ended100ns = 0;
    {
        ChildProgram program("\"" KESTRA_CTL "\" watch --json");
        ASSERT_TRUE(waitUntil([&] {
            const Trace now = traceIfAny();
            return count(now, EventKind::CallbackBegin) > 30;
        }));
        FILETIME utc;
        GetSystemTimeAsFileTime(&utc);
        ended100ns = uint64_t{utc.dwHighDateTime} << 32 | utc.dwLowDateTime;
    }
    const Trace traced = trace();
    EXPECT_GT(traced.start100ns + traced.requests.back().begin100ns + 10'000'000, ended100ns);
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }));
}

} // namespace
} // namespace kestra::test
