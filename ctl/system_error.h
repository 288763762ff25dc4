// The system's errors in its own words. Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace kestra::ctl {

/// "Access denied (5)": the system's text, and the number by which it can be looked up.
std::string systemErrorText(uint32_t error);

std::string utf8OfWide(const wchar_t* text);
std::wstring wideOfUtf8(const std::string& text);

} // namespace kestra::ctl
