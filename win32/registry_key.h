// Owner of an opened registry key.
#pragma once

#include "win32/handle.h"

namespace kestra {

struct RegistryKeyTraits {
    static HKEY none() noexcept { return nullptr; }
    static void close(HKEY key) noexcept { RegCloseKey(key); }
};
using UniqueKey = UniqueHandle<RegistryKeyTraits>;

} // namespace kestra
