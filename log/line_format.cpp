// Line formats. No printf: a line costs no more than its characters, on every platform alike.
#include "log/line_format.h"

#include <iterator>
#include <string_view>

namespace kestra {
namespace {

constexpr size_t kPathCapacity = 259; // characters of a source path that count

bool isLineBreak(wchar_t c) noexcept {
    return (c >= L'\n' && c <= L'\r') || c == 0x85 || c == 0x2028 || c == 0x2029;
}

class LineWriter {
public:
    explicit LineWriter(wchar_t* line) noexcept : m_line(line) {}
    LineWriter& operator<<(std::wstring_view text) noexcept {
        for (const wchar_t c : text)
            put(c);
        return *this;
    }
    LineWriter& operator<<(const char* text) noexcept {
        for (text = text ? text : "undefined"; *text; ++text)
            put(static_cast<unsigned char>(*text));
        return *this;
    }
    LineWriter& operator<<(int32_t value) noexcept {
        if (value < 0) put(L'-');
        return number(value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value), 10);
    }
    LineWriter& number(uint64_t value, uint32_t base) noexcept {
        wchar_t digits[20];
        int count = 0;
        do {
            digits[count++] = L"0123456789ABCDEF"[value % base];
            value /= base;
        } while (value != 0);
        while (count > 0)
            put(digits[--count]);
        return *this;
    }
    size_t finish() noexcept {
        m_line[m_length] = L'\0';
        return m_length;
    }

private:
    void put(wchar_t c) noexcept {
        if (m_length < kLineCapacity - 1) m_line[m_length++] = isLineBreak(c) ? L' ' : c;
    }

    wchar_t* m_line;
    size_t m_length = 0;
};

std::wstring_view viewOf(const wchar_t* text) noexcept {
    return text ? text : L"undefined";
}

std::wstring_view severityName(uint32_t severity) noexcept {
    static constexpr std::wstring_view kNames[] = {L"DEBUG", L"TRACE",     L"NOTICE",   L"WARNING",
                                                   L"ERROR", L"MANDATORY", L"MANDATORY"};
    return severity < std::size(kNames) ? kNames[severity] : L"bad severity";
}

/// The last directory and the file name; a path with fewer than two backslashes stays whole.
std::wstring_view shortenSourcePath(std::wstring_view path) noexcept {
    path = path.substr(0, kPathCapacity);
    const size_t last = path.rfind(L'\\');
    const size_t before = last == 0 || last == path.npos ? path.npos : path.rfind(L'\\', last - 1);
    return before == path.npos ? path : path.substr(before + 1);
}

} // namespace

size_t formatLine(wchar_t* line, uint32_t detail, const LogRecord& record, const LineContext& context) noexcept {
    LineWriter out(line);
    const std::wstring_view severity = severityName(record.severity), message = viewOf(record.message);
    if (detail == 1) out << severity << L": " << record.code << L"; " << message;
    if (detail == 0 || detail == 1 || detail > 5) return out.finish();
    if (detail >= 4) {
        out << L"{";
        out.number(context.identifier, 16)
            << L"}; ML=" << static_cast<int32_t>(message.size()) << L"; PT=" << static_cast<int32_t>(record.processId)
            << L":" << static_cast<int32_t>(record.threadId) << L"; ";
        if (detail == 5) out << L"NL=" << context.nesting << L"; ";
        out << L"TM=" << record.timeText << L"; ";
        if (detail == 5) out << L"MN=" << record.group << L"," << record.moduleTag << L"; ";
    }
    if (detail >= 3)
        out << L"F=" << shortenSourcePath(viewOf(record.sourceFile)) << L"," << record.functionName << L","
            << record.line << L"; ";
    out << L"SV=" << severity << L"; CD=" << record.code << L"; MSG=" << message;
    return out.finish();
}

} // namespace kestra
