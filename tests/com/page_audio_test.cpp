// The page "Audio Format".
#include "tests/com/page_audio_graph.h"
#include "tests/com/page_test.h"
#include "tests/support/own_dialogs.h"

#include <atomic>
#include <thread>

namespace kestra::test {
namespace {

class AudioPage : public PageTest {
protected:
    void openAudio() { openOnDouble(CLSID_KestraAudioPropertyPage); }
    LRESULT list(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const {
        return SendMessageW(m_host.control(IDC_BITS), message, wParam, lParam);
    }
    /// As a user would: the list changes and notifies the page.
    void choose(int index) const {
        list(CB_SETCURSEL, WPARAM(index));
        SendMessageW(m_host.dialog(), WM_COMMAND, MAKEWPARAM(IDC_BITS, CBN_SELCHANGE),
                     reinterpret_cast<LPARAM>(m_host.control(IDC_BITS)));
    }
};

/// Presses OK in every message box that comes up while the object lives, and keeps what it said.
class BoxClicker {
public:
    BoxClicker() : m_thread([this] { watch(); }) {}
    ~BoxClicker() { finish(); }
    BoxClicker(const BoxClicker&) = delete;
    BoxClicker& operator=(const BoxClicker&) = delete;
    /// Stops waiting for boxes; their texts may be read.
    void finish() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }
    int boxes = 0;
    HWND owner = nullptr;
    std::wstring caption, text;
    int buttons = 0;

private:
    static bool isOpenBox(HWND window) {
        return IsWindowVisible(window) && GetParent(window) && (GetWindowLongPtrW(window, GWL_STYLE) & WS_POPUP);
    }
    void watch() {
        while (!m_stop) {
            HWND box = nullptr;
            waitUntil([&] {
                box = findOwnDialog(isOpenBox);
                return box || m_stop;
            });
            if (!box) continue;
            ++boxes;
            owner = GetWindow(box, GW_OWNER);
            wchar_t buffer[256];
            GetWindowTextW(box, buffer, 256);
            caption = buffer;
            buttons = 0;
            for (HWND child = GetWindow(box, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT)) {
                GetClassNameW(child, buffer, 256);
                if (lstrcmpW(buffer, L"Button") == 0 && IsWindowVisible(child)) ++buttons;
                if (lstrcmpW(buffer, L"Static") != 0) continue;
                GetWindowTextW(child, buffer, 256);
                if (*buffer) text = buffer;
            }
            SendMessageW(box, WM_COMMAND, IDOK, 0);
            waitUntil([&] { return !IsWindow(box) || m_stop; });
        }
    }
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

TEST_F(AudioPage, HasItsTitleDialogTextsAndList) {
    openAudio();
    EXPECT_EQ(m_host.title(), L"Audio Format");
    EXPECT_NE(FindResourceW(m_module.handle(), MAKEINTRESOURCEW(102), MAKEINTRESOURCEW(5)), nullptr);
    std::wstring texts;
    for (const HWND child : m_host.children()) {
        wchar_t text[128];
        GetWindowTextW(child, text, 128);
        texts += std::wstring(L"|") + text + L"|";
    }
    EXPECT_NE(texts.find(L"|48000 Hz, stereo (2 channels)|"), std::wstring::npos);
    EXPECT_NE(texts.find(L"| Select &bits per channel:|"), std::wstring::npos);
    ASSERT_EQ(list(CB_GETCOUNT), 2);
    wchar_t entry[32];
    list(CB_GETLBTEXT, 0, reinterpret_cast<LPARAM>(entry));
    EXPECT_STREQ(entry, L"16 bits");
    list(CB_GETLBTEXT, 1, reinterpret_cast<LPARAM>(entry));
    EXPECT_STREQ(entry, L"24 bits");
    EXPECT_EQ(m_host.tabOrder(), std::vector<int>{IDC_BITS});
    SetFocus(m_host.frame());
    m_host.accessKey(L'b');
    EXPECT_EQ(GetFocus(), m_host.control(IDC_BITS));
}

TEST_F(AudioPage, ShowsThePinsWidthAndIsNotDirty) {
    for (const unsigned char depth : {0, 1}) {
        m_double.bitDepth = depth;
        openAudio();
        EXPECT_EQ(list(CB_GETCURSEL), depth);
        EXPECT_FALSE(m_host.isDirty());
        EXPECT_EQ(m_host.apply(), S_OK);
        EXPECT_EQ(m_host.dirtyReports, 0);
        m_host.close();
    }
    EXPECT_TRUE(m_double.puts.empty());
}

TEST_F(AudioPage, WidthThatCannotBeReadLeavesTheListEmpty) {
    m_double.getResult = E_FAIL;
    openAudio();
    EXPECT_EQ(list(CB_GETCOUNT), 2);
    EXPECT_EQ(list(CB_GETCURSEL), CB_ERR);
    EXPECT_FALSE(m_host.isDirty());
    choose(0);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.puts, std::vector<std::string>{"BitDepth"});
}

TEST_F(AudioPage, ChangedWidthIsAppliedOnce) {
    openAudio();
    choose(1);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 1);
    EXPECT_TRUE(m_double.puts.empty());
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_double.bitDepth, 1);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.puts.size(), 1u);
}

TEST_F(AudioPage, SameWidthChosenAgainCallsNothing) {
    openAudio();
    choose(0);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_EQ(m_host.dirtyReports, 0);
    choose(1);
    choose(0);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_FALSE(m_host.isDirty());
    EXPECT_TRUE(m_double.puts.empty());
}

