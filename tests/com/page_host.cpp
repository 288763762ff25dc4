// A window and a site that show a property page.
#include "tests/com/page_host.h"

#include "compliance/process_counts.h"

#include <commctrl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestra::test {
namespace {

// A dialog, as a real frame is: it knows the keys. It stays for all tests of a program, because Wine takes two seconds
// to let go of a shown top-level window without a window manager.
HWND frameWindow() {
    static const HWND frame = [] {
        struct {
            DLGTEMPLATE head;
            WORD menu, windowClass, title;
        } const plain = {{WS_POPUP | WS_VISIBLE | WS_CLIPCHILDREN, 0, 0, 0, 0, 0, 0}, 0, 0, 0};
        const HWND window = CreateDialogIndirectParamW(
            GetModuleHandleW(nullptr), &plain.head, nullptr,
            [](HWND, UINT, WPARAM, LPARAM) -> INT_PTR { return FALSE; }, 0);
        SetWindowPos(window, nullptr, 0, 0, 1270, 1010, SWP_NOZORDER);
        return window;
    }();
    return frame;
}

std::wstring textOf(HWND window) {
    std::wstring text(size_t(GetWindowTextLengthW(window)), L'\0');
    GetWindowTextW(window, text.data(), int(text.size()) + 1);
    return text;
}

std::wstring classOf(HWND window) {
    wchar_t name[64];
    GetClassNameW(window, name, 64);
    return name;
}

} // namespace

PageHost::PageHost() : m_frame(frameWindow()) {}

PageHost::~PageHost() {
    close();
}

HRESULT PageHost::open(ComRef<IPropertyPage> page, IUnknown* object) {
    m_page = std::move(page);
    HRESULT hr = m_page->SetPageSite(this);
    if (SUCCEEDED(hr)) hr = m_page->SetObjects(1, &object);
    PROPPAGEINFO info{};
    info.cb = sizeof info;
    if (SUCCEEDED(hr)) hr = m_page->GetPageInfo(&info);
    if (SUCCEEDED(hr)) {
        m_size = info.size;
        m_title = info.pszTitle;
        CoTaskMemFree(info.pszTitle);
        hr = activate();
    }
    return hr;
}

HRESULT PageHost::activate() {
    const RECT place{0, 0, m_size.cx, m_size.cy};
    const HRESULT hr = m_page->Activate(m_frame, &place, FALSE);
    const HWND first = SUCCEEDED(hr) ? GetWindow(m_frame, GW_CHILD) : nullptr;
    m_dialog = first ? GetWindow(first, GW_HWNDLAST) : nullptr; // the newest, should two pages be open
    return hr;
}

HRESULT PageHost::leave() {
    m_dialog = nullptr;
    return m_page->Deactivate();
}

HRESULT PageHost::comeBack() {
    return activate();
}

void PageHost::close() {
    if (!m_page) return;
    if (m_dialog) leave();
    m_page->SetObjects(0, nullptr);
    m_page->SetPageSite(nullptr);
    m_page = ComRef<IPropertyPage>();
}

std::wstring PageHost::text(int id) const {
    return textOf(control(id));
}

bool PageHost::isMarked(int id) const {
    const HDC dc = GetDC(control(id));
    const COLORREF ordinary = GetSysColor(COLOR_WINDOW);
    SetBkColor(dc, ordinary);
    SendMessageW(m_dialog, WM_CTLCOLOREDIT, reinterpret_cast<WPARAM>(dc), reinterpret_cast<LPARAM>(control(id)));
    const bool marked = GetBkColor(dc) != ordinary;
    ReleaseDC(control(id), dc);
    return marked;
}

std::vector<int> PageHost::tabOrder() const {
    std::vector<int> order;
    HWND at = nullptr;
    for (;;) {
        at = GetNextDlgTabItem(m_dialog, at, FALSE);
        const int id = at ? GetDlgCtrlID(at) : 0;
        if (!at || (!order.empty() && order.front() == id)) return order;
        order.push_back(id);
    }
}

std::vector<HWND> PageHost::children() const {
    std::vector<HWND> found;
    for (HWND child = GetWindow(m_dialog, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT))
        found.push_back(child);
    return found;
}

