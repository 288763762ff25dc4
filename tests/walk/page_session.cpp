// The calls of a page in an order of their own each time.
#include "tests/walk/page_session.h"

#include "compliance/process_counts.h"
#include "tests/support/own_dialogs.h"
#include "tests/walk/walk.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kestra::walk {
namespace {

/// Lives on the stack: its references are only counted.
class Site : public IPropertyPageSite {
public:
    virtual ~Site() {
        if (m_references != 1) fail("references", "a page keeps its site");
    }
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IUnknown || riid == IID_IPropertyPageSite ? this : nullptr;
        if (!*object) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--m_references); }
    STDMETHODIMP OnStatusChange(DWORD) override { return S_OK; }
    STDMETHODIMP GetLocaleID(LCID* id) override {
        *id = LOCALE_USER_DEFAULT;
        return S_OK;
    }
    STDMETHODIMP GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }

private:
    long m_references = 1;
};

/// A child window of the page's dialog, if there is one.
HWND anyControl(HWND frame, uint32_t which) {
    std::vector<HWND> all;
    EnumChildWindows(
        frame,
        [](HWND window, LPARAM list) -> BOOL {
            reinterpret_cast<std::vector<HWND>*>(list)->push_back(window);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&all));
    return all.empty() ? nullptr : all[which % all.size()];
}

void touchControl(HWND control, uint32_t how) {
    static const wchar_t* const kTexts[] = {L"0", L"1.5", L"-3", L"nonsense", L"255", L"1e9", L"", L"0.25"};
    wchar_t name[32] = L"";
    GetClassNameW(control, name, 32);
    if (lstrcmpiW(name, L"Edit") == 0) {
        SetWindowTextW(control, kTexts[how % std::size(kTexts)]);
    } else if (lstrcmpiW(name, L"Button") == 0) {
        SendMessageW(control, BM_CLICK, 0, 0);
    } else if (lstrcmpiW(name, L"ComboBox") == 0) {
        SendMessageW(control, CB_SETCURSEL, how % 3, 0);
        SendMessageW(GetParent(control), WM_COMMAND,
                     MAKEWPARAM(static_cast<WORD>(GetDlgCtrlID(control)), CBN_SELCHANGE),
                     reinterpret_cast<LPARAM>(control));
    } else {
        SendMessageW(GetParent(control), WM_HSCROLL, MAKEWPARAM(how % 9, how % 100), reinterpret_cast<LPARAM>(control));
    }
}

void pump() {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

std::atomic<int> g_threadsWithEdits{0};
thread_local bool t_hadEdits = false;

LRESULT CALLBACK noteEdits(int code, WPARAM window, LPARAM parameter) {
    wchar_t name[8] = L"";
    if (code == HCBT_CREATEWND && GetClassNameW(reinterpret_cast<HWND>(window), name, 8) &&
        lstrcmpiW(name, L"Edit") == 0)
        t_hadEdits = true;
    return CallNextHookEx(nullptr, code, window, parameter);
}

/// Wine 10 keeps a font of each thread that has had an edit field and ended, in any program; other systems keep
/// nothing.
int objectsLeftByEdit() {
    const auto run = [](int times) {
        for (int i = 0; i < times; ++i)
            std::thread([] {
                const PageFrame frame;
                CreateWindowExW(0, L"EDIT", L"", WS_CHILD, 0, 0, 50, 20, frame.window(), nullptr, nullptr, nullptr);
                pump();
            }).join();
        return compliance::countGdiObjects();
    };
    constexpr int kTimes = 4;
    const int before = run(1); // the first of a process brings what stays for all
    const int each = (run(kTimes) - before) / kTimes;
    g_threadsWithEdits -= kTimes + 1;
    return each;
}

} // namespace

// Below no top-level window: what is broadcast would wait for a thread that is in a call.
PageFrame::PageFrame()
    : m_hook(SetWindowsHookExW(WH_CBT, noteEdits, nullptr, GetCurrentThreadId())),
      m_window(CreateWindowExW(WS_EX_CONTROLPARENT, L"STATIC", L"", WS_POPUP, 0, 0, 640, 480, HWND_MESSAGE, nullptr,
                               GetModuleHandleW(nullptr), nullptr)) {}

PageFrame::~PageFrame() {
    DestroyWindow(m_window);
    UnhookWindowsHookEx(m_hook);
    if (t_hadEdits) ++g_threadsWithEdits;
}

int PageFrame::objectsLeft() {
    static const int ofEach = objectsLeftByEdit();
    return g_threadsWithEdits * ofEach;
}

HRESULT useOnce(IPropertyPage* page, IUnknown* object, HWND frame, uint32_t seed,
                const std::function<void()>& touched) {
    Random random(seed);
    Site site;
    HRESULT last = S_OK;
    const auto noted = [&](HRESULT hr) {
        if (FAILED(hr)) last = hr;
    };
    noted(page->SetPageSite(&site));
    const HRESULT connected = page->SetObjects(1, &object);
    noted(connected);
    const RECT place{0, 0, 300, 200};
    const uint32_t calls = 4 + random.below(10);
    for (uint32_t i = 0; i < calls; ++i) {
        const uint32_t how = random.below(1000);
        switch (random.below(9)) {
        case 0:
        case 1:
            nowIn("page: Activate");
            noted(page->Activate(frame, &place, how % 2 != 0));
            break;
        case 2:
            nowIn("page: Deactivate");
            noted(page->Deactivate());
            break;
        case 3: {
            nowIn("page: GetPageInfo");
            PROPPAGEINFO info{};
            info.cb = sizeof info;
            noted(page->GetPageInfo(&info));
            CoTaskMemFree(info.pszTitle);
            break;
        }
        case 4:
            nowIn("page: Show, Move");
            noted(page->Show(how % 3 == 0 ? SW_HIDE : SW_SHOW));
            noted(page->Move(&place));
            break;
        case 5:
            nowIn("page: Apply");
            page->IsPageDirty();
            noted(page->Apply());
            touched();
            break;
        default:
            nowIn("page: a control");
            if (const HWND control = anyControl(frame, how)) touchControl(control, random.below(1000));
            touched();
            break;
        }
        pump();
    }
    nowIn("page: end");
    page->Deactivate();
    pump();
    noted(page->SetObjects(0, nullptr));
    noted(page->SetPageSite(nullptr));
    touched();
    nowIn("");
    return last;
}

void closeBoxes() {
    test::findOwnDialog([](HWND window) {
        PostMessageW(window, WM_COMMAND, IDOK, 0);
        return false;
    });
}

} // namespace kestra::walk
