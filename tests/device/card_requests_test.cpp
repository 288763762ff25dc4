// The way of every request to the driver: whose word counts, how much of a reply must be there, what is logged, and how
// a card is closed whose driver lets go of nothing.
#include "device/card_requests.h"
#include "simcard/model/card.h"
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"

#include <gmock/gmock.h>

#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

template <class Request, class Answer>
concept IsAnsweredBy =
    requires(CardRequests& card, typename Request::Sent sent, Answer answer) { card.ask<Request>(0, sent, answer); };
static_assert(IsAnsweredBy<wire::Prepare, wire::PrepareReply> && !IsAnsweredBy<wire::Prepare, wire::FormatSizeReply>);
static_assert(!IsAnsweredBy<wire::FormatSize, wire::VideoStatusReply>);

decltype(&DeviceIoControl) g_ioctl;
uint32_t g_code; ///< whose replies are changed
void (*g_change)(unsigned char* reply, DWORD& bytes);

/// Passes everything on, and changes the replies of one code.
BOOL WINAPI changedIoctl(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                         OVERLAPPED* overlapped) {
    BOOL ok = g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
    if (code != g_code) return ok;
    if (!ok && GetLastError() == ERROR_IO_PENDING) ok = GetOverlappedResult(device, overlapped, bytes, TRUE);
    if (ok) g_change(static_cast<unsigned char*>(out), *bytes);
    return ok;
}

class CardRequestsTest : public DeviceTest {
protected:
    CardRequestsTest() {
        g_ioctl = m_ioctlHook.original();
        g_code = 0;
    }
    void SetUp() override {
        ASSERT_TRUE(m_ioctlHook.installed());
        DeviceTest::SetUp();
    }
    void change(uint32_t code, void (*how)(unsigned char* reply, DWORD& bytes)) {
        g_change = how;
        g_code = code;
    }
    void expectOnlyLine(const std::wstring& message, int32_t code) {
        expectOnly(m_log, "IO Control wrapper", "TARNIS_GIS::IOCtl", message, LOG_ERROR, code);
    }

    static constexpr int32_t kRequestFailed = 0x494F4641; // IOFA
    static constexpr int32_t kDriverRefused = 0x494F4652; // IOFR
    ScopedImportHook<decltype(&DeviceIoControl)> m_ioctlHook{"kernel32.dll", "DeviceIoControl", changedIoctl};
};

} // namespace

TEST_F(CardRequestsTest, DriversWordCountsBeforeTheLengthOfTheReply) {
    change(wire::kConnection, [](unsigned char* reply, DWORD& bytes) {
        const wire::Reply refused{7};
        std::memcpy(reply, &refused, sizeof refused);
        bytes = sizeof refused; // of the five that a full reply has
    });
    uint8_t connected = 9;
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), TARNIS_FAILURE);
    EXPECT_EQ(connected, 9) << "left alone";
    expectOnlyLine(L"DeviceIOCtl(0xCE322068) returned with result=7(0x00000007).", kDriverRefused);

    change(wire::kConnection, [](unsigned char* reply, DWORD& bytes) {
        const wire::Reply refused{7};
        std::memcpy(reply, &refused, sizeof refused);
        bytes = 3; // not even the word has arrived
    });
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), TARNIS_FAILURE);
    expectOnlyLine(L"DeviceIOCtl(0xCE322068) failed. ErrorCode=13(0x0000000D).", kRequestFailed);
}

