// Registers the module with the system and unregisters it. Independent of how the base classes do their part.
#include "server/registration.h"

#include "win32/com_ref.h"

#include <streams.h>

#include <kestra_interfaces.h>
#include <ks.h>

#include <ksmedia.h>

#include <cwchar>
#include <exception>
#include <thread>

namespace kestra {
namespace {

/// One filter for the filter mapper: a capture source with one output pin.
struct Filter {
    const CLSID* clsid;
    const wchar_t* name;
    const CLSID* category;
    const REGPINTYPES* types;
    UINT typeCount;

    HRESULT add(IFilterMapper2& mapper) const {
        const REGFILTERPINS2 pin = {REG_PINFLAG_B_OUTPUT, 1, typeCount, types, 0, nullptr, &PIN_CATEGORY_CAPTURE};
        REGFILTER2 data{};
        data.dwVersion = 2;
        data.dwMerit = MERIT_DO_NOT_USE;
        data.cPins2 = 1;
        data.rgPins2 = &pin;
        return mapper.RegisterFilter(*clsid, name, nullptr, category, nullptr, &data);
    }
    HRESULT remove(IFilterMapper2& mapper) const { return mapper.UnregisterFilter(category, nullptr, *clsid); }
};

const REGPINTYPES kVideoTypes[] = {{&MEDIATYPE_Video, &MEDIASUBTYPE_RGB24}, {&MEDIATYPE_Video, &MEDIASUBTYPE_YUY2}};
const REGPINTYPES kAudioTypes[] = {{&MEDIATYPE_Audio, &MEDIASUBTYPE_NULL}};
const Filter kFilters[] = {
    {&CLSID_KestraCapture, L"Kestra Capture Video", &CLSID_VideoInputDeviceCategory, kVideoTypes, 2},
    {&CLSID_KestraAudioCapture, L"Kestra Capture Audio", &CLSID_AudioInputDeviceCategory, kAudioTypes, 1},
};

HRESULT openMapper(ComRef<IFilterMapper2>& mapper) {
    return CoCreateInstance(CLSID_FilterMapper2, nullptr, CLSCTX_INPROC_SERVER, IID_IFilterMapper2,
                            reinterpret_cast<void**>(mapper.out()));
}

/// This module's path. The base classes use the ANSI code page, which may lack one of its characters.
HRESULT modulePath(wchar_t (&path)[MAX_PATH]) {
    char narrow[MAX_PATH];
    if (GetModuleFileNameA(g_hInst, narrow, MAX_PATH) == 0) return HRESULT_FROM_WIN32(GetLastError());
    narrow[MAX_PATH - 1] = '\0';
    if (MultiByteToWideChar(CP_ACP, 0, narrow, -1, path, MAX_PATH) == 0) return HRESULT_FROM_WIN32(GetLastError());
    wchar_t exact[MAX_PATH];
    const DWORD length = GetModuleFileNameW(g_hInst, exact, MAX_PATH);
    if (length > 0 && length < MAX_PATH) std::wmemcpy(path, exact, length + 1);
    return S_OK;
}

/// Lets the base classes write or remove the classes' keys, on a separate thread: the platform's own copy uninitialises
/// COM even where its initialisation failed, which would hurt a caller in a multithreaded apartment.
HRESULT runFrameworksRegistration(BOOL registering) {
    HRESULT hr = E_UNEXPECTED;
    try {
        std::thread([&] { hr = AMovieDllRegisterServer2(registering); }).join();
    } catch (const std::exception&) { // no thread
        return E_OUTOFMEMORY;
    }
    return hr;
}

/// Writes the path into the classes' keys: the base classes may have written it through the ANSI code page.
HRESULT writeServerPath(const wchar_t* path) {
    for (int i = 0; i < g_cTemplates; ++i) {
        wchar_t key[] = L"CLSID\\{00000000-0000-0000-0000-000000000000}\\InprocServer32";
        constexpr int kClassAt = 6, kClassLength = 38;
        StringFromGUID2(*g_Templates[i].m_ClsID, key + kClassAt, kClassLength + 1);
        key[kClassAt + kClassLength] = L'\\'; // where the text's end was written
        const auto bytes = static_cast<DWORD>((std::wcslen(path) + 1) * sizeof *path);
        const LSTATUS status = RegSetKeyValueW(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, path, bytes);
        if (status != ERROR_SUCCESS) return HRESULT_FROM_WIN32(status);
    }
    return S_OK;
}

} // namespace

HRESULT registerModule() noexcept {
    HRESULT last = S_OK;
    {
        ComRef<IFilterMapper2> mapper;
        const HRESULT hr = openMapper(mapper);
        if (FAILED(hr)) return hr;
        for (const Filter& filter : kFilters)
            last = filter.add(*mapper.get());
    }
    if (FAILED(last)) return last;
    wchar_t path[MAX_PATH];
    const HRESULT hr = modulePath(path);
    if (FAILED(hr)) return hr;
    {
        ComRef<ITypeLib> library;
        LoadTypeLibEx(path, REGKIND_REGISTER, library.out());
    }
    const HRESULT written = runFrameworksRegistration(TRUE);
    return FAILED(written) ? written : writeServerPath(path);
}

HRESULT unregisterModule() noexcept {
    {
        ComRef<IFilterMapper2> mapper;
        if (SUCCEEDED(openMapper(mapper)))
            for (size_t i = sizeof kFilters / sizeof kFilters[0]; i-- > 0;)
                kFilters[i].remove(*mapper.get());
    }
    wchar_t path[MAX_PATH];
    const HRESULT hr = modulePath(path);
    if (FAILED(hr)) return hr;
    ComRef<ITypeLib> library;
    if (SUCCEEDED(LoadTypeLibEx(path, REGKIND_NONE, library.out()))) {
        TLIBATTR* attributes = nullptr;
        if (SUCCEEDED(library->GetLibAttr(&attributes))) {
            const TLIBATTR copy = *attributes;
            library->ReleaseTLibAttr(attributes);
            library = ComRef<ITypeLib>();
            UnRegisterTypeLib(copy.guid, copy.wMajorVerNum, copy.wMinorVerNum, copy.lcid, copy.syskind);
        }
    }
    return runFrameworksRegistration(FALSE);
}

} // namespace kestra
