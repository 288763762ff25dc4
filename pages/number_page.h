// A page of fields for numbers: loads them, checks what is typed, marks what cannot be taken, and applies all of them
// or none. The frame's thread only. Private to pages/.
#pragma once

#include "pages/number_text.h"
#include "pages/page_parts.h"

#include <span>
#include <string>
#include <vector>

namespace kestra {

class NumberPage : public CBasePropertyPage {
public:
    HRESULT OnActivate() override;
    HRESULT OnDeactivate() override;
    HRESULT OnDisconnect() override;
    /// Checks every field first: if one cannot be taken, the first such gets the focus and nothing is sent.
    /// @return E_INVALIDARG then; else what applying answered
    HRESULT OnApplyChanges() override;
    INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) override;

protected:
    NumberPage(LPCTSTR name, LPUNKNOWN pUnk, int dialogAndTitle, std::span<const NumberField> fields);

    /// True if the output format uses what this page sets; else it shows one sentence instead of its controls.
    virtual bool isAvailable() = 0;
    /// Shows the current values with show().
    virtual void load() = 0;
    /// Sends the values of all fields, which have been checked.
    virtual HRESULT send() = 0;
    /// Once the dialog is there, before the values are shown.
    virtual void prepareControls() {}
    /// Another text stands in a field, whoever put it there.
    virtual void fieldChanged(size_t /*field*/, bool /*byUser*/) {}
    /// A button was pressed.
    virtual void buttonPressed(int /*id*/) {}

    /// Puts a text into a field.
    void show(size_t field, std::wstring text);
    const std::wstring& text(size_t field) const { return m_texts[field]; }
    bool isGood(size_t field) const { return check(m_fields[field], m_texts[field]) == NumberFault::None; }
    /// A checked field's value.
    int32_t whole(size_t field) const;
    float decimal(size_t field) const;

    /// Tells the frame that there is something to apply.
    void markDirty();
    /// Shows a failure until something is changed.
    void report(const std::wstring& failure);

private:
    void takeTyped(int id);
    void redraw(size_t field);
    void updateMessage();
    size_t firstBad() const;

    const std::span<const NumberField> m_fields;
    std::vector<std::wstring> m_texts; ///< of the fields; they outlive the dialog while the page is dirty
    std::wstring m_failure;
    bool m_available = false;
    Brush m_marked;
};

/// "0x80004005" and, where a user can do something about it, what it means.
std::wstring describe(HRESULT hr);

} // namespace kestra
