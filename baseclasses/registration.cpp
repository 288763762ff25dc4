#include "registration.h"

#include "class_factory.h"
#include "held.h"

#include <cwchar>
#include <string>

using kestra::com::Held;

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

} // namespace

STDAPI AMovieSetupRegisterServer(CLSID clsServer, LPCWSTR szDescription, LPCWSTR szFileName, LPCWSTR szThreadingModel,
                                 LPCWSTR szServerType) try {
    CheckPointer(szFileName, E_POINTER);
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
    HRESULT result = S_OK;
    for (int i = 0; i < g_cTemplates; ++i) {
        const CFactoryTemplate& entry = g_Templates[i];
        const HRESULT hr = bRegister ? AMovieSetupRegisterServer(*entry.m_ClsID, entry.m_Name, szFileName)
                                     : AMovieSetupUnregisterServer(*entry.m_ClsID);
        if (SUCCEEDED(hr)) continue;
        if (bRegister) return hr;
        if (SUCCEEDED(result)) result = hr; // one class that stays must not keep the others
    }
    return result;
}

STDAPI AMovieSetupRegisterFilter2(const AMOVIESETUP_FILTER* psetupdata, IFilterMapper2* pIFM2, BOOL bRegister) {
    if (!psetupdata) return S_FALSE;
    CheckPointer(pIFM2, E_POINTER);
    const HRESULT removed = pIFM2->UnregisterFilter(nullptr, nullptr, *psetupdata->clsID);
    if (!bRegister) return removed == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ? S_OK : removed;
    REGFILTER2 data{};
    data.dwVersion = 1;
    data.dwMerit = psetupdata->dwMerit;
    data.cPins = psetupdata->nPins;
    data.rgPins = psetupdata->lpPin;
    return pIFM2->RegisterFilter(*psetupdata->clsID, psetupdata->strName, nullptr, nullptr, nullptr, &data);
}

HRESULT kestra::com::registerFilter(const AMOVIESETUP_FILTER& filter, BOOL registered) {
    const HRESULT com = CoInitialize(nullptr);
    HRESULT hr = S_OK;
    {
        Held<IFilterMapper2> mapper;
        hr = CoCreateInstance(CLSID_FilterMapper2, nullptr, CLSCTX_INPROC_SERVER, IID_IFilterMapper2, mapper.outVoid());
        if (SUCCEEDED(hr)) hr = AMovieSetupRegisterFilter2(&filter, mapper.get(), registered);
    }
    if (SUCCEEDED(com)) CoUninitialize();
    return hr;
}

STDAPI AMovieDllRegisterServer2(BOOL bRegister) {
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(g_hInst, path, MAX_PATH);
    if (length == 0) return HRESULT_FROM_WIN32(GetLastError());
    if (length == MAX_PATH) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    HRESULT result = bRegister ? RegisterAllServers(path, TRUE) : S_OK;
    if (FAILED(result)) return result;
    for (int i = 0; i < g_cTemplates; ++i) {
        if (!g_Templates[i].m_pAMovieSetup_Filter) continue;
        const HRESULT hr = kestra::com::registerFilter(*g_Templates[i].m_pAMovieSetup_Filter, bRegister);
        if (FAILED(hr) && SUCCEEDED(result)) result = hr;
    }
    if (bRegister) return result;
    const HRESULT removed = RegisterAllServers(path, FALSE);
    return FAILED(result) ? result : removed;
}
