// The device library's functions, one by one: checks, texts, results, and what reaches the card.
#include "simcard/model/card.h"
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"

#include <windows.h>

#include <gmock/gmock.h>

#include <functional>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using testing::ElementsAre;

constexpr char kGrabGroup[] = "\"Grabbing Functions\"";

struct PortFunction {
    const char* name;
    const char* group;
    std::function<uint32_t(TARNIS_HANDLE, int8_t)> call;
};

const std::vector<PortFunction>& portFunctions() {
    static TarnisCameraStatus status;
    static TarnisCameraData data;
    static TarnisGrabStat statistics;
    static uint8_t connected;
    static uint16_t value;
    static const std::vector<PortFunction> all = {
        {"TARNIS_GetDMAAccess", kGrabGroup, TARNIS_GetDMAAccess},
        {"TARNIS_ReleaseDMAAccess", kGrabGroup, TARNIS_ReleaseDMAAccess},
        {"TARNIS_GetCameraStatus", kGrabGroup, [](auto h, auto p) { return TARNIS_GetCameraStatus(h, p, &status); }},
        {"TARNIS_IsCameraConnected", kGrabGroup,
         [](auto h, auto p) { return TARNIS_IsCameraConnected(h, p, &connected); }},
        {"TARNIS_SetBufferCount", kGrabGroup, [](auto h, auto p) { return TARNIS_SetBufferCount(h, p, 3); }},
        {"TARNIS_StartGrab", kGrabGroup, [](auto h, auto p) { return TARNIS_StartGrab(h, p, 0, &data, nullptr, 0); }},
        {"TARNIS_StopGrab", kGrabGroup, TARNIS_StopGrab},
        {"TARNIS_GetGrabStat", kGrabGroup, [](auto h, auto p) { return TARNIS_GetGrabStat(h, p, &statistics); }},
        {"noexp_TARNIS_Prepare", "\"Internal Functions\"",
         [](auto h, auto p) { return noexp_TARNIS_Prepare(h, p, &data); }},
        {"noexp_TARNIS_ReadI2C", "\"Internal Functions\"",
         [](auto h, auto p) { return noexp_TARNIS_ReadI2C(h, p, 0x22, &value); }},
    };
    return all;
}

class DeviceApi : public DeviceTest {};

} // namespace

