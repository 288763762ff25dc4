// tarnis.dll is loaded, and let go at every wrong moment: no thread may lose its code, and nothing may stay behind once
// the card is closed.
#include "device/tarnis.h"
#include "tests/support/card_fixture.h"
#include "tests/support/child_program.h"
#include "tests/support/process_counts.h"
#include "tests/support/wait_until.h"
#include "win32/module.h"

#include <atomic>
#include <filesystem>

namespace kestra::test {
namespace {

using namespace std::chrono_literals;

bool isLoaded() {
    return GetModuleHandleW(L"tarnis.dll") != nullptr;
}
bool hasGone() {
    return waitUntil([] { return !isLoaded(); }, 30s);
}

/// The library's functions by their names, as a program finds them that links nothing.
#define OF(library, function) (*(library).find<decltype(function)>(#function))

class Library {
public:
    explicit operator bool() const { return bool(m_module); }
    void free() { m_module = UniqueLibrary(); }
    template <class Function>
    Function* find(const char* name) const {
        return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(m_module.get(), name)));
    }
    TARNIS_HANDLE openFirst() const {
        CDeviceEnumerator* cards = OF(*this, TARNIS_EnumOpen)();
        DeviceEnumData first{};
        first.size = sizeof first;
        TARNIS_HANDLE card = nullptr;
        if (OF(*this, TARNIS_EnumNext)(cards, &first) == TARNIS_SUCCESS)
            card = OF(*this, TARNIS_InitByHandle)(first.interfaceDetail);
        OF(*this, TARNIS_EnumClose)(cards);
        return card;
    }
    bool grab(TARNIS_HANDLE card, std::atomic<int>& frames) const {
        TarnisCameraData data{};
        data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        const auto count = [](uint64_t context, const TarnisFrameInfo*) {
            ++*reinterpret_cast<std::atomic<int>*>(context);
        };
        return OF(*this, TARNIS_GetDMAAccess)(card, 0) == TARNIS_SUCCESS &&
               OF(*this, TARNIS_StartGrab)(card, 0, 0, &data, count, reinterpret_cast<uint64_t>(&frames)) ==
                   TARNIS_SUCCESS;
    }

private:
    UniqueLibrary m_module{LoadLibraryW(TARNIS_DLL)};
};

class SdkUnload : public CardTest {
protected:
    void TearDown() override {
        CardTest::TearDown();
        EXPECT_TRUE(hasGone()) << "the library stays loaded after this test";
    }
    static void waitForMore(const std::atomic<int>& frames) {
        const int before = frames;
        EXPECT_TRUE(waitUntil([&] { return frames > before + 2; }, 30s)) << "no frames";
    }
};

} // namespace

TEST_F(SdkUnload, TheLastReferenceUnloadsIt) {
    Library library;
    ASSERT_TRUE(library);
    library.free();
    EXPECT_FALSE(isLoaded());
}

TEST_F(SdkUnload, ACardThatWasClosedLeavesNothingBehind) {
    // The compiler's runtime leaves a few handles behind whenever a module is unloaded: no more may be left than by
    // that.
    const auto handlesLeft = [](auto use) {
        const int before = processCounts().handles;
        Library library;
        use(library);
        library.free();
        EXPECT_TRUE(hasGone());
        return processCounts().handles - before;
    };
    const auto load = [](const Library&) {};
    const auto grab = [](const Library& library) {
        std::atomic<int> frames = 0;
        TARNIS_HANDLE card = library.openFirst();
        EXPECT_TRUE(library.grab(card, frames));
        waitForMore(frames);
        EXPECT_EQ(OF(library, TARNIS_Done)(card), 0u);
    };
    handlesLeft(grab); // what the system keeps for good
    const int threads = processCounts().threads, byLoading = handlesLeft(load);
    EXPECT_TRUE(waitUntil([&] { return handlesLeft(grab) <= byLoading; }, 30s)) << byLoading << " are left by loading";
    EXPECT_TRUE(waitUntil([&] { return processCounts().threads <= threads; }, 30s));
}

TEST_F(SdkUnload, FreedWhileItGrabsItStaysUntilTheCardIsClosed) {
    Library library, other;
    std::atomic<int> frames = 0;
    TARNIS_HANDLE card = library.openFirst();
    ASSERT_TRUE(library.grab(card, frames));
    other.free();
    const auto done = library.find<decltype(TARNIS_Done)>("TARNIS_Done");
    library.free();
    EXPECT_TRUE(isLoaded());
    waitForMore(frames);
    const Library again; // a call needs a reference of its own: the card's goes in it
    EXPECT_EQ(done(card), 0u);
}

TEST_F(SdkUnload, FreedWithAnOpenCardItFollowsThatCardThroughRemovalAndArrival) {
    Library library;
    TARNIS_HANDLE card = library.openFirst();
    ASSERT_NE(card, nullptr);
    const auto done = library.find<decltype(TARNIS_Done)>("TARNIS_Done");
    library.free();
    ASSERT_TRUE(isLoaded()) << "its threads have lost their code";
    m_card.unplug();
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }, 30s));
    m_card.plug();
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 1; }, 30s)) << "the card has not been opened again";
    const Library again;
    EXPECT_EQ(done(card), 0u);
}

TEST_F(SdkUnload, AProgramMayEndWhileItGrabs) {
    for (const char* how : {"return", "exit", "free"}) {
        SCOPED_TRACE(how);
        const ProgramResult leaver = runProgram("\"" SDK_LEAVER "\" " + std::string(how));
        EXPECT_EQ(leaver.exitCode, 0u);
        EXPECT_NE(leaver.output.find("leaving"), std::string::npos);
        EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }, 30s));
    }
}

TEST_F(SdkUnload, TheLogIsOpenForAsLongAsItIsLoaded) {
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    const std::filesystem::path path = std::filesystem::path(folder) / "sdk_unload_test";
    std::filesystem::remove_all(path);
    std::filesystem::create_directory(path);
    // The library asks for the user's own key, which no sandbox takes the place of: it is there while that is loaded.
    constexpr wchar_t kKey[] = L"Software\\Quorvane\\TARNIS\\SDK\\Log";
    const DWORD detail = 1;
    const std::wstring withSlash = path.wstring() + L"\\";
    RegSetKeyValueW(HKEY_CURRENT_USER, kKey, L"FileOutDetail", REG_DWORD, &detail, sizeof detail);
    RegSetKeyValueW(HKEY_CURRENT_USER, kKey, L"LogDir", REG_SZ, withSlash.c_str(), DWORD((withSlash.size() + 1) * 2));
    Library library;
    RegDeleteTreeW(HKEY_CURRENT_USER, kKey);
    ASSERT_TRUE(library);
    EXPECT_EQ(OF(library, TARNIS_Done)(nullptr), 1u);
    library.free();
    ASSERT_FALSE(std::filesystem::is_empty(path));
    for (const auto& file : std::filesystem::directory_iterator(path)) {
        const UniqueFile alone(CreateFileW(file.path().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(alone) << "still open: error " << GetLastError();
        EXPECT_GT(std::filesystem::file_size(file.path()), 20u);
    }
    std::filesystem::remove_all(path);
}

} // namespace kestra::test
