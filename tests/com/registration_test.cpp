// Registration as through regsvr32: the resulting registry keys and device lists, the effect of failing system calls,
// and the module's file properties.
#include "kestra_interfaces.h"
#include "tests/com/com_module.h"
#include "tests/support/scoped_import_hook.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kestra::test {
namespace {

constexpr CLSID kAudioFilter = {0x47BAFEE0, 0x4F9B, 0x4115, {0xAA, 0x9F, 0x89, 0x64, 0xA2, 0x3B, 0x53, 0xE9}};
constexpr GUID kLibrary = {0xa5082433, 0x4576, 0x4fe3, {0x99, 0x21, 0x81, 0xcd, 0xd2, 0xf3, 0x1c, 0x71}};

/// A moniker's "FilterData" of a filter with one pin: packed records, in which an offset stands for each GUID.
struct FilterData {
    DWORD version, merit, pins, reserved;
    DWORD pinSignature, pinFlags, pinInstances, mediaTypes, mediums, hasCategory, pinCategory;
    struct {
        DWORD signature, reserved, major, minor;
    } types[2];
};

struct Class {
    const wchar_t* clsid;
    const wchar_t* name; ///< empty: the key's value is there, and empty
};
constexpr Class kClasses[] = {
    {L"{53F0624A-8497-4A4C-9451-011C49B274FA}", L"Kestra Capture Video"},
    {L"{47BAFEE0-4F9B-4115-AA9F-8964A23B53E9}", L"Kestra Capture Audio"},
    {L"{8A2C2A69-416A-4DA2-B983-A7EC331515F4}", L""},
    {L"{775AF2A3-0280-40F2-BA54-7EB3AECC5BBD}", L""},
    {L"{09720913-2313-4CB3-A488-956D0260C606}", L""},
};

struct Source {
    const CLSID& category;
    const wchar_t* name;
    CLSID clsid;
    std::vector<std::pair<GUID, GUID>> types;
};
const Source kSources[] = {
    {CLSID_VideoInputDeviceCategory,
     L"Kestra Capture Video",
     kVideoFilter,
     {{MEDIATYPE_Video, MEDIASUBTYPE_RGB24}, {MEDIATYPE_Video, MEDIASUBTYPE_YUY2}}},
    {CLSID_AudioInputDeviceCategory, L"Kestra Capture Audio", kAudioFilter, {{MEDIATYPE_Audio, GUID_NULL}}},
};

/// A value below HKEY_CLASSES_ROOT, or "(none)".
std::wstring classesValue(const std::wstring& key, const wchar_t* value) {
    wchar_t text[512] = L"";
    DWORD bytes = sizeof text;
    if (RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), value, RRF_RT_REG_SZ, nullptr, text, &bytes) != ERROR_SUCCESS)
        return L"(none)";
    return text;
}

bool classesKeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
}

std::wstring textOf(const GUID& guid) {
    wchar_t text[64];
    StringFromGUID2(guid, text, 64);
    return text;
}

/// The moniker of a capture source, by its name.
ComRef<IMoniker> findSource(const CLSID& category, const wchar_t* name) {
    ComRef<ICreateDevEnum> devices;
    ComRef<IEnumMoniker> monikers;
    CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                     reinterpret_cast<void**>(devices.out()));
    if (!devices || devices->CreateClassEnumerator(category, monikers.out(), 0) != S_OK) return {};
    ComRef<IMoniker> moniker;
    while (monikers->Next(1, moniker.out(), nullptr) == S_OK) {
        ComRef<IPropertyBag> bag;
        if (FAILED(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out()))))
            continue;
        VARIANT value;
        VariantInit(&value);
        const bool same = bag->Read(L"FriendlyName", &value, nullptr) == S_OK && lstrcmpW(value.bstrVal, name) == 0;
        VariantClear(&value);
        if (same) return moniker;
    }
    return {};
}

/// A filter mapper that refuses one filter.
class RefusingMapper : public IFilterMapper2 {
public:
    explicit RefusingMapper(const CLSID& refused) : m_refused(refused) {}
    virtual ~RefusingMapper() = default;
    RefusingMapper(const RefusingMapper&) = delete;
    RefusingMapper& operator=(const RefusingMapper&) = delete;

    std::vector<CLSID> registered, unregistered; ///< in the order of the calls
    long references = 0;

