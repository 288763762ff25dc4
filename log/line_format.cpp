// Line formats. No printf: a line costs no more than its characters, on every platform alike.
#include "log/line_format.h"

#include <cwchar>
#include <iterator>

namespace kestra {
namespace {

class LineWriter {
public:
    explicit LineWriter(wchar_t* line) noexcept : m_line(line) {}
    LineWriter& operator<<(const wchar_t* text) noexcept {
        while (*text)
            put(*text++);
        return *this;
    }
    LineWriter& operator<<(const char* text) noexcept {
        while (*text)
            put(static_cast<wchar_t>(static_cast<unsigned char>(*text++)));
        return *this;
    }
    LineWriter& operator<<(int32_t value) noexcept {
        if (value < 0) put(L'-');
        number(value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value), 10);
        return *this;
    }
    LineWriter& hex(uint64_t value) noexcept {
        number(value, 16);
        return *this;
    }
    size_t finish() noexcept {
        m_line[m_length] = L'\0';
        return m_length;
    }

private:
    void put(wchar_t c) noexcept {
        if (m_length < kLineCapacity - 1) m_line[m_length++] = c;
    }
    void number(uint64_t value, uint32_t base) noexcept {
        wchar_t digits[20];
        int count = 0;
        do {
            digits[count++] = L"0123456789ABCDEF"[value % base];
            value /= base;
        } while (value != 0);
        while (count > 0)
            put(digits[--count]);
    }

    wchar_t* m_line;
    size_t m_length = 0;
};

} // namespace

const wchar_t* severityName(uint32_t severity) noexcept {
    static constexpr const wchar_t* kNames[] = {L"DEBUG", L"TRACE",     L"NOTICE",   L"WARNING",
                                                L"ERROR", L"MANDATORY", L"MANDATORY"};
    return severity < std::size(kNames) ? kNames[severity] : L"bad severity";
}

const wchar_t* shortenSourcePath(const wchar_t* path, wchar_t* buffer) noexcept {
    size_t length = 0;
    while (length < 259 && path[length]) {
        buffer[length] = path[length];
        ++length;
    }
    buffer[length] = L'\0';
    const wchar_t* last = std::wcsrchr(buffer, L'\\');
    if (!last) return buffer;
    for (const wchar_t* p = last; p > buffer;)
        if (*--p == L'\\') return p + 1;
    return buffer;
}

size_t formatLine(wchar_t* line, uint32_t detail, const LogRecord& record, const LineContext& context) noexcept {
    LineWriter out(line);
    const wchar_t* severity = severityName(record.severity);
    const auto source = [&] {
        out << L"F=" << record.sourceFile << L"," << record.functionName << L"," << record.line << L"; ";
    };
    const auto origin = [&] {
        out << L"{";
        out.hex(context.identifier) << L"}; ML=" << static_cast<int32_t>(std::wcslen(record.message)) << L"; PT="
                                    << static_cast<int32_t>(record.processId) << L":"
                                    << static_cast<int32_t>(record.threadId) << L"; ";
    };
    const auto message = [&] { out << L"SV=" << severity << L"; CD=" << record.code << L"; MSG=" << record.message; };
    switch (detail) {
    case 1:
        out << severity << L": " << record.code << L"; " << record.message;
        break;
    case 2:
        message();
        break;
    case 3:
        source();
        message();
        break;
    case 4:
        origin();
        out << L"TM=" << record.timeText << L"; ";
        source();
        message();
        break;
    case 5:
        origin();
        out << L"NL=" << context.nesting << L"; TM=" << record.timeText << L"; MN=" << record.group << L","
            << record.moduleTag << L"; ";
        source();
        message();
        break;
    default:
        break;
    }
    return out.finish();
}

uint32_t moduleHash(uint64_t moduleKey) noexcept {
    uint32_t hash = 0;
    for (const uint32_t half : {static_cast<uint32_t>(moduleKey >> 32), static_cast<uint32_t>(moduleKey)}) {
        int shift = 28;
        while (shift > 0 && half >> shift == 0)
            shift -= 4;
        for (; shift >= 0; shift -= 4)
            hash = hash * 31 + static_cast<uint32_t>("0123456789abcdef"[half >> shift & 0xF]);
    }
    return hash;
}

} // namespace kestra
