// Where libraries are looked for that are loaded by name. This program's folder has own_folder_needing.dll; the library
// that it needs lies in another folder, which is the current one and in the search path.
#include "win32/module.h"

#include <gtest/gtest.h>

#include <string>

namespace kestra::test {
namespace {

class OwnFolder : public testing::Test {
protected:
    OwnFolder() {
        wchar_t path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        m_copy = std::wstring(path);
        m_copy.replace(m_copy.find_last_of(L'\\') + 1, std::wstring::npos, L"own_folder_needed.dll");
        GetCurrentDirectoryW(MAX_PATH, m_current);
        m_path.resize(GetEnvironmentVariableW(L"PATH", nullptr, 0));
        GetEnvironmentVariableW(L"PATH", m_path.data(), static_cast<DWORD>(m_path.size()));
        const std::wstring elsewhere(ELSEWHERE);
        EXPECT_TRUE(SetCurrentDirectoryW(elsewhere.c_str()));
        EXPECT_TRUE(SetEnvironmentVariableW(L"PATH", (elsewhere + L";" + m_path.c_str()).c_str()));
        DeleteFileW(m_copy.c_str());
    }
    ~OwnFolder() override {
        SetEnvironmentVariableW(L"PATH", m_path.c_str());
        SetCurrentDirectoryW(m_current);
        DeleteFileW(m_copy.c_str());
    }

    std::wstring m_copy, m_path; ///< where the needed library would be found; the search path as it was
    wchar_t m_current[MAX_PATH];
};

TEST_F(OwnFolder, LibraryOfTheCurrentFolderOrTheSearchPathIsNotLoaded) {
    ASSERT_TRUE(UniqueLibrary(LoadLibraryW(L"own_folder_needed.dll"))) << "by its name alone it is found";
    EXPECT_FALSE(loadFromOwnFolder(L"own_folder_needed.dll"));
    EXPECT_FALSE(loadFromOwnFolder(L"kernel32_.dll"));
}

TEST_F(OwnFolder, WhatALibraryNeedsIsNotTakenFromElsewhereEither) {
    EXPECT_FALSE(loadFromOwnFolder(L"own_folder_needing.dll"));
    EXPECT_EQ(GetModuleHandleW(L"own_folder_needed.dll"), nullptr);
    ASSERT_TRUE(CopyFileW(L"own_folder_needed.dll", m_copy.c_str(), FALSE));
    const UniqueLibrary library = loadFromOwnFolder(L"own_folder_needing.dll");
    ASSERT_TRUE(library) << "with its companion beside it";
    const FARPROC needing = GetProcAddress(library.get(), "needing");
    ASSERT_NE(needing, nullptr);
    EXPECT_EQ(reinterpret_cast<int (*)()>(reinterpret_cast<void*>(needing))(), 7);
}

} // namespace
} // namespace kestra::test
