// The COM keys of the module's classes. Any thread.
#include "class_factory.h"

#include <cwchar>
#include <string>

namespace {

std::wstring classKey(REFCLSID clsid) {
    wchar_t text[39];
    StringFromGUID2(clsid, text, 39);
    return std::wstring(L"CLSID\\") + text;
}

HRESULT setValue(const std::wstring& key, LPCWSTR name, LPCWSTR text) {
    const DWORD bytes = DWORD((std::wcslen(text) + 1) * sizeof(wchar_t));
    const LSTATUS status = RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, text, bytes);
    return HRESULT_FROM_WIN32(status); // a macro that takes its argument more than once
}

HRESULT addClass(const CFactoryTemplate& entry, LPCWSTR path) {
    const std::wstring key = classKey(*entry.m_ClsID), server = key + L"\\InprocServer32";
    HRESULT hr = setValue(key, nullptr, entry.m_Name ? entry.m_Name : L"");
    if (SUCCEEDED(hr)) hr = setValue(server, nullptr, path);
    if (SUCCEEDED(hr)) hr = setValue(server, L"ThreadingModel", L"Both");
    return hr;
}

// A class that is not registered counts as removed.
HRESULT removeClass(const CFactoryTemplate& entry) {
    const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, classKey(*entry.m_ClsID).c_str());
    return status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
}

} // namespace

STDAPI AMovieDllRegisterServer2(BOOL bRegister) try {
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(g_hInst, path, MAX_PATH);
    if (length == 0) return HRESULT_FROM_WIN32(GetLastError());
    if (length == MAX_PATH) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    HRESULT result = S_OK;
    for (int i = 0; i < g_cTemplates; ++i) {
        const HRESULT hr = bRegister ? addClass(g_Templates[i], path) : removeClass(g_Templates[i]);
        if (FAILED(hr) && bRegister) return hr;
        if (SUCCEEDED(result)) result = hr; // one class that cannot be removed must not keep the others
    }
    return result;
} catch (...) {
    return E_OUTOFMEMORY;
}
