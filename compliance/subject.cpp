// Finds the filter by name, class or DLL, and asks its pin what it offers.
#include "compliance/subject.h"

#include "compliance/check.h"

#include <dvdmedia.h>
#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <cstring>

namespace kestra::compliance {
namespace {

using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();

template <class Function>
Function find(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

std::wstring property(IMoniker* moniker, const wchar_t* name) {
    ComRef<IPropertyBag> bag;
    if (FAILED(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out()))))
        return {};
    VARIANT value;
    VariantInit(&value);
    std::wstring text;
    if (SUCCEEDED(bag->Read(name, &value, nullptr)) && value.vt == VT_BSTR) text = value.bstrVal;
    VariantClear(&value);
    return text;
}

} // namespace

Subject::Subject(const SubjectName& name) : m_clsid(name.clsid) {
    if (!name.dll.empty()) {
        m_module = LoadLibraryExW(name.dll.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (!m_module)
            throw NoSubject{format("%s cannot be loaded: error %lu", narrow(name.dll.c_str()).c_str(), GetLastError())};
        if (m_clsid == GUID_NULL) findInTypeLibrary(name.dll);
    } else {
        findByName(name.friendlyName);
    }
}

/// By name, or by class if there is no name.
void Subject::findByName(const std::wstring& name) {
    ComRef<ICreateDevEnum> devices;
    if (FAILED(CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                                reinterpret_cast<void**>(devices.out()))))
        throw NoSubject{"the system has no device enumerator"};
    std::string seen;
    for (const CLSID* category : {&CLSID_VideoInputDeviceCategory, &CLSID_AudioInputDeviceCategory}) {
        ComRef<IEnumMoniker> monikers;
        if (devices->CreateClassEnumerator(*category, monikers.out(), 0) != S_OK) continue;
        ComRef<IMoniker> moniker;
        while (monikers->Next(1, moniker.out(), nullptr) == S_OK) {
            const std::wstring friendly = property(moniker.get(), L"FriendlyName");
            seen += (seen.empty() ? "" : ", ") + narrow(friendly.c_str());
            CLSID clsid = GUID_NULL;
            CLSIDFromString(property(moniker.get(), L"CLSID").c_str(), &clsid);
            if (name.empty() ? clsid != m_clsid : friendly != name) continue;
            m_clsid = clsid;
            m_category = *category;
            m_moniker = std::move(moniker);
            return;
        }
    }
    if (!name.empty())
        throw NoSubject{"there is no capture device named \"" + narrow(name.c_str()) + "\"" +
                        (seen.empty() ? ", nor any other" : "; there are: " + seen)};
}

/// The first co-class whose objects are filters.
void Subject::findInTypeLibrary(const std::wstring& dll) {
    ComRef<ITypeLib> library;
    if (SUCCEEDED(LoadTypeLibEx(dll.c_str(), REGKIND_NONE, library.out())))
        for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
            ComRef<ITypeInfo> info;
            TYPEATTR* attributes = nullptr;
            TYPEKIND kind{};
            if (FAILED(library->GetTypeInfoType(i, &kind)) || kind != TKIND_COCLASS ||
                FAILED(library->GetTypeInfo(i, info.out())) || FAILED(info->GetTypeAttr(&attributes)))
                continue;
            m_clsid = attributes->guid;
            info->ReleaseTypeAttr(attributes);
            ComRef<IBaseFilter> filter;
            if (SUCCEEDED(create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())))) return;
        }
    throw NoSubject{narrow(dll.c_str()) + " names no filter in a type library; name its class with --clsid"};
}

HRESULT Subject::classObject(REFCLSID clsid, REFIID riid, void** object) const {
    if (!m_module) return CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, riid, object);
    const auto get = find<GetClassObject>(m_module, "DllGetClassObject");
    return get ? get(clsid, riid, object) : E_NOTIMPL;
}

