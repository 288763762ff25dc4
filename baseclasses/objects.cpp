// Counted objects and their identity. Any thread.
#include "objects.h"

volatile LONG CBaseObject::m_cObjects = 0;

CBaseObject::CBaseObject(LPCTSTR) {
    InterlockedIncrement(&m_cObjects);
}

CBaseObject::~CBaseObject() {
    InterlockedDecrement(&m_cObjects);
}

// INonDelegatingUnknown has the layout of IUnknown, so that an object that is not aggregated is its own owner.
CUnknown::CUnknown(LPCTSTR pName, LPUNKNOWN pUnk)
    : CBaseObject(pName),
      m_pUnknown(pUnk ? pUnk : reinterpret_cast<LPUNKNOWN>(static_cast<INonDelegatingUnknown*>(this))) {}

HRESULT CUnknown::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    CheckPointer(ppv, E_POINTER);
    if (riid == IID_IUnknown) {
        return GetInterface(reinterpret_cast<LPUNKNOWN>(static_cast<INonDelegatingUnknown*>(this)), ppv);
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG CUnknown::NonDelegatingAddRef() {
    return ULONG(InterlockedIncrement(&m_cRef));
}

ULONG CUnknown::NonDelegatingRelease() {
    const LONG left = InterlockedDecrement(&m_cRef);
    if (left == 0) {
        m_cRef = m_cRef + 1; // a reference taken and released in a destructor must not delete a second time
        delete this;
    }
    return ULONG(left);
}

HRESULT GetInterface(LPUNKNOWN pUnk, void** ppv) {
    CheckPointer(ppv, E_POINTER);
    *ppv = pUnk;
    pUnk->AddRef();
    return S_OK;
}
