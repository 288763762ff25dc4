// Registry values, with defaults for whatever is missing or makes no sense.
#include "log/configuration.h"

#include "log/engine.h"
#include "log/platform.h"
#include "win32/registry_key.h"

#include <windows.h>

#include <cwchar>

namespace kestra {
namespace {

constexpr wchar_t kKeyPath[] = L"Software\\Quorvane\\TARNIS\\SDK\\Log";
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
    status = RegOpenKeyExW(user.get(), kKeyPath, 0, KEY_READ, key.out());
    if (status != ERROR_SUCCESS)
        debugPrint(L"RegOpenKeyEx(\"\\%ls\") failed (%d)\n", kKeyPath, static_cast<int>(status));
}

uint32_t number(const UniqueKey& key, const wchar_t* name, uint32_t missing) noexcept {
    DWORD type = 0, value = 0, bytes = sizeof value;
    if (!key ||
        RegQueryValueExW(key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &bytes) != ERROR_SUCCESS ||
        type != REG_DWORD || bytes != sizeof value)
        return missing;
    return value;
}

/// @param text  kMaxDirectoryBytes bytes
/// @return false unless the value is a plain, terminated text that fits.
bool directory(const UniqueKey& key, wchar_t* text) noexcept {
    DWORD type = 0, bytes = kMaxDirectoryBytes;
    if (!key ||
        RegQueryValueExW(key.get(), L"LogDir", nullptr, &type, reinterpret_cast<BYTE*>(text), &bytes) !=
            ERROR_SUCCESS ||
        type != REG_SZ || bytes % sizeof(wchar_t) != 0)
        return false;
    return std::wmemchr(text, L'\0', bytes / sizeof(wchar_t)) != nullptr && text[0] != L'\0';
}

} // namespace

bool logLoadConfiguration() noexcept {
    UniqueKey key;
    openConfigurationKey(key);
    const uint32_t systemDetail = number(key, L"SysOutDetail", 0);
    const uint32_t fileDetail = number(key, L"FileOutDetail", 0);
    const uint32_t debuggerDetail = number(key, L"IdeOutDetail", 0);
    const LogThresholds thresholds{number(key, L"SysSeverityThrsh", 7), number(key, L"FileSeverityThrsh", 7),
                                   number(key, L"IdeSeverityThrsh", 7)};
    wchar_t logDirectory[kMaxDirectoryBytes / sizeof(wchar_t)];
    const bool hasDirectory = directory(key, logDirectory);

    if (!logFindOrCreateEngine(kTarnisLogHandle)) return false;
    if (LogOpen(kTarnisLogHandle, L"TARNIS", hasDirectory ? logDirectory : nullptr, 0, 0, systemDetail, fileDetail,
                debuggerDetail) != 0)
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