    STDMETHODIMP QueryInterface(REFIID, void** object) override {
        *object = static_cast<IFilterMapper2*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--references); }
    STDMETHODIMP CreateCategory(REFCLSID, DWORD, LPCWSTR) override { return E_NOTIMPL; }
    STDMETHODIMP UnregisterFilter(const CLSID*, LPCOLESTR, REFCLSID filter) override {
        unregistered.push_back(filter);
        return E_FAIL;
    }
    STDMETHODIMP RegisterFilter(REFCLSID filter, LPCWSTR, IMoniker**, const CLSID*, LPCOLESTR,
                                const REGFILTER2*) override {
        registered.push_back(filter);
        return filter == m_refused ? VFW_E_BAD_KEY : S_OK;
    }
    STDMETHODIMP EnumMatchingFilters(IEnumMoniker**, DWORD, BOOL, DWORD, BOOL, DWORD, const GUID*, const REGPINMEDIUM*,
                                     const CLSID*, BOOL, BOOL, DWORD, const GUID*, const REGPINMEDIUM*,
                                     const CLSID*) override {
        return E_NOTIMPL;
    }

private:
    const CLSID m_refused;
};
RefusingMapper* g_mapper;

class Registration : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_module.handle(), nullptr); }
    void TearDown() override { m_module.unregisterServer(); }

    ComModule m_module{KESTRA_MODULE};
};

TEST_F(Registration, CaptureSourcesAreListedWithTheirData) {
    ASSERT_EQ(m_module.registerServer(), S_OK);
    for (const Source& source : kSources) {
        SCOPED_TRACE(textOf(source.clsid).c_str());
        const ComRef<IMoniker> moniker = findSource(source.category, source.name);
        ASSERT_TRUE(moniker);
        ComRef<IPropertyBag> bag;
        ASSERT_EQ(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out())),
                  S_OK);
        VARIANT value;
        VariantInit(&value);
        ASSERT_EQ(bag->Read(L"CLSID", &value, nullptr), S_OK);
        EXPECT_EQ(lstrcmpiW(value.bstrVal, textOf(source.clsid).c_str()), 0);
        VariantClear(&value);
        ASSERT_EQ(bag->Read(L"FilterData", &value, nullptr), S_OK);
        const auto* bytes = static_cast<const BYTE*>(value.parray->pvData);
        ASSERT_GE(value.parray->rgsabound[0].cElements, sizeof(FilterData) - 16);
        const auto* data = reinterpret_cast<const FilterData*>(bytes);
        const auto guidAt = [bytes](DWORD offset) { return *reinterpret_cast<const GUID*>(bytes + offset); };
        EXPECT_EQ(data->version, 2u);
        EXPECT_EQ(data->merit, 0x200000u);
        ASSERT_EQ(data->pins, 1u);
        EXPECT_EQ(data->pinFlags, DWORD{REG_PINFLAG_B_OUTPUT});
        EXPECT_EQ(data->pinInstances, 1u);
        EXPECT_EQ(data->mediums, 0u);
        ASSERT_EQ(data->hasCategory, 1u);
        EXPECT_EQ(guidAt(data->pinCategory), PIN_CATEGORY_CAPTURE);
        ASSERT_EQ(data->mediaTypes, source.types.size());
        for (DWORD i = 0; i < data->mediaTypes; ++i) {
            EXPECT_EQ(guidAt(data->types[i].major), source.types[i].first);
            EXPECT_EQ(guidAt(data->types[i].minor), source.types[i].second);
        }
        VariantClear(&value);
    }
}

TEST_F(Registration, EveryClassHasItsKeysAndTheSystemFindsIt) {
    ASSERT_EQ(m_module.registerServer(), S_OK);
    for (const Class& entry : kClasses) {
        const std::wstring key = std::wstring(L"CLSID\\") + entry.clsid;
        EXPECT_EQ(classesValue(key, nullptr), entry.name);
        wchar_t path[MAX_PATH];
        ASSERT_GT(GetModuleFileNameW(m_module.handle(), path, MAX_PATH), 0u);
        EXPECT_EQ(lstrcmpiW(classesValue(key + L"\\InprocServer32", nullptr).c_str(), path), 0);
        EXPECT_EQ(classesValue(key + L"\\InprocServer32", L"ThreadingModel"), L"Both");
        CLSID clsid;
        ASSERT_EQ(CLSIDFromString(entry.clsid, &clsid), S_OK);
        ComRef<IClassFactory> factory;
        EXPECT_EQ(CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                   reinterpret_cast<void**>(factory.out())),
                  S_OK);
    }
}

