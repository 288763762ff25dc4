// The exception barrier: every COM method that enters code of a derived class runs it through here. Not
// win32/guarded.h: this layer includes nothing else of the project, so that the platform's own copy can replace it.
#pragma once

#include <windows.h>

#include <new>
#include <utility>

namespace kestra::com {

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

} // namespace kestra::com
