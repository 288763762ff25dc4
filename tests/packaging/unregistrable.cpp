// A module that loads, and cannot be registered.
#include <windows.h>

extern "C" __declspec(dllexport) HRESULT DllRegisterServer() {
    return E_ACCESSDENIED;
}
extern "C" __declspec(dllexport) HRESULT DllUnregisterServer() {
    return S_OK;
}
