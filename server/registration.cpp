#include "server/registration.h"

#include "capture/audio_filter.h"
#include "capture/com_ref.h"
#include "capture/video_filter.h"

#include <streams.h>

#include <ks.h>

#include <ksmedia.h>

namespace kestra {
namespace {

/// One filter as the mapper lists it: a capture source of one output pin.
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

/// This module's path, by the system's code page as its name was asked for.
HRESULT modulePath(wchar_t (&path)[MAX_PATH]) {
    char narrow[MAX_PATH];
    if (GetModuleFileNameA(g_hInst, narrow, MAX_PATH) == 0) return HRESULT_FROM_WIN32(GetLastError());
    narrow[MAX_PATH - 1] = '\0';
    if (MultiByteToWideChar(CP_ACP, 0, narrow, -1, path, MAX_PATH) == 0) return HRESULT_FROM_WIN32(GetLastError());
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
    return AMovieDllRegisterServer2(TRUE);
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
    return AMovieDllRegisterServer2(FALSE);
}

} // namespace kestra
