#include "pages/number_page.h"

#include "pages/resource.h"

#include <commctrl.h>

#include <algorithm>

namespace kestra {
namespace {

constexpr COLORREF kMarkedBackground = RGB(255, 218, 214), kMarkedText = RGB(112, 0, 8);

/// A red that can be read on the dialog's own background, light or dark.
COLORREF messageColor() noexcept {
    const COLORREF face = GetSysColor(COLOR_3DFACE);
    const int brightness = GetRValue(face) * 3 + GetGValue(face) * 6 + GetBValue(face);
    return brightness > 1275 ? RGB(160, 0, 16) : RGB(255, 160, 152);
}

std::wstring textOf(HWND dialog, int id) {
    wchar_t buffer[81]; // as many characters as are read
    const UINT length = GetDlgItemTextW(dialog, id, buffer, 81);
    return {buffer, length};
}

} // namespace

std::wstring describe(HRESULT hr) {
    std::wstring code = L"0x";
    for (int shift = 28; shift >= 0; shift -= 4)
        code += L"0123456789ABCDEF"[static_cast<unsigned long>(hr) >> shift & 0xF];
    switch (hr) {
    case E_ACCESSDENIED:
        return L"Another application is using the card (" + code + L").";
    case E_OUTOFMEMORY:
        return L"There is not enough memory (" + code + L").";
    case HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND):
        return L"The image library ippLib.dll is missing or damaged (" + code + L").";
    default:
        return L"Please look at the input signal and the log (" + code + L").";
    }
}

NumberPage::NumberPage(LPCTSTR name, LPUNKNOWN pUnk, int dialogAndTitle, std::span<const NumberField> fields)
    : CBasePropertyPage(name, pUnk, dialogAndTitle, dialogAndTitle), m_fields(fields), m_texts(fields.size()) {
    // The dialogs cannot even be measured without their controls' classes.
    const INITCOMMONCONTROLSEX classes{sizeof classes, ICC_BAR_CLASSES | ICC_UPDOWN_CLASS};
    InitCommonControlsEx(&classes);
}

HRESULT NumberPage::OnActivate() {
    m_marked = Brush(CreateSolidBrush(kMarkedBackground));
    m_available = isAvailable();
    for (HWND child = GetWindow(m_Dlg, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT))
        ShowWindow(child, (GetDlgCtrlID(child) == IDC_NOT_AVAILABLE) == m_available ? SW_HIDE : SW_SHOWNA);
    for (const NumberField& field : m_fields)
        SendDlgItemMessageW(m_Dlg, field.id, EM_LIMITTEXT, 80, 0);
    prepareControls();
    if (!m_available) m_bDirty = FALSE;
    if (!m_bDirty) {
        if (m_available) load();
    } else { // back on a page that was left before it was applied
        for (size_t i = 0; i < m_fields.size(); ++i) {
            SetDlgItemTextW(m_Dlg, m_fields[i].id, m_texts[i].c_str());
            fieldChanged(i, false);
        }
    }
    m_failure.clear();
    updateMessage();
    return S_OK;
}

HRESULT NumberPage::OnDeactivate() {
    m_marked.reset();
    return S_OK;
}

HRESULT NumberPage::OnDisconnect() {
    m_bDirty = FALSE;
    m_available = false; // a dialog that is still open has nothing to show any more
    return S_OK;
}

HRESULT NumberPage::OnApplyChanges() {
    if (!m_available) return E_UNEXPECTED;
    const size_t bad = firstBad();
    if (bad < m_fields.size()) {
        updateMessage();
        MessageBeep(MB_ICONWARNING);
        if (const HWND edit = m_Dlg ? GetDlgItem(m_Dlg, m_fields[bad].id) : nullptr) {
            SetFocus(edit);
            SendMessageW(edit, EM_SETSEL, 0, -1);
        }
        return E_INVALIDARG;
    }
    const HRESULT hr = send();
    if (FAILED(hr)) report(L"The card has not taken these values. " + describe(hr));
    return hr;
}

