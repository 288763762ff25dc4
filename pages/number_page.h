// A page of number fields: shows an object's properties, checks what is typed, marks invalid fields, and applies all or
// none. A field that nobody edited is written back bit for bit, never from its text. The frame's thread only. Private
// to pages/.
#pragma once

#include "pages/number_text.h"
#include "pages/page_parts.h"
#include "win32/com_ref.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestra {

class NumberPage : public CBasePropertyPage {
public:
    HRESULT OnActivate() override;
    HRESULT OnDeactivate() override;
    HRESULT OnDisconnect() override;
    /// Checks every field first: if any is invalid, the first one gets the focus and nothing is sent.
    /// @return E_INVALIDARG in that case; otherwise the object's answer
    HRESULT OnApplyChanges() override;
    INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) override;

protected:
    NumberPage(LPCTSTR name, LPUNKNOWN pUnk, int dialogAndTitle, std::span<const NumberField> fields);

    /// True if the output format uses this page's settings; otherwise the page shows a sentence in place of its
    /// controls.
    virtual bool isAvailable() = 0;
    virtual HRESULT getProperty(size_t field, double& value) = 0;
    virtual void putProperty(size_t field, double value) = 0;
    /// Between 1 and 0 no put reaches the card. @return for 0: whether the card accepted the values
    virtual HRESULT freeze(LONG frozen) = 0;
    /// Called once the dialog exists, before the values are shown.
    virtual void prepareControls() {}
    /// A field's value has changed, whoever changed it.
    virtual void fieldChanged(size_t /*field*/, bool /*byUser*/) {}
    virtual void buttonPressed(int /*id*/) {}
    virtual void selectionChanged(int /*id*/) {}

    /// Puts a value into a field, bit for bit, as an edit that the user can undo. The caller calls markDirty().
    void edit(size_t field, double value);
    double value(size_t field) const { return m_states[field].number.value; }
    bool isGood(size_t field) const { return m_states[field].number.fault == NumberFault::None; }

    /// Tells the frame that there is something to apply and, while the preview is live, shows it.
    void markDirty();
    /// Shows a failure until something is changed.
    void report(const std::wstring& failure);

private:
    /// A value and its text: an unchanged text means the same value, even if the text is rounded.
    struct Shown {
        std::wstring text;
        double value = 0;
    };
    struct State {
        std::wstring text; ///< outlives the dialog while the page is dirty
        TypedNumber number{0, NumberFault::None};
        bool edited = false;          ///< else the object's own value is put
        bool touched = false;         ///< edited since the page was opened, perhaps applied meanwhile
        Shown loaded;                 ///< last read or applied
        Shown program;                ///< last put here by a button or a slider
        double first = 0;             ///< when the page was opened
        std::optional<double> before; ///< what a live preview has replaced
    };

    void load(size_t field);
    HRESULT send(bool withEdits);
    void preview();
    HRESULT endPreview();
    void revert();
    void takeTyped(int id);
    void changed(size_t field, bool byUser);
    void updateMessage();
    size_t firstBad() const;

    const std::span<const NumberField> m_fields;
    std::vector<State> m_states;
    std::wstring m_failure;
    bool m_available = false, m_loaded = false, m_live = false, m_messageIsError = false;
    Brush m_marked;
};

/// One property of an interface, whatever its type, as a double.
template <class Interface>
struct Property {
    HRESULT (*get)(Interface&, double&);
    HRESULT (*put)(Interface&, double);
};

template <class Interface, class Value>
Value valueOfGetter(HRESULT (STDMETHODCALLTYPE Interface::*)(Value*));

/// property<Interface, &Interface::get_Name, &Interface::put_Name>
template <class Interface, auto Get, auto Put>
constexpr Property<Interface> property() {
    using Value = decltype(valueOfGetter(Get));
    return {[](Interface& object, double& value) {
                Value read{};
                const HRESULT hr = (object.*Get)(&read);
                if (SUCCEEDED(hr)) value = static_cast<double>(read);
                return hr;
            },
            [](Interface& object, double value) { return (object.*Put)(static_cast<Value>(value)); }};
}

/// A page of fields that are the properties of one interface, in the same order.
template <class Interface>
class PropertiesPage : public NumberPage {
public:
    ~PropertiesPage() override {
        if (m_object) PropertiesPage::OnDisconnect();
    }
    HRESULT OnConnect(IUnknown* object) override {
        if (m_object) OnDisconnect();
        m_object = queryFor<Interface>(object, m_iid);
        return m_object ? S_OK : E_NOINTERFACE;
    }
    HRESULT OnDisconnect() override {
        const HRESULT hr = NumberPage::OnDisconnect();
        m_object = {};
        return hr;
    }

protected:
    PropertiesPage(LPCTSTR name, LPUNKNOWN pUnk, int dialogAndTitle, std::span<const NumberField> fields,
                   std::span<const Property<Interface>> properties, REFIID iid)
        : NumberPage(name, pUnk, dialogAndTitle, fields), m_properties(properties), m_iid(iid) {}

    bool isAvailable() override {
        LONG rgb = 0;
        return m_object && SUCCEEDED(m_object->get_RGBOut(&rgb)) && rgb != 0;
    }
    HRESULT getProperty(size_t field, double& value) override {
        return m_properties[field].get(*m_object.get(), value);
    }
    void putProperty(size_t field, double value) override { m_properties[field].put(*m_object.get(), value); }
    HRESULT freeze(LONG frozen) override { return m_object->put_FreezeUpdate(frozen); }

    ComRef<Interface> m_object;

private:
    const std::span<const Property<Interface>> m_properties;
    const IID m_iid;
};

/// "0x80004005" and, where a user can do something about it, what it means.
std::wstring describe(HRESULT hr);

} // namespace kestra
