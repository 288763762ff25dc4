// The property page between its frame (a site and a parent window of ours) and its dialog.
#include "tests/com/baseclasses_fixture.h"
#include "tests/com/baseclasses_page.h"
#include "tests/support/own_dialogs.h"
#include "tests/support/process_counts.h"

#include <olectl.h>
#include <prsht.h>

#include <cstring>
#include <cwchar>
#include <string>
#include <thread>

namespace kestra::test {
namespace {

class TestPage : public CBasePropertyPage {
public:
    explicit TestPage(int dialog = TEST_PAGE_DIALOG, IUnknown* outer = nullptr)
        : CBasePropertyPage(NAME("page"), outer, dialog, TEST_PAGE_TITLE) {}
    Step m_connect, m_disconnect, m_activate, m_deactivate, m_apply;
    int m_inits = 0, m_commands = 0;
    bool m_throwOnMessage = false;
    LONG_PTR m_dyingStyle = -1; // the dialog's extended style when it was destroyed
    IUnknown* m_object = nullptr;

    HRESULT OnConnect(IUnknown* object) override {
        m_object = object;
        return m_connect.take();
    }
    HRESULT OnDisconnect() override {
        m_object = nullptr;
        return m_disconnect.take();
    }
    HRESULT OnActivate() override { return m_activate.take(); }
    HRESULT OnDeactivate() override { return m_deactivate.take(); }
    HRESULT OnApplyChanges() override { return m_apply.take(); }
    INT_PTR OnReceiveMessage(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) override {
        if (message == WM_INITDIALOG) ++m_inits;
        if (message == WM_DESTROY) m_dyingStyle = GetWindowLongPtrW(hwnd, GWL_EXSTYLE);
        if (message == WM_COMMAND && HIWORD(wParam) == EN_CHANGE) {
            ++m_commands;
            m_bDirty = TRUE;
            if (m_pPageSite) m_pPageSite->OnStatusChange(PROPPAGESTATUS_DIRTY);
            if (m_throwOnMessage) throw std::runtime_error("test");
        }
        return CBasePropertyPage::OnReceiveMessage(hwnd, message, wParam, lParam);
    }
    using CBasePropertyPage::m_Dlg;
    using CBasePropertyPage::m_hwnd;
};

class TestSite : public IPropertyPageSite {
public:
    LONG m_references = 1;
    int m_dirty = 0;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = riid == IID_IUnknown || riid == IID_IPropertyPageSite ? this : nullptr;
        if (*ppv) AddRef();
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(--m_references); }
    STDMETHODIMP OnStatusChange(DWORD flags) override {
        if (flags & PROPPAGESTATUS_DIRTY) ++m_dirty;
        return S_OK;
    }
    STDMETHODIMP GetLocaleID(LCID*) override { return E_NOTIMPL; }
    STDMETHODIMP GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }
};

class PageTest : public testing::Test {
protected:
    // One frame for all tests: Wine takes two seconds to let go of a shown top-level window without a window manager.
    static void SetUpTestSuite() {
        g_hInst = GetModuleHandleW(nullptr);
        m_parent = CreateWindowExW(0, L"STATIC", L"frame", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 400, 300, nullptr,
                                   nullptr, g_hInst, nullptr);
        ASSERT_NE(m_parent, nullptr);
    }
    static void TearDownTestSuite() { DestroyWindow(m_parent); }

    PageTest() : m_objects(CBaseObject::ObjectsActive()) {
        CoInitialize(nullptr);
        m_page = new TestPage;
        m_page->AddRef();
    }
    ~PageTest() override {
        EXPECT_EQ(m_page->Release(), 0u);
        EXPECT_EQ(m_site.m_references, 1);
        EXPECT_EQ(CBaseObject::ObjectsActive(), m_objects);
        CoUninitialize();
    }
    /// With a site and an object, as a frame has it before it shows the page.
    void prepare() {
        ASSERT_EQ(m_page->SetPageSite(&m_site), S_OK);
        IUnknown* object = &m_object;
        ASSERT_EQ(m_page->SetObjects(1, &object), S_OK);
    }
    void activate() {
        prepare();
        ASSERT_EQ(m_page->Activate(m_parent, &m_place, FALSE), S_OK);
        ASSERT_NE(m_page->m_Dlg, nullptr);
    }
    void leave() {
        m_page->Deactivate();
        m_page->SetObjects(0, nullptr);
        m_page->SetPageSite(nullptr);
    }
    RECT placeOfDialog() {
        RECT place{};
        GetWindowRect(m_page->m_Dlg, &place);
        MapWindowPoints(nullptr, m_parent, reinterpret_cast<POINT*>(&place), 2);
        return place;
    }
    const LONG m_objects;
    const RECT m_place{10, 20, 210, 120};
    static inline HWND m_parent = nullptr;
    TestPage* m_page = nullptr;
    TestSite m_site, m_object;
};