TEST_F(Registration, TypeLibraryDescribesInterfacesAndClasses) {
    ASSERT_EQ(m_module.registerServer(), S_OK);
    ComRef<ITypeLib> library;
    ASSERT_EQ(LoadRegTypeLib(kLibrary, 1, 0, LOCALE_NEUTRAL, library.out()), S_OK);
    const auto described = [&](int index) {
        BSTR name = nullptr, help = nullptr;
        EXPECT_EQ(library->GetDocumentation(index, &name, &help, nullptr, nullptr), S_OK);
        const std::wstring text = std::wstring(name ? name : L"") + L": " + (help ? help : L"");
        SysFreeString(name);
        SysFreeString(help);
        return text;
    };
    EXPECT_EQ(described(-1), L"KestraCaptureLib: Kestra DirectShow capture driver library");
    std::vector<std::wstring> all;
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i)
        all.push_back(described(int(i)));
    for (const wchar_t* entry :
         {L"IKestraStreamPropCSC: Kestra Color Space Converter interface",
          L"IKestraStreamPropRGBGainOffset: Kestra RGB gain and offset interface",
          L"IKestraAudioPropertyPage: Audio format interface", L"KestraCapture: HD-SDI Kestra Capture filter class",
          L"KestraAudioCapture: HD-SDI Kestra Audio Capture filter class",
          L"KestraStreamPropCSC: ColorSpaceConverter property page"})
        EXPECT_EQ(std::count(all.begin(), all.end(), entry), 1) << std::string(entry, entry + wcslen(entry));
    ComRef<ITypeInfo> audio;
    ASSERT_EQ(library->GetTypeInfoOfGuid(IID_IKestraAudioPropertyPage, audio.out()), S_OK);
    wchar_t bitDepth[] = L"BitDepth";
    LPOLESTR names[] = {bitDepth};
    MEMBERID member = MEMBERID_NIL;
    EXPECT_EQ(audio->GetIDsOfNames(names, 1, &member), S_OK);
}

TEST_F(Registration, UnregistrationLeavesNothing) {
    ASSERT_EQ(m_module.registerServer(), S_OK);
    EXPECT_EQ(m_module.unregisterServer(), S_OK);
    for (const Source& source : kSources)
        EXPECT_FALSE(findSource(source.category, source.name));
    for (const Class& entry : kClasses)
        EXPECT_FALSE(classesKeyExists(std::wstring(L"CLSID\\") + entry.clsid));
    EXPECT_FALSE(classesKeyExists(L"TypeLib\\" + textOf(kLibrary) + L"\\1.0"));
}

TEST_F(Registration, NeverRegisteredModuleCanBeUnregistered) {
    m_module.unregisterServer();
    EXPECT_EQ(m_module.unregisterServer(), S_OK);
}

TEST_F(Registration, RegisteringTwiceChangesNothing) {
    ASSERT_EQ(m_module.registerServer(), S_OK);
    EXPECT_EQ(m_module.registerServer(), S_OK);
    EXPECT_EQ(m_module.unregisterServer(), S_OK);
    EXPECT_FALSE(findSource(kSources[0].category, kSources[0].name));
}

TEST_F(Registration, WithoutAFilterMapperNothingIsWritten) {
    {
        const ScopedImportHook<decltype(&CoCreateInstance)> noMapper(
            "ole32.dll", "CoCreateInstance",
            [](REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID* object) -> HRESULT {
                *object = nullptr;
                return REGDB_E_CLASSNOTREG;
            },
            m_module.handle());
        ASSERT_TRUE(noMapper.installed());
        EXPECT_EQ(m_module.registerServer(), REGDB_E_CLASSNOTREG);
        EXPECT_FALSE(classesKeyExists(std::wstring(L"CLSID\\") + kClasses[0].clsid));
        EXPECT_EQ(m_module.unregisterServer(), S_OK) << "there the mapper is not needed";
    }
    EXPECT_EQ(m_module.registerServer(), S_OK);
}

TEST_F(Registration, RefusedVideoIsNoFailureAndRefusedAudioEndsIt) {
    const ScopedImportHook<decltype(&CoCreateInstance)> mapper(
        "ole32.dll", "CoCreateInstance",
        [](REFCLSID, LPUNKNOWN, DWORD, REFIID riid, LPVOID* object) -> HRESULT {
            return g_mapper->QueryInterface(riid, object);
        },
        m_module.handle());
    ASSERT_TRUE(mapper.installed());
    const std::wstring key = std::wstring(L"CLSID\\") + kClasses[0].clsid;

    RefusingMapper noAudio(kAudioFilter);
    g_mapper = &noAudio;
    EXPECT_EQ(m_module.registerServer(), VFW_E_BAD_KEY);
    EXPECT_EQ(noAudio.registered, (std::vector<CLSID>{kVideoFilter, kAudioFilter}));
    EXPECT_EQ(noAudio.references, 0);
    EXPECT_FALSE(classesKeyExists(key));
    EXPECT_FALSE(classesKeyExists(L"TypeLib\\" + textOf(kLibrary) + L"\\1.0"));

    RefusingMapper noVideo(kVideoFilter);
    g_mapper = &noVideo;
    EXPECT_EQ(m_module.registerServer(), S_OK);
    EXPECT_TRUE(classesKeyExists(key));
    EXPECT_EQ(m_module.unregisterServer(), S_OK) << "whatever the mapper says";
    EXPECT_EQ(noVideo.unregistered, (std::vector<CLSID>{kAudioFilter, kVideoFilter}));
    EXPECT_EQ(noVideo.references, 0);
    EXPECT_FALSE(classesKeyExists(key));
}

