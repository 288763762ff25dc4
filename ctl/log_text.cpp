// Numbers are found by the words that stand before them.
#include "ctl/log_text.h"

#include "ctl/text.h"
#include "protocol/records.h"
#include "protocol/requests.h"

#include <charconv>
#include <optional>
#include <vector>

namespace kestra::ctl {

namespace {

/// The number behind a word; nothing if the word is not there or no number follows.
std::optional<uint32_t> numberBehind(std::string_view line, std::string_view word, int base) noexcept {
    const size_t at = line.find(word);
    if (at == std::string_view::npos) return {};
    const char* const begin = line.data() + at + word.size();
    int64_t value = 0;
    if (std::from_chars(begin, line.data() + line.size(), value, base).ec != std::errc()) return {};
    return static_cast<uint32_t>(value);
}

const char* dmaStatusName(uint32_t status) noexcept {
    switch (status) {
    case DMA_STATUS_FRAME_DROPED:
        return "frame dropped: no buffer was free";
    case DMA_STATUS_FIFO_OVERRUN:
        return "overrun: the card's memory overflowed";
    case DMA_STATUS_ABORTED:
        return "aborted by a stop";
    default:
        return "a DMA status that is in no list";
    }
}

} // namespace

std::string textOfLog(std::string_view bytes) {
    std::u16string wide;
    wide.reserve(bytes.size() / 2);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto c =
            static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1]) << 8);
        if (c != 0xFEFF && c != u'\r') wide += c;
    }
    return utf8(wide);
}

std::string_view lastLines(std::string_view text, uint32_t count) noexcept {
    size_t begin = text.size();
    if (begin != 0 && text.back() == '\n') --begin;
    for (; count != 0; --count) {
        const size_t end = begin == 0 ? std::string_view::npos : text.rfind('\n', begin - 1);
        if (end == std::string_view::npos) return text;
        begin = end;
    }
    return begin == text.size() ? text.substr(begin) : text.substr(begin + 1);
}

std::string explainLogLine(std::string_view line, std::string (*systemText)(uint32_t error)) {
    std::vector<std::string> parts;
    if (const auto request = numberBehind(line, "DeviceIOCtl(0x", 16))
        parts.push_back(std::string("request \"") + wire::requestName(*request) + '"');
    else if (line.find("KestraCTL_GET_SLOT_INFO") != std::string_view::npos)
        parts.emplace_back("request \"slot information\"");
    for (const char* word : {"ErrorCode=", "GetLastError="})
        if (const auto error = numberBehind(line, word, 10); error && *error != 0)
            parts.push_back("the system says: " + systemText(*error));
    if (const auto result = numberBehind(line, "returned with result=", 10))
        parts.push_back("the card's driver answered " + std::to_string(*result));
    if (const auto status = numberBehind(line, "DMA Status = ", 10)) parts.emplace_back(dmaStatusName(*status));
    return joined(parts, "; ");
}

} // namespace kestra::ctl
