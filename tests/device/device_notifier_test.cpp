// The notifier alone: which broadcasts reach which callbacks, and how it ends.
#include "device/device_enumerator.h"
#include "device/device_notifier.h"
#include "tests/support/process_counts.h"
#include "tests/support/scoped_import_hook.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace kestra::test {
namespace {

constexpr wchar_t kWindowClass[] = L"Brenna_DeviceNotification";
constexpr GUID kOtherClass = {0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};

struct Listener : IDeviceAddRemove {
    std::atomic<int> arrived{0}, removed{0};
    std::vector<Listener*>* order = nullptr;
    HANDLE entered = nullptr, leave = nullptr; // a handler that takes its time
    void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W&) noexcept override { ++removed; }
    void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W&) noexcept override {
        if (order) order->push_back(this);
        ++arrived;
        if (entered) SetEvent(entered);
        if (leave) WaitForSingleObject(leave, 20000);
    }
};

/// The window of the one notifier that is alive.
HWND notifierWindow() {
    const HWND window = FindWindowExW(HWND_MESSAGE, nullptr, kWindowClass, nullptr);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    return process == GetCurrentProcessId() ? window : nullptr;
}

DEV_BROADCAST_DEVICEINTERFACE_W broadcast(const GUID& interfaceClass, DWORD type = DBT_DEVTYP_DEVICEINTERFACE) {
    DEV_BROADCAST_DEVICEINTERFACE_W device{};
    device.dbcc_size = sizeof device;
    device.dbcc_devicetype = type;
    device.dbcc_classguid = interfaceClass;
    return device;
}

LRESULT send(HWND window, WPARAM event, const DEV_BROADCAST_DEVICEINTERFACE_W& device) {
    return SendMessageW(window, WM_DEVICECHANGE, event, reinterpret_cast<LPARAM>(&device));
}

int g_notifications;

} // namespace

TEST(DeviceNotifier, EveryCallbackOfAClassHearsEachArrivalAndRemovalInTheOrderOfRegistration) {
    using Register = decltype(&RegisterDeviceNotificationW);
    static Register original;
    g_notifications = 0;
    const ScopedImportHook<Register> hook(
        "user32.dll", "RegisterDeviceNotificationW", [](HANDLE recipient, void* filter, DWORD flags) -> HDEVNOTIFY {
            ++g_notifications;
            const auto& wanted = *static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(filter);
            EXPECT_EQ(wanted.dbcc_size, 32u);
            EXPECT_EQ(wanted.dbcc_devicetype, 5u);
            EXPECT_EQ(flags, DWORD{DEVICE_NOTIFY_WINDOW_HANDLE});
            return original(recipient, filter, flags);
        });
    ASSERT_TRUE(hook.installed());
    original = hook.original();
    std::vector<Listener*> order;
    Listener first, second, other;
    first.order = second.order = other.order = &order;
    DeviceNotifier notifier;
    notifier.registerCallback(first, kCardInterfaceClass);
    notifier.registerCallback(second, kCardInterfaceClass);
    EXPECT_EQ(g_notifications, 1) << "one notification of the system serves both";
    notifier.registerCallback(other, kOtherClass);
    EXPECT_EQ(g_notifications, 2);

    const HWND window = notifierWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(send(window, DBT_DEVICEARRIVAL, broadcast(kCardInterfaceClass)), 0);
    EXPECT_EQ(order, (std::vector<Listener*>{&first, &second}));
    EXPECT_EQ(send(window, DBT_DEVICEREMOVECOMPLETE, broadcast(kCardInterfaceClass)), 0);
    EXPECT_EQ(first.removed, 1);
    EXPECT_EQ(second.removed, 1);
    EXPECT_EQ(other.arrived + other.removed, 0);
    send(window, DBT_DEVICEARRIVAL, broadcast(kOtherClass));
    EXPECT_EQ(other.arrived, 1);
    EXPECT_EQ(first.arrived, 1);
}

TEST(DeviceNotifier, OtherDeviceTypesAndOtherEventsCallNothing) {
    Listener listener;
    DeviceNotifier notifier;
    notifier.registerCallback(listener, kCardInterfaceClass);
    const HWND window = notifierWindow();
    ASSERT_NE(window, nullptr);
    for (const DWORD type : {DWORD{DBT_DEVTYP_VOLUME}, DWORD{DBT_DEVTYP_PORT}, DWORD{DBT_DEVTYP_HANDLE}})
        for (const WPARAM event : {WPARAM{DBT_DEVICEARRIVAL}, WPARAM{DBT_DEVICEREMOVECOMPLETE}})
            EXPECT_EQ(send(window, event, broadcast(kCardInterfaceClass, type)), 0);
    for (const WPARAM event :
         {WPARAM{DBT_DEVICEQUERYREMOVE}, WPARAM{DBT_DEVICEREMOVEPENDING}, WPARAM{DBT_DEVNODES_CHANGED}})
        EXPECT_EQ(send(window, event, broadcast(kCardInterfaceClass)), 0);
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0), 0) << "without a record";
    EXPECT_EQ(listener.arrived + listener.removed, 0);
}

