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
    return HRESULT_FROM_WIN32(RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, text, bytes));
}

} // namespace

STDAPI AMovieSetupRegisterServer(CLSID clsServer, LPCWSTR szDescription, LPCWSTR szFileName, LPCWSTR szThreadingModel,
                                 LPCWSTR szServerType) try {
    const std::wstring key = classKey(clsServer);
    const std::wstring server = key + L"\\" + szServerType;
    HRESULT hr = setValue(key, nullptr, szDescription ? szDescription : L"");
    if (SUCCEEDED(hr)) hr = setValue(server, nullptr, szFileName);
    if (SUCCEEDED(hr)) hr = setValue(server, L"ThreadingModel", szThreadingModel);
    return hr;
} catch (...) {
    return E_OUTOFMEMORY;
}

// A class that is not registered is as good as removed.
STDAPI AMovieSetupUnregisterServer(CLSID clsServer) try {
    const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, classKey(clsServer).c_str());
    return status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
} catch (...) {
    return E_OUTOFMEMORY;
}

STDAPI RegisterAllServers(LPCWSTR szFileName, BOOL bRegister) {
    for (int i = 0; i < g_cTemplates; ++i) {
        const CFactoryTemplate& entry = g_Templates[i];
        const HRESULT hr = bRegister ? AMovieSetupRegisterServer(*entry.m_ClsID, entry.m_Name, szFileName)
                                     : AMovieSetupUnregisterServer(*entry.m_ClsID);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

STDAPI AMovieDllRegisterServer2(BOOL bRegister) {
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(g_hInst, path, MAX_PATH);
    if (length == 0) return HRESULT_FROM_WIN32(GetLastError());
    if (length == MAX_PATH) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    return RegisterAllServers(path, bRegister);
}
