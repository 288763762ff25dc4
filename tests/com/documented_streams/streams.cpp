// What the list has outside classes, and the entry points that no header of the base classes declares.
#include "streams.h"

HINSTANCE g_hInst;

#define CLASS0(name)
#define CLASS1(name, base)
#define CLASS2(name, first, second)
#define CLASS3(name, first, second, third)
#define END
#define PROTECTED
#define IUNKNOWN
#define CONSTRUCTOR(name, parameters, arguments, bases)
#define DESTRUCTOR(name)
#define METHOD(result, name, parameters)
#define CONST_METHOD(result, name, parameters)
#define OPERATOR(result, name, parameters, qualifier)
#define STATIC(result, name, parameters)
#define VIRTUAL(result, name, parameters)
#define ABSTRACT(result, name, parameters)
#define MEMBER(type, name)
#define VARIABLE(type, name, bounds)
#define FUNCTION(result, name, parameters)                                                                             \
    result name parameters { return documentedNothing<result>(); }
#include "documented.inc"

STDAPI DllGetClassObject(REFCLSID, REFIID, void**) {
    return E_NOTIMPL;
}
STDAPI DllCanUnloadNow() {
    return E_NOTIMPL;
}
extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE, ULONG, LPVOID) {
    return FALSE;
}