TEST_F(DeviceApi, NullHandleIsRefusedByEveryFunctionBeforeItsOtherArguments) {
    for (const PortFunction& function : portFunctions()) {
        SCOPED_TRACE(function.name);
        EXPECT_EQ(function.call(nullptr, 7), 1u);
        expectOnly(m_log, function.group, function.name, L"hGrabber is NULL", 4, 1);
    }
    EXPECT_EQ(TARNIS_Done(nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, "Initializing functions", "TARNIS_Done", L"hGrabber is NULL", 4, 1);
    EXPECT_EQ(TARNIS_SnapFrames(nullptr, 0, nullptr, nullptr, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_SnapFrames", L"hGrabber is NULL", 4, 1);
    EXPECT_EQ(TARNIS_GetColorSpaceConverterParams(nullptr, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetColorSpaceConverterParams", L"hGrabber is NULL", 4, 1);
    EXPECT_EQ(TARNIS_SetColorSpaceConverterParams(nullptr, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_SetColorSpaceConverterParams", L"hGrabber is NULL", 4, 1);
}

TEST_F(DeviceApi, PortOutsideZeroAndOneIsRefusedByEveryFunction) {
    for (const PortFunction& function : portFunctions())
        for (const int8_t port : {int8_t(2), int8_t(-1)}) {
            SCOPED_TRACE(function.name);
            EXPECT_EQ(function.call(m_grabber, port), 1u);
            expectOnly(m_log, function.group, function.name, L"Invalid port " + std::to_wstring(port), 4, 1);
        }
    EXPECT_TRUE(m_card.log().empty()) << "nothing reached the card";
}

TEST_F(DeviceApi, NullPointersAreNamed) {
    EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetCameraStatus", L"pCameraStatus is NULL", 4, 1);
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_IsCameraConnected", L"pConnected is NULL", 4, 1);
    EXPECT_EQ(TARNIS_GetDefaultColorSpaceConverterParams(nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetDefaultColorSpaceConverterParams", L"pCSC is NULL", 4, 1);
    EXPECT_EQ(TARNIS_GetColorSpaceConverterParams(m_grabber, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetColorSpaceConverterParams", L"pCSC is NULL", 4, 1);
    EXPECT_EQ(TARNIS_SetColorSpaceConverterParams(m_grabber, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_SetColorSpaceConverterParams", L"pCSC is NULL", 4, 1);
    EXPECT_EQ(TARNIS_GetGrabStat(m_grabber, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetGrabStat", L"pGrabStat is NULL", 4, 1);
    EXPECT_EQ(noexp_TARNIS_Prepare(m_grabber, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    expectOnly(m_log, "\"Internal Functions\"", "noexp_TARNIS_Prepare", L"pCameraData is NULL", 4, 1);
    EXPECT_TRUE(m_card.log().empty());
}

TEST_F(DeviceApi, ChannelWithoutAccessIsRefusedAndOnlyStartLogsIt) {
    TarnisCameraData data{};
    uint32_t size = 0;
    EXPECT_EQ(TARNIS_SetBufferCount(m_grabber, 0, 10), TARNIS_NO_DMA_ACCESS);
    EXPECT_EQ(noexp_TARNIS_Prepare(m_grabber, 0, &data), TARNIS_NO_DMA_ACCESS);
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 1), TARNIS_NO_DMA_ACCESS);
    EXPECT_EQ(TARNIS_SnapFrames(m_grabber, 1, &data, nullptr, 0, &size), TARNIS_NO_DMA_ACCESS);
    EXPECT_TRUE(m_log.records().empty());
    EXPECT_EQ(TARNIS_StartGrab(m_grabber, 0, 0, &data, nullptr, 0), TARNIS_NO_DMA_ACCESS);
    expectOnly(m_log, kGrabGroup, "TARNIS_StartGrab", L"No DMA Access!", 4, 253);
    EXPECT_TRUE(m_card.log().empty());
}

TEST_F(DeviceApi, AccessIsCountedAndTheCardHearsOfTheFirstAndTheLast) {
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 1), 0u);
    EXPECT_TRUE(m_log.records().empty());
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 1), 0u);
    expectOnly(m_log, kGrabGroup, "TARNIS_GetDMAAccess", L"Channel 1 already opened", 1, 0x444D412B);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 1), 0u);
    EXPECT_EQ(m_card.log().size(), 2u) << "one release is not enough";
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 1), 0u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    expectOnly(m_log, kGrabGroup, "TARNIS_ReleaseDMAAccess", L"Channel 0 has not been open", 4, 0);

    const auto log = m_card.log();
    ASSERT_EQ(log.size(), 4u);
    const uint8_t expected[4][2] = {{0, 1}, {1, 3}, {1, 1}, {0, 0}}; // port, flags >> 8
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(log[i].code, wire::kChannelAccess);
        ASSERT_EQ(log[i].byteCount, 9u);
        EXPECT_EQ(log[i].bytes[0], expected[i][0]) << i;
        EXPECT_EQ(log[i].bytes[5], 0);
        EXPECT_EQ(log[i].bytes[6], expected[i][1]) << i;
    }
}

TEST_F(DeviceApi, AccessRefusedByTheDriverIsRolledBack) {
    m_card.failNext(wire::kChannelAccess, kStatusAccessDenied);
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), TARNIS_ACCESS_DENIED);
    expectOnly(m_log, "IO Control wrapper", "TARNIS_GIS::IOCtl",
               L"DeviceIOCtl(0xCE322060) failed. ErrorCode=5(0x00000005).", 4, 0x494F4641);
    EXPECT_EQ(TARNIS_SetBufferCount(m_grabber, 0, 10), TARNIS_NO_DMA_ACCESS) << "the channel is not claimed";
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(TARNIS_SetBufferCount(m_grabber, 0, 10), TARNIS_NO_DMA_ACCESS) << "the refused claim was not counted";
}

TEST_F(DeviceApi, ErrorsAreMappedAndLogged) {
    uint8_t connected = 77;
    const struct {
        uint32_t ntStatus, code;
        const wchar_t* message;
    } cases[] = {{kStatusAccessDenied, 4, L"DeviceIOCtl(0xCE322068) failed. ErrorCode=5(0x00000005)."},
                 {kStatusNotSupported, 254, L"DeviceIOCtl(0xCE322068) failed. ErrorCode=50(0x00000032)."},
                 {0xC000000D, 255, L"DeviceIOCtl(0xCE322068) failed. ErrorCode=87(0x00000057)."}};
    for (const auto& c : cases) {
        m_card.failNext(wire::kConnection, c.ntStatus);
        EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), c.code);
        expectOnly(m_log, "IO Control wrapper", "TARNIS_GIS::IOCtl", c.message, 4, 0x494F4641);
    }
    m_card.refuseNext(wire::kConnection, 7);
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), TARNIS_FAILURE);
    expectOnly(m_log, "IO Control wrapper", "TARNIS_GIS::IOCtl",
               L"DeviceIOCtl(0xCE322068) returned with result=7(0x00000007).", 4, 0x494F4652);
    m_card.addFault({FaultKind::ShortReply, wire::kConnection, 4, 0, 1, {}});
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), TARNIS_FAILURE) << "a short reply is no reply";
    EXPECT_EQ(connected, 77) << "left as it was on failure";
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 1, &connected), 0u);
    EXPECT_EQ(connected, 1);
    EXPECT_EQ(m_card.log().back().bytes[0], 0) << "both ports ask about input 0";
}

