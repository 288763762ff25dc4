// The class table: factories, DllCanUnloadNow, and what registration writes.
#include "tests/com/baseclasses_fixture.h"

#include <string>

STDAPI DllGetClassObject(REFCLSID rClsID, REFIID riid, void** pv);
STDAPI DllCanUnloadNow();

namespace kestra::test {
namespace {

CLSID const kFailing{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x02}};
CLSID const kThrowing{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x03}};
CLSID const kUnmakeable{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x04}};
CLSID const kStranger{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x05}};
int loads = 0, unloads = 0;

CUnknown* CALLBACK makeSource(LPUNKNOWN outer, HRESULT*) {
    return new TestSource(outer);
}
CUnknown* CALLBACK makeFailing(LPUNKNOWN outer, HRESULT* phr) {
    *phr = E_ACCESSDENIED;
    return new TestSource(outer);
}
CUnknown* CALLBACK makeThrowing(LPUNKNOWN, HRESULT*) {
    throw std::runtime_error("test");
}
void CALLBACK count(BOOL loading, const CLSID*) {
    ++(loading ? loads : unloads);
}

std::wstring textAt(const std::wstring& key, LPCWSTR name) {
    wchar_t text[MAX_PATH] = L"";
    DWORD bytes = sizeof text;
    const LSTATUS status = RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &bytes);
    return status == ERROR_SUCCESS ? text : L"(none)";
}

const std::wstring kSourceKey = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521101}";

class FactoryTest : public testing::Test {
protected:
    FactoryTest() : m_com(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~FactoryTest() override {
        EXPECT_EQ(DllCanUnloadNow(), S_OK);
        if (SUCCEEDED(m_com)) CoUninitialize();
    }
    IClassFactory* factoryOf(REFCLSID clsid) {
        IClassFactory* factory = nullptr;
        EXPECT_EQ(DllGetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory)), S_OK);
        return factory;
    }
    const HRESULT m_com;
};