INT_PTR NumberPage::OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    const HDC dc = reinterpret_cast<HDC>(wParam);
    const int child =
        uMsg == WM_CTLCOLOREDIT || uMsg == WM_CTLCOLORSTATIC ? GetDlgCtrlID(reinterpret_cast<HWND>(lParam)) : 0;
    switch (uMsg) {
    case WM_CTLCOLOREDIT:
        for (size_t i = 0; i < m_fields.size(); ++i)
            if (m_fields[i].id == child && !isGood(i) && m_marked) {
                SetTextColor(dc, kMarkedText);
                SetBkColor(dc, kMarkedBackground);
                return reinterpret_cast<INT_PTR>(m_marked.get());
            }
        return FALSE;
    case WM_CTLCOLORSTATIC:
        if (child != IDC_MESSAGE) return FALSE;
        SetTextColor(dc, messageColor());
        SetBkColor(dc, GetSysColor(COLOR_3DFACE));
        return reinterpret_cast<INT_PTR>(GetSysColorBrush(COLOR_3DFACE));
    case WM_COMMAND:
        if (!m_Dlg || !m_available) return FALSE;
        if (HIWORD(wParam) == EN_CHANGE) takeTyped(LOWORD(wParam));
        if (HIWORD(wParam) == BN_CLICKED) buttonPressed(LOWORD(wParam));
        return TRUE;
    default:
        return CBasePropertyPage::OnReceiveMessage(hwnd, uMsg, wParam, lParam);
    }
}

/// Also told of texts that the page itself or an up-down control has put: those that are known already are no change.
void NumberPage::takeTyped(int id) {
    const auto field = std::find_if(m_fields.begin(), m_fields.end(), [id](const auto& f) { return f.id == id; });
    if (field == m_fields.end()) return;
    const auto i = static_cast<size_t>(field - m_fields.begin());
    std::wstring typed = textOf(m_Dlg, id);
    if (typed == m_texts[i]) return;
    m_texts[i] = std::move(typed);
    redraw(i);
    fieldChanged(i, true);
    markDirty();
}

void NumberPage::show(size_t field, std::wstring text) {
    m_texts[field] = std::move(text);
    if (m_Dlg) SetDlgItemTextW(m_Dlg, m_fields[field].id, m_texts[field].c_str());
    redraw(field);
    fieldChanged(field, false);
}

int32_t NumberPage::whole(size_t field) const {
    const NumberField& f = m_fields[field];
    return parseWhole(m_texts[field], static_cast<int32_t>(f.least), static_cast<int32_t>(f.most)).value;
}

float NumberPage::decimal(size_t field) const {
    return parseDecimal(m_texts[field], m_fields[field].least, m_fields[field].most).value;
}

void NumberPage::markDirty() {
    m_failure.clear();
    updateMessage();
    m_bDirty = TRUE;
    if (m_pPageSite) m_pPageSite->OnStatusChange(PROPPAGESTATUS_DIRTY);
}

void NumberPage::report(const std::wstring& failure) {
    m_failure = failure;
    updateMessage();
    MessageBeep(MB_ICONWARNING);
}

void NumberPage::redraw(size_t field) {
    if (m_Dlg) InvalidateRect(GetDlgItem(m_Dlg, m_fields[field].id), nullptr, TRUE);
}

void NumberPage::updateMessage() {
    if (!m_Dlg) return;
    const size_t bad = m_available && m_failure.empty() ? firstBad() : m_fields.size();
    const std::wstring message =
        bad < m_fields.size() ? explain(m_fields[bad], check(m_fields[bad], m_texts[bad])) : m_failure;
    SetDlgItemTextW(m_Dlg, IDC_MESSAGE, message.c_str());
}

size_t NumberPage::firstBad() const {
    size_t i = 0;
    while (i < m_fields.size() && isGood(i))
        ++i;
    return i;
}

} // namespace kestra