TEST_F(DeviceApi, CameraStatusAsksInOrderAndOnTheEvenPort) {
    TarnisCameraStatus status{};
    ASSERT_EQ(TARNIS_GetCameraStatus(m_grabber, 1, &status), 0u);
    EXPECT_EQ(status.width, 1920);
    EXPECT_EQ(status.height, 1080);
    EXPECT_EQ(status.interlaced, 0u);
    EXPECT_EQ(status.frameRate, 60);
    EXPECT_EQ(status.videoMode, kDefaultSignal.videoMode);
    EXPECT_EQ(status.signalFlags, 3);
    const auto log = m_card.log();
    EXPECT_THAT(requestCodes(), ElementsAre(wire::kVideoStatus, wire::kReadRegister, wire::kGrabStatistics,
                                            wire::kFormatSize, wire::kReadRegister, wire::kReadRegister));
    for (const LogEntry& entry : log)
        EXPECT_EQ(entry.bytes[0], 0);
    EXPECT_EQ(log[1].bytes[5], 0x22);
    EXPECT_EQ(log[5].bytes[5], 0x02);
    EXPECT_EQ(log[5].bytes[6], 0x02);
}

TEST_F(DeviceApi, RateIsRoundedToFivesAndDoubledForFields) {
    const struct {
        uint32_t measured;
        bool is24, interlaced;
        int reported;
    } cases[] = {{23, false, false, 0},  {24, false, false, 25}, {24, true, false, 24}, {25, false, false, 25},
                 {29, false, false, 30}, {30, false, true, 60},  {25, false, true, 50}, {59, false, false, 60},
                 {50, false, false, 50}, {0, false, true, 0}};
    for (const auto& c : cases) {
        Signal signal = kDefaultSignal;
        signal.measuredRate = c.measured;
        signal.interlaced = c.interlaced;
        signal.rateNumerator = c.is24 ? 24 : 25;
        if (c.measured == 0) signal = Signal{};
        m_card.setSignal(signal);
        TarnisCameraStatus status{};
        ASSERT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), 0u);
        EXPECT_EQ(status.frameRate, c.reported) << c.measured << (c.is24 ? " as 24" : "");
    }
}

TEST_F(DeviceApi, AudioShowsInTheRegisterThatBit14Selects) {
    Signal signal = kDefaultSignal;
    signal.audioInAlternateRegister = 1;
    m_card.setSignal(signal);
    TarnisCameraStatus status{};
    ASSERT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), 0u);
    EXPECT_EQ(status.signalFlags, 3);
    EXPECT_EQ(m_card.log().back().bytes[5], 0x03);
    signal.audio = 0;
    m_card.setSignal(signal);
    ASSERT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), 0u);
    EXPECT_EQ(status.signalFlags, 1);
    m_card.setSignal(Signal{});
    m_card.clearLog();
    ASSERT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), 0u);
    EXPECT_EQ(status.signalFlags, 0);
    EXPECT_EQ(m_card.log().size(), 4u) << "without a signal nobody asks for audio";
}

TEST_F(DeviceApi, FailedStatusLeavesTheRecordAsItWas) {
    TarnisCameraStatus status;
    std::memset(&status, 0x5A, sizeof status);
    const TarnisCameraStatus before = status;
    m_card.failNext(wire::kVideoStatus, kStatusAccessDenied);
    EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, 0, &status), TARNIS_ACCESS_DENIED);
    EXPECT_EQ(std::memcmp(&status, &before, sizeof status), 0);
}

TEST_F(DeviceApi, DefaultsAreExactAndSurviveTheCardAsMultiplesOf256ths) {
    TarnisConverterParams defaults;
    std::memset(&defaults, 0xFF, sizeof defaults);
    ASSERT_EQ(TARNIS_GetDefaultColorSpaceConverterParams(&defaults), 0u);
    EXPECT_EQ(defaults.YOff, 64);
    EXPECT_EQ(defaults.CrOff, 512);
    EXPECT_EQ(defaults.CbOff, 512);
    EXPECT_EQ(defaults.Y1, 1.164f);
    EXPECT_EQ(defaults.R1, 1.596f);
    EXPECT_EQ(defaults.G1, 0.813f);
    EXPECT_EQ(defaults.G2, 0.392f);
    EXPECT_EQ(defaults.B1, 2.017f);
    EXPECT_EQ(defaults.RMax, 255);
    EXPECT_EQ(defaults.RedOffset, 0);
    EXPECT_EQ(defaults.BlueGain, 1.0f);

    TarnisConverterParams sent = defaults, back{};
    sent.RedOffset = -5;
    sent.GreenGain = 0.999f;
    ASSERT_EQ(TARNIS_SetColorSpaceConverterParams(m_grabber, &sent), 0u);
    ASSERT_EQ(TARNIS_GetColorSpaceConverterParams(m_grabber, &back), 0u);
    EXPECT_EQ(back.Y1, 1.16015625f);
    EXPECT_EQ(back.GreenGain, 0.99609375f);
    EXPECT_EQ(back.RedOffset, -5);
    EXPECT_EQ(back.YOff, 64);
    const auto log = m_card.log();
    ASSERT_EQ(log.size(), 2u);
    ASSERT_EQ(log[0].byteCount, 58u);
    EXPECT_EQ(log[0].bytes[0], 0);
    EXPECT_EQ(log[0].bytes[5], 64);
    EXPECT_EQ(log[0].bytes[5 + 12], 297 & 0xFF);
    EXPECT_EQ(log[0].bytes[5 + 13], 297 >> 8);
    EXPECT_EQ(log[0].bytes[5 + 50], 0x85);
}

