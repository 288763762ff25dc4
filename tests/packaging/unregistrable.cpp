// A module that loads, and cannot be registered, or with WITHOUT_A_WORD says that it was.
#include <windows.h>

extern "C" __declspec(dllexport) HRESULT DllRegisterServer() {
#ifdef WITHOUT_A_WORD
    return S_OK;
#else
    return E_ACCESSDENIED;
#endif
}
extern "C" __declspec(dllexport) HRESULT DllUnregisterServer() {
    return S_OK;
}
