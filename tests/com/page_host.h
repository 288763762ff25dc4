// A property frame of ours: shows one page of the module, plays the user, and counts what the page reports.
#pragma once

#include "win32/com_ref.h"

#include <windows.h>

#include <ocidl.h>

#include <string>
#include <vector>

namespace kestra::test {

/// One at a time, on one thread. Lives on the stack: its reference count is only counted.
class PageHost : public IPropertyPageSite {
public:
    PageHost();
    virtual ~PageHost();
    PageHost(const PageHost&) = delete;
    PageHost& operator=(const PageHost&) = delete;

    /// Does what a frame does: site, object, size, activation. @return the first failure
    HRESULT open(ComRef<IPropertyPage> page, IUnknown* object);
    /// Undoes it in reverse order and releases the page.
    void close();
    HRESULT apply() { return m_page->Apply(); }
    bool isDirty() const { return m_page->IsPageDirty() == S_OK; }
    IPropertyPage* page() const { return m_page.get(); }
    HWND frame() const { return m_frame; }
    HWND dialog() const { return m_dialog; }
    SIZE size() const { return m_size; }
    std::wstring title() const { return m_title; }
    /// Hides the page, or shows it, as a frame of several pages may do by taking the dialog away and making a new one.
    HRESULT leave();
    HRESULT comeBack();

    // What a user sees.
    HWND control(int id) const { return GetDlgItem(m_dialog, id); }
    std::wstring text(int id) const;
    bool isShown(int id) const { return IsWindowVisible(control(id)) != FALSE; }
    /// True if an edit has another background than an ordinary one.
    bool isMarked(int id) const;
    /// The controls that the Tab key goes to, in its order.
    std::vector<int> tabOrder() const;
    /// Every child window of the dialog.
    std::vector<HWND> children() const;
    /// Texts that do not fit their control, and controls that leave the page or overlap another.
    std::vector<std::wstring> cutTexts() const;

    // What a user does.
    void type(int id, const std::wstring& text) const; ///< in place of what is there, key by key
    void click(int id) const { SendMessageW(control(id), BM_CLICK, 0, 0); }
    void key(WORD virtualKey) const;
    void accessKey(wchar_t letter) const; ///< Alt and that letter

    int dirtyReports = 0;
    long references() const { return m_references; }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--m_references); }
    STDMETHODIMP OnStatusChange(DWORD flags) override;
    STDMETHODIMP GetLocaleID(LCID* id) override;
    STDMETHODIMP GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }

private:
    HRESULT activate();
    void dispatchKey(MSG message) const;

    HWND m_frame, m_dialog = nullptr;
    SIZE m_size{};
    std::wstring m_title;
    ComRef<IPropertyPage> m_page;
    long m_references = 1;
};

/// The window and drawing objects that this process holds.
struct GuiCounts {
    int gdiObjects, windows;
};
GuiCounts guiCounts();

} // namespace kestra::test