TEST_F(Registration, WithoutItsOwnPathNoKeyIsWritten) {
    const ScopedImportHook<decltype(&GetModuleFileNameA)> noPath(
        "kernel32.dll", "GetModuleFileNameA",
        [](HMODULE, LPSTR, DWORD) -> DWORD {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return 0;
        },
        m_module.handle());
    ASSERT_TRUE(noPath.installed());
    EXPECT_EQ(m_module.registerServer(), HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND));
    EXPECT_TRUE(findSource(kSources[0].category, kSources[0].name)) << "the filters were registered before";
    EXPECT_FALSE(classesKeyExists(std::wstring(L"CLSID\\") + kClasses[0].clsid));
    EXPECT_EQ(m_module.unregisterServer(), HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND));
    EXPECT_FALSE(findSource(kSources[0].category, kSources[0].name));
}

TEST_F(Registration, FolderThatTheCodePageCannotNameIsRegisteredAsItIs) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"Kestra \x9332\x753B \x0416",
                       file = folder + L"\\KestraCapture.dll";
    char narrow[MAX_PATH];
    BOOL lossy = FALSE;
    WideCharToMultiByte(CP_ACP, 0, folder.c_str(), -1, narrow, MAX_PATH, nullptr, &lossy);
    ASSERT_TRUE(lossy) << "this system's code page has every character";
    CreateDirectoryW(folder.c_str(), nullptr);
    ASSERT_TRUE(CopyFileW(KESTRA_MODULE, file.c_str(), FALSE));
    {
        const ComModule module(file.c_str());
        ASSERT_NE(module.handle(), nullptr);
        EXPECT_EQ(module.registerServer(), S_OK);
        for (const Class& entry : kClasses)
            EXPECT_EQ(classesValue(std::wstring(L"CLSID\\") + entry.clsid + L"\\InprocServer32", nullptr), file);
        // The system may prefix it as a long path.
        EXPECT_TRUE(classesValue(L"TypeLib\\" + textOf(kLibrary) + L"\\1.0\\0\\win64", nullptr).ends_with(file));
        EXPECT_EQ(module.unregisterServer(), S_OK);
        EXPECT_FALSE(classesKeyExists(L"TypeLib\\" + textOf(kLibrary) + L"\\1.0"));
    }
    EXPECT_TRUE(DeleteFileW(file.c_str()));
    EXPECT_TRUE(RemoveDirectoryW(folder.c_str()));
}

TEST_F(Registration, UnloadableTypeLibraryIsNoFailure) {
    const ScopedImportHook<decltype(&LoadTypeLibEx)> noLibrary(
        "oleaut32.dll", "LoadTypeLibEx",
        [](LPCOLESTR, REGKIND, ITypeLib**) -> HRESULT { return TYPE_E_CANTLOADLIBRARY; }, m_module.handle());
    ASSERT_TRUE(noLibrary.installed());
    EXPECT_EQ(m_module.registerServer(), S_OK);
    EXPECT_TRUE(classesKeyExists(std::wstring(L"CLSID\\") + kClasses[0].clsid));
    EXPECT_EQ(m_module.unregisterServer(), S_OK);
    EXPECT_FALSE(classesKeyExists(std::wstring(L"CLSID\\") + kClasses[0].clsid));
}

TEST_F(Registration, UnknownClassIsRefused) {
    ComRef<IClassFactory> factory;
    EXPECT_EQ(m_module.classObject(kLibrary, IID_IClassFactory, reinterpret_cast<void**>(factory.out())),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_FALSE(factory);
}

TEST_F(Registration, ModuleExportsItsFiveEntryPointsAndNoMore) {
    const auto* base = reinterpret_cast<const BYTE*>(m_module.handle());
    const auto* nt =
        reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
        base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    std::vector<std::string> all;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        all.emplace_back(reinterpret_cast<const char*>(base + names[i]));
    EXPECT_EQ(all, (std::vector<std::string>{"DllCanUnloadNow", "DllGetClassObject", "DllMain", "DllRegisterServer",
                                             "DllUnregisterServer"}));
    EXPECT_EQ(exports->NumberOfFunctions, 5u);
}

} // namespace
} // namespace kestra::test
