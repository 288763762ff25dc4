// The pages at the scalings that a user can choose: each in a process of its own, because the system tells a process
// its resolution when it starts. There the real pages are shown in each of their states, and every text is measured.
#include "tests/support/card_fixture.h"

#include <windows.h>

#include <string>

namespace kestra::test {
namespace {

/// The user's scaling, for the life of the object.
class UserScaling {
public:
    explicit UserScaling(DWORD dotsPerInch) {
        RegCreateKeyW(HKEY_CURRENT_USER, L"Control Panel\\Desktop", &m_key);
        DWORD bytes = sizeof m_before;
        m_wasSet = RegQueryValueExW(m_key, kValue, nullptr, nullptr, reinterpret_cast<BYTE*>(&m_before), &bytes) == 0;
        set(dotsPerInch);
    }
    ~UserScaling() {
        if (m_wasSet)
            set(m_before);
        else
            RegDeleteValueW(m_key, kValue);
        RegCloseKey(m_key);
    }
    UserScaling(const UserScaling&) = delete;
    UserScaling& operator=(const UserScaling&) = delete;

private:
    static constexpr wchar_t kValue[] = L"LogPixels";
    void set(DWORD dotsPerInch) {
        RegSetValueExW(m_key, kValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dotsPerInch), sizeof dotsPerInch);
    }

    HKEY m_key = nullptr;
    DWORD m_before = 0;
    bool m_wasSet = false;
};

class PageScaling : public CardTest, public testing::WithParamInterface<int> {};

} // namespace

TEST_P(PageScaling, NoTextIsCut) {
    constexpr DWORD kPatienceMs = 120000;
    const int dotsPerInch = 96 * GetParam() / 100;
    const UserScaling scaling(static_cast<DWORD>(dotsPerInch));
    std::wstring command = std::wstring(L"\"") + KESTRA_PAGE_PICTURES + L"\" " + std::to_wstring(dotsPerInch);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process));
    EXPECT_EQ(WaitForSingleObject(process.hProcess, kPatienceMs), WAIT_OBJECT_0);
    DWORD code = 99;
    GetExitCodeProcess(process.hProcess, &code);
    if (code == STILL_ACTIVE) TerminateProcess(process.hProcess, 98);
    EXPECT_EQ(code, 0u) << "what it found stands above";
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
}

INSTANTIATE_TEST_SUITE_P(, PageScaling, testing::Values(100, 125, 150, 200), testing::PrintToStringParamName());

} // namespace kestra::test
