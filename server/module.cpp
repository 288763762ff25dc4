// The module: its classes, its entry points, its registration.
#include "capture/filters.h"
#include "log/log.h"
#include "pages/pages.h"
#include "server/registration.h"

#include <streams.h>

#include <kestra_interfaces.h>

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE, ULONG, LPVOID); // in the base classes, but in none of their headers

namespace __gnu_cxx { // NOLINT(bugprone-reserved-identifier): the C++ library's, in none of its headers
void __freeres();     // NOLINT(bugprone-reserved-identifier)
} // namespace __gnu_cxx

namespace {

bool g_unloading = false;

/// The C++ library sets memory aside for exceptions that are thrown when there is none, and would leave it behind in
/// the process. The first object made is the last one to end: nothing can throw any more. At the process's end it
/// stays.
struct ExceptionMemory {
    ~ExceptionMemory() {
        if (g_unloading) __gnu_cxx::__freeres();
    }
};
__attribute__((init_priority(101))) ExceptionMemory g_exceptionMemory;

kestra::LogLifetime g_log; // the library's log is open for as long as the module is loaded

} // namespace

// A new class is one line. A class without a name has an empty text, not null, so that its key gets an empty value.
CFactoryTemplate g_Templates[] = {
    {L"Kestra Capture Video", &CLSID_KestraCapture, kestra::createVideoFilter, nullptr, nullptr},
    {L"Kestra Capture Audio", &CLSID_KestraAudioCapture, kestra::createAudioFilter, nullptr, nullptr},
    {L"", &CLSID_KestraAudioPropertyPage, kestra::createAudioPage, nullptr, nullptr},
    {L"", &CLSID_KestraStreamPropCSC, kestra::createConverterPage, nullptr, nullptr},
    {L"", &CLSID_KestraStreamPropRGB, kestra::createGainPage, nullptr, nullptr},
};
int g_cTemplates = sizeof g_Templates / sizeof g_Templates[0];

STDAPI DllRegisterServer() {
    return kestra::registerModule();
}

STDAPI DllUnregisterServer() {
    return kestra::unregisterModule();
}

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_DETACH && !reserved) g_unloading = true;
    return DllEntryPoint(instance, reason, reserved);
}