TEST_F(FactoryTest, MakesTheObjectsOfTheTable) {
    Ref<IClassFactory> factory(factoryOf(kTestFilter));
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    Ref<IBaseFilter> filter;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IBaseFilter, filter.putVoid()), S_OK);
    EXPECT_EQ(referencesOf(filter.get()), 1u);
    factory.reset();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    filter.reset();
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(FactoryTest, FactoryIsOneObject) {
    Ref<IClassFactory> factory(factoryOf(kTestFilter));
    Ref<IUnknown> unknown, same;
    ASSERT_EQ(factory->QueryInterface(IID_IUnknown, unknown.putVoid()), S_OK);
    Ref<IClassFactory> again;
    ASSERT_EQ(unknown->QueryInterface(IID_IClassFactory, again.putVoid()), S_OK);
    EXPECT_EQ(again.get(), factory.get());
    void* none = this;
    EXPECT_EQ(factory->QueryInterface(IID_IBaseFilter, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(factory->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(FactoryTest, UnknownClassAndInterfaceAreRefused) {
    void* none = this;
    EXPECT_EQ(DllGetClassObject(kStranger, IID_IClassFactory, &none), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(none, nullptr);
    none = this;
    EXPECT_EQ(DllGetClassObject(kTestFilter, IID_IBaseFilter, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(DllGetClassObject(kTestFilter, IID_IClassFactory, nullptr), E_POINTER);
}

TEST_F(FactoryTest, ObjectThatCannotBeMadeLeavesNothing) {
    struct {
        const CLSID& clsid;
        HRESULT expected;
    } const cases[] = {{kFailing, E_ACCESSDENIED}, {kThrowing, E_UNEXPECTED}, {kUnmakeable, CLASS_E_CLASSNOTAVAILABLE}};
    for (const auto& c : cases) {
        Ref<IClassFactory> factory(factoryOf(c.clsid));
        const LONG before = CBaseObject::ObjectsActive();
        void* none = this;
        EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, &none), c.expected);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(CBaseObject::ObjectsActive(), before);
    }
    Ref<IClassFactory> factory(factoryOf(kTestFilter));
    const LONG before = CBaseObject::ObjectsActive();
    void* none = this;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IMoniker, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(CBaseObject::ObjectsActive(), before);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(FactoryTest, AggregatesForTheUnknownOnly) {
    TestGraph outer;
    IUnknown* const controlling = static_cast<IFilterGraph*>(&outer);
    Ref<IClassFactory> factory(factoryOf(kTestFilter));
    void* none = this;
    EXPECT_EQ(factory->CreateInstance(controlling, IID_IBaseFilter, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    Ref<IUnknown> inner;
    ASSERT_EQ(factory->CreateInstance(controlling, IID_IUnknown, inner.putVoid()), S_OK);
    EXPECT_NE(inner.get(), controlling);
    Ref<IBaseFilter> filter;
    ASSERT_EQ(inner->QueryInterface(IID_IBaseFilter, filter.putVoid()), S_OK);
    EXPECT_EQ(outer.m_references, 2);
    filter.reset();
    EXPECT_EQ(outer.m_references, 1);
}

TEST_F(FactoryTest, LockKeepsTheModule) {
    Ref<IClassFactory> factory(factoryOf(kTestFilter));
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    factory.reset();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    *factory.put() = factoryOf(kTestFilter);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_TRUE(CClassFactory::IsLocked());
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_FALSE(CClassFactory::IsLocked());
}

TEST_F(FactoryTest, EntryPointTellsEachClassOfLoadAndUnload) {
    EXPECT_TRUE(DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr));
    EXPECT_EQ(loads, 1);
    EXPECT_EQ(g_hInst, GetModuleHandleW(nullptr));
    EXPECT_TRUE(DllEntryPoint(g_hInst, DLL_THREAD_ATTACH, nullptr));
    EXPECT_TRUE(DllEntryPoint(g_hInst, DLL_PROCESS_DETACH, nullptr));
    EXPECT_EQ(loads, 1);
    EXPECT_EQ(unloads, 1);
}

TEST_F(FactoryTest, RegistrationWritesTheKeysOfEveryClassAndRemovesThem) {
    g_hInst = GetModuleHandleW(nullptr);
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(g_hInst, path, MAX_PATH);
    ASSERT_EQ(AMovieDllRegisterServer2(TRUE), S_OK);
    EXPECT_EQ(textAt(kSourceKey, nullptr), L"test source");
    EXPECT_EQ(textAt(kSourceKey + L"\\InprocServer32", nullptr), path);
    EXPECT_EQ(textAt(kSourceKey + L"\\InprocServer32", L"ThreadingModel"), L"Both");
    EXPECT_EQ(textAt(L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521104}", nullptr), L"unmakeable");
    ASSERT_EQ(AMovieDllRegisterServer2(TRUE), S_OK) << "over itself";
    ASSERT_EQ(AMovieDllRegisterServer2(FALSE), S_OK);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, kSourceKey.c_str(), 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(AMovieDllRegisterServer2(FALSE), S_OK) << "what is not there is as good as removed";
}

TEST_F(FactoryTest, ServerIsRegisteredWithTheModelAndTypeThatAreGiven) {
    ASSERT_EQ(AMovieSetupRegisterServer(kTestFilter, nullptr, L"C:\\x.dll", L"Apartment", L"LocalServer32"), S_OK);
    EXPECT_EQ(textAt(kSourceKey, nullptr), L"");
    EXPECT_EQ(textAt(kSourceKey + L"\\LocalServer32", nullptr), L"C:\\x.dll");
    EXPECT_EQ(textAt(kSourceKey + L"\\LocalServer32", L"ThreadingModel"), L"Apartment");
    EXPECT_EQ(AMovieSetupUnregisterServer(kTestFilter), S_OK);
    EXPECT_EQ(textAt(kSourceKey, nullptr), L"(none)");
}

const AMOVIESETUP_MEDIATYPE kSetupType{&MEDIATYPE_Stream, &GUID_NULL};
WCHAR outputName[] = L"Output";
const AMOVIESETUP_PIN kSetupPin{outputName, FALSE, TRUE, FALSE, FALSE, nullptr, nullptr, 1, &kSetupType};
AMOVIESETUP_FILTER setup{&kTestFilter, L"test source", MERIT_DO_NOT_USE, 1, &kSetupPin};

TEST_F(FactoryTest, FilterEntersItselfWithItsSetupDataOnly) {
    auto* source = new TestSource;
    source->AddRef();
    Ref<IAMovieSetup> registrar;
    ASSERT_EQ(source->QueryInterface(IID_IAMovieSetup, registrar.putVoid()), S_OK);
    EXPECT_EQ(registrar->Register(), S_FALSE) << "no data";
    EXPECT_EQ(registrar->Unregister(), S_FALSE);
    source->m_setup = &setup;
    const std::wstring instance = L"CLSID\\{083863F1-70DE-11D0-BD40-00A0C911CE86}\\Instance\\"
                                  L"{5E0C1B6A-2C44-4E0B-931D-7A603B521101}";
    EXPECT_EQ(registrar->Register(), S_OK);
    EXPECT_EQ(textAt(instance, L"FriendlyName"), L"test source");
    EXPECT_EQ(registrar->Unregister(), S_OK);
    EXPECT_EQ(textAt(instance, L"FriendlyName"), L"(none)");
    registrar.reset();
    EXPECT_EQ(source->Release(), 0u);
    EXPECT_EQ(AMovieSetupRegisterFilter2(nullptr, nullptr, TRUE), S_FALSE);
    EXPECT_EQ(AMovieSetupRegisterFilter2(&setup, nullptr, TRUE), E_POINTER);
}

} // namespace
} // namespace kestra::test

using namespace kestra::test;

CFactoryTemplate g_Templates[] = {{L"test source", &kTestFilter, makeSource, count, nullptr},
                                  {L"failing", &kFailing, makeFailing, nullptr, nullptr},
                                  {L"throwing", &kThrowing, makeThrowing, nullptr, nullptr},
                                  {L"unmakeable", &kUnmakeable, nullptr, nullptr, nullptr}};
int g_cTemplates = 4;
