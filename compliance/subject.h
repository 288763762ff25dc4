// The filter that is tested: where it comes from, and how a test gets one.
#pragma once

#include "win32/com_ref.h"

#include <windows.h>

#include <dshow.h>

#include <string>
#include <vector>

namespace kestra::compliance {

/// How the user named the filter: by name, class or DLL. A DLL's class may be left out if its type library names
/// it.
struct SubjectName {
    std::wstring friendlyName, dll;
    CLSID clsid = GUID_NULL;
};

/// A filter's source. Made once in a process, on its first thread; any thread may then create.
class Subject {
public:
    /// Finds it. @throws NoSubject, with what was not found
    explicit Subject(const SubjectName& name);
    /// Makes a filter and lets go of it. @throws NoSubject if there is no such class, or none of its objects is to be
    /// had now
    void probe() const;

    /// @param outer  null: not aggregated
    HRESULT create(IUnknown* outer, REFIID riid, void** object) const;
    /// A new filter. @throws Failure
    ComRef<IBaseFilter> create() const;
    const CLSID& clsid() const { return m_clsid; }
    bool isFromDll() const { return m_module != nullptr; }
    HMODULE module() const { return m_module; }
    /// DllCanUnloadNow of the filter's module. @return E_NOTIMPL: it is not known
    HRESULT canUnloadNow() const;
    HRESULT classObject(REFCLSID clsid, REFIID riid, void** object) const;
    /// The moniker that names it; null: given as a DLL or a class that is in no category.
    IMoniker* moniker() const { return m_moniker.get(); }
    const CLSID& category() const { return m_category; }

private:
    void findByName(const std::wstring& name);
    void findInTypeLibrary(const std::wstring& dll);

    CLSID m_clsid = GUID_NULL, m_category = GUID_NULL;
    HMODULE m_module = nullptr; // never freed: unloading is what a test asks about
    ComRef<IMoniker> m_moniker;
};

/// The filter's pin that captures: the output pin of category capture, or the first output pin. @throws Failure
ComRef<IPin> capturePin(IBaseFilter* filter);

void freeMediaType(AM_MEDIA_TYPE& type) noexcept;

/// A media type that this object owns.
class Type {
public:
    Type() noexcept : m_type{} {}
    explicit Type(const AM_MEDIA_TYPE& other);
    Type(const Type& other) : Type(other.m_type) {}
    Type(Type&& other) noexcept : m_type(std::exchange(other.m_type, AM_MEDIA_TYPE{})) {}
    Type& operator=(Type other) noexcept {
        std::swap(m_type, other.m_type);
        return *this;
    }
    ~Type() { freeMediaType(m_type); }
    /// Takes over one that a method allocated.
    static Type taken(AM_MEDIA_TYPE* allocated) noexcept;
    AM_MEDIA_TYPE* get() { return &m_type; }
    const AM_MEDIA_TYPE& operator*() const { return m_type; }
    const AM_MEDIA_TYPE* operator->() const { return &m_type; }
    AM_MEDIA_TYPE* operator->() { return &m_type; }
    bool operator==(const Type& other) const;

    bool isVideo() const;
    bool isAudio() const;
    /// Null: its block is none of a known kind, or too short.
    BITMAPINFOHEADER* bitmap() const;
    WAVEFORMATEX* wave() const;
    /// Of a picture, in 100 ns; 0: not known.
    REFERENCE_TIME frameTime() const;
    std::string text() const;

private:
    AM_MEDIA_TYPE m_type;
};

/// What the pin offers, in its order. @throws Failure
std::vector<Type> offeredTypes(IPin* pin);

} // namespace kestra::compliance
