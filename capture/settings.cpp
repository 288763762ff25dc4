#include "capture/settings.h"

namespace kestra {
namespace {

constexpr wchar_t kKey[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";

class Key {
public:
    Key() = default;
    ~Key() {
        if (handle) RegCloseKey(handle);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    HKEY handle = nullptr;
};

} // namespace

std::optional<uint32_t> readSetting(const wchar_t* name) noexcept {
    Key key;
    if (RegOpenKeyW(HKEY_CURRENT_USER, kKey, &key.handle) != ERROR_SUCCESS) return std::nullopt;
    DWORD value = 0, size = sizeof value;
    const LSTATUS status = RegQueryValueExW(key.handle, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
    if (status != ERROR_SUCCESS || size != sizeof value) return std::nullopt;
    return value;
}

void writeSetting(const wchar_t* name, uint32_t value) noexcept {
    Key key;
    if (RegCreateKeyW(HKEY_CURRENT_USER, kKey, &key.handle) != ERROR_SUCCESS) return;
    RegSetValueExW(key.handle, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

} // namespace kestra
