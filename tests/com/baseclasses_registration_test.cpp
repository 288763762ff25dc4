// What registration writes, removes and leaves when the registry refuses.
#include "tests/com/baseclasses_fixture.h"
#include "tests/support/scoped_import_hook.h"

#include <string>

namespace kestra::test {
namespace {

const std::wstring kSourceKey = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521101}";
const std::wstring kFailingKey = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521102}";
const std::wstring kNamelessKey = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521103}";
const std::wstring kLastKey = L"CLSID\\{5E0C1B6A-2C44-4E0B-931D-7A603B521104}";
std::wstring textAt(const std::wstring& key, LPCWSTR name) {
    wchar_t text[MAX_PATH] = L"";
    DWORD bytes = sizeof text;
    const LSTATUS status = RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &bytes);
    return status == ERROR_SUCCESS ? text : L"(none)";
}

bool exists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
}

class RegistrationTest : public testing::Test {
protected:
    RegistrationTest() : m_com(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) { g_hInst = GetModuleHandleW(nullptr); }
    ~RegistrationTest() override {
        EXPECT_EQ(AMovieDllRegisterServer2(FALSE), S_OK);
        EXPECT_FALSE(exists(kSourceKey));
        EXPECT_FALSE(exists(kLastKey));
        if (SUCCEEDED(m_com)) CoUninitialize();
    }
    const HRESULT m_com;
};

TEST_F(RegistrationTest, WritesTheKeysOfEveryClass) {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(g_hInst, path, MAX_PATH);
    for (int round = 0; round < 2; ++round) { // the second one over the first
        ASSERT_EQ(AMovieDllRegisterServer2(TRUE), S_OK);
        EXPECT_EQ(textAt(kSourceKey, nullptr), L"test source");
        EXPECT_EQ(textAt(kSourceKey + L"\\InprocServer32", nullptr), path);
        EXPECT_EQ(textAt(kSourceKey + L"\\InprocServer32", L"ThreadingModel"), L"Both");
        EXPECT_EQ(textAt(kLastKey, nullptr), L"unmakeable");
    }
    EXPECT_EQ(textAt(kNamelessKey, nullptr), L"");
    ASSERT_EQ(AMovieDllRegisterServer2(FALSE), S_OK);
    EXPECT_FALSE(exists(kSourceKey));
    EXPECT_FALSE(exists(kLastKey));
    EXPECT_EQ(AMovieDllRegisterServer2(FALSE), S_OK) << "what is not there is as good as removed";
}

int callsThatPass = 0;
decltype(&RegSetKeyValueW) setValue = nullptr;
decltype(&RegDeleteTreeW) deleteTree = nullptr;

TEST_F(RegistrationTest, FirstValueThatCannotBeWrittenIsTheAnswer) {
    ScopedImportHook<decltype(&RegSetKeyValueW)> hook(
        "advapi32.dll", "RegSetKeyValueW",
        [](HKEY root, LPCWSTR key, LPCWSTR name, DWORD type, LPCVOID data, DWORD bytes) -> LSTATUS {
            if (callsThatPass-- == 0) return ERROR_ACCESS_DENIED;
            return setValue(root, key, name, type, data, bytes);
        });
    ASSERT_TRUE(hook.installed());
    setValue = hook.original();
    for (int failing = 0; failing < 3; ++failing) {
        callsThatPass = failing;
        EXPECT_EQ(AMovieDllRegisterServer2(TRUE), E_ACCESSDENIED) << failing;
        EXPECT_FALSE(exists(kFailingKey));
        callsThatPass = 3 + failing; // of the second class
        EXPECT_EQ(AMovieDllRegisterServer2(TRUE), E_ACCESSDENIED) << failing;
        EXPECT_TRUE(exists(kSourceKey));
        EXPECT_FALSE(exists(kLastKey));
        callsThatPass = 1000;
        EXPECT_EQ(AMovieDllRegisterServer2(FALSE), S_OK);
    }
}

TEST_F(RegistrationTest, ClassThatCannotBeRemovedKeepsNoOther) {
    ASSERT_EQ(AMovieDllRegisterServer2(TRUE), S_OK);
    {
        ScopedImportHook<decltype(&RegDeleteTreeW)> hook("advapi32.dll", "RegDeleteTreeW",
                                                         [](HKEY root, LPCWSTR key) -> LSTATUS {
                                                             if (key == kFailingKey) return ERROR_ACCESS_DENIED;
                                                             return deleteTree(root, key);
                                                         });
        ASSERT_TRUE(hook.installed());
        deleteTree = hook.original();
        EXPECT_EQ(AMovieDllRegisterServer2(FALSE), E_ACCESSDENIED);
    }
    EXPECT_FALSE(exists(kSourceKey));
    EXPECT_TRUE(exists(kFailingKey));
    EXPECT_FALSE(exists(kLastKey));
}

TEST_F(RegistrationTest, ModuleWithoutAUsablePathIsNotRegistered) {
    {
        ScopedImportHook<decltype(&GetModuleFileNameW)> hook("kernel32.dll", "GetModuleFileNameW",
                                                             [](HMODULE, LPWSTR, DWORD size) -> DWORD { return size; });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(AMovieDllRegisterServer2(TRUE), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
    }
    {
        ScopedImportHook<decltype(&GetModuleFileNameW)> hook("kernel32.dll", "GetModuleFileNameW",
                                                             [](HMODULE, LPWSTR, DWORD) -> DWORD {
                                                                 SetLastError(ERROR_ACCESS_DENIED);
                                                                 return 0;
                                                             });
        EXPECT_EQ(AMovieDllRegisterServer2(TRUE), E_ACCESSDENIED);
    }
    EXPECT_FALSE(exists(kSourceKey));
}

} // namespace
} // namespace kestra::test
