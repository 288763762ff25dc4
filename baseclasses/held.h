// Owns one reference to a COM object for the time of a function. Not win32/com_ref.h: this layer includes nothing else
// of the project, so that the platform's own copy can replace it. Members of this layer's classes stay plain pointers,
// because their public names and types are.
#pragma once

#include <utility>

namespace kestra::com {

template <class Interface>
class Held {
public:
    /// Takes over a reference, if there is one.
    explicit Held(Interface* counted = nullptr) noexcept : m_object(counted) {}
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() {
        if (m_object) m_object->Release();
    }
    explicit operator bool() const noexcept { return m_object != nullptr; }
    Interface* operator->() const noexcept { return m_object; }
    Interface* get() const noexcept { return m_object; }
    /// For the one call that fills it.
    Interface** out() noexcept { return &m_object; }
    void** outVoid() noexcept { return reinterpret_cast<void**>(&m_object); }
    /// Passes the reference to the caller and takes over another, if there is one.
    Interface* exchange(Interface* counted = nullptr) noexcept { return std::exchange(m_object, counted); }

private:
    Interface* m_object = nullptr;
};

/// A new reference to an object that somebody else holds; none for null.
template <class Interface>
Interface* counted(Interface* object) noexcept {
    if (object) object->AddRef();
    return object;
}

} // namespace kestra::com
