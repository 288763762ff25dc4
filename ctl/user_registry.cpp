// RegGetValueW and its kin.
#include "ctl/user_registry.h"

#include "ctl/exit_code.h"
#include "ctl/system_error.h"
#include "win32/registry_key.h"

#include <windows.h>

namespace kestra::ctl {

namespace {

void check(LSTATUS status, const wchar_t* key) {
    if (status != ERROR_SUCCESS)
        throw Failure(ExitCode::Failure,
                      "HKEY_CURRENT_USER\\" + utf8OfWide(key) +
                          " cannot be changed: " + systemErrorText(static_cast<uint32_t>(status)),
                      "the registry's permissions of this key forbid it");
}

void writeValue(const wchar_t* key, const wchar_t* name, DWORD type, const void* bytes, size_t size) {
    UniqueKey opened;
    check(RegCreateKeyExW(HKEY_CURRENT_USER, key, 0, nullptr, 0, KEY_SET_VALUE, nullptr, opened.out(), nullptr), key);
    check(RegSetValueExW(opened.get(), name, 0, type, static_cast<const BYTE*>(bytes), static_cast<DWORD>(size)), key);
}

} // namespace

std::optional<uint32_t> readNumber(const wchar_t* key, const wchar_t* name) {
    DWORD value = 0, bytes = sizeof value;
    if (RegGetValueW(HKEY_CURRENT_USER, key, name, RRF_RT_REG_DWORD, nullptr, &value, &bytes) != ERROR_SUCCESS)
        return {};
    return value;
}

std::optional<std::string> readText(const wchar_t* key, const wchar_t* name) {
    std::wstring text(1024, L'\0');
    auto bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_CURRENT_USER, key, name, RRF_RT_REG_SZ, nullptr, text.data(), &bytes) != ERROR_SUCCESS)
        return {};
    return utf8OfWide(text.c_str());
}

void writeNumber(const wchar_t* key, const wchar_t* name, uint32_t value) {
    writeValue(key, name, REG_DWORD, &value, sizeof value);
}

void writeText(const wchar_t* key, const wchar_t* name, const std::string& value) {
    const std::wstring text = wideOfUtf8(value);
    writeValue(key, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void removeValue(const wchar_t* key, const wchar_t* name) {
    UniqueKey opened;
    const LSTATUS status = RegOpenKeyExW(HKEY_CURRENT_USER, key, 0, KEY_SET_VALUE, opened.out());
    if (status == ERROR_FILE_NOT_FOUND) return;
    check(status, key);
    const LSTATUS removed = RegDeleteValueW(opened.get(), name);
    if (removed != ERROR_FILE_NOT_FOUND) check(removed, key);
}

} // namespace kestra::ctl
