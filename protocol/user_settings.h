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

/// Beside those: where programs that open a card from then on write traces, how large each becomes and how many frames
/// it keeps.
inline constexpr wchar_t kTraceFolderValue[] = L"TraceDir";               ///< REG_SZ; missing: there are none
inline constexpr wchar_t kTraceMegabytesValue[] = L"TraceMegabytes";      ///< REG_DWORD; missing: 64
inline constexpr wchar_t kTraceFramesValue[] = L"TraceFrames";            ///< REG_DWORD; missing: 0
inline constexpr wchar_t kTraceLastFolderValue[] = L"LastTraceDir";       ///< REG_SZ; where the last ones are
inline constexpr wchar_t kTraceVariable[] = L"KESTRA_TRACE_DIR";          ///< TraceDir of one process
inline constexpr wchar_t kTraceFramesVariable[] = L"KESTRA_TRACE_FRAMES"; ///< TraceFrames of one process
inline constexpr uint32_t kTraceMegabytes = 64;

} // namespace kestra
