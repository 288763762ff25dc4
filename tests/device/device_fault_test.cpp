// Every fault of a request, for every request that the library makes: the documented result, the documented log line,
// nothing hangs, and the next call works.
#include "simcard/model/card.h"
#include "tests/device/device_test.h"

#include <windows.h>

#include <functional>
#include <thread>
#include <utility>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr ULONGLONG kDeadlineMs = 5000;
constexpr ULONGLONG kOpenLimitMs = 5000; ///< what the library gives each request of the opening

/// What a fault of a request does to the call that made it.
enum class Outcome {
    Mapped,   ///< the fault's own code
    Tolerated ///< logged, and the call succeeds
};

struct Case {
    const char* name;
    uint32_t code;
    Outcome outcome;
    bool claims; ///< needs port 0's DMA access
    std::function<uint32_t(TARNIS_HANDLE)> call;
};

uint32_t cameraStatus(TARNIS_HANDLE h) {
    TarnisCameraStatus status{};
    return TARNIS_GetCameraStatus(h, 0, &status);
}

uint32_t prepare(TARNIS_HANDLE h) {
    // Another selector each time: a channel that is prepared already asks the card nothing.
    static uint32_t selector = 0;
    TarnisCameraData data{};
    data.outputSelector = ++selector % 2 + 1;
    return noexp_TARNIS_Prepare(h, 0, &data);
}

uint32_t snap(TARNIS_HANDLE h) {
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    static std::vector<uint8_t> frame(1920 * 1080 * 2);
    uint32_t size = 0;
    return TARNIS_SnapFrames(h, 0, &data, frame.data(), uint32_t(frame.size()), &size);
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = {
        {"connection", wire::kConnection, Outcome::Mapped, false,
         [](auto h) {
             uint8_t connected = 0;
             return TARNIS_IsCameraConnected(h, 0, &connected);
         }},
        {"video status", wire::kVideoStatus, Outcome::Mapped, false, cameraStatus},
        {"register of the status", wire::kReadRegister, Outcome::Tolerated, false, cameraStatus},
        {"statistics of the status", wire::kGrabStatistics, Outcome::Tolerated, false, cameraStatus},
        {"size of the status", wire::kFormatSize, Outcome::Tolerated, false, cameraStatus},
        {"register", wire::kReadRegister, Outcome::Mapped, false,
         [](auto h) {
             uint16_t value = 0;
             return noexp_TARNIS_ReadI2C(h, 0, 0x22, &value);
         }},
        {"statistics", wire::kGrabStatistics, Outcome::Mapped, false,
         [](auto h) {
             TarnisGrabStat statistics{};
             return TARNIS_GetGrabStat(h, 0, &statistics);
         }},
        {"get converter", wire::kGetConverter, Outcome::Mapped, false,
         [](auto h) {
             TarnisConverterParams params{};
             return TARNIS_GetColorSpaceConverterParams(h, &params);
         }},
        {"set converter", wire::kSetConverter, Outcome::Mapped, false,
         [](auto h) { return TARNIS_SetColorSpaceConverterParams(h, &wire::kDefaultConverter); }},
        {"prepare", wire::kPrepare, Outcome::Mapped, true, prepare},
        {"stop", wire::kStopGrabbing, Outcome::Mapped, true, [](auto h) { return TARNIS_StopGrab(h, 0); }},
    };
    return all;
}

struct FaultCase {
    const char* name;
    Fault fault;
    uint32_t result;
};

/// The faults that end a request, with the library's result for each.
std::vector<FaultCase> faultsOf(uint32_t code) {
    return {{"access denied", {FaultKind::NtStatus, code, kStatusAccessDenied, 0, 1, {}}, TARNIS_ACCESS_DENIED},
            {"not supported", {FaultKind::NtStatus, code, kStatusNotSupported, 0, 1, {}}, TARNIS_NOT_SUPPORTED},
            {"invalid parameter", {FaultKind::NtStatus, code, 0xC000000D, 0, 1, {}}, TARNIS_FAILURE},
            {"driver result", {FaultKind::DriverResult, code, 9, 0, 1, {}}, TARNIS_FAILURE},
            {"short reply", {FaultKind::ShortReply, code, 3, 0, 1, {}}, TARNIS_FAILURE},
            {"delay", {FaultKind::Delay, code, 30, 0, 1, {}}, TARNIS_SUCCESS}};
}

class DeviceFault : public DeviceTest {};

} // namespace

TEST_F(DeviceFault, EachHasItsResultItsLogLineAndNoAftermath) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    for (const Case& c : cases())
        for (const FaultCase& f : faultsOf(c.code)) {
            SCOPED_TRACE(testing::Message() << c.name << ": " << f.name);
            m_log.clear();
            m_card.addFault(f.fault);
            const ULONGLONG begin = GetTickCount64();
            EXPECT_EQ(c.call(m_grabber), c.outcome == Outcome::Mapped ? f.result : uint32_t{TARNIS_SUCCESS});
            EXPECT_LT(GetTickCount64() - begin, kDeadlineMs);
            int lines = 0;
            for (const SeenRecord& record : m_log.records())
                lines += record.functionName == "TARNIS_GIS::IOCtl" && record.severity == LOG_ERROR;
            EXPECT_EQ(lines, f.result == TARNIS_SUCCESS ? 0 : 1);
            EXPECT_EQ(m_card.state().faults, 0u) << "the fault was met";
            EXPECT_EQ(c.call(m_grabber), 0u) << "the next call works";
        }
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

