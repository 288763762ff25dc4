// The class table: factories, DllCanUnloadNow, the entry point.
#include "tests/com/baseclasses_fixture.h"

STDAPI DllGetClassObject(REFCLSID rClsID, REFIID riid, void** pv);
STDAPI DllCanUnloadNow();
extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE, ULONG, LPVOID);

namespace kestra::test {
namespace {

CLSID const kFailing{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x02}};
CLSID const kThrowing{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x03}};
CLSID const kUnmakeable{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x04}};
CLSID const kStranger{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x05}};

CUnknown* CALLBACK makeSource(LPUNKNOWN outer, HRESULT* phr) {
    auto* source = new TestSource(outer);
    *phr = source->m_created;
    return source;
}
CUnknown* CALLBACK makeFailing(LPUNKNOWN outer, HRESULT* phr) {
    *phr = E_ACCESSDENIED;
    return new TestSource(outer);
}
CUnknown* CALLBACK makeThrowing(LPUNKNOWN, HRESULT*) {
    throw std::runtime_error("test");
}
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
    Ref<IUnknown> unknown;
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

TEST_F(FactoryTest, EntryPointKeepsTheModulesHandle) {
    g_hInst = nullptr;
    EXPECT_TRUE(DllEntryPoint(GetModuleHandleW(nullptr), DLL_THREAD_ATTACH, nullptr));
    EXPECT_EQ(g_hInst, nullptr);
    EXPECT_TRUE(DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr));
    EXPECT_EQ(g_hInst, GetModuleHandleW(nullptr));
    EXPECT_TRUE(DllEntryPoint(g_hInst, DLL_PROCESS_DETACH, nullptr));
}

} // namespace
} // namespace kestra::test

using namespace kestra::test;

CFactoryTemplate g_Templates[] = {{L"test source", &kTestFilter, makeSource, nullptr, nullptr},
                                  {L"failing", &kFailing, makeFailing, nullptr, nullptr},
                                  {nullptr, &kThrowing, makeThrowing, nullptr, nullptr},
                                  {L"unmakeable", &kUnmakeable, nullptr, nullptr, nullptr}};
int g_cTemplates = 4;
