// Connects the frame, which calls the page's methods, with its dialog.
#include "property_page.h"

#include "class_factory.h"
#include "firewall.h"

#include <algorithm>

using kestra::com::guarded;

CBasePropertyPage::CBasePropertyPage(LPCTSTR pName, LPUNKNOWN pUnk, int DialogId, int TitleId)
    : CUnknown(pName, pUnk), m_DialogId(DialogId), m_TitleId(TitleId) {}

HRESULT CBasePropertyPage::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IPropertyPage) return GetInterface(static_cast<IPropertyPage*>(this), ppv);
    return CUnknown::NonDelegatingQueryInterface(riid, ppv);
}

// Does what a frame should have done before; the derived class is told through its own functions. If one of them takes
// and releases a reference, the page must not end a second time.
ULONG CBasePropertyPage::NonDelegatingRelease() {
    if (InterlockedCompareExchange(&m_cRef, 2, 1) == 1) {
        Deactivate();
        SetObjects(0, nullptr);
        SetPageSite(nullptr);
        InterlockedDecrement(&m_cRef);
    }
    return CUnknown::NonDelegatingRelease();
}

STDMETHODIMP CBasePropertyPage::SetPageSite(LPPROPERTYPAGESITE pPageSite) {
    if (pPageSite && m_pPageSite) return E_UNEXPECTED;
    if (!pPageSite && !m_pPageSite) return E_UNEXPECTED;
    if (pPageSite) pPageSite->AddRef();
    if (m_pPageSite) m_pPageSite->Release();
    m_pPageSite = pPageSite;
    return S_OK;
}

STDMETHODIMP CBasePropertyPage::SetObjects(ULONG cObjects, LPUNKNOWN* ppUnk) {
    if (cObjects == 0) {
        m_bObjectSet = FALSE;
        return guarded([this] { return OnDisconnect(); });
    }
    if (cObjects > 1) return E_UNEXPECTED;
    CheckPointer(ppUnk, E_POINTER);
    CheckPointer(*ppUnk, E_POINTER);
    const HRESULT hr = guarded([&] { return OnConnect(*ppUnk); });
    m_bObjectSet = SUCCEEDED(hr);
    return hr;
}

STDMETHODIMP CBasePropertyPage::Activate(HWND hwndParent, LPCRECT prect, BOOL) {
    CheckPointer(prect, E_POINTER);
    if (!m_bObjectSet || m_Dlg) return E_UNEXPECTED;
    m_Dlg = CreateDialogParam(g_hInst, MAKEINTRESOURCE(m_DialogId), hwndParent, DialogProc, LPARAM(this));
    m_hwnd = m_Dlg;
    if (!m_Dlg) return E_OUTOFMEMORY;
    // Without this style the frame's keys (Tab into and out of the page, Enter, Escape) skip the dialog.
    SetWindowLongPtr(m_Dlg, GWL_EXSTYLE, GetWindowLongPtr(m_Dlg, GWL_EXSTYLE) | WS_EX_CONTROLPARENT);
    guarded([this] { return OnActivate(); });
    Move(prect);
    return Show(SW_SHOWNORMAL);
}

STDMETHODIMP CBasePropertyPage::Deactivate() {
    if (!m_Dlg) return E_UNEXPECTED;
    guarded([this] { return OnDeactivate(); });
    m_hwnd = nullptr; // so that the style goes: the system's search for the next control may not enter a dying dialog
    SetWindowLongPtr(m_Dlg, GWL_EXSTYLE, GetWindowLongPtr(m_Dlg, GWL_EXSTYLE) & ~LONG_PTR{WS_EX_CONTROLPARENT});
    DestroyWindow(m_Dlg);
    m_Dlg = nullptr;
    return S_OK;
}

STDMETHODIMP CBasePropertyPage::Move(LPCRECT prect) {
    CheckPointer(prect, E_POINTER);
    if (!m_Dlg) return E_UNEXPECTED;
    MoveWindow(m_Dlg, prect->left, prect->top, prect->right - prect->left, prect->bottom - prect->top, TRUE);
    return S_OK;
}

STDMETHODIMP CBasePropertyPage::Show(UINT nCmdShow) {
    if (!m_Dlg) return E_UNEXPECTED;
    if (nCmdShow != SW_SHOW && nCmdShow != SW_SHOWNORMAL && nCmdShow != SW_HIDE) return E_INVALIDARG;
    ShowWindow(m_Dlg, int(nCmdShow));
    return S_OK;
}

STDMETHODIMP CBasePropertyPage::GetPageInfo(LPPROPPAGEINFO pPageInfo) {
    CheckPointer(pPageInfo, E_POINTER);
    wchar_t title[256] = L"";
    const int length = LoadStringW(g_hInst, UINT(m_TitleId), title, 256);
    *pPageInfo = {};
    pPageInfo->cb = sizeof *pPageInfo;
    pPageInfo->pszTitle = static_cast<LPOLESTR>(CoTaskMemAlloc((size_t(length) + 1) * sizeof(wchar_t)));
    if (!pPageInfo->pszTitle) return E_OUTOFMEMORY;
    std::copy_n(title, length + 1, pPageInfo->pszTitle);
    pPageInfo->size = {340, 150}; // pixels, if the dialog cannot be measured
    const HWND measured = CreateDialogParam(g_hInst, MAKEINTRESOURCE(m_DialogId), GetDesktopWindow(), DialogProc, 0);
    RECT area;
    if (measured && GetWindowRect(measured, &area)) {
        pPageInfo->size = {area.right - area.left, area.bottom - area.top};
    }
    if (measured) DestroyWindow(measured);
    return S_OK;
}

STDMETHODIMP CBasePropertyPage::Apply() {
    if (!m_bObjectSet || !m_pPageSite) return E_UNEXPECTED;
    if (!m_bDirty) return S_OK;
    const HRESULT hr = guarded([this] { return OnApplyChanges(); });
    if (SUCCEEDED(hr)) m_bDirty = FALSE;
    return hr;
}

INT_PTR CBasePropertyPage::OnReceiveMessage(HWND, UINT, WPARAM, LPARAM) {
    return FALSE;
}

INT_PTR CALLBACK CBasePropertyPage::DialogProc(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_INITDIALOG) SetWindowLongPtr(hwnd, DWLP_USER, lParam);
    auto* page = reinterpret_cast<CBasePropertyPage*>(GetWindowLongPtr(hwnd, DWLP_USER));
    if (!page) return FALSE; // only measured, or before WM_INITDIALOG
    if (uMsg == WM_INITDIALOG) page->m_hwnd = page->m_Dlg = hwnd;
    // Some frames remove the style that Activate set.
    if (uMsg == WM_STYLECHANGING && int(wParam) == GWL_EXSTYLE && page->m_hwnd) {
        reinterpret_cast<STYLESTRUCT*>(lParam)->styleNew |= WS_EX_CONTROLPARENT;
    }
    try {
        return page->OnReceiveMessage(hwnd, uMsg, wParam, lParam);
    } catch (...) {
        return FALSE; // as if unhandled: no exception may pass through the system's window code
    }
}
