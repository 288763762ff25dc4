// Fields by their names, and lines of them.
#include "ctl/trace_text.h"

#include "ctl/text.h"
#include "protocol/records.h"
#include "protocol/request_fields.h"

#include <algorithm>
#include <cstring>

namespace kestra::ctl {

namespace {

using namespace trace;

std::string hexadecimal(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        text += format("%02X", byte);
    return text;
}

std::string textOf(const wire::Field& field, std::span<const uint8_t> bytes) {
    if (field.isText) {
        std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
        std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
        return '"' + utf8(text.substr(0, text.find(u'\0'))) + '"';
    }
    if (field.isArray || bytes.size() > sizeof(uint64_t)) return hexadecimal(bytes);
    uint64_t value = 0;
    std::memcpy(&value, bytes.data(), bytes.size());
    if (bytes.size() == sizeof value && field.kind == wire::FieldKind::Own)
        return format("0x%llX", static_cast<unsigned long long>(value));
    if (field.isSigned) return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(value)));
    return std::to_string(value);
}

/// @return false: the record ends before
bool addFields(FieldTexts& texts, std::span<const wire::Field> fields, std::span<const uint8_t> record) {
    for (const wire::Field& field : fields) {
        if (record.size() < size_t{field.offset} + field.bytes) return false;
        const auto bytes = record.subspan(field.offset, field.bytes);
        if (field.kind == wire::FieldKind::Reserved &&
            std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; }))
            continue;
        texts.emplace_back(field.name, textOf(field, bytes));
    }
    return true;
}

size_t bytesOf(std::span<const wire::Field> fields) noexcept {
    return fields.empty() ? 0 : size_t{fields.back().offset} + fields.back().bytes;
}

FieldTexts allFields(const wire::RequestFields& request, std::span<const wire::Field> fields,
                     std::span<const uint8_t> record) {
    FieldTexts texts;
    if (!addFields(texts, fields, record)) return texts;
    record = record.subspan(bytesOf(fields));
    const size_t size = bytesOf(request.repeated);
    for (; size != 0 && record.size() >= size; record = record.subspan(size))
        addFields(texts, request.repeated, record);
    return texts;
}

std::string joinedFields(const FieldTexts& fields) {
    std::string text;
    for (const auto& [name, value] : fields)
        text.append(text.empty() ? "" : " ").append(name).append("=").append(value);
    return text;
}

/// The session's own are left out: every request has them.
std::string sentText(const Request& request) {
    FieldTexts fields = sentFields(request);
    std::erase_if(fields, [](const auto& field) { return field.first == "port" || field.first == "sessionId"; });
    return joinedFields(fields);
}

std::string outcomeText(const Request& request, const std::function<std::string(uint32_t)>& errorText) {
    if (!request.hasEnded) return "not answered";
    if (request.win32Error != 0) return errorText(request.win32Error);
    std::string text = joinedFields(replyFields(request));
    const wire::RequestShape* shape = wire::shapeOf(request.code);
    if (shape && shape->replyBytes != 0 && request.replyBytes < shape->replyBytes)
        text += format("%s(%u of %u bytes)", text.empty() ? "" : " ", request.replyBytes, shape->replyBytes);
    if (shape && shape->sentBytes == 0 && text.empty()) text = byteCount(request.replyBytes);
    return text;
}

double seconds(uint64_t time100ns) noexcept {
    return static_cast<double>(time100ns) * 1e-7;
}

double milliseconds(uint64_t time100ns) noexcept {
    return static_cast<double>(time100ns) * 1e-4;
}

/// Repeated fields as one object for each time.
Json fieldsJson(const Request& request, const FieldTexts& fields) {
    const std::span<const wire::Field> repeated = wire::fieldsOf(request.code).repeated;
    Json json = Json::object();
    for (const auto& text : fields) {
        const std::string& name = text.first;
        if (std::none_of(repeated.begin(), repeated.end(), [&](const auto& field) { return field.name == name; })) {
            json[name] = text.second;
            continue;
        }
        Json& chunks = json["chunks"];
        if (chunks.empty() || chunks.back().contains(name)) chunks.push_back(Json::object());
        chunks.back()[name] = text.second;
    }
    return json;
}

Json entryJson(const char* entry, uint64_t begin100ns, uint64_t gap100ns, unsigned thread, unsigned port) {
    Json json = jsonOf("trace");
    json["entry"] = entry;
    json["begin100ns"] = begin100ns;
    json["gap100ns"] = gap100ns;
    json["thread"] = thread;
    json["port"] = port;
    return json;
}

} // namespace

uint8_t portOf(const Request& request) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(request.code);
    return shape && shape->portStride != 0 ? static_cast<uint8_t>(request.code != shape->code) : request.port;
}

uint32_t driverResultOf(const Request& request) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(request.code);
    uint32_t result = 0;
    // The slot information has no such word.
    if (shape && shape->code != wire::kGetSlotInfo && request.reply.size() >= sizeof result)
        std::memcpy(&result, request.reply.data(), sizeof result);
    return result;
}

FieldTexts sentFields(const Request& request) {
    const wire::RequestFields& fields = wire::fieldsOf(request.code);
    return allFields(fields, fields.sent, request.sent);
}

FieldTexts replyFields(const Request& request) {
    const wire::RequestFields& fields = wire::fieldsOf(request.code);
    return allFields(fields, fields.reply, request.reply);
}

