// Formatting into strings, and the two forms of Unicode.
#include "ctl/text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace kestra::ctl {

std::string format(const char* pattern, ...) {
    std::array<char, 256> buffer;
    std::va_list arguments;
    va_start(arguments, pattern);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), pattern, arguments);
    va_end(arguments);
    std::string text;
    if (length >= 0 && size_t(length) < buffer.size()) {
        text.assign(buffer.data(), size_t(length));
    } else if (length > 0) {
        text.resize(size_t(length) + 1);
        std::vsnprintf(text.data(), text.size(), pattern, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

std::string counted(uint64_t count, std::string_view noun) {
    return std::to_string(count) + ' ' + std::string(noun) + (count == 1 ? "" : "s");
}

std::string duration(double seconds) {
    if (seconds < 59.95) return format("%.1f s", seconds);
    const auto whole = uint64_t(seconds);
    const uint64_t minutes = whole / 60;
    if (seconds < 3599.95) return format("%u min %.1f s", unsigned(minutes), seconds - double(minutes) * 60);
    return format("%llu h %u min %u s", static_cast<unsigned long long>(whole / 3600), unsigned(whole / 60 % 60),
                  unsigned(whole % 60));
}

std::string byteCount(uint64_t bytes) {
    if (bytes < 1000) return counted(bytes, "byte");
    if (bytes < 1000000) return format("%.1f kB", double(bytes) / 1e3);
    if (bytes < 1000000000) return format("%.1f MB", double(bytes) / 1e6);
    return format("%.2f GB", double(bytes) / 1e9);
}

std::string field(std::string_view name, std::string_view value) {
    constexpr size_t kColumn = 16;
    std::string line = "  " + std::string(name);
    line.resize(std::max(line.size() + 1, kColumn), ' ');
    return line + std::string(value) + '\n';
}

namespace {

/// Where a file's ending begins, its dot included; the end of the name if there is none.
size_t endingOf(const std::string& file) noexcept {
    const size_t slash = file.find_last_of("/\\"), dot = file.rfind('.');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    return dot == std::string::npos || dot <= name ? file.size() : dot;
}

} // namespace

std::string withEnding(const std::string& file, std::string_view ending) {
    return file.substr(0, endingOf(file)) + std::string(ending);
}

std::string withNumber(const std::string& file, uint32_t number) {
    const size_t ending = endingOf(file);
    return file.substr(0, ending) + '-' + std::to_string(number) + file.substr(ending);
}

std::string joined(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += separator;
        text += word;
    }
    return text;
}

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& text, char32_t c) {
    if (c < 0x80) {
        text += char(c);
    } else if (c < 0x800) {
        text += char(0xC0 | c >> 6);
        text += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        text += char(0xE0 | c >> 12);
        text += char(0x80 | (c >> 6 & 0x3F));
        text += char(0x80 | (c & 0x3F));
    } else {
        text += char(0xF0 | c >> 18);
        text += char(0x80 | (c >> 12 & 0x3F));
        text += char(0x80 | (c >> 6 & 0x3F));
        text += char(0x80 | (c & 0x3F));
    }
}

constexpr bool isLeading(char32_t c) noexcept {
    return c >= 0xD800 && c < 0xDC00;
}
constexpr bool isTrailing(char32_t c) noexcept {
    return c >= 0xDC00 && c < 0xE000;
}

/// Decodes the character that begins at `at` and steps over it; of a malformed one, over one byte.
char32_t nextCharacter(std::string_view text, size_t& at) noexcept {
    const auto first = static_cast<unsigned char>(text[at++]);
    if (first < 0x80) return first;
    const unsigned more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < more) return kReplacement;
    char32_t c = first & (0x3F >> more);
    for (unsigned i = 0; i < more; ++i) {
        const auto byte = static_cast<unsigned char>(text[at + i]);
        if ((byte & 0xC0) != 0x80) return kReplacement;
        c = c << 6 | (byte & 0x3F);
    }
    constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (c < kLeast[more] || c > 0x10FFFF || isLeading(c) || isTrailing(c)) return kReplacement;
    at += more;
    return c;
}

} // namespace

std::string utf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (isLeading(c) && i + 1 < text.size() && isTrailing(text[i + 1]))
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
        else if (isLeading(c) || isTrailing(c))
            c = kReplacement;
        appendUtf8(result, c);
    }
    return result;
}

std::u16string utf16(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const char32_t c = nextCharacter(text, at);
        if (c < 0x10000) {
            result += char16_t(c);
        } else {
            result += char16_t(0xD800 + ((c - 0x10000) >> 10));
            result += char16_t(0xDC00 + ((c - 0x10000) & 0x3FF));
        }
    }
    return result;
}

std::u16string utf16ForTerminal(std::string_view text) {
    std::u16string result = utf16(text);
    for (char16_t& c : result)
        if ((c < u' ' && c != u'\n' && c != u'\t') || (c >= 0x7F && c < 0xA0)) c = 0xFFFD;
    return result;
}

} // namespace kestra::ctl