TEST_F(CardRequestsTest, ReplyIsTooShortOnlyWithoutBytesThatAreRead) {
    TarnisGrabStat statistics{};
    m_card.addFault({FaultKind::ShortReply, wire::kGrabStatistics, 68, 0, 1, {}});
    EXPECT_EQ(TARNIS_GetGrabStat(m_grabber, 0, &statistics), TARNIS_SUCCESS);
    EXPECT_EQ(statistics.frameRate, 60u);
    EXPECT_TRUE(m_log.records().empty());

    m_card.addFault({FaultKind::ShortReply, wire::kGrabStatistics, 67, 0, 1, {}});
    EXPECT_EQ(TARNIS_GetGrabStat(m_grabber, 0, &statistics), TARNIS_FAILURE);
    expectOnlyLine(L"DeviceIOCtl(0xCE3220C4) failed. ErrorCode=13(0x0000000D).", kRequestFailed);

    // Seven bytes of the video status and ten of the size are all that a camera status reads of them.
    TarnisCameraStatus status{};
    m_card.addFault({FaultKind::ShortReply, wire::kVideoStatus, 7, 0, 1, {}});
    m_card.addFault({FaultKind::ShortReply, wire::kFormatSize, 10, 0, 1, {}});
    EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), TARNIS_SUCCESS);
    EXPECT_EQ(status.width, kDefaultSignal.width);
    EXPECT_EQ(status.height, kDefaultSignal.height);
    EXPECT_TRUE(m_log.records().empty());
    m_card.addFault({FaultKind::ShortReply, wire::kVideoStatus, 6, 0, 1, {}});
    EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), TARNIS_FAILURE);
    expectOnlyLine(L"DeviceIOCtl(0xCE322058) failed. ErrorCode=13(0x0000000D).", kRequestFailed);
}

TEST_F(CardRequestsTest, StatisticsComeFromTheirPlacesInTheReply) {
    change(wire::kGrabStatistics, [](unsigned char* reply, DWORD& bytes) {
        const struct {
            size_t offset;
            uint32_t value;
        } kFields[] = {{28, 281}, {32, 321}, {48, 481}, {56, 561}, {64, 641}};
        for (size_t i = 4; i < bytes; ++i)
            reply[i] = 0xEE;
        for (const auto& field : kFields)
            std::memcpy(reply + field.offset, &field.value, sizeof field.value);
    });
    TarnisGrabStat statistics{};
    EXPECT_EQ(TARNIS_GetGrabStat(m_grabber, 1, &statistics), TARNIS_SUCCESS);
    EXPECT_EQ(statistics.frameRate, 561u);
    EXPECT_THAT(statistics.counters, testing::ElementsAre(641u, 481u, 281u, 321u));
}

TEST_F(CardRequestsTest, RefusedSessionWatchIsLogged) {
    TARNIS_Done(std::exchange(m_grabber, nullptr));
    const ScopedImportHook<decltype(&DeviceIoControl)> hook(
        "kernel32.dll", "DeviceIoControl",
        [](HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
           OVERLAPPED* overlapped) -> BOOL {
            if (code != wire::kSessionWatch) return g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        });
    m_log.clear();
    m_grabber = openCard();
    EXPECT_NE(m_grabber, nullptr) << "a refusal of the system does not close the card";
    expectOnlyLine(L"DeviceIOCtl(0xCE322044) failed. ErrorCode=5(0x00000005).", kRequestFailed);
}

TEST_F(CardRequestsTest, CardIsClosedInBoundedTimeThoughTheDriverLetsGoOfNothing) {
    constexpr ULONGLONG kBoundMs = 15000;
    m_card.addFault({FaultKind::NeverComplete, wire::kConnection, 0, 0, 1, {}});
    uint32_t code = 0;
    std::thread asker([&] {
        uint8_t connected = 0;
        code = TARNIS_IsCameraConnected(m_grabber, 0, &connected);
    });
    ASSERT_TRUE(waitUntil([&] { return m_card.state().faults == 0; })) << "the driver has the request";
    {
        const ScopedImportHook<decltype(&CancelIoEx)> hook("kernel32.dll", "CancelIoEx",
                                                           [](HANDLE, OVERLAPPED*) -> BOOL { return TRUE; });
        ASSERT_TRUE(hook.installed());
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(TARNIS_Done(std::exchange(m_grabber, nullptr)), TARNIS_SUCCESS);
        EXPECT_LT(GetTickCount64() - begin, kBoundMs);
    }
    EXPECT_EQ(m_card.state().clients, 1u) << "no handle is closed under a request";
    m_card.clearFaults(); // the driver answers after all
    asker.join();
    EXPECT_EQ(code, TARNIS_FAILURE);
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; })) << "with the request goes the handle";
}

