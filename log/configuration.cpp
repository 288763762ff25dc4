// Opens the library's log as the registry says.
#include "log/configuration.h"

#include "log/engine.h"
#include "log/platform.h"
#include "protocol/user_settings.h"
#include "win32/registry_key.h"

#include <windows.h>

#include <cwchar>

namespace kestra {
namespace {

static_assert(kLogText == REG_SZ && kLogNumber == REG_DWORD);

template <class... Arguments>
void debugPrint(const wchar_t* format, Arguments... arguments) noexcept {
    wchar_t text[160];
    std::swprintf(text, std::size(text), format, arguments...);
    platform::debugOutput(text);
}

void openConfigurationKey(UniqueKey& key) noexcept {
    debugPrint(L"Open registry key\n");
    UniqueKey user;
    LSTATUS status = RegOpenCurrentUser(KEY_READ, user.out());
    if (status != ERROR_SUCCESS) {
        debugPrint(L"RegOpenCurrentUser failed (%d)\n", static_cast<int>(status));
        return;
    }
    status = RegOpenKeyExW(user.get(), kLogKey, 0, KEY_READ, key.out());
    if (status != ERROR_SUCCESS)
        debugPrint(L"RegOpenKeyEx(\"\\%ls\") failed (%d)\n", kLogKey, static_cast<int>(status));
}

} // namespace

bool logLoadConfiguration() noexcept {
    UniqueKey key;
    openConfigurationKey(key);
    const LogConfiguration wanted =
        logConfigurationFrom([&](const wchar_t* name, uint32_t& type, void* data, uint32_t& bytes) {
            DWORD systemType = 0, systemBytes = bytes;
            if (!key || RegQueryValueExW(key.get(), name, nullptr, &systemType, static_cast<BYTE*>(data),
                                         &systemBytes) != ERROR_SUCCESS)
                return false;
            type = systemType;
            bytes = systemBytes;
            return true;
        });
    LogEngine* engine = logFindOrCreateEngine(kTarnisLogHandle);
    if (!engine || logOpen(kTarnisLogHandle, wanted.hasDirectory ? wanted.directory : nullptr, wanted.details) != 0)
        return false;
    engine->applyThresholds(wanted.thresholds);
    logUpdateFloor();
    return true;
}

LogLifetime::LogLifetime() noexcept : m_open(logLoadConfiguration()) {}

LogLifetime::~LogLifetime() {
    if (m_open) LogClose(kTarnisLogHandle);
}

} // namespace kestra
