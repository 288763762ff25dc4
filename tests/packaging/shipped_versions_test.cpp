// What the system shows of every file that ships, read from the built files.
#include <windows.h>

#include <gtest/gtest.h>
#include <kestra_version.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace kestra::test {
namespace {

const wchar_t* const kShipped[] = {
#include "shipped_files.inc"
};

/// The version resource of a file.
class VersionInfo {
public:
    explicit VersionInfo(const wchar_t* file) : m_data(GetFileVersionInfoSizeW(file, nullptr)) {
        if (m_data.empty() || !GetFileVersionInfoW(file, 0, static_cast<DWORD>(m_data.size()), m_data.data()))
            m_data.clear();
    }
    explicit operator bool() const { return !m_data.empty(); }

    std::wstring text(const std::wstring& name) const {
        const auto* value = query<wchar_t>(L"\\StringFileInfo\\040904B0\\" + name);
        return value ? value : L"";
    }
    const VS_FIXEDFILEINFO* fixed() const { return query<VS_FIXEDFILEINFO>(L"\\"); }

private:
    template <class Value>
    const Value* query(const std::wstring& path) const {
        void* value = nullptr;
        UINT length = 0;
        return VerQueryValueW(m_data.data(), path.c_str(), &value, &length) && length > 0 ? static_cast<Value*>(value)
                                                                                          : nullptr;
    }
    std::vector<BYTE> m_data;
};

std::wstring wide(const std::string& text) {
    return {text.begin(), text.end()};
}

/// "1,2,0,7" of a file's numbers.
std::string numbersOf(const VS_FIXEDFILEINFO& fixed) {
    std::string text;
    for (const DWORD part : {fixed.dwFileVersionMS, fixed.dwFileVersionLS})
        text += std::to_string(HIWORD(part)) + "," + std::to_string(LOWORD(part)) + ",";
    text.pop_back();
    return text;
}

std::string expectedNumbers() {
    const WORD numbers[] = {KESTRA_VERSION_NUMBERS};
    std::string text;
    for (const WORD number : numbers)
        text += std::to_string(number) + ",";
    text.pop_back();
    return text;
}

TEST(ShippedVersions, EveryFileSaysWhatItIs) {
    EXPECT_GE(std::size(kShipped), 5u);
    const std::string project = std::string(KESTRA_VERSION_TEXT).substr(0, std::string(KESTRA_VERSION_TEXT).find('-'));
    for (const wchar_t* file : kShipped) {
        const std::filesystem::path path(file);
        SCOPED_TRACE(path.filename().string());
        const VersionInfo info(file);
        ASSERT_TRUE(info);
        ASSERT_TRUE(info.fixed());
        const bool driver = path.extension() == ".sys";
        std::string projectNumbers = project + ".0";
        std::replace(projectNumbers.begin(), projectNumbers.end(), '.', ',');
        EXPECT_EQ(info.text(L"ProductVersion"), wide(driver ? project : KESTRA_VERSION_TEXT));
        EXPECT_EQ(info.text(L"FileVersion"), info.text(L"ProductVersion"));
        EXPECT_EQ(numbersOf(*info.fixed()), driver ? projectNumbers : expectedNumbers());
        EXPECT_EQ(info.fixed()->dwProductVersionMS, info.fixed()->dwFileVersionMS);
        EXPECT_EQ(info.fixed()->dwProductVersionLS, info.fixed()->dwFileVersionLS);
        EXPECT_EQ(info.fixed()->dwFileType, driver                       ? DWORD{VFT_DRV}
                                            : path.extension() == ".dll" ? DWORD{VFT_DLL}
                                                                         : DWORD{VFT_APP});
        EXPECT_EQ(info.text(L"OriginalFilename"), path.filename().wstring());
        EXPECT_EQ(info.text(L"ProductName"), L"HD-SDI Kestra");
        EXPECT_NE(info.text(L"LegalCopyright").find(L"MIT licence"), std::wstring::npos);
        EXPECT_NE(info.text(L"CompanyName"), L"");
        EXPECT_GE(info.text(L"FileDescription").size(), 10u);
    }
}

} // namespace
} // namespace kestra::test
