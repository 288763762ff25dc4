// The module's class table, its class factories and its COM registration.
#pragma once

#include "objects.h"

struct AMOVIESETUP_FILTER;
typedef CUnknown*(CALLBACK* LPFNNewCOMObject)(LPUNKNOWN pUnkOuter, HRESULT* phr);
typedef void(CALLBACK* LPFNInitRoutine)(BOOL bLoading, const CLSID* rclsid);

/// One class of the module: the filter's author defines g_Templates and g_cTemplates. Constant data, owns nothing. The
/// initialisation routine and the setup data are not used here: both are null.
class CFactoryTemplate {
public:
    const WCHAR* m_Name;
    const CLSID* m_ClsID;
    LPFNNewCOMObject m_lpfnNew;
    LPFNInitRoutine m_lpfnInit;
    const AMOVIESETUP_FILTER* m_pAMovieSetup_Filter;

    BOOL IsClassID(REFCLSID rclsid) const { return *m_ClsID == rclsid; }
    CUnknown* CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) const;
};

extern CFactoryTemplate g_Templates[];
extern int g_cTemplates;
extern HINSTANCE g_hInst;

/// Makes objects of one class of the table. Owned by its references. Any thread, no lock.
class CClassFactory : public IClassFactory, public CBaseObject {
public:
    explicit CClassFactory(const CFactoryTemplate* pTemplate);
    virtual ~CClassFactory() = default;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP CreateInstance(LPUNKNOWN pUnkOuter, REFIID riid, void** pv) override;
    STDMETHODIMP LockServer(BOOL fLock) override;
    static BOOL IsLocked() { return m_cLocked > 0; }

private:
    const CFactoryTemplate* const m_pTemplate;
    LONG m_cRef = 0;
    static LONG m_cLocked;
};

/// Writes or removes the COM keys of every class of the table, with this module's path.
STDAPI AMovieDllRegisterServer2(BOOL bRegister);
