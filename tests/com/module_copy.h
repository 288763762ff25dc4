// The built module in a folder of its own, without the image library beside it.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace kestra::test {

/// A folder of its own for a copy of the module. A module that has decoded in parallel stays in its process, and its
/// file with it: what cannot be removed at the end, the next run removes.
class ModuleCopy {
public:
    ModuleCopy() {
        static int copies = 0;
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        const std::wstring prefix = std::wstring(temp) + L"kestra_module_";
        WIN32_FIND_DATAW old;
        const HANDLE search = FindFirstFileW((prefix + L"*").c_str(), &old);
        if (search != INVALID_HANDLE_VALUE) {
            do
                removeAll(std::wstring(temp) + old.cFileName);
            while (FindNextFileW(search, &old));
            FindClose(search);
        }
        m_folder = prefix + std::to_wstring(GetCurrentProcessId()) + L"_" + std::to_wstring(++copies);
        CreateDirectoryW(m_folder.c_str(), nullptr);
        EXPECT_TRUE(CopyFileW(KESTRA_MODULE, module().c_str(), TRUE));
    }
    ~ModuleCopy() { removeAll(m_folder); }
    ModuleCopy(const ModuleCopy&) = delete;
    ModuleCopy& operator=(const ModuleCopy&) = delete;
    std::wstring module() const { return m_folder + L"\\KestraCapture.dll"; }
    std::wstring library() const { return m_folder + L"\\ippLib.dll"; }
    static std::wstring originalLibrary() {
        std::wstring path = KESTRA_MODULE;
        return path.replace(path.find_last_of(L"\\/") + 1, std::wstring::npos, L"ippLib.dll");
    }

private:
    static void removeAll(const std::wstring& folder) {
        DeleteFileW((folder + L"\\KestraCapture.dll").c_str());
        DeleteFileW((folder + L"\\ippLib.dll").c_str());
        RemoveDirectoryW(folder.c_str());
    }
    std::wstring m_folder;
};

} // namespace kestra::test
