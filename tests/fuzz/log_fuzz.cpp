// Any record at any detail: a line is terminated, within its capacity, without a line break, and repeatable; any
// message text and argument makes a message; any severity and threshold is answered. The records' texts lie in blocks
// of exactly their size.
#include "log/engine.h"
#include "log/line_format.h"
#include "log/log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

namespace {

using namespace kestra;

class Bytes {
public:
    Bytes(const uint8_t* bytes, size_t size) : m_next(bytes), m_left(size) {}
    uint8_t byte() {
        if (m_left == 0) return 0;
        --m_left;
        return *m_next++;
    }
    uint32_t word() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | byte();
        return value;
    }
    /// A text in a block of its own, sometimes longer than a line; null for some.
    template <class Char>
    std::unique_ptr<Char[]> text() {
        const uint8_t kind = byte();
        if (kind < 0x10) return nullptr;
        const size_t repeat = kind > 0xF0 ? 5000 : 1, length = std::min<size_t>(byte(), m_left + 1) * repeat;
        std::unique_ptr<Char[]> made(new Char[length + 1]);
        for (size_t i = 0; i < length; ++i) {
            const uint8_t c = byte();
            made[i] = c == 0 ? Char(i % 89 + 33) : c == 0xFF && sizeof(Char) > 1 ? Char(0x2028) : Char(c);
        }
        made[length] = 0;
        return made;
    }

private:
    const uint8_t* m_next;
    size_t m_left;
};

/// Counts what is delivered, and looks at each line.
class CheckedOutput final : public LogOutput {
public:
    CheckedOutput() : LogOutput(L"checked", kFile, LOG_DEBUG) {}
    uint32_t write(const wchar_t* line, size_t length, const LogRecord&) noexcept override {
        if (length >= kLineCapacity || std::wcslen(line) != length) std::abort();
        ++lines;
        return 0;
    }
    int lines = 0;
};

void checkLine(const LogRecord& record, uint32_t detail, const LineContext& context) {
    const std::unique_ptr<wchar_t[]> line(new wchar_t[kLineCapacity]), again(new wchar_t[kLineCapacity]);
    std::wmemset(line.get(), L'#', kLineCapacity);
    const size_t length = formatLine(line.get(), detail, record, context);
    if (length >= kLineCapacity || line[length] != 0 || std::wcslen(line.get()) != length) std::abort();
    if (std::wcspbrk(line.get(), L"\n\r\v\f\x85\x2028\x2029")) std::abort();
    if ((length != 0) != (detail >= 1 && detail <= 5)) std::abort();
    if (formatLine(again.get(), detail, record, context) != length || std::wcscmp(line.get(), again.get()) != 0)
        std::abort();
}

/// One engine with one channel for all records: making one takes longer than all that it does.
struct CheckedEngine {
    CheckedEngine() {
        auto made = std::make_unique<CheckedOutput>();
        output = made.get();
        engine.append(std::move(made));
    }
    LogEngine engine;
    CheckedOutput* output;
};

void checkEngine(const LogRecord& record, Bytes& in) {
    static CheckedEngine checked;
    const uint32_t detail = in.byte() % 8;
    checked.output->setDetail(detail);
    LogLevels thresholds = kDefaultThresholds;
    for (uint32_t& threshold : thresholds)
        threshold = in.byte() < 0x80 ? in.byte() % 9 : in.word();
    checked.engine.applyThresholds(thresholds);
    const uint32_t wanted = thresholds[LogOutput::kFile - 1];
    const uint32_t applied = static_cast<int32_t>(wanted) < 5 ? wanted : uint32_t{LOG_ERROR};
    if (checked.output->threshold() != applied) std::abort();
    checked.output->lines = 0;
    checked.engine.deliver(record);
    if (checked.output->lines != (detail != 0 && record.severity >= applied ? 1 : 0)) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    Bytes in(bytes, size);
    const auto group = in.text<char>(), function = in.text<char>();
    const auto tag = in.text<char>(), time = in.text<char>();
    const auto file = in.text<wchar_t>(), message = in.text<wchar_t>();
    LogRecord record{};
    record.group = group.get();
    record.functionName = function.get();
    record.moduleTag = tag.get();
    record.sourceFile = file.get();
    record.message = message.get();
    record.timeText = time.get();
    record.severity = in.byte() < 0xC0 ? in.byte() % 8 : in.word();
    record.code = static_cast<int32_t>(in.word());
    record.line = static_cast<int>(in.word());
    record.processId = in.word();
    record.threadId = in.byte(); // an engine keeps something of each thread
    const LineContext context{uint64_t{in.word()} << 32 | in.word(), static_cast<int32_t>(in.word())};
    checkLine(record, in.byte() % 9, context);
    checkEngine(record, in);
    return 0;
}
