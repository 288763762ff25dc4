// Class factories and the entry points of a module.
#include "class_factory.h"

#include "firewall.h"

#include <new>

HINSTANCE g_hInst = nullptr;
LONG CClassFactory::m_cLocked = 0;

CUnknown* CFactoryTemplate::CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) const {
    CheckPointer(phr, nullptr);
    if (!m_lpfnNew) {
        *phr = CLASS_E_CLASSNOTAVAILABLE;
        return nullptr;
    }
    return m_lpfnNew(pUnk, phr);
}

CClassFactory::CClassFactory(const CFactoryTemplate* pTemplate)
    : CBaseObject(NAME("class factory")), m_pTemplate(pTemplate) {}

STDMETHODIMP CClassFactory::QueryInterface(REFIID riid, void** ppv) {
    CheckPointer(ppv, E_POINTER);
    if (riid == IID_IUnknown || riid == IID_IClassFactory) return GetInterface(this, ppv);
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CClassFactory::AddRef() {
    return ULONG(InterlockedIncrement(&m_cRef));
}

STDMETHODIMP_(ULONG) CClassFactory::Release() {
    const LONG left = InterlockedDecrement(&m_cRef);
    if (left == 0) delete this;
    return ULONG(left);
}

STDMETHODIMP CClassFactory::CreateInstance(LPUNKNOWN pUnkOuter, REFIID riid, void** pv) {
    CheckPointer(pv, E_POINTER);
    *pv = nullptr;
    if (pUnkOuter && riid != IID_IUnknown) return E_NOINTERFACE;
    CUnknown* object = nullptr;
    HRESULT created = S_OK;
    HRESULT hr = kestra::com::guarded([&] {
        object = m_pTemplate->CreateInstance(pUnkOuter, &created);
        return created;
    });
    if (!object) return SUCCEEDED(hr) ? E_OUTOFMEMORY : hr;
    if (FAILED(hr)) {
        delete object;
        return hr;
    }
    object->NonDelegatingAddRef();
    hr = kestra::com::guarded([&] { return object->NonDelegatingQueryInterface(riid, pv); });
    object->NonDelegatingRelease(); // deletes the object if it lacks the interface
    return hr;
}

STDMETHODIMP CClassFactory::LockServer(BOOL fLock) {
    if (fLock) {
        InterlockedIncrement(&m_cLocked);
    } else {
        InterlockedDecrement(&m_cLocked);
    }
    return S_OK;
}

STDAPI DllGetClassObject(REFCLSID rClsID, REFIID riid, void** pv) {
    CheckPointer(pv, E_POINTER);
    *pv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
    for (int i = 0; i < g_cTemplates; ++i) {
        if (!g_Templates[i].IsClassID(rClsID)) continue;
        auto* factory = new (std::nothrow) CClassFactory(&g_Templates[i]);
        return factory ? GetInterface(factory, pv) : E_OUTOFMEMORY;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() {
    return CClassFactory::IsLocked() || CBaseObject::ObjectsActive() ? S_FALSE : S_OK;
}

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE hInstance, ULONG ulReason, LPVOID) {
    if (ulReason == DLL_PROCESS_ATTACH) {
        g_hInst = hInstance;
        DisableThreadLibraryCalls(hInstance);
    }
    return TRUE;
}