namespace {

/// Who is using which handle of the card, as the system's functions see it.
struct HandleUse {
    std::mutex mutex;
    std::map<const OVERLAPPED*, HANDLE> requests; ///< synchronous ones, from their issue until their end was seen
    int closedUnderOne = 0, usedAfterwards = 0, seen = 0;
};
HandleUse* g_use;
decltype(&GetOverlappedResult) g_collect;
decltype(&CloseHandle) g_close;

BOOL WINAPI watchedIoctl(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                         OVERLAPPED* overlapped) {
    if (code != wire::kConnection) return g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
    {
        const std::lock_guard lock(g_use->mutex);
        g_use->requests[overlapped] = device;
        ++g_use->seen;
    }
    const BOOL ok = g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
    const DWORD error = ok ? DWORD{ERROR_SUCCESS} : GetLastError();
    if (error != ERROR_IO_PENDING) {
        const std::lock_guard lock(g_use->mutex);
        g_use->requests.erase(overlapped);
        g_use->usedAfterwards += error == ERROR_INVALID_HANDLE;
    }
    SetLastError(error);
    return ok;
}

BOOL WINAPI watchedCollect(HANDLE device, OVERLAPPED* overlapped, DWORD* bytes, BOOL wait) {
    const BOOL ok = g_collect(device, overlapped, bytes, wait);
    const DWORD error = GetLastError();
    if (wait) {
        const std::lock_guard lock(g_use->mutex);
        g_use->requests.erase(overlapped);
    }
    SetLastError(error);
    return ok;
}

BOOL WINAPI watchedClose(HANDLE handle) {
    {
        const std::lock_guard lock(g_use->mutex);
        for (const auto& [overlapped, device] : g_use->requests)
            g_use->closedUnderOne += device == handle;
    }
    return g_close(handle);
}

} // namespace

TEST_F(CardRequestsTest, NoHandleIsClosedUnderAnotherThreadsRequest) {
    HandleUse use;
    g_use = &use;
    const ScopedImportHook<decltype(&DeviceIoControl)> ioctl("kernel32.dll", "DeviceIoControl", watchedIoctl);
    const ScopedImportHook<decltype(&GetOverlappedResult)> collect("kernel32.dll", "GetOverlappedResult",
                                                                   watchedCollect);
    const ScopedImportHook<decltype(&CloseHandle)> close("kernel32.dll", "CloseHandle", watchedClose);
    ASSERT_TRUE(ioctl.installed() && collect.installed() && close.installed());
    g_collect = collect.original();
    g_close = close.original();

    constexpr uint32_t kRequestMs = 20; // long enough that a removal nearly always meets one
    m_card.addFault({FaultKind::Delay, wire::kConnection, kRequestMs, 0, kForever, {}});
    std::atomic<bool> enough{false};
    std::vector<std::thread> askers;
    for (int i = 0; i < 4; ++i)
        askers.emplace_back([&] {
            for (uint8_t connected = 0; !enough;)
                if (TARNIS_IsCameraConnected(m_grabber, 0, &connected) != TARNIS_SUCCESS)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // pulled: every refusal is logged
        });
    for (int cycle = 0; cycle < 10; ++cycle) {
        SCOPED_TRACE(cycle);
        const auto seen = [&] {
            const std::lock_guard lock(use.mutex);
            return use.seen;
        };
        const int before = seen();
        EXPECT_TRUE(waitUntil([&] { return seen() >= before + 4; }, std::chrono::seconds(30)));
        m_log.clear();
        m_card.unplug();
        EXPECT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStopped Leave") == 1; }, std::chrono::seconds(30)));
        m_card.plug();
        EXPECT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStarted Leave") == 1; }, std::chrono::seconds(30)));
    }
    enough = true;
    for (std::thread& asker : askers)
        asker.join();

    // And a close by the client, which meets a request of each thread.
    m_card.clearFaults();
    m_card.clearLog();
    m_card.addFault({FaultKind::Delay, wire::kConnection, 300, 0, kForever, {}});
    askers.clear();
    for (int i = 0; i < 4; ++i)
        askers.emplace_back([&] {
            uint8_t connected = 0;
            TARNIS_IsCameraConnected(m_grabber, 0, &connected);
        });
    EXPECT_TRUE(waitUntil([&] { return m_card.log().size() == 4; }, std::chrono::seconds(30)));
    EXPECT_EQ(TARNIS_Done(m_grabber), TARNIS_SUCCESS);
    for (std::thread& asker : askers)
        asker.join();
    m_grabber = nullptr;
    EXPECT_EQ(use.closedUnderOne, 0);
    EXPECT_EQ(use.usedAfterwards, 0);
}

} // namespace kestra::test