HRESULT Subject::create(IUnknown* outer, REFIID riid, void** object) const {
    *object = nullptr;
    if (m_moniker && !outer) return m_moniker->BindToObject(nullptr, nullptr, riid, object);
    ComRef<IClassFactory> factory;
    const HRESULT hr = classObject(m_clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
    return FAILED(hr) ? hr : factory->CreateInstance(outer, riid, object);
}

void Subject::probe() const {
    ComRef<IUnknown> factory;
    ComRef<IBaseFilter> filter;
    const HRESULT found =
        m_moniker ? S_OK : classObject(m_clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
    if (FAILED(found)) throw NoSubject{"there is no class " + guidText(m_clsid) + ": " + resultText(found)};
    const HRESULT made = create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
    if (FAILED(made)) throw NoSubject{"the device cannot be opened: " + resultText(made)};
}

ComRef<IBaseFilter> Subject::create() const {
    note("creating the filter");
    ComRef<IBaseFilter> filter;
    const HRESULT hr = create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
    expect(SUCCEEDED(hr) && filter, "a filter from its class factory or moniker", resultText(hr));
    return filter;
}

HRESULT Subject::canUnloadNow() const {
    const auto ask = m_module ? find<CanUnloadNow>(m_module, "DllCanUnloadNow") : nullptr;
    return ask ? ask() : E_NOTIMPL;
}

ComRef<IPin> capturePin(IBaseFilter* filter) {
    ComRef<IEnumPins> pins;
    EXPECT_RESULT(S_OK, filter->EnumPins(pins.out()));
    ComRef<IPin> pin, first;
    while (CALL(pins->Next(1, pin.out(), nullptr)) == S_OK) {
        PIN_DIRECTION direction = PINDIR_INPUT;
        if (FAILED(CALL(pin->QueryDirection(&direction))) || direction != PINDIR_OUTPUT) continue;
        const auto properties = queryFor<IKsPropertySet>(pin.get(), IID_IKsPropertySet);
        GUID category = GUID_NULL;
        DWORD returned = 0;
        if (properties &&
            SUCCEEDED(properties->Get(AMPROPSETID_Pin, AMPROPERTY_PIN_CATEGORY, nullptr, 0, &category, sizeof category,
                                      &returned)) &&
            category == PIN_CATEGORY_CAPTURE)
            return pin;
        if (!first) first = ComRef<IPin>::share(pin.get());
    }
    expect(bool{first}, "an output pin", "none");
    return first;
}

void freeMediaType(AM_MEDIA_TYPE& type) noexcept {
    CoTaskMemFree(type.pbFormat);
    if (type.pUnk) type.pUnk->Release();
    type = {};
}

Type::Type(const AM_MEDIA_TYPE& other) : m_type(other) {
    if (m_type.pUnk) m_type.pUnk->AddRef();
    m_type.pbFormat = nullptr;
    if (!other.pbFormat) return;
    m_type.pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(other.cbFormat ? other.cbFormat : 1));
    std::memcpy(m_type.pbFormat, other.pbFormat, other.cbFormat);
}

Type Type::taken(AM_MEDIA_TYPE* allocated) noexcept {
    Type type;
    if (!allocated) return type;
    type.m_type = *allocated;
    CoTaskMemFree(allocated);
    return type;
}

bool Type::operator==(const Type& other) const {
    const AM_MEDIA_TYPE &a = m_type, &b = other.m_type;
    return a.majortype == b.majortype && a.subtype == b.subtype && a.formattype == b.formattype &&
           a.cbFormat == b.cbFormat && (a.cbFormat == 0 || std::memcmp(a.pbFormat, b.pbFormat, a.cbFormat) == 0);
}

bool Type::isVideo() const {
    return m_type.majortype == MEDIATYPE_Video;
}

bool Type::isAudio() const {
    return m_type.majortype == MEDIATYPE_Audio;
}

BITMAPINFOHEADER* Type::bitmap() const {
    if (m_type.formattype == FORMAT_VideoInfo && m_type.cbFormat >= sizeof(VIDEOINFOHEADER) && m_type.pbFormat)
        return &reinterpret_cast<VIDEOINFOHEADER*>(m_type.pbFormat)->bmiHeader;
    if (m_type.formattype == FORMAT_VideoInfo2 && m_type.cbFormat >= sizeof(VIDEOINFOHEADER2) && m_type.pbFormat)
        return &reinterpret_cast<VIDEOINFOHEADER2*>(m_type.pbFormat)->bmiHeader;
    return nullptr;
}

WAVEFORMATEX* Type::wave() const {
    const bool whole = m_type.formattype == FORMAT_WaveFormatEx && m_type.cbFormat >= sizeof(PCMWAVEFORMAT);
    return whole && m_type.pbFormat ? reinterpret_cast<WAVEFORMATEX*>(m_type.pbFormat) : nullptr;
}

REFERENCE_TIME Type::frameTime() const {
    return bitmap() ? reinterpret_cast<VIDEOINFOHEADER*>(m_type.pbFormat)->AvgTimePerFrame : 0; // both open alike
}

std::string Type::text() const {
    if (const BITMAPINFOHEADER* header = bitmap()) {
        char code[5] = {};
        std::memcpy(code, &header->biCompression, 4);
        const std::string kind =
            header->biCompression == BI_RGB ? format("RGB%d", header->biBitCount) : std::string(code);
        const REFERENCE_TIME frame = frameTime();
        return format("%s %ldx%ld at %.3f Hz, %s", kind.c_str(), header->biWidth, header->biHeight,
                      frame > 0 ? 1e7 / static_cast<double>(frame) : 0.0,
                      m_type.formattype == FORMAT_VideoInfo2 ? "VIDEOINFOHEADER2" : "VIDEOINFOHEADER");
    }
    if (const WAVEFORMATEX* header = wave())
        return format("%d bits, %d channels, %lu Hz, tag 0x%04X", header->wBitsPerSample, header->nChannels,
                      header->nSamplesPerSec, header->wFormatTag);
    return "major type " + guidText(m_type.majortype);
}

std::vector<Type> offeredTypes(IPin* pin) {
    ComRef<IEnumMediaTypes> types;
    EXPECT_RESULT(S_OK, pin->EnumMediaTypes(types.out()));
    std::vector<Type> list;
    AM_MEDIA_TYPE* type = nullptr;
    while (list.size() < 1000 && CALL(types->Next(1, &type, nullptr)) == S_OK)
        list.push_back(Type::taken(type));
    return list;
}

} // namespace kestra::compliance
