// What the device library's tests share: an opened card, its log, and a callback that checks every frame.
#pragma once

#include "device/tarnis.h"
#include "simcard/model/picture.h"
#include "simcard/model/sound.h"
#include "tests/support/card_fixture.h"
#include "tests/support/recording_output.h"
#include "tests/support/wait_until.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace kestra::test {

/// Opens the card with that number through the library. @return null if there is none.
inline TARNIS_HANDLE openCard(int number = 0) {
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    TARNIS_HANDLE handle = nullptr;
    DeviceEnumData data{};
    data.size = sizeof data;
    for (int i = 0; enumerator && TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS; ++i)
        if (i == number) handle = TARNIS_InitByHandle(data.interfaceDetail);
    TARNIS_EnumClose(enumerator);
    return handle;
}

/// Counts frames and compares each with what the card made.
class FrameCounter {
public:
    std::atomic<int> good{0}, wrong{0}, missed{0};
    std::atomic<int> disconnected{0}, aborted{0}, otherStatus{0};

    explicit FrameCounter(simcard::Signal signal = simcard::kDefaultSignal) {
        m_format = {signal.width,
                    signal.height,
                    signal.interlaced != 0,
                    TARNIS_OUTPUT_YUV422_8,
                    uint8_t(signal.nominalFrameRate()),
                    simcard::PictureKind::Bars,
                    wire::toWire(wire::kDefaultConverter)};
        m_expected.resize(frameSizeBytes(m_format));
        m_source.prepare(m_format, m_expected.data(), m_expected.size(), 0);
    }
    size_t frameBytes() const { return m_expected.size(); }
    uint64_t context() { return reinterpret_cast<uint64_t>(this); }
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        reinterpret_cast<FrameCounter*>(context)->take(*frame);
    }
    bool waitForFrames(int count) {
        const int before = good;
        return waitUntil([&] { return good >= before + count; });
    }

    /// What was wrong with the first frame that was. Once the grab has ended.
    std::string firstWrong() const { return m_firstWrong; }

private:
    void noteWrong(const TarnisFrameInfo& frame) {
        if (wrong != 0) return;
        m_firstWrong = "frame " + std::to_string(frame.frameWord0) + " of " + std::to_string(frame.bufferSize) +
                       " bytes after frame " + std::to_string(m_last);
        const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
        if (!bytes || frame.bufferSize != m_expected.size()) return;
        size_t differing = 0, first = 0;
        for (size_t i = m_expected.size(); i-- > 0;)
            if (bytes[i] != m_expected[i]) ++differing, first = i;
        m_firstWrong += ": " + std::to_string(differing) + " bytes differ, the first at " + std::to_string(first) +
                        "; " + std::to_string(zerosIn(bytes)) + " are zero";
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // whoever writes late has written then
        m_firstWrong += ", 20 ms later " + std::to_string(zerosIn(bytes)) + describeMemory(frame);
    }
    size_t zerosIn(const uint8_t* bytes) const { return size_t(std::count(bytes, bytes + m_expected.size(), 0)); }
    /// Where a wrong frame lies, what is beside it, and what the card knows of it.
    std::string describeMemory(const TarnisFrameInfo& frame) const {
        const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
        MEMORY_BASIC_INFORMATION region{};
        VirtualQuery(bytes, &region, sizeof region);
        const auto* base = static_cast<const uint8_t*>(region.AllocationBase);
        char text[200];
        std::snprintf(text, sizeof text, "; at %p in the region from %p, %zu bytes, protection 0x%lX; zeros by buffer:",
                      static_cast<const void*>(bytes), static_cast<const void*>(base), size_t(region.RegionSize),
                      region.Protect);
        std::ostringstream all;
        all << text;
        for (const uint8_t* at = base; at + m_expected.size() <= base + region.RegionSize; at += m_expected.size())
            all << " " << zerosIn(at);
        try {
            for (const simcard::WrittenFrame& written : simcard::CardControl(0).writes())
                if (written.serial + 3 > frame.frameWord2 && written.serial < frame.frameWord2 + 3)
                    all << "; the card wrote " << written.serial << " (frame " << written.frameNumber << ", client "
                        << written.clientId << ", process " << written.processId << "): " << written.bytes
                        << " bytes to 0x" << std::hex << written.address << std::dec
                        << (written.written ? ", taken" : ", refused") << ", sum " << written.sourceSum;
        } catch (const simcard::ControlError& error) {
            all << "; " << error.what();
        }
        all << "; this is " << frame.frameWord2 << " in process " << GetCurrentProcessId();
        return all.str();
    }
    void take(const TarnisFrameInfo& frame) {
        switch (frame.dmaStatus) {
        case DMA_STATUS_GOOD:
            break;
        case DMA_STATUS_DICONNECTED:
            ++disconnected;
            return;
        case DMA_STATUS_ABORTED:
            ++aborted;
            return;
        default:
            ++otherStatus;
            return;
        }
        const bool right = frame.bufferSize == m_expected.size() && frame.lpRawBuffer &&
                           std::memcmp(frame.lpRawBuffer, m_source.advance(frame.frameWord0), m_expected.size()) == 0;
        if (!right) noteWrong(frame);
        if (m_last != 0 && frame.frameWord0 > m_last + 1) missed += int(frame.frameWord0 - m_last - 1);
        m_last = frame.frameWord0;
        ++(right ? good : wrong);
    }

    simcard::PictureFormat m_format;
    std::vector<uint8_t> m_expected;
    simcard::PictureSource m_source;
    uint32_t m_last = 0;
    std::string m_firstWrong;
};

/// The one record that a call is expected to leave; forgets it.
inline void expectOnly(LibraryLogCapture& log, const char* group, const char* function, const std::wstring& message,
                       uint32_t severity, int32_t code) {
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].group, group);
    EXPECT_EQ(records[0].functionName, function);
    EXPECT_EQ(records[0].message, message);
    EXPECT_EQ(records[0].severity, severity);
    EXPECT_EQ(records[0].code, code);
    EXPECT_EQ(records[0].moduleTag, "TARNIS");
    log.clear();
}

/// An opened card 0 and everything that the library logs about it.
class DeviceTest : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_grabber = openCard();
        ASSERT_NE(m_grabber, nullptr);
        m_log.clear();
        m_card.clearLog();
    }
    void TearDown() override {
        if (m_grabber) {
            EXPECT_EQ(TARNIS_Done(m_grabber), 0u);
        }
        CardTest::TearDown();
    }
    /// Claims port 0 and starts 8-bit 4:2:2.
    uint32_t start(FrameCounter& counter, int8_t port = 0) {
        if (const uint32_t code = TARNIS_GetDMAAccess(m_grabber, port)) return code;
        return restart(counter, port);
    }
    uint32_t restart(FrameCounter& counter, int8_t port = 0) {
        m_data = {};
        m_data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        return TARNIS_StartGrab(m_grabber, port, 0, &m_data, FrameCounter::onFrame, counter.context());
    }
    uint32_t stop(int8_t port = 0) {
        const uint32_t code = TARNIS_StopGrab(m_grabber, port);
        TARNIS_ReleaseDMAAccess(m_grabber, port);
        return code;
    }
    /// Codes of the requests that the card received since its log was cleared.
    std::vector<uint32_t> requestCodes() {
        std::vector<uint32_t> codes;
        for (const simcard::LogEntry& entry : m_card.log())
            codes.push_back(entry.code);
        return codes;
    }

    LibraryLogCapture m_log;
    TARNIS_HANDLE m_grabber = nullptr;
    TarnisCameraData m_data{};
};

} // namespace kestra::test