TEST_F(AudioPage, ChoiceSurvivesAVisitToAnotherPage) {
    openAudio();
    choose(1);
    ASSERT_EQ(m_host.leave(), S_OK);
    EXPECT_TRUE(m_host.isDirty());
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(list(CB_GETCURSEL), 1);
    EXPECT_TRUE(m_host.isDirty());
    ASSERT_EQ(m_host.leave(), S_OK);
    EXPECT_EQ(m_host.apply(), S_OK) << "from the other page";
    EXPECT_EQ(m_double.bitDepth, 1);
    EXPECT_FALSE(m_host.isDirty());
    m_double.bitDepth = 0;
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(list(CB_GETCURSEL), 0) << "nothing is left to be applied: the present width";
    choose(1);
    m_host.close();
    openAudio();
    EXPECT_EQ(list(CB_GETCURSEL), 0) << "cancelled";
    EXPECT_FALSE(m_host.isDirty());
}

TEST_F(AudioPage, RefusedChoiceIsStillRememberedAfterAVisitToAnotherPage) {
    openAudio();
    choose(1);
    m_double.putResult = VFW_E_INVALIDMEDIATYPE;
    BoxClicker clicker;
    EXPECT_EQ(m_host.apply(), VFW_E_INVALIDMEDIATYPE);
    m_host.leave();
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(list(CB_GETCURSEL), 1);
    EXPECT_EQ(m_host.apply(), S_OK) << "the same choice is not tried again";
    clicker.finish();
    EXPECT_EQ(clicker.boxes, 1);
    EXPECT_EQ(m_double.puts.size(), 1u);
}

TEST_F(AudioPage, RefusedWidthIsReportedOnceAndRemembered) {
    openAudio();
    choose(1);
    m_double.putResult = VFW_E_INVALIDMEDIATYPE;
    BoxClicker clicker;
    EXPECT_EQ(m_host.apply(), VFW_E_INVALIDMEDIATYPE);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(list(CB_GETCURSEL), 1) << "the list stays on the refused entry";
    EXPECT_EQ(m_host.apply(), S_OK) << "the same choice is not tried again";
    clicker.finish();
    EXPECT_EQ(clicker.boxes, 1);
    EXPECT_EQ(clicker.caption, L"Error");
    EXPECT_EQ(clicker.text, L"This audio format doesn't accepted by input pin of current graph. Please, choose another "
                            L"format.");
    EXPECT_EQ(clicker.owner, GetAncestor(m_host.dialog(), GA_ROOT)) << "a child window's box belongs to its frame";
    EXPECT_EQ(clicker.buttons, 1);
    EXPECT_EQ(m_double.puts.size(), 1u);
    m_double.putResult = S_OK;
    choose(0);
    EXPECT_TRUE(m_host.isDirty());
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_double.puts.size(), 2u);
}

TEST_F(AudioPage, WidthOfTheRealPinIsSetAndRemembered) {
    m_registry.setDword(kSettings, L"AudioFormat", 0);
    AudioGraph graph(m_module);
    ASSERT_TRUE(graph.isMade());
    openOn(CLSID_KestraAudioPropertyPage, graph.pin.get());
    EXPECT_EQ(list(CB_GETCURSEL), 0);
    choose(1);
    EXPECT_EQ(m_host.apply(), S_OK);
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 1u);
    EXPECT_EQ(graph.bits(), 24);
    m_host.leave();
    ASSERT_EQ(m_host.comeBack(), S_OK);
    EXPECT_EQ(list(CB_GETCURSEL), 1);
    m_host.close();
}

TEST_F(AudioPage, WidthThatTheConnectedReceiverRefusesIsReported) {
    m_registry.setDword(kSettings, L"AudioFormat", 0);
    AudioGraph graph(m_module);
    ASSERT_TRUE(graph.isMade());
    graph.sink->pin.refuses24 = true;
    ASSERT_TRUE(graph.connect());
    openOn(CLSID_KestraAudioPropertyPage, graph.pin.get());
    choose(1);
    BoxClicker clicker;
    EXPECT_TRUE(FAILED(m_host.apply()));
    clicker.finish();
    EXPECT_EQ(clicker.boxes, 1);
    EXPECT_TRUE(m_host.isDirty());
    choose(0);
    m_host.apply();
    m_host.close();
}

TEST_F(AudioPage, ObjectWithoutAudioFormatIsRefused) {
    ComRef<IPropertyPage> page = makePage(CLSID_KestraAudioPropertyPage);
    IUnknown* object = &m_host;
    EXPECT_EQ(page->SetObjects(1, &object), E_NOINTERFACE);
}

TEST_F(AudioPage, NoTextIsCutAndNoControlHidesAnother) {
    openAudio();
    EXPECT_EQ(m_host.cutTexts(), std::vector<std::wstring>());
    // Shows that a narrow label, an overhanging control and an overlapping one are found.
    const auto children = m_host.children();
    SetWindowPos(children[1], nullptr, 0, 0, 60, 9, SWP_NOMOVE | SWP_NOZORDER);
    EXPECT_EQ(m_host.cutTexts().size(), 1u);
    SetWindowPos(children[0], nullptr, -5, 0, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    EXPECT_EQ(m_host.cutTexts().size(), 2u);
    RECT list;
    GetWindowRect(m_host.control(IDC_BITS), &list);
    MapWindowPoints(nullptr, m_host.dialog(), reinterpret_cast<POINT*>(&list), 2);
    SetWindowPos(children[1], nullptr, list.left, list.top, 60, 9, SWP_NOZORDER);
    EXPECT_EQ(m_host.cutTexts().size(), 3u);
}

TEST_F(AudioPage, ShownManyTimesItLeavesNoHandle) {
    openAudio();
    expectNothingLeftBy([&] {
        choose(1);
        m_host.leave();
        m_host.comeBack();
    });
}

} // namespace kestra::test
