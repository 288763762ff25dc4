// The exception barrier: every COM method that may meet an exception runs its body through here.
#pragma once

#include <windows.h>

#include <new>
#include <utility>

namespace kestra {

/// Runs `body` and answers its result; an exception becomes E_OUTOFMEMORY (std::bad_alloc) or E_UNEXPECTED. Any thread.
template <class Body>
HRESULT guarded(Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

} // namespace kestra
