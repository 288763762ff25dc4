// Redirects HKEY_CURRENT_USER to a key of this process's own. Not a volatile one: below it only volatile keys could be
// made, and the code under test makes plain ones.
#include "tests/support/registry_sandbox.h"

#include <stdexcept>

namespace kestra::test {
namespace {

void check(LSTATUS status, const char* what) {
    if (status != ERROR_SUCCESS) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
}

} // namespace

RegistrySandbox::RegistrySandbox() : m_path(L"Software\\KestraTest\\" + std::to_wstring(GetCurrentProcessId())) {
    RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
    check(RegCreateKeyExW(HKEY_CURRENT_USER, m_path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                          nullptr, &m_root, nullptr),
          "RegCreateKeyExW");
    check(RegOverridePredefKey(HKEY_CURRENT_USER, m_root), "RegOverridePredefKey");
}

RegistrySandbox::~RegistrySandbox() {
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegCloseKey(m_root);
    RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
}

void RegistrySandbox::setRaw(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD bytes) {
    HKEY opened = nullptr;
    check(RegCreateKeyExW(m_root, key, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &opened, nullptr),
          "RegCreateKeyExW");
    const LSTATUS status = RegSetValueExW(opened, name, 0, type, static_cast<const BYTE*>(data), bytes);
    RegCloseKey(opened);
    check(status, "RegSetValueExW");
}

void RegistrySandbox::setDword(const wchar_t* key, const wchar_t* name, DWORD value) {
    setRaw(key, name, REG_DWORD, &value, sizeof value);
}

void RegistrySandbox::setText(const wchar_t* key, const wchar_t* name, const std::wstring& value) {
    setRaw(key, name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

DWORD RegistrySandbox::dword(const wchar_t* key, const wchar_t* name, DWORD missing) const {
    DWORD value = 0, bytes = sizeof value;
    const LSTATUS status = RegGetValueW(m_root, key, name, RRF_RT_REG_DWORD, nullptr, &value, &bytes);
    return status == ERROR_SUCCESS ? value : missing;
}

} // namespace kestra::test
