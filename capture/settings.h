// What the filters remember per user. Any thread; failures leave everything as it was.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>

namespace kestra {

/// A DWORD of HKEY_CURRENT_USER "Software\Quorvane\HD-SDI Kestra\DirectShow".
/// @return nothing if key or value is missing or is no four bytes
std::optional<uint32_t> readSetting(const wchar_t* name) noexcept;
void writeSetting(const wchar_t* name, uint32_t value) noexcept;

} // namespace kestra
