// A page of numbers: fields, their limits, Apply, and what the user is told.
#include "pages/number_page.h"

#include "pages/resource.h"

#include <commctrl.h>

#include <algorithm>

namespace kestra {
namespace {

constexpr COLORREF kMarkedBackground = RGB(255, 218, 214), kMarkedText = RGB(112, 0, 8);

/// A red that is readable on the dialog's background, light or dark.
COLORREF messageColor() noexcept {
    const COLORREF face = GetSysColor(COLOR_3DFACE);
    const int brightness = GetRValue(face) * 3 + GetGValue(face) * 6 + GetBValue(face);
    return brightness > 1275 ? RGB(160, 0, 16) : RGB(255, 160, 152);
}

std::wstring typedText(HWND dialog, int id) {
    wchar_t buffer[81]; // as many characters as are used
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
    : CBasePropertyPage(name, pUnk, dialogAndTitle, dialogAndTitle), m_fields(fields), m_states(fields.size()) {
    // Without its controls' classes a dialog cannot even be measured.
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
    CheckDlgButton(m_Dlg, IDC_LIVE, m_live ? BST_CHECKED : BST_UNCHECKED);
    prepareControls();
    if (!m_available) m_bDirty = FALSE;
    if (m_available)
        for (size_t i = 0; i < m_fields.size(); ++i)
            load(i);
    m_loaded = m_loaded || m_available;
    m_failure.clear();
    updateMessage();
    return S_OK;
}

HRESULT NumberPage::OnDeactivate() {
    m_marked.reset();
    return S_OK;
}

HRESULT NumberPage::OnDisconnect() {
    endPreview(); // cancelled: nobody is left to hear of a failure
    for (State& state : m_states)
        state = State();
    m_bDirty = FALSE;
    m_available = m_loaded = m_live = false; // a dialog that is still open has nothing left to show
    return S_OK;
}

/// Shows the object's present value, unless an edit waits to be applied.
void NumberPage::load(size_t field) {
    State& state = m_states[field];
    if (!m_bDirty) state.edited = false;
    if (!state.edited) {
        double& value = state.loaded.value;
        getProperty(field, value);
        if (!m_loaded) state.first = value;
        state.number = {value, NumberFault::None};
        state.text = state.loaded.text = textOf(m_fields[field], value);
    }
    SetDlgItemTextW(m_Dlg, m_fields[field].id, state.text.c_str());
    changed(field, false);
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
    const HRESULT hr = send(true);
    if (FAILED(hr)) {
        report(L"The card has not taken these values. " + describe(hr));
        return hr;
    }
    for (State& state : m_states) {
        if (state.edited) state.loaded = {state.text, state.number.value};
        state.edited = false;
        state.before.reset();
    }
    return hr;
}

/// Puts every property in order: the edited value, the one a preview must restore, or the present one.
HRESULT NumberPage::send(bool withEdits) {
    freeze(1); // so that no half-written set reaches the card
    for (size_t i = 0; i < m_fields.size(); ++i) {
        State& state = m_states[i];
        double value = state.loaded.value; // in case the present one cannot be read
        if (withEdits && state.edited) {
            value = std::clamp(state.number.value, m_fields[i].least, m_fields[i].most); // an infinite gain
        } else if (state.before) {
            value = *state.before;
            state.before.reset();
        } else {
            getProperty(i, value);
        }
        putProperty(i, value);
    }
    return freeze(0);
}

/// While the preview is live, the fields go to the card, all or none.
void NumberPage::preview() {
    const auto counts = [](const State& state) { return state.edited || state.before; };
    if (!m_live || !m_available || firstBad() < m_fields.size() ||
        std::none_of(m_states.begin(), m_states.end(), counts))
        return;
    for (size_t i = 0; i < m_fields.size(); ++i) {
        State& state = m_states[i];
        double present = 0;
        if (state.edited && !state.before && SUCCEEDED(getProperty(i, present))) state.before = present;
    }
    const HRESULT hr = send(true);
    if (FAILED(hr)) report(L"The card has not taken these values. " + describe(hr));
}

/// Restores what the preview has replaced in the card. The fields keep their contents.
HRESULT NumberPage::endPreview() {
    const auto replaced = [](const State& state) { return state.before.has_value(); };
    return std::any_of(m_states.begin(), m_states.end(), replaced) ? send(false) : S_OK;
}

void NumberPage::revert() {
    for (size_t i = 0; i < m_fields.size(); ++i)
        if (m_states[i].touched) edit(i, m_states[i].first);
    markDirty();
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
        if (child != IDC_MESSAGE || !m_messageIsError) return FALSE;
        SetTextColor(dc, messageColor());
        SetBkColor(dc, GetSysColor(COLOR_3DFACE));
        return reinterpret_cast<INT_PTR>(GetSysColorBrush(COLOR_3DFACE));
    case WM_COMMAND:
        if (!m_Dlg || !m_available) return FALSE;
        if (HIWORD(wParam) == EN_CHANGE) takeTyped(LOWORD(wParam));
        if (HIWORD(wParam) == CBN_SELCHANGE) selectionChanged(LOWORD(wParam));
        if (HIWORD(wParam) != BN_CLICKED) return TRUE;
        if (LOWORD(wParam) == IDC_REVERT) {
            revert();
        } else if (LOWORD(wParam) == IDC_LIVE) {
            m_live = IsDlgButtonChecked(m_Dlg, IDC_LIVE) == BST_CHECKED;
            if (m_live)
                preview();
            else if (const HRESULT hr = endPreview(); FAILED(hr))
                report(L"The card has not taken its former values back. " + describe(hr));
        } else {
            buttonPressed(LOWORD(wParam));
        }
        return TRUE;
    default:
        return CBasePropertyPage::OnReceiveMessage(hwnd, uMsg, wParam, lParam);
    }
}

/// Also called for texts set by the page itself or an up-down control: a known text is no change.
void NumberPage::takeTyped(int id) {
    const auto field = std::find_if(m_fields.begin(), m_fields.end(), [id](const auto& f) { return f.id == id; });
    if (field == m_fields.end()) return;
    const auto i = static_cast<size_t>(field - m_fields.begin());
    State& state = m_states[i];
    std::wstring typed = typedText(m_Dlg, id);
    if (typed == state.text) return;
    state.text = std::move(typed);
    state.edited = state.text != state.loaded.text;
    state.touched = state.touched || state.edited;
    if (!state.edited)
        state.number = {state.loaded.value, NumberFault::None};
    else if (!state.text.empty() && state.text == state.program.text)
        state.number = {state.program.value, NumberFault::None};
    else
        state.number = parse(*field, state.text);
    changed(i, true);
    markDirty();
}

void NumberPage::edit(size_t field, double value) {
    State& state = m_states[field];
    state.text = textOf(m_fields[field], value);
    state.number = {value, NumberFault::None};
    state.edited = state.touched = true;
    state.program = {state.text, value};
    if (const HWND edit = m_Dlg ? GetDlgItem(m_Dlg, m_fields[field].id) : nullptr) {
        SendMessageW(edit, EM_SETSEL, 0, -1);
        SendMessageW(edit, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(state.text.c_str()));
    }
    changed(field, false);
}

void NumberPage::changed(size_t field, bool byUser) {
    if (m_Dlg) {
        const NumberField& f = m_fields[field];
        InvalidateRect(GetDlgItem(m_Dlg, f.id), nullptr, TRUE);
        if (f.cardId)
            SetDlgItemTextW(m_Dlg, f.cardId,
                            isGood(field) ? cardText(f, value(field), m_states[field].text).c_str() : L"");
    }
    fieldChanged(field, byUser);
}

void NumberPage::markDirty() {
    m_failure.clear();
    updateMessage();
    m_bDirty = TRUE;
    if (m_pPageSite) m_pPageSite->OnStatusChange(PROPPAGESTATUS_DIRTY);
    preview();
}

void NumberPage::report(const std::wstring& failure) {
    m_failure = failure;
    updateMessage();
    MessageBeep(MB_ICONWARNING);
}

/// A failure; otherwise the first invalid field; otherwise the first edited unusual one.
void NumberPage::updateMessage() {
    if (!m_Dlg) return;
    std::wstring message = m_failure;
    if (m_available && message.empty()) {
        const size_t bad = firstBad();
        if (bad < m_fields.size()) message = explain(m_fields[bad], m_states[bad].number.fault);
    }
    m_messageIsError = !message.empty();
    for (size_t i = 0; m_available && message.empty() && i < m_fields.size(); ++i)
        if (m_states[i].edited) message = warn(m_fields[i], value(i));
    SetDlgItemTextW(m_Dlg, IDC_MESSAGE, message.c_str());
}

size_t NumberPage::firstBad() const {
    size_t i = 0;
    while (i < m_fields.size() && isGood(i))
        ++i;
    return i;
}

} // namespace kestra