std::string dmaStatusName(uint32_t status) {
    switch (status) {
    case DMA_STATUS_GOOD:
        return "good";
    case DMA_STATUS_FRAME_DROPED:
        return "dropped";
    case DMA_STATUS_FIFO_OVERRUN:
        return "overrun";
    case DMA_STATUS_ABORTED:
        return "aborted";
    case DMA_STATUS_DICONNECTED:
        return "input changed or lost";
    default:
        return "status " + std::to_string(status);
    }
}

std::string eventName(const Event& event) {
    switch (event.kind) {
    case EventKind::Opened:
        return event.value == 0 ? "opened" : "not opened";
    case EventKind::Closed:
        return "closed";
    case EventKind::Arrival:
        return "arrival";
    case EventKind::Removal:
        return "removal";
    case EventKind::InputEvent:
        return "input event";
    case EventKind::CallbackBegin:
        return "callback begins";
    case EventKind::CallbackEnd:
        return "callback ends";
    case EventKind::Snapped:
        return "snapped";
    }
    return "event " + std::to_string(static_cast<unsigned>(event.kind));
}

std::string eventText(const Event& event, const std::function<std::string(uint32_t)>& errorText) {
    std::string text = eventName(event);
    if (event.kind == EventKind::Opened && event.value != 0) text += ": " + errorText(event.value);
    if (event.kind == EventKind::CallbackBegin) text += ": " + dmaStatusName(event.value);
    if (event.frameBytes != 0)
        text += format(", %u bytes, hash %016llX", event.frameBytes, static_cast<unsigned long long>(event.frameHash));
    if (!event.content.empty()) text += ", kept";
    return text;
}

void eachEntry(const Trace& trace, const std::function<void(const Request&, uint64_t)>& request,
               const std::function<void(const Event&, uint64_t)>& event) {
    auto nextEvent = trace.events.begin();
    uint64_t last = 0;
    const auto gapTo = [&last](uint64_t time) { return time - std::exchange(last, std::max(time, last)); };
    const auto eventsUntil = [&](uint64_t time) {
        for (; nextEvent != trace.events.end() && nextEvent->time100ns < time; ++nextEvent)
            event(*nextEvent, gapTo(nextEvent->time100ns));
    };
    for (const Request& one : trace.requests) {
        eventsUntil(one.begin100ns);
        request(one, gapTo(one.begin100ns));
    }
    eventsUntil(UINT64_MAX);
}

std::string showTrace(const Trace& trace, const std::function<std::string(uint32_t)>& errorText) {
    std::string text = "  begin s     gap ms  took ms thread port\n";
    const auto begin = [&text](uint64_t time, uint64_t gap) {
        text += format("%11.6f %8.3f ", seconds(time), milliseconds(gap));
    };
    eachEntry(
        trace,
        [&](const Request& request, uint64_t gap) {
            begin(request.begin100ns, gap);
            text += request.hasEnded && request.hasBegun
                        ? format("%8.3f", milliseconds(request.end100ns - request.begin100ns))
                        : format("%8s", "-");
            const std::string name =
                wire::shapeOf(request.code) ? wire::requestName(request.code) : format("request 0x%08X", request.code);
            text += format(" %5u %3u  %-20s ", request.thread, portOf(request), name.c_str());
            const std::string sent = sentText(request);
            text += sent + (sent.empty() ? "-> " : " -> ") + outcomeText(request, errorText) + '\n';
        },
        [&](const Event& event, uint64_t gap) {
            begin(event.time100ns, gap);
            text += format("%8s %5u %3u  * %s\n", "", event.thread, event.port, eventText(event, errorText).c_str());
        });
    return text;
}

std::string showTraceJson(const Trace& trace) {
    std::string text;
    eachEntry(
        trace,
        [&](const Request& request, uint64_t gap) {
            Json json = entryJson("request", request.begin100ns, gap, request.thread, portOf(request));
            json["name"] = wire::requestName(request.code);
            json["code"] = request.code;
            json["opening"] = request.opening;
            json["duration100ns"] =
                request.hasEnded && request.hasBegun ? Json(request.end100ns - request.begin100ns) : Json(nullptr);
            json["sent"] = fieldsJson(request, sentFields(request));
            json["win32Error"] = request.hasEnded ? Json(request.win32Error) : Json(nullptr);
            json["replyBytes"] = request.replyBytes;
            json["reply"] = fieldsJson(request, replyFields(request));
            text += jsonLine(json);
        },
        [&](const Event& event, uint64_t gap) {
            Json json = entryJson("event", event.time100ns, gap, event.thread, event.port);
            json["name"] = eventName(event);
            json["opening"] = event.opening;
            json["value"] = event.value;
            json["frameBytes"] = event.frameBytes;
            json["frameHash"] = event.frameBytes == 0
                                    ? Json(nullptr)
                                    : Json(format("%016llX", static_cast<unsigned long long>(event.frameHash)));
            json["kept"] = !event.content.empty();
            text += jsonLine(json);
        });
    return text;
}

std::string traceCaution(const Trace& trace) {
    std::string text;
    if (trace.missingParts != 0)
        text += counted(trace.missingParts, "file") + " of the trace " + (trace.missingParts == 1 ? "is" : "are") +
                " missing: it had grown beyond its limit\n";
    if (trace.lost != 0) text += counted(trace.lost, "record") + " found no room while it was written\n";
    if (trace.isCut) text += "a file ends within a record: its program ended there\n";
    return text;
}

} // namespace kestra::ctl
