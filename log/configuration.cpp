// Registry values, with defaults for whatever is missing or makes no sense.
#include "log/engine.h"
#include "log/platform.h"
#include "protocol/user_settings.h"
#include "win32/registry_key.h"

#include <windows.h>

#include <cwchar>

namespace kestra {
namespace {

constexpr DWORD kMaxDirectoryBytes = 520;

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

uint32_t number(const UniqueKey& key, const wchar_t* name, uint32_t missing) noexcept {
    DWORD type = 0, value = 0, bytes = sizeof value;
    if (!key ||
        RegQueryValueExW(key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &bytes) != ERROR_SUCCESS ||
        type != REG_DWORD || bytes != sizeof value)
        return missing;
    return value;
}

/// A text without a terminator is read as far as it goes. @return false unless the value is a plain text that fits.
bool directory(const UniqueKey& key, wchar_t (&text)[kMaxDirectoryBytes / sizeof(wchar_t) + 1]) noexcept {
    DWORD type = 0, bytes = kMaxDirectoryBytes;
    if (!key ||
        RegQueryValueExW(key.get(), L"LogDir", nullptr, &type, reinterpret_cast<BYTE*>(text), &bytes) !=
            ERROR_SUCCESS ||
        type != REG_SZ)
        return false;
    text[bytes / sizeof(wchar_t)] = L'\0';
    return true;
}

} // namespace

bool logLoadConfiguration() noexcept {
    UniqueKey key;
    openConfigurationKey(key);
    LogLevels details{}, thresholds = kDefaultThresholds;
    for (size_t row = 0; row < logOutputKinds().size(); ++row) {
        const LogOutputKind& kind = logOutputKinds()[row];
        details[row] = number(key, kind.detailValue, details[row]);
        thresholds[row] = number(key, kind.thresholdValue, thresholds[row]);
    }
    wchar_t logDirectory[kMaxDirectoryBytes / sizeof(wchar_t) + 1];
    const bool hasDirectory = directory(key, logDirectory);

    if (!logFindOrCreateEngine(kTarnisLogHandle) ||
        logOpen(kTarnisLogHandle, hasDirectory ? logDirectory : nullptr, details) != 0)
        return false;
    if (LogEngine* engine = logFindEngine(kTarnisLogHandle)) engine->applyThresholds(thresholds);
    logUpdateFloor();
    return true;
}

LogLifetime::LogLifetime() noexcept : m_open(logLoadConfiguration()) {}

LogLifetime::~LogLifetime() {
    if (m_open) LogClose(kTarnisLogHandle);
}

} // namespace kestra
