// Owner of a list that the device-installation service made. Link setupapi.
#pragma once

#include "win32/handle.h"

#include <setupapi.h>

namespace kestra {

struct DeviceSetTraits {
    static HDEVINFO none() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(HDEVINFO set) noexcept { SetupDiDestroyDeviceInfoList(set); }
};
using DeviceSet = UniqueHandle<DeviceSetTraits>;

} // namespace kestra
