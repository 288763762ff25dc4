// Texts made of numbers. Portable; the numbers are the same in every locale.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestra::ctl {

/// std::printf's rules, into a string.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

/// "1 frame", "2 frames".
std::string counted(uint64_t count, std::string_view noun);

/// "1.5 s", "2 min 3.0 s", "1 h 2 min 3 s".
std::string duration(double seconds);

/// "512 bytes", "1.5 MB"; a megabyte is a million bytes.
std::string byteCount(uint64_t bytes);

/// A name and its value in two columns, as every verb shows them.
std::string field(std::string_view name, std::string_view value);

/// The name of a file with another ending: "a/b.png" and ".raw" give "a/b.raw".
std::string withEnding(const std::string& file, std::string_view ending);
/// The name of a file with a number: "a/b.y4m" and 2 give "a/b-2.y4m".
std::string withNumber(const std::string& file, uint32_t number);

/// The words with `separator` between each two.
std::string joined(const std::vector<std::string>& words, std::string_view separator);

/// UTF-8 of UTF-16, and back. A lone surrogate and a malformed byte become U+FFFD.
std::string utf8(std::u16string_view text);
std::u16string utf16(std::string_view text);
/// utf16 for a terminal: whatever would control it, but for line ends and tabs, becomes U+FFFD. Log lines, slot texts
/// and file names are others' words.
std::u16string utf16ForTerminal(std::string_view text);

} // namespace kestra::ctl
