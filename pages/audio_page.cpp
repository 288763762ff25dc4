// The page "Audio Format".
#include "pages/page_parts.h"
#include "pages/pages.h"
#include "pages/resource.h"
#include "win32/com_ref.h"

#include <kestra_interfaces.h>

namespace kestra {
namespace {

class CKestraAudioPropertyPage final : public CBasePropertyPage {
public:
    explicit CKestraAudioPropertyPage(LPUNKNOWN pUnk)
        : CBasePropertyPage(NAME("Audio format page"), pUnk, IDD_AUDIO, IDS_AUDIO) {}

    HRESULT OnConnect(IUnknown* object) override {
        m_audio = queryFor<IKestraAudioPropertyPage>(object, IID_IKestraAudioPropertyPage);
        return m_audio ? S_OK : E_NOINTERFACE;
    }
    HRESULT OnDisconnect() override {
        m_audio = {};
        m_bDirty = FALSE;
        return S_OK;
    }
    HRESULT OnActivate() override;
    HRESULT OnDeactivate() override {
        m_choice = selected();
        return S_OK;
    }
    HRESULT OnApplyChanges() override;
    INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) override;

private:
    LRESULT list(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const {
        return SendDlgItemMessageW(m_Dlg, IDC_BITS, message, wParam, lParam);
    }
    /// The low byte of the selected index, -1 if nothing is selected; without a dialog, the last selection.
    signed char selected() const { return m_Dlg ? static_cast<signed char>(list(CB_GETCURSEL)) : m_choice; }

    ComRef<IKestraAudioPropertyPage> m_audio;
    signed char m_index = -1;  ///< last read or applied
    signed char m_choice = -1; ///< outlives the dialog until it is applied
};

HRESULT CKestraAudioPropertyPage::OnActivate() {
    if (!m_audio) return E_UNEXPECTED; // some frames activate a page whose object was refused
    for (const wchar_t* width : {L"16 bits", L"24 bits"})
        list(CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(width));
    if (m_bDirty) { // back on a page that was left without applying it
        list(CB_SETCURSEL, static_cast<WPARAM>(m_choice));
        return S_OK;
    }
    unsigned char index = 0;
    if (SUCCEEDED(m_audio->get_BitDepth(&index))) {
        m_index = static_cast<signed char>(index);
        list(CB_SETCURSEL, index);
    }
    return S_OK;
}

HRESULT CKestraAudioPropertyPage::OnApplyChanges() {
    if (!m_audio) return E_UNEXPECTED;
    const signed char index = selected();
    HRESULT hr = S_OK;
    if (index != m_index) {
        hr = m_audio->put_BitDepth(static_cast<unsigned char>(index));
        if (FAILED(hr))
            MessageBoxW(m_Dlg,
                        L"This audio format doesn't accepted by input pin of current graph. Please, choose another "
                        L"format.",
                        L"Error", MB_OK | MB_ICONERROR);
        m_index = index; // even if refused: it is not tried again until another is chosen
    }
    if (SUCCEEDED(hr)) m_bDirty = FALSE;
    return hr;
}

INT_PTR CKestraAudioPropertyPage::OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_COMMAND && LOWORD(wParam) == IDC_BITS && HIWORD(wParam) == CBN_SELCHANGE) {
        if (selected() == m_index) return TRUE; // unchanged
        m_bDirty = TRUE;
        if (m_pPageSite) m_pPageSite->OnStatusChange(PROPPAGESTATUS_DIRTY);
        return TRUE;
    }
    return CBasePropertyPage::OnReceiveMessage(hwnd, uMsg, wParam, lParam);
}

} // namespace

CUnknown* CALLBACK createAudioPage(LPUNKNOWN pUnk, HRESULT* phr) {
    return createPage<CKestraAudioPropertyPage>(pUnk, phr);
}

} // namespace kestra
