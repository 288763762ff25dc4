// The notifier's thread and window.
#include "device/device_notifier.h"

#include "win32/module.h"

#include <cstddef>
#include <cwchar>

namespace kestra {
namespace {

constexpr wchar_t kWindowClass[] = L"Brenna_DeviceNotification";

/// Whether the record is as long as it must be to be read: any program of the session can send one.
bool isWhole(const DEV_BROADCAST_HDR& header) noexcept {
    constexpr size_t kNameAt = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    if (header.dbch_size < kNameAt) return false;
    const auto* name = reinterpret_cast<const DEV_BROADCAST_DEVICEINTERFACE_W&>(header).dbcc_name;
    const size_t most = (header.dbch_size - kNameAt) / sizeof(wchar_t);
    return std::wmemchr(name, L'\0', most) != nullptr;
}

/// Takes the window class along when the module goes.
struct WindowClassGuard {
    ~WindowClassGuard() { UnregisterClassW(kWindowClass, ownModule()); }
} g_windowClassGuard;

} // namespace

DeviceNotifier::DeviceNotifier() : m_ready(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    if (!m_ready) return; // a thread whose window nobody can wait for could not be ended
    m_thread = UniqueObject(CreateThread(nullptr, 0, threadEntry, this, 0, nullptr));
    if (!m_thread) return;
    const HANDLE either[] = {m_ready.get(), m_thread.get()};
    WaitForMultipleObjects(2, either, FALSE, INFINITE);
}

DeviceNotifier::~DeviceNotifier() {
    if (!m_thread) return;
    if (m_window) PostMessageW(m_window, WM_USER, 0, 0);
    WaitForSingleObject(m_thread.get(), INFINITE);
}

void DeviceNotifier::registerCallback(IDeviceAddRemove& callback, const GUID& interfaceClass) {
    const LockGuard lock(m_mutex);
    HDEVNOTIFY notification = nullptr;
    if (m_registrations.find(interfaceClass) == m_registrations.end()) {
        DEV_BROADCAST_DEVICEINTERFACE_W filter{};
        static_assert(sizeof filter == 32);
        filter.dbcc_size = sizeof filter;
        filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        filter.dbcc_classguid = interfaceClass;
        notification = RegisterDeviceNotificationW(m_window, &filter, DEVICE_NOTIFY_WINDOW_HANDLE);
    }
    m_registrations.emplace(interfaceClass, Registration{&callback, notification});
}

DWORD WINAPI DeviceNotifier::threadEntry(void* self) noexcept {
    static_cast<DeviceNotifier*>(self)->runMessageLoop();
    return 0;
}

void DeviceNotifier::runMessageLoop() noexcept {
    const HMODULE module = ownModule();
    WNDCLASSW windowClass{};
    if (!GetClassInfoW(module, kWindowClass, &windowClass)) {
        windowClass = {};
        windowClass.lpfnWndProc = windowProcedure;
        windowClass.hInstance = module;
        windowClass.lpszClassName = kWindowClass;
        RegisterClassW(&windowClass);
    }
    m_window = CreateWindowExW(0, kWindowClass, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, module, nullptr);
    if (!m_window) return; // the constructor sees the thread end
    SetWindowLongPtrW(m_window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    SetEvent(m_ready.get());
    MSG message;
    for (BOOL result; (result = GetMessageW(&message, nullptr, 0, 0)) != 0 && result != -1;) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

LRESULT CALLBACK DeviceNotifier::windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
    auto* self = reinterpret_cast<DeviceNotifier*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    switch (message) {
    case WM_DEVICECHANGE:
        if (self) self->deviceChange(wParam, reinterpret_cast<const DEV_BROADCAST_HDR*>(lParam));
        return 0;
    case WM_USER:
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        if (self) self->unregisterAll();
        PostQuitMessage(0);
        break;
    default:
        break;
    }
    return DefWindowProcW(window, message, wParam, lParam);
}

void DeviceNotifier::deviceChange(WPARAM event, const DEV_BROADCAST_HDR* header) noexcept {
    if ((event != DBT_DEVICEARRIVAL && event != DBT_DEVICEREMOVECOMPLETE) || !header ||
        header->dbch_devicetype != DBT_DEVTYP_DEVICEINTERFACE || !isWhole(*header))
        return;
    const auto& device = *reinterpret_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(header);
    for (size_t i = 0; IDeviceAddRemove* const callback = callbackOf(device.dbcc_classguid, i); ++i) {
        if (event == DBT_DEVICEARRIVAL)
            callback->DeviceArrived(device);
        else
            callback->DeviceRemoved(device);
    }
}

/// In the order of registration; null behind the last. Nothing is copied: removals and arrivals need no memory.
IDeviceAddRemove* DeviceNotifier::callbackOf(const GUID& interfaceClass, size_t index) noexcept {
    const LockGuard lock(m_mutex);
    for (auto [at, last] = m_registrations.equal_range(interfaceClass); at != last; ++at)
        if (index-- == 0) return at->second.callback;
    return nullptr;
}

void DeviceNotifier::unregisterAll() noexcept {
    const LockGuard lock(m_mutex);
    for (const auto& [guid, registration] : m_registrations)
        if (registration.notification) UnregisterDeviceNotification(registration.notification);
    m_registrations.clear();
}

} // namespace kestra
