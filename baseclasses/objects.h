// Locks, counted objects and the aggregatable IUnknown. Any thread.
#pragma once

#include <windows.h>

#include <tchar.h> // strsafe.h, which dshow.h includes, must come after it

#include <dshow.h>

#ifndef NAME
#define NAME(text) TEXT(text)
#endif
#define CheckPointer(pointer, result)                                                                                  \
    {                                                                                                                  \
        if ((pointer) == NULL) return (result);                                                                        \
    }
/// A recursive lock. Any thread.
class CCritSec {
public:
    CCritSec() { InitializeCriticalSection(&m_CritSec); }
    ~CCritSec() { DeleteCriticalSection(&m_CritSec); }
    CCritSec(const CCritSec&) = delete;
    CCritSec& operator=(const CCritSec&) = delete;
    void Lock() { EnterCriticalSection(&m_CritSec); }
    void Unlock() { LeaveCriticalSection(&m_CritSec); }

    CRITICAL_SECTION m_CritSec;
};

/// Holds a lock for its own life, for the thread that made it. The lock is somebody else's and lives longer.
class CAutoLock {
public:
    explicit CAutoLock(CCritSec* plock) : m_pLock(plock) { m_pLock->Lock(); }
    ~CAutoLock() { m_pLock->Unlock(); }
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

protected:
    CCritSec* m_pLock;
};

/// Counts the module's living objects, which keep DllCanUnloadNow from answering S_OK. Any thread.
class CBaseObject {
public:
    explicit CBaseObject(LPCTSTR pName);
    ~CBaseObject();
    CBaseObject(const CBaseObject&) = delete;
    CBaseObject& operator=(const CBaseObject&) = delete;
    static LONG ObjectsActive() { return m_cObjects; }

private:
    static volatile LONG m_cObjects;
};

/// The IUnknown of an aggregatable object itself, whatever its controlling unknown. Laid out as IUnknown, as an outer
/// object expects. Any thread.
struct INonDelegatingUnknown {
    virtual HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) = 0;
    virtual ULONG STDMETHODCALLTYPE NonDelegatingAddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE NonDelegatingRelease() = 0;
};

/// Base of every COM object. Owned by its references: it starts with none, the first is its creator's to take, and it
/// deletes itself with the last. The outer object, if there is one, is not counted: it owns this one. No lock; any
/// thread counts and asks.
class CUnknown : public INonDelegatingUnknown, public CBaseObject {
public:
    CUnknown(LPCTSTR pName, LPUNKNOWN pUnk);
    virtual ~CUnknown() = default;

    /// The controlling unknown: the outer object, or this one. Not counted.
    LPUNKNOWN GetOwner() const { return m_pUnknown; }

    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE NonDelegatingAddRef() override;
    ULONG STDMETHODCALLTYPE NonDelegatingRelease() override;

protected:
    volatile LONG m_cRef = 0;

private:
    LPUNKNOWN m_pUnknown;
};

/// IUnknown of a class that derives from CUnknown and from COM interfaces.
#define DECLARE_IUNKNOWN                                                                                               \
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {                                       \
        return GetOwner()->QueryInterface(riid, ppv);                                                                  \
    }                                                                                                                  \
    ULONG STDMETHODCALLTYPE AddRef() override { return GetOwner()->AddRef(); }                                         \
    ULONG STDMETHODCALLTYPE Release() override { return GetOwner()->Release(); }

/// Answers a QueryInterface with `pUnk`, counted. @return S_OK, or E_POINTER for a null ppv.
HRESULT GetInterface(LPUNKNOWN pUnk, void** ppv);
