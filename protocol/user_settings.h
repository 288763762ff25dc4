// Where the current user's choices stand in the registry, below HKEY_CURRENT_USER. Portable; plain data.
#pragma once

#include <cstdint>

namespace kestra {

/// The formats that DirectShow applications chose last.
inline constexpr wchar_t kFormatsKey[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
inline constexpr wchar_t kVideoFormatValue[] = L"VideoFormat"; ///< REG_DWORD: 0 YUY2, 1 RGB24, 2 UYVY, 3 RGB32
inline constexpr wchar_t kAudioFormatValue[] = L"AudioFormat"; ///< REG_DWORD: 0 16 bits, 1 24 bits

/// How the library logs.
inline constexpr wchar_t kLogKey[] = L"Software\\Quorvane\\TARNIS\\SDK\\Log";

} // namespace kestra