TEST(DeviceNotifier, RecordThatEndsBeforeItsNameCallsNothing) {
    Listener listener;
    DeviceNotifier notifier;
    notifier.registerCallback(listener, kCardInterfaceClass);
    const HWND window = notifierWindow();
    ASSERT_NE(window, nullptr);
    constexpr DWORD kNameAt = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    for (const DWORD size : {DWORD{0}, DWORD{sizeof(DEV_BROADCAST_HDR)}, kNameAt - 1, kNameAt, kNameAt + 1}) {
        SCOPED_TRACE(size);
        DEV_BROADCAST_DEVICEINTERFACE_W cut = broadcast(kCardInterfaceClass);
        cut.dbcc_size = size;
        for (const WPARAM event : {WPARAM{DBT_DEVICEARRIVAL}, WPARAM{DBT_DEVICEREMOVECOMPLETE}})
            EXPECT_EQ(send(window, event, cut), 0);
    }
    DEV_BROADCAST_DEVICEINTERFACE_W endless = broadcast(kCardInterfaceClass);
    endless.dbcc_size = kNameAt + sizeof(wchar_t);
    endless.dbcc_name[0] = L'x'; // no end within the record
    EXPECT_EQ(send(window, DBT_DEVICEARRIVAL, endless), 0);
    EXPECT_EQ(listener.arrived + listener.removed, 0);
    endless.dbcc_name[0] = L'\0';
    EXPECT_EQ(send(window, DBT_DEVICEARRIVAL, endless), 0);
    EXPECT_EQ(listener.arrived, 1) << "the shortest record that has a name";
}

TEST(DeviceNotifier, DestroyingItWaitsForAHandlerThatIsStillRunning) {
    Listener listener;
    const UniqueObject entered(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const UniqueObject leave(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    listener.entered = entered.get();
    listener.leave = leave.get();
    const int threads = processCounts().threads;
    auto notifier = std::make_unique<DeviceNotifier>();
    notifier->registerCallback(listener, kCardInterfaceClass);
    const HWND window = notifierWindow();
    ASSERT_NE(window, nullptr);
    std::thread sender([&] { send(window, DBT_DEVICEARRIVAL, broadcast(kCardInterfaceClass)); });
    ASSERT_EQ(WaitForSingleObject(listener.entered, 5000), WAIT_OBJECT_0);
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        notifier.reset();
        destroyed = true;
    });
    EXPECT_FALSE(waitUntil([&] { return destroyed.load(); }, std::chrono::milliseconds(100)));
    SetEvent(listener.leave);
    destroyer.join();
    sender.join();
    EXPECT_FALSE(IsWindow(window));
    EXPECT_TRUE(waitUntil([&] { return processCounts().threads == threads; }));
}

TEST(DeviceNotifier, DestroyingItGivesEveryNotificationBack) {
    using Register = decltype(&RegisterDeviceNotificationW);
    using Unregister = decltype(&UnregisterDeviceNotification);
    static Register registerOriginal;
    static Unregister unregisterOriginal;
    static std::vector<HDEVNOTIFY> registered, unregistered;
    registered.clear();
    unregistered.clear();
    const ScopedImportHook<Register> registering("user32.dll", "RegisterDeviceNotificationW",
                                                 [](HANDLE recipient, void* filter, DWORD flags) -> HDEVNOTIFY {
                                                     registered.push_back(registerOriginal(recipient, filter, flags));
                                                     return registered.back();
                                                 });
    const ScopedImportHook<Unregister> unregistering("user32.dll", "UnregisterDeviceNotification",
                                                     [](HDEVNOTIFY notification) -> BOOL {
                                                         unregistered.push_back(notification);
                                                         return unregisterOriginal(notification);
                                                     });
    ASSERT_TRUE(registering.installed() && unregistering.installed());
    registerOriginal = registering.original();
    unregisterOriginal = unregistering.original();
    Listener first, second, other;
    {
        DeviceNotifier notifier;
        notifier.registerCallback(first, kCardInterfaceClass);
        notifier.registerCallback(second, kCardInterfaceClass);
        notifier.registerCallback(other, kOtherClass);
        EXPECT_TRUE(unregistered.empty());
    }
    ASSERT_EQ(registered.size(), 2u);
    std::sort(registered.begin(), registered.end());
    std::sort(unregistered.begin(), unregistered.end());
    EXPECT_EQ(unregistered, registered) << "each one once, when the destructor has returned";
}

TEST(DeviceNotifier, StrangerWhoEndsItTakesTheNoticesAndNothingElse) {
    for (const UINT message : {UINT{WM_USER}, UINT{WM_QUIT}}) {
        const int before = processCounts().threads;
        Listener listener;
        auto notifier = std::make_unique<DeviceNotifier>();
        notifier->registerCallback(listener, kCardInterfaceClass);
        const HWND window = notifierWindow();
        ASSERT_NE(window, nullptr);
        ASSERT_TRUE(message == WM_QUIT ? PostThreadMessageW(GetWindowThreadProcessId(window, nullptr), message, 0, 0)
                                       : PostMessageW(window, message, 0, 0));
        EXPECT_TRUE(waitUntil([&] { return processCounts().threads == before; }, std::chrono::seconds(30)));
        notifier->registerCallback(listener, kOtherClass); // and whoever comes later
        notifier.reset();
        EXPECT_EQ(listener.arrived + listener.removed, 0);
        EXPECT_EQ(notifierWindow(), nullptr);
    }
}

TEST(DeviceNotifier, ThreadThatEndsBeforeItsWindowIsReadyEndsTheWaitToo) {
    const ScopedImportHook<decltype(&CreateWindowExW)> hook(
        "user32.dll", "CreateWindowExW",
        [](DWORD, LPCWSTR, LPCWSTR, DWORD, int, int, int, int, HWND, HMENU, HINSTANCE, LPVOID) -> HWND {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        });
    ASSERT_TRUE(hook.installed());
    Listener listener;
    DeviceNotifier notifier;
    notifier.registerCallback(listener, kCardInterfaceClass); // hears nothing, fails nothing
    EXPECT_EQ(notifierWindow(), nullptr);
}

} // namespace kestra::test