std::vector<std::wstring> PageHost::cutTexts() const {
    std::vector<std::wstring> cut;
    std::vector<RECT> places; // of what must not lie upon each other
    RECT page;
    GetClientRect(m_dialog, &page);
    for (const HWND child : children()) {
        if (!IsWindowVisible(child)) continue;
        const std::wstring kind = classOf(child);
        const LONG_PTR style = GetWindowLongPtrW(child, GWL_STYLE);
        std::wstring text = textOf(child);
        RECT room, place;
        GetClientRect(child, &room);
        GetWindowRect(child, &place);
        MapWindowPoints(nullptr, m_dialog, reinterpret_cast<POINT*>(&place), 2);
        if (place.left < 0 || place.top < 0 || place.right > page.right || place.bottom > page.bottom) {
            // The list of a drop-down list hangs out of the dialog while it is closed.
            if (kind != L"ComboBox") cut.push_back(L"outside: " + kind + L" " + text);
        }
        const bool holdsOthers = kind == L"Button" && (style & BS_TYPEMASK) == BS_GROUPBOX;
        if (!holdsOthers && kind != UPDOWN_CLASSW) { // which lies in its edit
            for (const RECT& other : places)
                if (RECT both; IntersectRect(&both, &place, &other))
                    cut.push_back(L"upon another: " + kind + L" " + text);
            places.push_back(place);
        }
        if (text.empty() || kind == TRACKBAR_CLASSW) continue; // whose text is for screen readers
        const HDC dc = GetDC(child);
        const HGDIOBJ before = SelectObject(dc, reinterpret_cast<HFONT>(SendMessageW(child, WM_GETFONT, 0, 0)));
        RECT needed{0, 0, room.right, 0};
        UINT flags = DT_CALCRECT | DT_EDITCONTROL;
        if (kind == L"Static") flags |= DT_WORDBREAK | (style & SS_NOPREFIX ? DT_NOPREFIX : 0u);
        if (kind == L"Edit" || kind == L"ComboBox") flags |= DT_SINGLELINE | DT_NOPREFIX;
        DrawTextW(dc, text.c_str(), -1, &needed, flags);
        TEXTMETRICW metrics;
        GetTextMetricsW(dc, &metrics);
        LONG extraWidth = 0;
        if (kind == L"Button") {
            extraWidth = holdsOthers ? 2 * metrics.tmAveCharWidth : metrics.tmAveCharWidth; // the button's own edges
            if ((style & BS_TYPEMASK) == BS_AUTOCHECKBOX && !(style & BS_PUSHLIKE))
                extraWidth += MulDiv(13, GetDeviceCaps(dc, LOGPIXELSX), 96); // the box
            if (holdsOthers) needed.bottom = 0;
        }
        if (kind == L"Edit") extraWidth = 4;
        if (kind == L"ComboBox") extraWidth = GetSystemMetrics(SM_CXVSCROLL) + 4;
        if (kind == L"ComboBox") { // whichever entry is chosen
            wchar_t entry[128];
            for (LRESULT i = SendMessageW(child, CB_GETCOUNT, 0, 0); i-- > 0;) {
                RECT widest{};
                SendMessageW(child, CB_GETLBTEXT, WPARAM(i), reinterpret_cast<LPARAM>(entry));
                DrawTextW(dc, entry, -1, &widest, flags);
                needed.right = std::max(needed.right, widest.right);
            }
        }
        SelectObject(dc, before);
        ReleaseDC(child, dc);
        if (needed.right + extraWidth > room.right || needed.bottom > room.bottom)
            cut.push_back(kind + L" " + text + L": needs " + std::to_wstring(needed.right + extraWidth) + L"x" +
                          std::to_wstring(needed.bottom) + L", has " + std::to_wstring(room.right) + L"x" +
                          std::to_wstring(room.bottom));
    }
    return cut;
}

void PageHost::type(int id, const std::wstring& text) const {
    const HWND edit = control(id);
    SetFocus(edit);
    SendMessageW(edit, EM_SETSEL, 0, -1);
    if (text.empty()) SendMessageW(edit, WM_CLEAR, 0, 0);
    for (const wchar_t c : text)
        SendMessageW(edit, WM_CHAR, c, 1);
}

/// Like a frame's message loop: the page first, then the frame's own dialog keys.
void PageHost::dispatchKey(MSG message) const {
    if (m_page->TranslateAccelerator(&message) != S_OK) IsDialogMessageW(m_frame, &message);
}

void PageHost::key(WORD virtualKey) const {
    MSG message{};
    message.hwnd = GetFocus();
    message.message = WM_KEYDOWN;
    message.wParam = virtualKey;
    message.lParam = 1;
    dispatchKey(message);
}

void PageHost::accessKey(wchar_t letter) const {
    MSG message{};
    message.hwnd = GetFocus();
    message.message = WM_SYSCHAR;
    message.wParam = letter;
    message.lParam = 1 | 1 << 29; // Alt is down
    dispatchKey(message);
}

STDMETHODIMP PageHost::QueryInterface(REFIID riid, void** ppv) {
    *ppv = riid == IID_IUnknown || riid == IID_IPropertyPageSite ? this : nullptr;
    if (*ppv) AddRef();
    return *ppv ? S_OK : E_NOINTERFACE;
}

STDMETHODIMP PageHost::OnStatusChange(DWORD flags) {
    if (flags & PROPPAGESTATUS_DIRTY) ++dirtyReports;
    return S_OK;
}

STDMETHODIMP PageHost::GetLocaleID(LCID* id) {
    if (!id) return E_POINTER;
    *id = GetUserDefaultLCID();
    return S_OK;
}

namespace {

BOOL CALLBACK countOwn(HWND window, LPARAM count) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId()) return TRUE;
    ++*reinterpret_cast<int*>(count);
    EnumChildWindows(
        window,
        [](HWND, LPARAM children) -> BOOL {
            ++*reinterpret_cast<int*>(children);
            return TRUE;
        },
        count);
    return TRUE;
}

} // namespace

GuiCounts guiCounts() {
    GuiCounts counts{compliance::countGdiObjects(), 0};
    EnumWindows(countOwn, reinterpret_cast<LPARAM>(&counts.windows));
    return counts;
}

} // namespace kestra::test
