// An empty current-user registry root for the life of an object: tests neither see nor change the user's real
// keys. For the whole process; one at a time.
#pragma once

#include <windows.h>

#include <string>

namespace kestra::test {

class RegistrySandbox {
public:
    RegistrySandbox();
    ~RegistrySandbox();
    RegistrySandbox(const RegistrySandbox&) = delete;
    RegistrySandbox& operator=(const RegistrySandbox&) = delete;

    /// Writes a value below the sandboxed current user; makes the key.
    void setDword(const wchar_t* key, const wchar_t* name, DWORD value);
    void setText(const wchar_t* key, const wchar_t* name, const std::wstring& value);
    void setRaw(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD bytes);
    /// @return the value, or `missing` if the key or the value is not there or is no number.
    DWORD dword(const wchar_t* key, const wchar_t* name, DWORD missing) const;

private:
    std::wstring m_path;
    HKEY m_root = nullptr;
};

} // namespace kestra::test
