// Registration over base classes that go about it in their own way: theirs may end COM once too often, and may know the
// module's path by the system's code page only.
#include "server/registration.h"
#include "tests/support/scoped_import_hook.h"

#include <gtest/gtest.h>
#include <streams.h>

#include <algorithm>
#include <string>
#include <thread>

namespace {

constexpr CLSID kClass{0x5E0C1B6A, 0x2C44, 0x4E0B, {0x93, 0x1D, 0x7A, 0x60, 0x3B, 0x52, 0x11, 0x11}};
const std::wstring kServer = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521111}\\InprocServer32";
const wchar_t kExactPath[] = L"C:\\\x9332\x753B\\module.dll";
const char kNarrowPath[] = "C:\\??\\module.dll";

HRESULT frameworksAnswer = S_OK;
std::wstring loadedLibrary;

std::wstring serverPath() {
    wchar_t text[MAX_PATH] = L"";
    DWORD bytes = sizeof text;
    RegGetValueW(HKEY_CLASSES_ROOT, kServer.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, text, &bytes);
    return text;
}

} // namespace

CFactoryTemplate g_Templates[] = {{L"a class", &kClass, nullptr, nullptr, nullptr}};
int g_cTemplates = 1;

/// Takes the place of the base classes' own: writes what the code page has of the path, and ends COM in any case.
extern "C" HRESULT __wrap_AMovieDllRegisterServer2(BOOL registering) {
    if (registering && SUCCEEDED(frameworksAnswer))
        RegSetKeyValueA(HKEY_CLASSES_ROOT, std::string(kServer.begin(), kServer.end()).c_str(), nullptr, REG_SZ,
                        kNarrowPath, sizeof kNarrowPath);
    CoInitialize(nullptr);
    CoUninitialize();
    return frameworksAnswer;
}

namespace kestra::test {
namespace {

class FrameworksRegistration : public testing::Test {
protected:
    FrameworksRegistration()
        : m_narrow("kernel32.dll", "GetModuleFileNameA",
                   [](HMODULE, LPSTR path, DWORD) -> DWORD {
                       std::copy_n(kNarrowPath, sizeof kNarrowPath, path);
                       return sizeof kNarrowPath - 1;
                   }),
          m_exact("kernel32.dll", "GetModuleFileNameW",
                  [](HMODULE, LPWSTR path, DWORD) -> DWORD {
                      std::copy_n(kExactPath, ARRAYSIZE(kExactPath), path);
                      return ARRAYSIZE(kExactPath) - 1;
                  }),
          m_library("oleaut32.dll", "LoadTypeLibEx", [](LPCOLESTR path, REGKIND, ITypeLib**) -> HRESULT {
              loadedLibrary = path;
              return TYPE_E_CANTLOADLIBRARY;
          }) {
        frameworksAnswer = S_OK;
        loadedLibrary.clear();
    }
    ~FrameworksRegistration() override {
        RegDeleteTreeW(HKEY_CLASSES_ROOT, L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521111}");
    }
    void SetUp() override { ASSERT_TRUE(m_narrow.installed() && m_exact.installed() && m_library.installed()); }

    /// Runs `body` on a thread of that apartment. @return whether COM was still initialised there afterwards
    template <class Body>
    static bool leavesComTo(DWORD apartment, Body body) {
        bool initialised = false;
        std::thread([&] {
            ASSERT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
            body();
            APTTYPE type;
            APTTYPEQUALIFIER qualifier;
            initialised = CoGetApartmentType(&type, &qualifier) == S_OK;
            if (initialised) CoUninitialize();
        }).join();
        return initialised;
    }

    const ScopedImportHook<decltype(&GetModuleFileNameA)> m_narrow;
    const ScopedImportHook<decltype(&GetModuleFileNameW)> m_exact;
    const ScopedImportHook<decltype(&LoadTypeLibEx)> m_library;
};

TEST_F(FrameworksRegistration, LeavesTheCallersThreadInItsApartment) {
    for (const DWORD apartment : {DWORD{COINIT_MULTITHREADED}, DWORD{COINIT_APARTMENTTHREADED}}) {
        EXPECT_TRUE(leavesComTo(apartment, [] { EXPECT_EQ(registerModule(), S_OK); })) << apartment;
        EXPECT_TRUE(leavesComTo(apartment, [] { EXPECT_EQ(unregisterModule(), S_OK); })) << apartment;
    }
}

TEST_F(FrameworksRegistration, KeysAndLibraryHaveThePathThatTheCodePageLacks) {
    EXPECT_TRUE(leavesComTo(COINIT_MULTITHREADED, [] { EXPECT_EQ(registerModule(), S_OK); }));
    EXPECT_EQ(serverPath(), kExactPath);
    EXPECT_EQ(loadedLibrary, kExactPath);
    loadedLibrary.clear();
    EXPECT_TRUE(leavesComTo(COINIT_MULTITHREADED, [] { EXPECT_EQ(unregisterModule(), S_OK); }));
    EXPECT_EQ(loadedLibrary, kExactPath);
}

TEST_F(FrameworksRegistration, FrameworksFailureIsTheAnswerAndNothingIsWrittenAfterIt) {
    frameworksAnswer = E_ACCESSDENIED;
    EXPECT_TRUE(leavesComTo(COINIT_MULTITHREADED, [] {
        EXPECT_EQ(registerModule(), E_ACCESSDENIED);
        EXPECT_EQ(unregisterModule(), E_ACCESSDENIED);
    }));
    EXPECT_EQ(serverPath(), L"");
}

} // namespace
} // namespace kestra::test
