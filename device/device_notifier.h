// Tells of cards that come and go. A notifier owns a thread with a hidden window; callbacks run on that thread.
#pragma once

#include "sync/mutex.h"
#include "win32/handle.h"

#include <windows.h>

#include <dbt.h>

#include <cstring>
#include <map>

/// What a notifier calls.
class IDeviceAddRemove {
public:
    virtual void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept = 0;
    virtual void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept = 0;

protected:
    ~IDeviceAddRemove() = default;
};

namespace kestra {

class DeviceNotifier {
public:
    /// Returns when the window is ready or the thread has ended. Failures are not reported: no event arrives then.
    DeviceNotifier();
    /// Waits until the thread has left its message loop: never call it with a lock that a callback may want.
    ~DeviceNotifier();
    DeviceNotifier(const DeviceNotifier&) = delete;
    DeviceNotifier& operator=(const DeviceNotifier&) = delete;

    /// From now on the callback hears of interfaces of this class. It must outlive the notifier.
    void registerCallback(IDeviceAddRemove& callback, const GUID& interfaceClass);

private:
    struct GuidLess {
        bool operator()(const GUID& a, const GUID& b) const noexcept { return std::memcmp(&a, &b, sizeof a) < 0; }
    };
    struct Registration {
        IDeviceAddRemove* callback;
        HDEVNOTIFY notification; ///< of the first registration of a class; null for the others
    };

    static DWORD WINAPI threadEntry(void* self) noexcept;
    static LRESULT CALLBACK windowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
    void runMessageLoop() noexcept;
    void deviceChange(WPARAM event, const DEV_BROADCAST_HDR* header) noexcept;
    IDeviceAddRemove* callbackOf(const GUID& interfaceClass, size_t index) noexcept EXCLUDES(m_mutex);
    void unregisterAll() noexcept;

    Mutex m_mutex; // never held during a callback
    std::multimap<GUID, Registration, GuidLess> m_registrations GUARDED_BY(m_mutex);
    UniqueObject m_ready;
    UniqueObject m_thread;
    HWND m_window = nullptr;
};

} // namespace kestra
