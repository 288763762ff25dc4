// The documented base classes as far as documented.inc lists them: enough to compile and to link the product with, and
// no more, so that what it uses besides is found. Nothing here works.
#pragma once

#include <windows.h>

#include <tchar.h> // strsafe.h, which dshow.h includes, must come after it

#include <dshow.h>
#include <olectl.h>

#include <type_traits>

class CBasePin;
class CSource;
class CSourceStream;
class CUnknown;
struct AMOVIESETUP_FILTER;
typedef CUnknown*(CALLBACK* LPFNNewCOMObject)(LPUNKNOWN pUnkOuter, HRESULT* phr);
typedef void(CALLBACK* LPFNInitRoutine)(BOOL bLoading, const CLSID* rclsid);

#define NAME(text) TEXT(text)
#define CheckPointer(pointer, result)                                                                                  \
    {                                                                                                                  \
        if ((pointer) == NULL) return (result);                                                                        \
    }
#define DECLARE_IUNKNOWN                                                                                               \
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return GetOwner()->QueryInterface(riid, ppv); }    \
    STDMETHODIMP_(ULONG) AddRef() override { return GetOwner()->AddRef(); }                                            \
    STDMETHODIMP_(ULONG) Release() override { return GetOwner()->Release(); }

template <class T>
T documentedNothing() {
    if constexpr (std::is_reference_v<T>) {
        static std::remove_reference_t<T> nothing;
        return nothing;
    } else {
        return T();
    }
}

#define CLASS0(name)                                                                                                   \
    class name {                                                                                                       \
    public:
#define CLASS1(name, base)                                                                                             \
    class name : public base {                                                                                         \
    public:
#define CLASS2(name, first, second)                                                                                    \
    class name : public first, public second {                                                                         \
    public:
#define CLASS3(name, first, second, third)                                                                             \
    class name : public first, public second, public third {                                                           \
    public:
#define END                                                                                                            \
    }                                                                                                                  \
    ;
#define PROTECTED protected:
#define IUNKNOWN DECLARE_IUNKNOWN
#define CONSTRUCTOR(name, parameters, arguments, bases)                                                                \
    name parameters bases {}
#define DESTRUCTOR(name)                                                                                               \
    virtual ~name() {}
#define METHOD(result, name, parameters)                                                                               \
    result name parameters { return documentedNothing<result>(); }
#define CONST_METHOD(result, name, parameters)                                                                         \
    result name parameters const { return documentedNothing<result>(); }
#define OPERATOR(result, name, parameters, qualifier)                                                                  \
    result name parameters qualifier { return documentedNothing<result>(); }
#define STATIC(result, name, parameters) static METHOD(result, name, parameters)
#define VIRTUAL(result, name, parameters) virtual METHOD(result, name, parameters)
#define ABSTRACT(result, name, parameters) virtual result name parameters = 0;
#define MEMBER(type, name) type name;
#define VARIABLE(type, name, bounds) extern type name bounds;
#define FUNCTION(result, name, parameters) result name parameters;
#include "documented.inc"
#include "documented_undef.h"
