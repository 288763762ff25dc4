// A property page that is a dialog of the module's resources.
#pragma once

#include "objects.h"

/// Base of every property page. Owns its dialog while active and holds its site. No lock: the frame's thread only.
class CBasePropertyPage : public IPropertyPage, public CUnknown {
public:
    CBasePropertyPage(LPCTSTR pName, LPUNKNOWN pUnk, int DialogId, int TitleId);
    DECLARE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;
    /// The last release destroys the dialog and releases site and object, while the page is still intact.
    ULONG STDMETHODCALLTYPE NonDelegatingRelease() override;

    virtual HRESULT OnConnect(IUnknown*) { return S_OK; }
    virtual HRESULT OnDisconnect() { return S_OK; }
    virtual HRESULT OnActivate() { return S_OK; }
    virtual HRESULT OnDeactivate() { return S_OK; }
    virtual HRESULT OnApplyChanges() { return S_OK; }
    virtual INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam);

    STDMETHODIMP SetPageSite(LPPROPERTYPAGESITE pPageSite) override;
    STDMETHODIMP Activate(HWND hwndParent, LPCRECT prect, BOOL fModal) override;
    STDMETHODIMP Deactivate() override;
    STDMETHODIMP GetPageInfo(LPPROPPAGEINFO pPageInfo) override;
    STDMETHODIMP SetObjects(ULONG cObjects, LPUNKNOWN* ppUnk) override;
    STDMETHODIMP Show(UINT nCmdShow) override;
    STDMETHODIMP Move(LPCRECT prect) override;
    STDMETHODIMP IsPageDirty() override { return m_bDirty ? S_OK : S_FALSE; }
    STDMETHODIMP Apply() override;
    /// E_NOTIMPL means "no help of its own": the frame then consults GetPageInfo.
    STDMETHODIMP Help(LPCWSTR) override { return E_NOTIMPL; }
    /// E_NOTIMPL means "no keys of its own": the frame's keys apply, and Tab passes through the page.
    STDMETHODIMP TranslateAccelerator(LPMSG) override { return E_NOTIMPL; }

protected:
    LPPROPERTYPAGESITE m_pPageSite = nullptr;
    HWND m_hwnd = nullptr; // the page's window while active: the dialog
    HWND m_Dlg = nullptr;  // the same
    int m_DialogId;
    int m_TitleId;
    BOOL m_bDirty = FALSE;
    BOOL m_bObjectSet = FALSE;

private:
    static INT_PTR CALLBACK DialogProc(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam);
};
