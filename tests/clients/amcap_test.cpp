// Programs on the pattern of AMCap: the file that they write, and the window in which they show the picture.
#include "tests/clients/capture_program.h"
#include "tests/clients/clients_fixture.h"

#include <filesystem>

namespace kestra::test {
namespace {

/// The samples of an AVI file's first stream, in the file's order.
std::vector<std::vector<uint8_t>> framesOf(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    const auto u32 = [&](size_t at) {
        uint32_t value = 0;
        if (at + 4 <= bytes.size()) std::memcpy(&value, &bytes[at], 4);
        return value;
    };
    const auto is = [&](size_t at, const char* code) {
        return at + 4 <= bytes.size() && std::memcmp(&bytes[at], code, 4) == 0;
    };
    std::vector<std::vector<uint8_t>> frames;
    if (!is(0, "RIFF") || !is(8, "AVI ")) return frames;
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const size_t length = u32(at + 4), inside = at + 8;
        if (is(at, "LIST")) { // its chunks are read one by one
            at = inside + 4;
            continue;
        }
        if ((is(at, "00db") || is(at, "00dc")) && inside + length <= bytes.size())
            frames.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(inside),
                                bytes.begin() + static_cast<ptrdiff_t>(inside + length));
        at = inside + length + length % 2;
    }
    return frames;
}

class AmCapTest : public ClientsTest {
protected:
    void SetUp() override {
        ClientsTest::SetUp();
        wchar_t folder[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        m_path = folder + (L"amcap-" + std::to_wstring(GetCurrentProcessId()) + L".avi");
    }
    void TearDown() override {
        DeleteFileW(m_path.c_str());
        ClientsTest::TearDown();
    }
    /// As far as the writer has told the system.
    size_t fileBytes() const {
        std::error_code none;
        const auto size = std::filesystem::file_size(m_path, none);
        return none ? 0 : static_cast<size_t>(size);
    }
    /// What a user of the file gets in this format. @return the last two cells of its row
    std::string recorded(const std::string& format) {
        AmCap program;
        const HRESULT hr = program.openFile(kDevice, format, m_path);
        if (FAILED(hr)) {
            program.close();
            return std::string(program.failedAt()) + ": " + resultName(hr) + " | |";
        }
        SentFrames sent(format, kSignal);
        const size_t frame = sent.recording().lineBytes() * sent.recording().height;
        constexpr size_t kPaused = 8;
        const bool whilePaused = waitUntil([&] { return fileBytes() > kPaused * frame; });
        EXPECT_EQ(program.start(), S_OK);
        const size_t atStart = fileBytes();
        EXPECT_TRUE(waitUntil([&] { return fileBytes() > atStart + 10 * frame; })) << format;
        program.close();
        const auto frames = framesOf(m_path);
        uint32_t last = 0;
        bool isInOrder = !frames.empty();
        for (const auto& bytes : frames) {
            const auto number = sent.numberOf(bytes);
            EXPECT_TRUE(number) << format << ": a frame that the card did not send";
            isInOrder = isInOrder && number && *number > last;
            last = number.value_or(last);
        }
        EXPECT_GE(frames.size(), kPaused + 10);
        return std::string(isInOrder ? "byte for byte" : "other pictures") + " | " +
               (whilePaused ? "head the file |" : "are not in the file |");
    }

    std::wstring m_path;
};

TEST_F(AmCapTest, AsksForACounterOfDroppedFramesInVainAndGoesOn) {
    AmCap program;
    EXPECT_EQ(attempt(program, "YUY2"), "runs");
    EXPECT_TRUE(FAILED(program.askedForDroppedFrames()));
    ComRef<IBaseFilter> filter;
    ASSERT_EQ(s_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())), S_OK);
    EXPECT_FALSE(query<IAMDroppedFrames>(onlyPin(filter.get()).get(), IID_IAMDroppedFrames));
    program.close();
}

class AmCapFile : public AmCapTest, public testing::WithParamInterface<const char*> {};

TEST_P(AmCapFile, IsWhatTheDocumentationSays) {
    const std::string begin = std::string("| AVI file of ") + GetParam() + " | ";
    const std::string row = begin + recorded(GetParam());
    std::printf("%s\n", row.c_str());
    EXPECT_EQ(documentedRow(begin), row);
}
INSTANTIATE_TEST_SUITE_P(Formats, AmCapFile, testing::Values("YUY2", "RGB24", "UYVY", "RGB32"));

// The window

/// The pixels of a window as a frame of RGB24, top line first. Empty: it has another size.
std::vector<uint8_t> pixelsOf(HWND window, int width, int height) {
    RECT client{};
    GetClientRect(window, &client);
    if (client.right != width || client.bottom != height) return {};
    const HDC screen = GetDC(window), memory = CreateCompatibleDC(screen);
    BITMAPINFO info{};
    info.bmiHeader = {sizeof info.bmiHeader, width, -height, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
    void* bits = nullptr;
    const HBITMAP bitmap = CreateDIBSection(screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    const HGDIOBJ before = SelectObject(memory, bitmap);
    BitBlt(memory, 0, 0, width, height, screen, 0, 0, SRCCOPY);
    GdiFlush();
    const auto* first = static_cast<const uint8_t*>(bits);
    std::vector<uint8_t> pixels(first, first + size_t{3} * static_cast<size_t>(width) * static_cast<size_t>(height));
    SelectObject(memory, before);
    DeleteObject(bitmap);
    DeleteDC(memory);
    ReleaseDC(window, screen);
    return pixels;
}

class AmCapWindow : public AmCapTest, public testing::WithParamInterface<const char*> {
protected:
    /// What a user sees in this format.
    std::string shown(const std::string& format) {
        AmCap program;
        const HRESULT hr = program.openWindow(kDevice, format, kTitle);
        std::string answer = std::string(program.failedAt()) + ": " + resultName(hr);
        if (SUCCEEDED(hr)) {
            SentFrames sent("RGB24", kSignal);
            const HWND window = FindWindowW(nullptr, kTitle);
            EXPECT_TRUE(window);
            RECT size = {0, 0, static_cast<LONG>(kSignal.width), static_cast<LONG>(kSignal.height)};
            AdjustWindowRect(&size, static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE)), FALSE);
            SetWindowPos(window, nullptr, 0, 0, size.right - size.left, size.bottom - size.top,
                         SWP_NOZORDER | SWP_NOMOVE | SWP_NOACTIVATE);
            std::optional<uint32_t> first, now;
            const auto look = [&] {
                now = sent.numberOfTopDown(pixelsOf(window, kSignal.width, kSignal.height));
                return now.has_value();
            };
            bool isShown = waitUntil(look);
            first = now;
            isShown = isShown && waitUntil([&] { return look() && *now > *first; });
            answer = isShown ? "byte for byte" : "another picture";
        }
        program.close();
        return answer;
    }
    static constexpr wchar_t kTitle[] = L"AMCap's picture";
};

TEST_P(AmCapWindow, IsWhatTheDocumentationSays) {
    const std::string begin = std::string("| window with ") + GetParam() + " | ";
    const std::string row = begin + shown(GetParam()) + " | |";
    std::printf("%s\n", row.c_str());
    EXPECT_EQ(documentedRow(begin), row);
}
INSTANTIATE_TEST_SUITE_P(Formats, AmCapWindow, testing::Values("YUY2", "RGB24", "UYVY", "RGB32"));

} // namespace
} // namespace kestra::test
