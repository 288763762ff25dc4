// Both pages of the video filter in the system's own property frame, as an application opens it. Wine's frame may not
// enable its Apply button and call no page's Apply; the frame of ours, in the other tests, does.
#include "tests/com/page_test.h"
#include "tests/support/own_dialogs.h"

#include <olectl.h>
#include <prsht.h>

#include <functional>
#include <thread>

namespace kestra::test {
namespace {

constexpr int kApply = 0x3021; // the button's identifier in every property sheet

/// Lets COM make a class of the module while the object lives, as if it were registered.
class RegisteredClass {
public:
    RegisteredClass(const ComModule& module, const CLSID& clsid) {
        ComRef<IClassFactory> factory;
        module.classObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        EXPECT_EQ(CoRegisterClassObject(clsid, factory.get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &m_cookie),
                  S_OK);
    }
    ~RegisteredClass() { CoRevokeClassObject(m_cookie); }
    RegisteredClass(const RegisteredClass&) = delete;
    RegisteredClass& operator=(const RegisteredClass&) = delete;

private:
    DWORD m_cookie = 0;
};

/// The window below `parent` that `matches` accepts; null: none.
HWND findBelow(HWND parent, const std::function<bool(HWND)>& matches) {
    for (HWND child = GetWindow(parent, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT)) {
        if (matches(child)) return child;
        if (const HWND found = findBelow(child, matches)) return found;
    }
    return nullptr;
}

/// This process's property sheet, null if none is visible.
HWND findFrame() {
    return findOwnDialog([](HWND window) { return IsWindowVisible(window) && GetDlgItem(window, kApply); });
}

class PageFrame : public PageTest {
protected:
    /// Opens the frame on the filter's pages while `user` plays with it on a thread of its own. The frame is closed in
    /// any case: by the user's OK, or by a Cancel after him.
    void openFrame(const std::function<void(HWND)>& user) {
        m_registry.setDword(kSettings, L"VideoFormat", 1);
        ASSERT_EQ(makeFilter(), S_OK);
        const RegisteredClass converterPage(m_module, CLSID_KestraStreamPropCSC);
        const RegisteredClass gainPage(m_module, CLSID_KestraStreamPropRGB);
        CAUUID pages{};
        ASSERT_EQ(query<ISpecifyPropertyPages>(m_filter.get(), IID_ISpecifyPropertyPages)->GetPages(&pages), S_OK);
        m_card.clearLog();
        std::thread thread([&] {
            HWND frame = nullptr;
            EXPECT_TRUE(waitUntil([&] {
                frame = findFrame();
                return frame && pageControl(frame, IDC_YOFF);
            }));
            if (frame) user(frame);
            if (IsWindow(frame)) press(frame, IDCANCEL);
        });
        IUnknown* object = m_filter.get();
        EXPECT_EQ(OleCreatePropertyFrame(nullptr, 0, 0, L"Kestra Capture Video", 1, &object, pages.cElems, pages.pElems,
                                         GetUserDefaultLCID(), 0, nullptr),
                  S_OK);
        thread.join();
        CoTaskMemFree(pages.pElems);
    }
    /// A control of the page that the frame shows.
    static HWND pageControl(HWND frame, int id) {
        return findBelow(frame, [&](HWND child) { return GetDlgCtrlID(child) == id && IsWindowVisible(child); });
    }
    /// Posted, as a click is: the frame looks whether it is over when its message loop has got a message.
    static void press(HWND frame, int id) { PostMessageW(frame, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), 0); }
    static std::wstring textOf(HWND window) {
        wchar_t text[128] = L"";
        SendMessageW(window, WM_GETTEXT, 128, reinterpret_cast<LPARAM>(text));
        return text;
    }
    static void put(HWND window, const wchar_t* text) {
        SendMessageW(window, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text));
    }
};

} // namespace

TEST_F(PageFrame, ShowsBothPagesAndLeavesNothingBehind) {
    openFrame([&](HWND frame) {
        EXPECT_EQ(textOf(pageControl(frame, IDC_YOFF)), L"64");
        put(pageControl(frame, IDC_YOFF), L"70");
        SendMessageW(frame, PSM_SETCURSEL, 1, 0);
        ASSERT_TRUE(waitUntil([&] { return pageControl(frame, IDC_RED_GAIN) != nullptr; }));
        EXPECT_EQ(textOf(pageControl(frame, IDC_RED_GAIN)), L"1.000");
        EXPECT_EQ(pageControl(frame, IDC_YOFF), nullptr);
        SendMessageW(frame, PSM_SETCURSEL, 0, 0);
        ASSERT_TRUE(waitUntil([&] { return pageControl(frame, IDC_YOFF) != nullptr; }));
        EXPECT_EQ(textOf(pageControl(frame, IDC_YOFF)), L"70") << "what was typed is still there";
        press(frame, IDCANCEL);
    });
    EXPECT_TRUE(sent().empty());
}

TEST_F(PageFrame, ApplySendsWhatWasEditedAndNothingElse) {
    bool offersApply = false;
    openFrame([&](HWND frame) {
        put(pageControl(frame, IDC_RMIN), L"9");
        offersApply = IsWindowEnabled(GetDlgItem(frame, kApply)) != FALSE;
        if (!offersApply) return;
        press(frame, kApply);
        EXPECT_TRUE(waitUntil([&] { return m_card.state().converter.rMin == 9; }));
        put(pageControl(frame, IDC_RMIN), L"10"); // and Cancel
    });
    std::printf("the system's frame %s\n", offersApply ? "calls Apply" : "does not offer Apply");
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    if (offersApply) expected.rMin = 9;
    EXPECT_TRUE(same(m_card.state().converter, expected));
}

TEST_F(PageFrame, OkAppliesBothPagesOrNone) {
    openFrame([&](HWND frame) {
        put(pageControl(frame, IDC_RMIN), L"9");
        SendMessageW(frame, PSM_SETCURSEL, 1, 0);
        ASSERT_TRUE(waitUntil([&] { return pageControl(frame, IDC_RED_GAIN) != nullptr; }));
        put(pageControl(frame, IDC_RED_GAIN), L"2");
        press(frame, IDOK);
    });
    const bool applied = m_card.state().converter.rMin == 9;
    std::printf("the system's frame %s\n", applied ? "applies on OK" : "applies nothing on OK");
    wire::Converter expected = wire::toWire(wire::kDefaultConverter);
    if (applied) {
        expected.rMin = 9;
        expected.redGain = 512;
    }
    EXPECT_TRUE(same(m_card.state().converter, expected));
}

TEST_F(PageFrame, CancelTakesALivePreviewBack) {
    openFrame([&](HWND frame) {
        SendMessageW(pageControl(frame, IDC_LIVE), BM_CLICK, 0, 0);
        put(pageControl(frame, IDC_RMIN), L"9");
        EXPECT_EQ(m_card.state().converter.rMin, 9);
        press(frame, IDCANCEL);
    });
    EXPECT_TRUE(same(m_card.state().converter, wire::toWire(wire::kDefaultConverter)));
}

} // namespace kestra::test