TEST_F(PageTest, IsOneObject) {
    Ref<IUnknown> unknown, again;
    ASSERT_EQ(m_page->QueryInterface(IID_IUnknown, unknown.putVoid()), S_OK);
    Ref<IPropertyPage> page;
    ASSERT_EQ(unknown->QueryInterface(IID_IPropertyPage, page.putVoid()), S_OK);
    ASSERT_EQ(page->QueryInterface(IID_IUnknown, again.putVoid()), S_OK);
    EXPECT_EQ(again.get(), unknown.get());
    void* none = this;
    EXPECT_EQ(page->QueryInterface(IID_IBaseFilter, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
}

TEST_F(PageTest, AggregatedItAnswersThroughItsOuterObject) {
    TestGraph outer; // any object would do
    auto* controlling = static_cast<IUnknown*>(static_cast<IFilterGraph*>(&outer));
    auto* page = new TestPage(TEST_PAGE_DIALOG, controlling);
    page->NonDelegatingAddRef();
    Ref<IPropertyPage> inner;
    ASSERT_EQ(page->NonDelegatingQueryInterface(IID_IPropertyPage, inner.putVoid()), S_OK);
    EXPECT_EQ(outer.m_references, 2);
    Ref<IUnknown> identity;
    ASSERT_EQ(inner->QueryInterface(IID_IUnknown, identity.putVoid()), S_OK);
    EXPECT_EQ(identity.get(), controlling);
    identity.reset();
    inner.reset();
    EXPECT_EQ(outer.m_references, 1);
    EXPECT_EQ(page->NonDelegatingRelease(), 0u);
}

TEST_F(PageTest, SiteIsSetOnceAndTakenBackOnce) {
    EXPECT_EQ(m_page->SetPageSite(nullptr), E_UNEXPECTED);
    EXPECT_EQ(m_page->SetPageSite(&m_site), S_OK);
    EXPECT_EQ(m_site.m_references, 2);
    TestSite other;
    EXPECT_EQ(m_page->SetPageSite(&other), E_UNEXPECTED);
    EXPECT_EQ(other.m_references, 1);
    EXPECT_EQ(m_page->SetPageSite(nullptr), S_OK);
    EXPECT_EQ(m_site.m_references, 1);
}

TEST_F(PageTest, TakesExactlyOneObject) {
    IUnknown* objects[] = {&m_object, &m_object};
    EXPECT_EQ(m_page->SetObjects(2, objects), E_UNEXPECTED);
    EXPECT_EQ(m_page->SetObjects(1, nullptr), E_POINTER);
    IUnknown* null = nullptr;
    EXPECT_EQ(m_page->SetObjects(1, &null), E_POINTER);
    EXPECT_EQ(m_page->m_connect.calls, 0);
    m_page->m_connect.result = E_NOINTERFACE;
    EXPECT_EQ(m_page->SetObjects(1, objects), E_NOINTERFACE);
    EXPECT_EQ(m_page->Activate(m_parent, &m_place, FALSE), E_UNEXPECTED) << "it has no object then";
    m_page->m_connect.throws = 1;
    EXPECT_EQ(m_page->SetObjects(1, objects), E_UNEXPECTED);
    m_page->m_connect.throws = 0;
    m_page->m_connect.result = S_OK;
    EXPECT_EQ(m_page->SetObjects(1, objects), S_OK);
    EXPECT_EQ(m_page->m_object, &m_object);
    EXPECT_EQ(m_page->SetObjects(0, nullptr), S_OK);
    EXPECT_EQ(m_page->m_disconnect.calls, 1);
    EXPECT_EQ(m_page->m_object, nullptr);
    EXPECT_EQ(m_page->Activate(m_parent, &m_place, FALSE), E_UNEXPECTED);
}

TEST_F(PageTest, TellsItsTitleAndTheSizeOfItsDialog) {
    EXPECT_EQ(m_page->GetPageInfo(nullptr), E_POINTER);
    PROPPAGEINFO info;
    std::memset(&info, 0xCC, sizeof info);
    ASSERT_EQ(m_page->GetPageInfo(&info), S_OK);
    EXPECT_EQ(info.cb, sizeof info);
    EXPECT_STREQ(info.pszTitle, L"Test page");
    CoTaskMemFree(info.pszTitle);
    EXPECT_EQ(info.pszDocString, nullptr);
    EXPECT_EQ(info.pszHelpFile, nullptr);
    EXPECT_EQ(info.dwHelpContext, 0u);
    EXPECT_EQ(m_page->m_inits, 0) << "measuring is none of the page's business";
    const HWND dialog = CreateDialogParamW(
        g_hInst, MAKEINTRESOURCEW(TEST_PAGE_DIALOG), m_parent,
        [](HWND, UINT, WPARAM, LPARAM) -> INT_PTR { return FALSE; }, 0);
    RECT area{};
    GetWindowRect(dialog, &area);
    EXPECT_EQ(info.size.cx, area.right - area.left);
    EXPECT_EQ(info.size.cy, area.bottom - area.top);
    EXPECT_GT(info.size.cx, 100);
    DestroyWindow(dialog);
}

TEST_F(PageTest, ShowsItsDialogWhereTheFrameWantsItAndTakesItAway) {
    activate();
    EXPECT_EQ(m_page->m_activate.calls, 1);
    EXPECT_EQ(m_page->m_inits, 1);
    EXPECT_EQ(m_page->m_hwnd, m_page->m_Dlg);
    EXPECT_EQ(GetParent(m_page->m_Dlg), m_parent);
    EXPECT_TRUE(IsWindowVisible(m_page->m_Dlg));
    const RECT place = placeOfDialog();
    EXPECT_TRUE(EqualRect(&place, &m_place));
    EXPECT_EQ(m_page->Activate(m_parent, &m_place, FALSE), E_UNEXPECTED) << "it is there already";
    const HWND dialog = m_page->m_Dlg;
    EXPECT_EQ(m_page->Deactivate(), S_OK);
    EXPECT_EQ(m_page->m_deactivate.calls, 1);
    EXPECT_FALSE(IsWindow(dialog));
    EXPECT_NE(m_page->m_dyingStyle, -1);
    EXPECT_FALSE(m_page->m_dyingStyle & WS_EX_CONTROLPARENT) << "the search for the next control must not enter it";
    EXPECT_EQ(m_page->m_hwnd, nullptr);
    EXPECT_EQ(m_page->Deactivate(), E_UNEXPECTED);
    ASSERT_EQ(m_page->Activate(m_parent, &m_place, FALSE), S_OK) << "and again";
    leave();
}

TEST_F(PageTest, MovesAndShowsAndHides) {
    EXPECT_EQ(m_page->Move(&m_place), E_UNEXPECTED);
    EXPECT_EQ(m_page->Show(SW_SHOW), E_UNEXPECTED);
    activate();
    const RECT wanted{0, 5, 150, 85};
    EXPECT_EQ(m_page->Move(&wanted), S_OK);
    const RECT place = placeOfDialog();
    EXPECT_TRUE(EqualRect(&place, &wanted));
    EXPECT_EQ(m_page->Move(nullptr), E_POINTER);
    EXPECT_EQ(m_page->Show(SW_HIDE), S_OK);
    EXPECT_FALSE(IsWindowVisible(m_page->m_Dlg));
    EXPECT_EQ(m_page->Show(SW_SHOW), S_OK);
    EXPECT_TRUE(IsWindowVisible(m_page->m_Dlg));
    EXPECT_EQ(m_page->Show(SW_MAXIMIZE), E_INVALIDARG);
    leave();
}

TEST_F(PageTest, EditMakesItDirtyUntilApplied) {
    EXPECT_EQ(m_page->Apply(), E_UNEXPECTED) << "no object, no site";
    activate();
    EXPECT_EQ(m_page->IsPageDirty(), S_FALSE);
    EXPECT_EQ(m_page->Apply(), S_OK);
    EXPECT_EQ(m_page->m_apply.calls, 0) << "nothing to apply";
    SetDlgItemTextW(m_page->m_Dlg, TEST_PAGE_FIRST, L"7");
    EXPECT_EQ(m_page->m_commands, 1);
    EXPECT_EQ(m_site.m_dirty, 1);
    EXPECT_EQ(m_page->IsPageDirty(), S_OK);
    m_page->m_apply.result = E_INVALIDARG;
    EXPECT_EQ(m_page->Apply(), E_INVALIDARG);
    EXPECT_EQ(m_page->IsPageDirty(), S_OK) << "still to be applied";
    m_page->m_apply.throws = 1;
    EXPECT_EQ(m_page->Apply(), E_UNEXPECTED);
    m_page->m_apply.throws = 0;
    m_page->m_apply.result = S_OK;
    EXPECT_EQ(m_page->Apply(), S_OK);
    EXPECT_EQ(m_page->IsPageDirty(), S_FALSE);
    leave();
}

TEST_F(PageTest, HelpIsLeftToTheFrame) {
    EXPECT_EQ(m_page->Help(L""), E_NOTIMPL);
}

TEST_F(PageTest, KeysOfTheFrameReachThePagesFieldsAndPassThroughIt) {
    MSG message{};
    EXPECT_EQ(m_page->TranslateAccelerator(&message), E_NOTIMPL) << "the page has no keys of its own";
    activate();
    const HWND first = GetDlgItem(m_page->m_Dlg, TEST_PAGE_FIRST), second = GetDlgItem(m_page->m_Dlg, TEST_PAGE_SECOND);
    const HWND button = CreateWindowExW(0, L"BUTTON", L"OK", WS_CHILD | WS_VISIBLE | WS_TABSTOP, 0, 200, 50, 20,
                                        m_parent, nullptr, g_hInst, nullptr);
    SetFocus(first);
    ASSERT_EQ(GetFocus(), first);
    const auto tab = [&] {
        message.hwnd = GetFocus();
        message.message = WM_KEYDOWN;
        message.wParam = VK_TAB;
        EXPECT_TRUE(IsDialogMessageW(m_parent, &message));
        return GetFocus();
    };
    EXPECT_EQ(tab(), second);
    EXPECT_EQ(tab(), button) << "out of the page";
    EXPECT_EQ(tab(), first) << "and into it again";
    // As a frame that takes the style away from the pages it shows.
    const auto exStyle = [&] { return GetWindowLongPtrW(m_page->m_Dlg, GWL_EXSTYLE); };
    EXPECT_TRUE(exStyle() & WS_EX_CONTROLPARENT);
    SetWindowLongPtrW(m_page->m_Dlg, GWL_EXSTYLE, (exStyle() & ~WS_EX_CONTROLPARENT) | WS_EX_ACCEPTFILES);
    EXPECT_TRUE(exStyle() & WS_EX_CONTROLPARENT);
    EXPECT_TRUE(exStyle() & WS_EX_ACCEPTFILES) << "other styles are the frame's to give";
    EXPECT_EQ(tab(), second);
    EXPECT_EQ(tab(), button);
    DestroyWindow(button);
    leave();
}

/// Makes the page for the system's frame.
class PageFactory : public IClassFactory {
public:
    TestPage* m_page = nullptr;
    LONG m_references = 1;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = riid == IID_IUnknown || riid == IID_IClassFactory ? this : nullptr;
        if (*ppv) AddRef();
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&m_references)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&m_references)); }
    STDMETHODIMP CreateInstance(IUnknown*, REFIID riid, void** ppv) override {
        return m_page->QueryInterface(riid, ppv);
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

/// The dialog that this process shows at the top level: the frame. Null if there is none.
HWND shownFrame() {
    return findOwnDialog([](HWND) { return true; });
}

HWND findField(HWND frame) {
    if (!frame) return nullptr;
    HWND field = nullptr;
    EnumChildWindows(
        frame,
        [](HWND window, LPARAM found) -> BOOL {
            if (GetDlgCtrlID(window) == TEST_PAGE_FIRST) *reinterpret_cast<HWND*>(found) = window;
            return TRUE;
        },
        LPARAM(&field));
    return field;
}

// The frame is modal: another thread fills a field in and presses its button. Wine's frame does not call Apply.
TEST_F(PageTest, SystemsFrameShowsItTakesItsEditAndLetsGoOfIt) {
    static constexpr CLSID kPage{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x06}};
    PageFactory factory;
    factory.m_page = m_page;
    DWORD cookie = 0;
    ASSERT_EQ(CoRegisterClassObject(kPage, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie), S_OK);
    const LONG objectReferences = m_object.m_references;
    std::atomic<bool> edited{false}, returned{false};
    std::thread user([&] {
        HWND field = nullptr;
        waitUntil(
            [&] {
                field = findField(shownFrame());
                return returned || (field && IsWindowVisible(field));
            },
            std::chrono::seconds(20));
        DWORD_PTR answer = 0;
        edited = field && SendMessageTimeoutW(field, WM_SETTEXT, 0, LPARAM(L"7"), SMTO_NORMAL, 5000, &answer);
        // Pressed until it is heard: nothing else ends the frame.
        while (!waitUntil([&] { return returned.load(); }, std::chrono::milliseconds(100)))
            PostMessageW(shownFrame(), PSM_PRESSBUTTON, PSBTN_OK, 0);
    });
    IUnknown* object = &m_object;
    CLSID page = kPage;
    EXPECT_EQ(OleCreatePropertyFrame(m_parent, 0, 0, L"The system's frame", 1, &object, 1, &page, 0, 0, nullptr), S_OK);
    returned = true;
    user.join();
    EXPECT_EQ(CoRevokeClassObject(cookie), S_OK);
    EXPECT_TRUE(edited);
    EXPECT_EQ(m_page->m_connect.calls, 1);
    EXPECT_EQ(m_page->m_activate.calls, 1);
    EXPECT_GE(m_page->m_commands, 1);
    EXPECT_EQ(m_page->m_deactivate.calls, 1);
    EXPECT_EQ(m_page->m_Dlg, nullptr);
    EXPECT_EQ(m_object.m_references, objectReferences);
    EXPECT_EQ(factory.m_references, 1);
}