TEST_F(DeviceFault, ClaimAndReleaseAnswerWithTheDriversCode) {
    for (const FaultCase& f : faultsOf(wire::kChannelAccess)) {
        SCOPED_TRACE(f.name);
        m_card.addFault(f.fault);
        EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), f.result);
        if (f.result != 0) {
            EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u) << "rolled back, so it can be claimed";
        }
        m_card.addFault(f.fault);
        EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), f.result);
        EXPECT_EQ(TARNIS_SetBufferCount(m_grabber, 0, 10), TARNIS_NO_DMA_ACCESS) << "released all the same";
    }
}

TEST_F(DeviceFault, ChunksTableAndSnapAnswerWithTheDriversCode) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    const struct {
        uint32_t code;
        uint32_t (*call)(TARNIS_HANDLE);
    } direct[] = {{wire::kLockChunk, prepare}, {wire::kChunkTable, prepare}, {wire::kSnap, snap}};
    for (const auto& [code, call] : direct)
        for (const FaultCase& f : faultsOf(code)) {
            if (f.fault.kind != FaultKind::NtStatus) continue;
            SCOPED_TRACE(testing::Message() << std::hex << code << ": " << f.name);
            m_card.addFault(f.fault);
            EXPECT_EQ(call(m_grabber), f.result);
            EXPECT_EQ(call(m_grabber), 0u);
        }
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

TEST_F(DeviceFault, OpeningFailsCleanlyOrGoesOnWithoutTheSession) {
    TARNIS_Done(m_grabber);
    m_grabber = nullptr;
    for (const FaultCase& f : faultsOf(wire::kOpenSession)) {
        SCOPED_TRACE(f.name);
        m_card.addFault(f.fault);
        TARNIS_HANDLE handle = openCard();
        EXPECT_EQ(handle != nullptr, f.fault.kind != FaultKind::DriverResult)
            << "only the driver's own result closes it";
        if (handle) TARNIS_Done(handle);
        EXPECT_EQ(m_card.state().clients, 0u);
    }
    for (const FaultCase& f : faultsOf(wire::kSessionWatch)) {
        if (f.fault.kind != FaultKind::NtStatus) continue;
        SCOPED_TRACE(f.name);
        m_log.clear();
        m_card.addFault(f.fault);
        TARNIS_HANDLE handle = openCard();
        ASSERT_NE(handle, nullptr) << "the watch is not needed to work";
        int lines = 0;
        for (const SeenRecord& record : m_log.records())
            lines += record.functionName == "TARNIS_GIS::IOCtl" &&
                     record.message.starts_with(L"DeviceIOCtl(0xCE322044) failed. ErrorCode=");
        EXPECT_EQ(lines, 1) << "its refusal is logged like any other";
        EXPECT_EQ(cameraStatus(handle), 0u);
        TARNIS_Done(handle);
    }
}

namespace {

/// Starts port 0 and, once that is refused or taken, returns its code.
uint32_t startGrab(TARNIS_HANDLE h) {
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    return TARNIS_StartGrab(h, 0, 0, &data, nullptr, 0);
}

DeviceInterfaceDetail* detailOf(const std::wstring& devicePath, std::vector<std::byte>& block) {
    block.resize(sizeof(uint32_t) + (devicePath.size() + 1) * sizeof(wchar_t));
    auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(block.data());
    detail->size = uint32_t(block.size());
    std::memcpy(detail->devicePath, devicePath.c_str(), (devicePath.size() + 1) * sizeof(wchar_t));
    return detail;
}

} // namespace

TEST_F(DeviceFault, UnansweredRequestEndsWhenTheCardIsClosedWhateverItIs) {
    TARNIS_Done(m_grabber);
    std::vector<Case> all = cases();
    all.push_back(
        {"claim", wire::kChannelAccess, Outcome::Mapped, false, [](auto h) { return TARNIS_GetDMAAccess(h, 1); }});
    all.push_back(
        {"release", wire::kChannelAccess, Outcome::Mapped, true, [](auto h) { return TARNIS_ReleaseDMAAccess(h, 0); }});
    all.push_back({"chunk table", wire::kChunkTable, Outcome::Mapped, true, prepare});
    all.push_back({"snap", wire::kSnap, Outcome::Mapped, true, snap});
    all.push_back({"prepare of a start", wire::kPrepare, Outcome::Mapped, true, startGrab});
    all.push_back({"start", wire::kStartGrabbing, Outcome::Mapped, true, startGrab});
    for (const Case& c : all) {
        SCOPED_TRACE(c.name);
        m_card.reset();
        m_grabber = openCard();
        ASSERT_NE(m_grabber, nullptr);
        ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
        m_card.addFault({FaultKind::NeverComplete, c.code, 0, 0, 1, {}});
        uint32_t result = 0;
        std::thread asker([&] { result = c.call(m_grabber); });
        EXPECT_TRUE(waitUntil([&] { return m_card.state().faults == 0; }));
        const ULONGLONG begin = GetTickCount64();
        TARNIS_HANDLE closing = m_grabber;
        m_grabber = nullptr;
        EXPECT_EQ(TARNIS_Done(closing), 0u);
        EXPECT_LT(GetTickCount64() - begin, kDeadlineMs);
        asker.join();
        EXPECT_EQ(result, c.outcome == Outcome::Mapped ? uint32_t{TARNIS_FAILURE} : uint32_t{TARNIS_SUCCESS});
    }
}

