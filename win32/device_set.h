// Owner of a device information list. Link setupapi.
#pragma once

#include "win32/handle.h"

#include <setupapi.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kestra {

struct DeviceSetTraits {
    static HDEVINFO none() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(HDEVINFO set) noexcept { SetupDiDestroyDeviceInfoList(set); }
};
using DeviceSet = UniqueHandle<DeviceSetTraits>;

/// Paths of the present devices that have an interface of this class, in the system's order.
inline std::vector<std::wstring> interfacePaths(const GUID& interfaceClass) {
    std::vector<std::wstring> paths;
    const DeviceSet set(SetupDiGetClassDevsW(&interfaceClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!set) return paths;
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof data;
    for (DWORD i = 0; SetupDiEnumDeviceInterfaces(set.get(), nullptr, &interfaceClass, i, &data); ++i) {
        DWORD bytes = 0;
        SetupDiGetDeviceInterfaceDetailW(set.get(), &data, nullptr, 0, &bytes, nullptr);
        std::vector<std::byte> memory(bytes);
        auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(memory.data());
        if (memory.size() < sizeof *detail) continue; // removed meanwhile
        detail->cbSize = sizeof *detail;
        if (SetupDiGetDeviceInterfaceDetailW(set.get(), &data, detail, bytes, nullptr, nullptr))
            paths.emplace_back(detail->DevicePath);
    }
    return paths;
}

} // namespace kestra