TEST_F(PageTest, ExceptionsStopAtTheWindowAndAtEveryMethod) {
    m_page->m_activate.throws = 1;
    activate();
    m_page->m_throwOnMessage = true;
    SetDlgItemTextW(m_page->m_Dlg, TEST_PAGE_FIRST, L"7");
    EXPECT_EQ(m_page->m_commands, 1);
    m_page->m_deactivate.throws = 1;
    EXPECT_EQ(m_page->Deactivate(), S_OK) << "the dialog must go in any case";
    m_page->m_disconnect.throws = 1;
    EXPECT_EQ(m_page->SetObjects(0, nullptr), E_UNEXPECTED);
    EXPECT_EQ(m_page->SetPageSite(nullptr), S_OK);
}

TEST_F(PageTest, PageWithoutItsDialogCannotBeActivated) {
    auto* broken = new TestPage(999);
    broken->AddRef();
    IUnknown* object = &m_object;
    ASSERT_EQ(broken->SetObjects(1, &object), S_OK);
    EXPECT_EQ(broken->Activate(m_parent, &m_place, FALSE), E_OUTOFMEMORY);
    EXPECT_EQ(broken->m_hwnd, nullptr);
    EXPECT_EQ(broken->m_activate.calls, 0);
    PROPPAGEINFO info{};
    EXPECT_EQ(broken->GetPageInfo(&info), S_OK);
    EXPECT_GT(info.size.cx, 0);
    CoTaskMemFree(info.pszTitle);
    EXPECT_EQ(broken->Activate(m_parent, nullptr, FALSE), E_POINTER);
    EXPECT_EQ(broken->Release(), 0u);
}

