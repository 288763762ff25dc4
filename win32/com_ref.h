// Owns one reference to a COM object.
#pragma once

#include <unknwn.h>

#include <utility>

namespace kestra {

template <class Interface>
class ComRef {
public:
    ComRef() = default;
    /// Takes over a reference.
    explicit ComRef(Interface* owned) noexcept : m_object(owned) {}
    ComRef(ComRef&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ComRef& operator=(ComRef other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~ComRef() {
        if (m_object) m_object->Release();
    }
    /// Takes a further reference.
    static ComRef share(Interface* object) noexcept {
        if (object) object->AddRef();
        return ComRef(object);
    }
    explicit operator bool() const noexcept { return m_object != nullptr; }
    Interface* operator->() const noexcept { return m_object; }
    Interface* get() const noexcept { return m_object; }
    /// Output argument for a function; releases the current reference first.
    Interface** out() noexcept {
        *this = ComRef();
        return &m_object;
    }

private:
    Interface* m_object = nullptr;
};

/// Asks an object for an interface. @return null if there is no object or it lacks the interface
template <class Interface>
ComRef<Interface> queryFor(IUnknown* object, REFIID riid) noexcept {
    void* found = nullptr;
    if (object) object->QueryInterface(riid, &found);
    return ComRef<Interface>(static_cast<Interface*>(found));
}

} // namespace kestra
