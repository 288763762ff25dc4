// The built module as COM sees it: loaded by path, objects made through its class factory, nothing registered.
#pragma once

#include "tests/support/wait_until.h"
#include "win32/com_ref.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <dshow.h>

namespace kestra::test {

inline constexpr CLSID kVideoFilter = {0x53F0624A, 0x8497, 0x4A4C, {0x94, 0x51, 0x01, 0x1C, 0x49, 0xB2, 0x74, 0xFA}};
inline constexpr CLSID kNullRenderer = {0xC1F400A4, 0x3F08, 0x11D3, {0x9F, 0x0B, 0x00, 0x60, 0x08, 0x03, 0x9E, 0x37}};

class ComModule {
public:
    explicit ComModule(const wchar_t* path) : m_path(path) { load(); }
    ~ComModule() { unload(); }
    ComModule(const ComModule&) = delete;
    ComModule& operator=(const ComModule&) = delete;

    void load() {
        m_module = LoadLibraryW(m_path);
        if (!m_module) return;
        m_getClassObject = find<GetClassObject>("DllGetClassObject");
        m_canUnloadNow = find<NoParameters>("DllCanUnloadNow");
        m_register = find<NoParameters>("DllRegisterServer");
        m_unregister = find<NoParameters>("DllUnregisterServer");
    }
    void unload() {
        if (m_module) FreeLibrary(m_module);
        m_module = nullptr;
    }
    bool isInMemory() const { return GetModuleHandleW(m_path) != nullptr; }

    HMODULE handle() const { return m_module; }
    HRESULT classObject(const CLSID& clsid, REFIID riid, void** object) const {
        return m_getClassObject(clsid, riid, object);
    }
    HRESULT create(const CLSID& clsid, REFIID riid, void** object, IUnknown* outer = nullptr) const {
        *object = nullptr;
        ComRef<IClassFactory> factory;
        const HRESULT hr = classObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        return FAILED(hr) ? hr : factory->CreateInstance(outer, riid, object);
    }
    HRESULT canUnloadNow() const { return m_canUnloadNow(); }
    HRESULT registerServer() const { return m_register(); }
    HRESULT unregisterServer() const { return m_unregister(); }

private:
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    using NoParameters = HRESULT(STDAPICALLTYPE*)();
    template <class Function>
    Function find(const char* name) const {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(m_module, name)));
    }

    const wchar_t* const m_path;
    HMODULE m_module = nullptr;
    GetClassObject m_getClassObject = nullptr;
    NoParameters m_canUnloadNow = nullptr, m_register = nullptr, m_unregister = nullptr;
};

/// COM for the life of the test program.
class ComApartment : public testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))); }
    void TearDown() override { CoUninitialize(); }
};
inline const testing::Environment* const kComApartment = testing::AddGlobalTestEnvironment(new ComApartment);

template <class Interface>
ComRef<Interface> query(IUnknown* object, REFIID riid) {
    ComRef<Interface> found;
    if (object) object->QueryInterface(riid, reinterpret_cast<void**>(found.out()));
    return found;
}

/// The filter's only pin.
inline ComRef<IPin> onlyPin(IBaseFilter* filter) {
    ComRef<IEnumPins> pins;
    ComRef<IPin> pin;
    if (filter && filter->EnumPins(pins.out()) == S_OK) pins->Next(1, pin.out(), nullptr);
    return pin;
}

} // namespace kestra::test