TEST_F(DeviceFault, UnansweredLockOrUnlockDoesNotHoldUpAStop) {
    for (const uint32_t code : {uint32_t(wire::kLockBuffer), uint32_t(wire::kUnlockBuffer)}) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        m_card.addFault({FaultKind::NeverComplete, code, 0, 2, 1, {}});
        FrameCounter counter;
        ASSERT_EQ(start(counter), 0u);
        ASSERT_TRUE(waitUntil([&] { return m_card.state().faults == 0; }));
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(stop(), 0u);
        EXPECT_LT(GetTickCount64() - begin, 1500u) << "a thread in a request is waited for one second";
        m_card.clearFaults(); // ends the request
    }
    FrameCounter counter;
    ASSERT_EQ(start(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(3));
    EXPECT_EQ(stop(), 0u);
}

TEST_F(DeviceFault, CardThatNeverAnswersTheOpeningIsOpenAllTheSameInTime) {
    TARNIS_Done(std::exchange(m_grabber, nullptr));
    std::vector<std::byte> block;
    const auto open = [&] { return TARNIS_InitByHandle(detailOf(m_card.devicePath(), block)); };
    m_card.addFault({FaultKind::NeverComplete, wire::kOpenSession, 0, 0, 1, {}});
    ULONGLONG begin = GetTickCount64();
    m_grabber = open();
    EXPECT_GE(GetTickCount64() - begin, kOpenLimitMs - 100) << "a slow card has its time";
    EXPECT_LT(GetTickCount64() - begin, kOpenLimitMs + kDeadlineMs);
    ASSERT_NE(m_grabber, nullptr);
    EXPECT_EQ(m_log.count(L"DeviceIOCtl(0xCE322040) failed. ErrorCode=995(0x000003E3)."), 1);
    EXPECT_EQ(cameraStatus(m_grabber), TARNIS_FAILURE) << "it has no session";
    TARNIS_Done(std::exchange(m_grabber, nullptr));

    // Without its input events the card is open all the same.
    m_card.addFault({FaultKind::NeverComplete, wire::kRegisterInputEvent, 0, 0, 2, {}});
    begin = GetTickCount64();
    m_grabber = open();
    EXPECT_LT(GetTickCount64() - begin, 2 * kOpenLimitMs + kDeadlineMs);
    ASSERT_NE(m_grabber, nullptr);
    EXPECT_EQ(m_log.count(L"DeviceIOCtl(0xCE32206C) failed. ErrorCode=995(0x000003E3)."), 2);
    EXPECT_EQ(cameraStatus(m_grabber), 0u);
}

TEST_F(DeviceFault, ClosingDuringAnArrivalThatIsNeverAnsweredEnds) {
    for (const uint32_t code : {uint32_t(wire::kOpenSession), uint32_t(wire::kChannelAccess)}) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        if (!m_grabber) m_grabber = openCard();
        ASSERT_NE(m_grabber, nullptr);
        ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
        m_log.clear();
        m_card.unplug();
        ASSERT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStopped Leave") == 1; }));
        m_card.addFault({FaultKind::NeverComplete, code, 0, 0, 1, {}});
        m_card.plug();
        ASSERT_TRUE(waitUntil([&] { return m_card.state().faults == 0; })) << "the arrival has asked";
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(TARNIS_Done(std::exchange(m_grabber, nullptr)), 0u);
        EXPECT_LT(GetTickCount64() - begin, kDeadlineMs);
        EXPECT_EQ(m_card.state().clients, 0u);
    }
}

TEST_F(DeviceFault, FailedUnlocksAreLoggedAndTheFramesGoOn) {
    for (const FaultCase& f : faultsOf(wire::kUnlockBuffer)) {
        SCOPED_TRACE(f.name);
        m_log.clear();
        Fault twice = f.fault;
        twice.skip = 1;
        twice.count = 2;
        m_card.addFault(twice);
        FrameCounter counter;
        ASSERT_EQ(start(counter), 0u);
        EXPECT_TRUE(counter.waitForFrames(30)) << "three times as many as there are buffers";
        EXPECT_EQ(stop(), 0u);
        EXPECT_EQ(counter.wrong, 0);
        int lines = 0;
        for (const SeenRecord& record : m_log.records())
            lines += record.functionName == "TARNIS_GIS::IOCtl";
        EXPECT_EQ(lines, f.result == TARNIS_SUCCESS ? 0 : 2);
    }
}

} // namespace kestra::test
