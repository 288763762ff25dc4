// Values below the current user's keys. Throws Failure when the system refuses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestra::ctl {

/// @return nothing if key or value is missing or is no REG_DWORD
std::optional<uint32_t> readNumber(const wchar_t* key, const wchar_t* name);
/// @return nothing if key or value is missing or is no REG_SZ
std::optional<std::string> readText(const wchar_t* key, const wchar_t* name);
/// Makes the key if it is not there.
void writeNumber(const wchar_t* key, const wchar_t* name, uint32_t value);
void writeText(const wchar_t* key, const wchar_t* name, const std::string& value);
/// A value that is not there is fine.
void removeValue(const wchar_t* key, const wchar_t* name);

} // namespace kestra::ctl