/// A page that says what it is told when nobody needs it any more, and counts itself meanwhile.
class DyingPage : public TestPage {
public:
    explicit DyingPage(std::string* told) : m_told(told) {}
    ~DyingPage() override { *m_told += "destroyed"; }
    HRESULT OnDeactivate() override { return tell("deactivated "); }
    HRESULT OnDisconnect() override { return tell(m_pPageSite ? "disconnected with its site " : "disconnected "); }

private:
    HRESULT tell(const char* what) {
        AddRef();
        *m_told += what;
        Release();
        return S_OK;
    }
    std::string* m_told;
};

TEST_F(PageTest, ReleasedWhileActiveItTakesItsDialogItsObjectAndItsSiteAlongWhileItIsWhole) {
    std::string told;
    auto* page = new DyingPage(&told);
    page->AddRef();
    IUnknown* object = &m_object;
    ASSERT_EQ(page->SetPageSite(&m_site), S_OK);
    ASSERT_EQ(page->SetObjects(1, &object), S_OK);
    ASSERT_EQ(page->Activate(m_parent, &m_place, FALSE), S_OK);
    const HWND dialog = page->m_Dlg;
    EXPECT_EQ(page->Release(), 0u);
    EXPECT_FALSE(IsWindow(dialog));
    EXPECT_EQ(m_site.m_references, 1);
    EXPECT_EQ(told, "deactivated disconnected with its site destroyed");
}

TEST_F(PageTest, ShownAndTakenAwayManyTimesItLeavesNoHandle) {
    prepare();
    const auto cycle = [&] {
        ASSERT_EQ(m_page->Activate(m_parent, &m_place, FALSE), S_OK);
        ASSERT_EQ(m_page->Deactivate(), S_OK);
    };
    cycle();
    const ProcessCounts before = processCounts();
    for (int i = 0; i < 100; ++i)
        cycle();
    EXPECT_LE(processCounts().handles, before.handles);
    leave();
}

} // namespace
} // namespace kestra::test

CFactoryTemplate g_Templates[] = {{L"none", &GUID_NULL, nullptr, nullptr, nullptr}};
int g_cTemplates = 0;
