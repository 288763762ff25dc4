// The library of recorded cards: each trace of this folder is replayed without the signal and the faults that it was
// made with; a program must then meet what it met at the recorded card, and must ask the same of it.
//
// KESTRA_MAKE_TRACES=1 makes the traces anew, with those signals and faults, in place of replaying them.
#include "ctl/trace_diff.h"
#include "ctl/trace_files.h"
#include "protocol/requests.h"
#include "protocol/user_settings.h"
#include "simcard/ctl/replay_script.h"
#include "tests/device/device_test.h"

#include <gmock/gmock.h>

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

namespace kestra::test {
namespace {

using simcard::CardControl;
using simcard::FaultKind;
using simcard::Signal;

constexpr uint32_t kAccessDenied = 0xC0000022, kUnsuccessful = 0xC0000001;

/// What a program meets at a card: counts frames by how they ended, and their bytes.
struct Client {
    TARNIS_HANDLE card = nullptr;
    std::atomic<int> good{0}, overrun{0}, disconnected{0};
    std::atomic<uint32_t> frameBytes{0};

    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        auto& self = *reinterpret_cast<Client*>(context);
        if (frame->dmaStatus == DMA_STATUS_FIFO_OVERRUN) ++self.overrun;
        if (frame->dmaStatus == DMA_STATUS_DICONNECTED) ++self.disconnected;
        if (frame->dmaStatus != DMA_STATUS_GOOD) return;
        self.frameBytes = frame->bufferSize;
        ++self.good;
    }
    TarnisCameraStatus status() const {
        TarnisCameraStatus status{};
        EXPECT_EQ(TARNIS_GetCameraStatus(card, 0, &status), 0u);
        return status;
    }
    uint32_t start(int8_t port = 0) {
        if (const uint32_t code = TARNIS_GetDMAAccess(card, port)) return code;
        return restart(port);
    }
    uint32_t restart(int8_t port = 0) {
        TarnisCameraData data{};
        data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        data.extra = 1;
        return TARNIS_StartGrab(card, port, 0, &data, onFrame, reinterpret_cast<uint64_t>(this));
    }
    void stop(int8_t port = 0) {
        TARNIS_StopGrab(card, port);
        TARNIS_ReleaseDMAAccess(card, port);
    }
    bool waitForGood(int count) {
        return waitUntil([&] { return good >= count; });
    }
};

/// Happens at the recorded card while the program runs; a replay brings it about by itself.
using Act = std::function<void(const std::function<void(const CardControl&)>& act)>;

struct Scenario {
    const char* name; ///< of the file
    void (*prepare)(const CardControl& card);
    void (*run)(Client& client, const Act& act);
    bool asksTheSame = true; ///< false: when the card goes, time decides which requests are still made
    uint32_t openError = 0;  ///< that the program meets; otherwise it can open the card
};

void grab(Client& client, uint32_t frameBytes, int frames = 5) {
    EXPECT_EQ(client.start(), 0u);
    EXPECT_TRUE(client.waitForGood(frames));
    EXPECT_EQ(client.frameBytes, frameBytes);
    client.stop();
}

void expectSignal(Client& client, uint16_t width, uint16_t height, uint32_t interlaced, uint8_t rate, uint32_t flags) {
    const TarnisCameraStatus status = client.status();
    EXPECT_EQ(status.width, width);
    EXPECT_EQ(status.height, height);
    EXPECT_EQ(status.interlaced, interlaced);
    EXPECT_EQ(status.frameRate, rate);
    EXPECT_EQ(status.signalFlags, flags);
}

constexpr Signal kSmall = {1, 0, 0, 9, 0, 0, 64, 16, 0, 60, 1, 0};
constexpr Signal kSd = {1, 1, 1, 2, 0, 0, 720, 576, 0, 25, 1, 0};

const Scenario kScenarios[] = {
    {"1080p60", [](const CardControl&) {},
     [](Client& client, const Act&) {
         expectSignal(client, 1920, 1080, 0, 60, 3);
         grab(client, 1920 * 1080 * 2);
     }},
    {"1080i5994",
     [](const CardControl& card) {
         card.setSignal({1, 1, 1, 5, 0, 0, 1920, 1080, 0, 30000, 1001, 0});
     },
     [](Client& client, const Act&) {
         expectSignal(client, 1920, 1080, 1, 60, 3);
         grab(client, 1920 * 1080 * 2);
     }},
    {"720p50-alternate-sound",
     [](const CardControl& card) {
         card.setSignal({1, 0, 1, 7, 3, 1, 1280, 720, 0, 50, 1, 0});
     },
     [](Client& client, const Act&) {
         expectSignal(client, 1280, 720, 0, 50, 3);
         grab(client, 1280 * 720 * 2);
     }},
    {"576i50-no-sound",
     [](const CardControl& card) {
         card.setSignal({1, 1, 0, 2, 0, 0, 720, 576, 0, 25, 1, 0});
     },
     [](Client& client, const Act&) {
         expectSignal(client, 720, 576, 1, 50, 1);
         grab(client, 720 * 576 * 2);
     }},
    {"1080p24",
     [](const CardControl& card) {
         card.setSignal({1, 0, 1, 16, 0, 0, 1920, 1080, 0, 24000, 1001, 0});
     },
     [](Client& client, const Act&) {
         const TarnisCameraStatus status = client.status();
         EXPECT_EQ(status.videoMode, 16u);
         grab(client, 1920 * 1080 * 2);
     }},
    {"no-signal", [](const CardControl& card) { card.setSignal({}); },
     [](Client& client, const Act&) {
         uint8_t connected = 9;
         EXPECT_EQ(TARNIS_IsCameraConnected(client.card, 0, &connected), 0u);
         EXPECT_EQ(connected, 0);
         EXPECT_NE(client.start(), 0u);
     }},
    {"opened-by-another",
     [](const CardControl& card) {
         card.addFault({FaultKind::RefuseOpen, 0, kAccessDenied, 0, simcard::kForever, {}});
     },
     [](Client&, const Act&) {}, true, ERROR_ACCESS_DENIED},
    {"sound", [](const CardControl&) {},
     [](Client& client, const Act&) {
         EXPECT_EQ(client.start(1), 0u);
         EXPECT_TRUE(client.waitForGood(5));
         EXPECT_EQ(client.frameBytes, 3200u);
         client.stop(1);
     }},
    {"claimed-by-another", [](const CardControl& card) { card.failNext(wire::kChannelAccess, kAccessDenied); },
     [](Client& client, const Act&) {
         EXPECT_EQ(client.start(), 4u);
         EXPECT_EQ(client.start(), 0u) << "the second time it is free";
         EXPECT_TRUE(client.waitForGood(2));
         client.stop();
     }},
    {"driver-refuses",
     [](const CardControl& card) {
         card.setSignal(kSmall);
         card.refuseNext(wire::kPrepare, 3);
         card.failNext(wire::kGetConverter, 0xC00000BB);
         card.addFault({FaultKind::ShortReply, wire::kVideoStatus, 6, 0, 1, {}});
     },
     [](Client& client, const Act&) {
         TarnisConverterParams params{};
         EXPECT_EQ(TARNIS_GetColorSpaceConverterParams(client.card, &params), 254u);
         TarnisCameraStatus status{};
         EXPECT_EQ(TARNIS_GetCameraStatus(client.card, 0, &status), 255u) << "the reply is too short";
         EXPECT_NE(client.start(), 0u);
         EXPECT_EQ(client.restart(), 0u);
         EXPECT_TRUE(client.waitForGood(2));
         client.stop();
     }},
    {"slow-answer",
     [](const CardControl& card) {
         card.addFault({FaultKind::Delay, wire::kConnection, 200, 0, 1, {}});
     },
     [](Client& client, const Act&) {
         uint8_t connected = 0;
         const ULONGLONG before = GetTickCount64();
         EXPECT_EQ(TARNIS_IsCameraConnected(client.card, 0, &connected), 0u);
         EXPECT_GE(GetTickCount64() - before, 180u);
         EXPECT_EQ(connected, 1);
     }},
    {"never-answers",
     [](const CardControl& card) {
         card.addFault({FaultKind::NeverComplete, wire::kConnection, 0, 0, 1, {}});
     },
     [](Client& client, const Act&) {
         std::atomic<bool> asks{false}, hasEnded{false};
         std::thread asking([&] {
             uint8_t connected = 0;
             asks = true;
             EXPECT_EQ(TARNIS_IsCameraConnected(client.card, 0, &connected), 255u);
             hasEnded = true;
         });
         EXPECT_TRUE(waitUntil([&] { return asks && CardControl(0).state().pendingRequests > 1; }));
         EXPECT_FALSE(hasEnded);
         TARNIS_Done(client.card); // ends it
         client.card = nullptr;
         asking.join();
     }},
    {"overruns",
     [](const CardControl& card) {
         card.setSignal(kSmall);
         card.dmaStatusNext(0, DMA_STATUS_FIFO_OVERRUN, 3, 4);
     },
     [](Client& client, const Act&) {
         EXPECT_EQ(client.start(), 0u);
         EXPECT_TRUE(client.waitForGood(8));
         EXPECT_EQ(client.overrun, 3);
         client.stop();
     }},
    {"stubborn-driver",
     [](const CardControl& card) {
         card.setSignal(kSmall);
         card.failNext(wire::kLockBuffer, kUnsuccessful, 2, 3);
         card.refuseNext(wire::kLockBuffer, 17, 2, 4);
         card.failNext(wire::kUnlockBuffer, kUnsuccessful, 1, 2);
         card.refuseNext(wire::kStopGrabbing, 5);
         card.failNext(wire::kRegisterInputEvent, kUnsuccessful);
     },
     [](Client& client, const Act&) {
         EXPECT_EQ(client.start(), 0u);
         EXPECT_TRUE(client.waitForGood(8));
         EXPECT_EQ(TARNIS_StopGrab(client.card, 0), 255u);
         TARNIS_ReleaseDMAAccess(client.card, 0);
     },
     false},
    {"format-change", [](const CardControl& card) { card.setSignal(kSd); },
     [](Client& client, const Act& act) {
         expectSignal(client, 720, 576, 1, 50, 3);
         EXPECT_EQ(client.start(), 0u);
         EXPECT_TRUE(client.waitForGood(5));
         EXPECT_EQ(client.frameBytes, 720u * 576 * 2);
         act([](const CardControl& card) { card.setSignal({1, 0, 1, 7, 0, 0, 1280, 720, 0, 50, 1, 0}); });
         EXPECT_TRUE(waitUntil([&] { return client.disconnected == 1; })) << "the run ends, and says so";
         TARNIS_StopGrab(client.card, 0);
         expectSignal(client, 1280, 720, 0, 50, 3);
         const int before = client.good;
         EXPECT_GE(before, 5);
         EXPECT_EQ(client.restart(), 0u);
         EXPECT_TRUE(client.waitForGood(before + 5)) << "of the new format";
         EXPECT_EQ(client.frameBytes, 1280u * 720 * 2);
         client.stop();
         EXPECT_EQ(client.disconnected, 1);
     }},
    {"plug-cycles", [](const CardControl& card) { card.setSignal(kSmall); },
     [](Client& client, const Act& act) {
         EXPECT_EQ(client.start(), 0u);
         for (int cycle = 1; cycle <= 2; ++cycle) {
             EXPECT_TRUE(client.waitForGood(5 * cycle));
             act([](const CardControl& card) {
                 card.unplug();
                 EXPECT_TRUE(waitUntil([&] { return card.state().clients == 0; }));
                 card.plug();
             });
         }
         EXPECT_TRUE(client.waitForGood(15)) << "it goes on by itself";
         client.stop();
     },
     false},
};

std::filesystem::path traceOf(const std::string& name) {
    return std::filesystem::path(KESTRA_TRACES) / (name + ".ktrace");
}

/// The one trace of a folder.
std::filesystem::path onlyTrace(const std::filesystem::path& folder) {
    std::filesystem::path found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        found = entry.path();
    return found;
}

class TraceLibrary : public CardTest, public testing::WithParamInterface<Scenario> {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_folder = std::filesystem::temp_directory_path() /
                   ("kestra-library-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++s_number));
        std::filesystem::create_directories(m_folder);
        SetEnvironmentVariableW(kTraceVariable, m_folder.wstring().c_str());
    }
    void TearDown() override {
        SetEnvironmentVariableW(kTraceVariable, nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        CardTest::TearDown();
    }
    void run(const Act& act) {
        Client client;
        client.card = GetParam().openError == 0 ? openCard() : openUnlisted();
        ASSERT_EQ(client.card == nullptr, GetParam().openError != 0);
        GetParam().run(client, act);
        if (client.card) TARNIS_Done(client.card);
    }
    /// A card that cannot be opened is not listed.
    TARNIS_HANDLE openUnlisted() const {
        const std::wstring path = m_card.devicePath();
        std::vector<std::byte> block(sizeof(DeviceInterfaceDetail) + path.size() * sizeof(wchar_t));
        auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(block.data());
        std::wcscpy(detail->devicePath, path.c_str());
        return TARNIS_InitByHandle(detail);
    }
    std::filesystem::path m_folder;
    static inline int s_number = 0; // a process keeps the last trace's file open
};

TEST_P(TraceLibrary, AProgramMeetsWhatItMetAtTheRecordedCard) {
    const std::string kept = traceOf(GetParam().name).string();
    if (std::getenv("KESTRA_MAKE_TRACES")) {
        GetParam().prepare(m_card);
        run([this](const std::function<void(const CardControl&)>& act) { act(m_card); });
        std::filesystem::copy_file(onlyTrace(m_folder), kept, std::filesystem::copy_options::overwrite_existing);
        return;
    }
    const trace::Trace recorded = ctl::loadTrace(kept);
    m_card.setSignal({});
    const simcard::ReplayScript script = simcard::replayScriptOf(recorded);
    m_card.setReplay(script.bytes);
    if (script.openRefusal != 0)
        m_card.addFault({FaultKind::RefuseOpen, 0, script.openRefusal, 0, simcard::kForever, {}});
    run([](const std::function<void(const CardControl&)>&) {});
    const simcard::ReplayReport report = m_card.replayReport();
    EXPECT_EQ(report.isLoaded, 1u);
    EXPECT_GE(report.answered, GetParam().openError == 0 ? 5u : 0u);
    EXPECT_EQ(report.notRecorded, 0u) << wire::requestName(report.codes[0]);
    EXPECT_EQ(report.eventsLeft, 0u);
    if (!GetParam().asksTheSame) return;
    EXPECT_EQ(report.notAsked, 0u);
    const trace::Trace again = ctl::loadTrace(onlyTrace(m_folder).string());
    const ctl::TraceDiff diff = ctl::diffOf(recorded, again);
    EXPECT_TRUE(diff.lanes.empty()) << ctl::diffText(diff, recorded, again);
}

INSTANTIATE_TEST_SUITE_P(Cards, TraceLibrary, testing::ValuesIn(kScenarios), [](const auto& scenario) {
    std::string name = scenario.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(TraceFolder, HasAScenarioForEachTrace) {
    std::vector<std::string> traces, scenarios;
    for (const auto& entry : std::filesystem::directory_iterator(KESTRA_TRACES))
        if (entry.path().extension() == ".ktrace") traces.push_back(entry.path().stem().string());
    for (const Scenario& scenario : kScenarios)
        scenarios.push_back(scenario.name);
    EXPECT_THAT(traces, testing::UnorderedElementsAreArray(scenarios));
}

} // namespace
} // namespace kestra::test
