// FormatMessageW without its line end.
#include "ctl/system_error.h"

#include "ctl/text.h"

#include <windows.h>

#include <array>

namespace kestra::ctl {

std::string utf8OfWide(const wchar_t* text) {
    static_assert(sizeof(wchar_t) == sizeof(char16_t));
    const std::wstring wide(text ? text : L"");
    return utf8(std::u16string(wide.begin(), wide.end()));
}

std::wstring wideOfUtf8(const std::string& text) {
    const std::u16string wide = utf16(text);
    return {wide.begin(), wide.end()};
}

std::string systemErrorText(uint32_t error) {
    std::array<wchar_t, 256> buffer{};
    constexpr DWORD kEnglish = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
                   error, kEnglish, buffer.data(), DWORD(buffer.size()), nullptr);
    std::string text = utf8OfWide(buffer.data());
    while (!text.empty() && (text.back() == ' ' || text.back() == '.'))
        text.pop_back();
    return (text.empty() ? "system error" : text) + " (" + std::to_string(error) + ")";
}

} // namespace kestra::ctl
