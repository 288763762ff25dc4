// What tests of the clients share: the registered module, two signals, and the comparison of received frames with the
// card's picture.
#pragma once

#include "tests/clients/client.h"
#include "tests/com/com_module.h"
#include "tests/e2e/recorded_video.h"
#include "tests/support/card_fixture.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace kestra::test {

inline constexpr wchar_t kDevice[] = L"Kestra Capture Video";
inline constexpr simcard::Signal kSignal = {1, 0, 1, 7, 0, 0, 320, 240, 0, 60, 1, 0};

inline std::string resultName(HRESULT hr) {
    if (SUCCEEDED(hr)) return "S_OK";
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

/// How FFmpeg and the comparison call a format.
inline Recording recordingOf(const std::string& format, const simcard::Signal& signal) {
    Recording recording;
    recording.format = format == "YUY2"    ? "yuyv422"
                       : format == "UYVY"  ? "uyvy422"
                       : format == "RGB24" ? "bgr24"
                                           : "bgr0";
    recording.width = static_cast<uint16_t>(signal.width);
    recording.height = static_cast<uint16_t>(signal.height);
    recording.framesPerSecond = static_cast<uint8_t>(signal.nominalFrameRate());
    return recording;
}

/// A sample as FFmpeg would write it, top line first, so that one comparison serves both.
inline std::vector<uint8_t> topDown(const std::vector<uint8_t>& sample, const Recording& recording) {
    if (!recording.rgb()) return sample;
    const size_t line = recording.lineBytes();
    std::vector<uint8_t> turned(sample.size());
    for (size_t y = 0; y < recording.height; ++y)
        std::copy_n(sample.begin() + static_cast<ptrdiff_t>(line * y), line,
                    turned.begin() + static_cast<ptrdiff_t>(line * (recording.height - 1 - y)));
    return turned;
}

/// Compares samples with what the card sent.
class SentFrames {
public:
    SentFrames(const std::string& format, const simcard::Signal& signal)
        : m_recording(recordingOf(format, signal)), m_expected(m_recording) {}
    SentFrames(const SentFrames&) = delete;
    const Recording& recording() const { return m_recording; }
    /// @return the frame's number; none: the card did not send it
    std::optional<uint32_t> numberOf(const std::vector<uint8_t>& sample) {
        const bool isWhole = sample.size() == m_recording.lineBytes() * m_recording.height;
        return isWhole ? numberOfTopDown(topDown(sample, m_recording)) : std::nullopt;
    }
    std::optional<uint32_t> numberOfTopDown(const std::vector<uint8_t>& picture) {
        uint32_t number = 0;
        if (picture.size() != m_recording.lineBytes() * m_recording.height ||
            !test::numberOf(m_recording, picture, number) || picture != m_expected.frame(number))
            return std::nullopt;
        return number;
    }

private:
    const Recording m_recording;
    Expected m_expected; // refers to it
};

/// The line of docs/clients.md that begins so. @return empty: there is none
inline std::string documentedRow(const std::string& begin) {
    std::ifstream page(KESTRA_CLIENTS_PAGE, std::ios::binary);
    for (std::string line; std::getline(page, line);)
        if (line.starts_with(begin)) return line;
    return "";
}

class ClientsTest : public CardTest {
protected:
    static void SetUpTestSuite() {
        s_module = new ComModule(KESTRA_MODULE);
        ASSERT_EQ(s_module->registerServer(), S_OK);
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(s_module->unregisterServer(), S_OK);
        delete s_module;
        s_module = nullptr;
    }
    void SetUp() override {
        CardTest::SetUp();
        m_card.setSignal(kSignal);
    }
    /// Opens and waits for frames. @return what the user meets
    static std::string attempt(Client& client, const std::string& format) {
        const HRESULT hr = client.open(kDevice, format);
        return FAILED(hr) ? std::string(client.failedAt()) + ": " + resultName(hr)
               : waitUntil([&] { return client.received() >= 4; }) ? "runs"
                                                                   : "no frames";
    }
    static inline ComModule* s_module = nullptr;
};

} // namespace kestra::test
