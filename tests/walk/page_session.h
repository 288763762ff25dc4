// A frame that shows one property page for a moment and does with it what users do, in any order. The calling thread's.
#pragma once

#include <windows.h>

#include <ocidl.h>

#include <cstdint>
#include <functional>

namespace kestra::walk {

/// The window that a thread's pages are shown in.
class PageFrame {
public:
    PageFrame();
    ~PageFrame();
    PageFrame(const PageFrame&) = delete;
    PageFrame& operator=(const PageFrame&) = delete;
    HWND window() const { return m_window; }
    /// How many GDI objects the system has kept until now of threads that have ended. The main thread's.
    static int objectsLeft();

private:
    const HHOOK m_hook;
    const HWND m_window;
};

/// @param touched  called after whatever may have changed the card's converter
/// @return the last result that was no success, or S_OK
HRESULT useOnce(IPropertyPage* page, IUnknown* object, HWND frame, uint32_t seed, const std::function<void()>& touched);

/// Presses OK in every message box of this process. Any thread.
void closeBoxes();

} // namespace kestra::walk