TEST_F(DeviceApi, OpeningRegistersBothInputEventsAndWatchesTheSession) {
    TARNIS_Done(m_grabber);
    m_grabber = nullptr;
    m_card.clearLog();
    DeviceInterfaceDetail* detail = nullptr;
    std::vector<std::byte> block(8 + m_card.devicePath().size() * 2);
    detail = reinterpret_cast<DeviceInterfaceDetail*>(block.data());
    detail->size = uint32_t(block.size());
    std::wcscpy(detail->devicePath, m_card.devicePath().c_str());
    m_grabber = TARNIS_InitByHandle(detail);
    ASSERT_NE(m_grabber, nullptr);
    const auto log = m_card.log();
    EXPECT_THAT(requestCodes(), ElementsAre(wire::kOpenSession, wire::kSessionWatch, wire::kRegisterInputEvent,
                                            wire::kRegisterInputEvent));
    EXPECT_EQ(log[1].status, 0x103u) << "the watch stays pending";
    EXPECT_EQ(log[2].bytes[0], 0);
    EXPECT_EQ(log[3].bytes[0], 1);
    EXPECT_EQ(log[3].byteCount, 13u);
    EXPECT_EQ(TARNIS_InitByHandle(nullptr), nullptr);
}

TEST_F(DeviceApi, CardThatRefusesToOpenGivesNoHandle) {
    for (const uint32_t code : {uint32_t(wire::kOpenSession), uint32_t(wire::kRegisterInputEvent)}) {
        m_card.refuseNext(code, 3);
        EXPECT_EQ(openCard(), nullptr) << std::hex << code;
        EXPECT_EQ(m_card.state().clients, 1u) << "only the fixture has it open";
    }
    m_log.clear();
    m_card.addFault({FaultKind::RefuseOpen, 0, 0, 0, kForever, {}});
    DeviceInterfaceDetail* detail = nullptr;
    std::vector<std::byte> block(8 + m_card.devicePath().size() * 2);
    detail = reinterpret_cast<DeviceInterfaceDetail*>(block.data());
    std::wcscpy(detail->devicePath, m_card.devicePath().c_str());
    EXPECT_EQ(TARNIS_InitByHandle(detail), nullptr);
    expectOnly(m_log, "Initializing functions", "TARNIS_GIS::OpenCard",
               L"CreateFile(" + m_card.devicePath() + L") failed. GetLastError=2(0x2)", 4, 2);
    m_card.clearFaults();
}

TEST_F(DeviceApi, RequestOfTheOpeningThatTheSystemRefusesLeavesTheCardOpen) {
    for (const uint32_t code :
         {uint32_t(wire::kOpenSession), uint32_t(wire::kSessionWatch), uint32_t(wire::kRegisterInputEvent)}) {
        m_card.failNext(code, kStatusAccessDenied);
        TARNIS_HANDLE handle = openCard();
        EXPECT_NE(handle, nullptr) << std::hex << code << ": only the driver's own result closes the card again";
        if (handle) TARNIS_Done(handle);
    }
}

TEST_F(DeviceApi, MissingMutexIsLoggedAndGivesNoHandle) {
    const ScopedImportHook<decltype(&CreateMutexW)> hook("kernel32.dll", "CreateMutexW",
                                                         [](LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR) -> HANDLE {
                                                             SetLastError(ERROR_NO_SYSTEM_RESOURCES);
                                                             return nullptr;
                                                         });
    ASSERT_TRUE(hook.installed());
    EXPECT_EQ(openCard(), nullptr);
    expectOnly(m_log, "Initializing functions", "TARNIS_GIS::TARNIS_GIS",
               L"mutexAccess CreateMutex() failed. GetLastError=1450(0x5AA)", 4, 1450);
}

} // namespace kestra::test
