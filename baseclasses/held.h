// Owns one reference to a COM object for the time of a function. What a class of this layer keeps is a plain pointer,
// because its public name and type are.
#pragma once

#include <utility>

namespace kestra::com {

template <class Interface>
class Held {
public:
    Held() = default;
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
    /// The reference becomes the caller's.
    Interface* detach() noexcept { return std::exchange(m_object, nullptr); }

private:
    Interface* m_object = nullptr;
};

} // namespace kestra::com
