// Threads run beside each other, so each is compared for itself; which of one trace is which of the other follows from
// what they ask.
#include "ctl/trace_diff.h"

#include "ctl/text.h"
#include "ctl/trace_stat.h"
#include "ctl/trace_text.h"
#include "protocol/request_fields.h"

#include <algorithm>
#include <map>
#include <set>

namespace kestra::ctl {

namespace {

using namespace trace;

constexpr size_t kLongestLoop = 16; // steps that are looked for as a repeated pattern
constexpr size_t kMostSteps = 2000; // of a lane: more are not aligned with each other
constexpr size_t kContext = 2;      // lines around a difference

/// The field's bytes count, whoever asks and whenever.
bool isCompared(std::span<const wire::Field> fields, const std::string& name) {
    const auto found =
        std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.name == name; });
    return found == fields.end() || found->kind == wire::FieldKind::Value;
}

std::string comparedFields(std::span<const wire::Field> fields, std::span<const wire::Field> repeated,
                           const FieldTexts& texts) {
    std::string text;
    for (const auto& [name, value] : texts)
        if (isCompared(fields, name) && isCompared(repeated, name))
            text.append(" ").append(name).append("=").append(value);
    return text;
}

std::string stepOf(const Request& request) {
    const wire::RequestFields& fields = wire::fieldsOf(request.code);
    std::string text =
        wire::shapeOf(request.code) ? wire::requestName(request.code) : format("request 0x%08X", request.code);
    text += comparedFields(fields.sent, fields.repeated, sentFields(request)) + " ->";
    if (!request.hasEnded) return text + " not answered";
    if (request.win32Error != 0) return text + " error " + std::to_string(request.win32Error);
    text += comparedFields(fields.reply, fields.repeated, replyFields(request));
    return text + format(" (%u bytes)", request.replyBytes);
}

bool isStep(const Event& event) noexcept {
    return event.kind == EventKind::Opened || event.kind == EventKind::Arrival || event.kind == EventKind::Removal ||
           event.kind == EventKind::InputEvent;
}

bool isOfLoop(const Request& request) noexcept {
    return request.code == wire::kLockBuffer || request.code == wire::kUnlockBuffer;
}

/// Tells which locks and unlocks a stop has overtaken, or a change of the input.
class Stops {
public:
    explicit Stops(const Trace& trace) {
        for (const Event& event : trace.events)
            if (event.kind == EventKind::InputEvent) m_inputEvents.emplace(event.port, event.time100ns);
        for (const Request& request : trace.requests)
            if (request.code == wire::kStartGrabbing || request.code == wire::kStopGrabbing)
                m_times[{request.opening, request.port}].emplace_back(request.begin100ns,
                                                                      request.code == wire::kStopGrabbing);
    }
    bool overtake(const Request& request) const {
        const auto change = m_inputEvents.lower_bound({request.port, request.begin100ns});
        if (change != m_inputEvents.end() && change->first == request.port && change->second <= request.end100ns)
            return true;
        const auto channel = m_times.find({request.opening, request.port});
        if (channel == m_times.end()) return false;
        const auto after =
            std::upper_bound(channel->second.begin(), channel->second.end(), std::pair(request.begin100ns, true));
        if (after != channel->second.begin() && std::prev(after)->second) return true;
        return after != channel->second.end() && after->second && after->first <= request.end100ns;
    }

private:
    std::map<std::pair<uint32_t, uint8_t>, std::vector<std::pair<uint64_t, bool>>> m_times; // begin, is a stop
    std::set<std::pair<uint8_t, uint64_t>> m_inputEvents;
};

/// Each pattern that is repeated in a row, once.
std::vector<std::string> withoutRepeats(const std::vector<std::string>& steps) {
    std::vector<std::string> once;
    for (size_t at = 0; at < steps.size();) {
        size_t best = 1, covered = 1;
        for (size_t period = 1; period <= kLongestLoop && at + 2 * period <= steps.size(); ++period) {
            size_t end = at + period;
            while (end < steps.size() && steps[end] == steps[end - period])
                ++end;
            const size_t length = (end - at) / period * period;
            if (length >= 2 * period && length > covered) best = period, covered = length;
        }
        once.insert(once.end(), steps.begin() + static_cast<ptrdiff_t>(at),
                    steps.begin() + static_cast<ptrdiff_t>(at + best));
        at += covered;
    }
    return once;
}

size_t commonBeginning(const TraceLane& a, const TraceLane& b) noexcept {
    const auto end = std::mismatch(a.steps.begin(), a.steps.end(), b.steps.begin(), b.steps.end());
    return static_cast<size_t>(end.first - a.steps.begin());
}

/// The longest common subsequence, and what only one of the two has.
std::vector<TraceDiff::Line> linesOf(std::vector<std::string> a, std::vector<std::string> b) {
    if (a.size() > kMostSteps) a.resize(kMostSteps);
    if (b.size() > kMostSteps) b.resize(kMostSteps);
    std::vector<std::vector<uint16_t>> common(a.size() + 1, std::vector<uint16_t>(b.size() + 1));
    for (size_t i = a.size(); i-- > 0;)
        for (size_t j = b.size(); j-- > 0;)
            common[i][j] = a[i] == b[j] ? static_cast<uint16_t>(common[i + 1][j + 1] + 1)
                                        : std::max(common[i + 1][j], common[i][j + 1]);
    std::vector<TraceDiff::Line> lines;
    size_t i = 0, j = 0;
    while (i < a.size() || j < b.size())
        if (i < a.size() && j < b.size() && a[i] == b[j])
            lines.push_back({' ', a[i++]}), ++j;
        else if (j == b.size() || (i < a.size() && common[i + 1][j] >= common[i][j + 1]))
            lines.push_back({'-', a[i++]});
        else
            lines.push_back({'+', b[j++]});
    return lines;
}

} // namespace

std::vector<TraceLane> lanesOf(const Trace& trace) {
    const Stops stops(trace);
    std::map<std::pair<uint16_t, uint8_t>, TraceLane> lanes;
    const auto add = [&lanes](uint16_t thread, uint8_t port, std::string step) {
        TraceLane& lane = lanes[{thread, port}];
        lane.thread = thread;
        lane.port = port;
        lane.steps.push_back(std::move(step));
    };
    eachEntry(
        trace,
        [&](const Request& request, uint64_t) {
            if (!isOfLoop(request) || !stops.overtake(request)) add(request.thread, portOf(request), stepOf(request));
        },
        [&](const Event& event, uint64_t) {
            if (isStep(event))
                add(event.thread, event.port,
                    "* " + eventName(event) + (event.value ? format(" %u", event.value) : ""));
        });
    std::vector<TraceLane> all;
    for (auto& [key, lane] : lanes) {
        // A run ends with a frame whose unlock the stop has overtaken, or with the one before.
        while (!lane.steps.empty() && lane.steps.back().starts_with("lock buffer"))
            lane.steps.pop_back();
        lane.steps = withoutRepeats(lane.steps);
        all.push_back(std::move(lane));
    }
    return all;
}

TraceDiff diffOf(const Trace& first, const Trace& second) {
    TraceDiff diff;
    std::vector<TraceLane> a = lanesOf(first), b = lanesOf(second);
    std::erase_if(a, [&](const TraceLane& lane) {
        const auto same = std::find_if(b.begin(), b.end(), [&](const TraceLane& other) {
            return other.port == lane.port && other.steps == lane.steps;
        });
        if (same == b.end()) return false;
        b.erase(same);
        ++diff.same;
        return true;
    });
    for (const TraceLane& lane : a) {
        const auto nearest = std::max_element(b.begin(), b.end(), [&](const TraceLane& x, const TraceLane& y) {
            return std::pair(x.port == lane.port, commonBeginning(lane, x)) <
                   std::pair(y.port == lane.port, commonBeginning(lane, y));
        });
        const bool found = nearest != b.end() && nearest->port == lane.port;
        diff.lanes.push_back({format("thread %u, port %u", lane.thread, lane.port),
                              linesOf(lane.steps, found ? nearest->steps : std::vector<std::string>())});
        if (found) b.erase(nearest);
    }
    for (const TraceLane& lane : b)
        diff.lanes.push_back(
            {format("thread %u of the second, port %u", lane.thread, lane.port), linesOf({}, lane.steps)});
    return diff;
}

std::string diffText(const TraceDiff& diff, const Trace& first, const Trace& second) {
    std::string text;
    for (const TraceDiff::Lane& lane : diff.lanes) {
        text += lane.name + '\n';
        const auto& lines = lane.lines;
        for (size_t i = 0; i < lines.size(); ++i) {
            const auto begin = lines.begin() + static_cast<ptrdiff_t>(i - std::min(i, kContext));
            const auto end = lines.begin() + static_cast<ptrdiff_t>(std::min(i + kContext + 1, lines.size()));
            if (std::any_of(begin, end, [](const auto& line) { return line.side != ' '; }))
                text += std::string(1, lines[i].side) + ' ' + lines[i].step + '\n';
        }
    }
    if (diff.lanes.empty())
        text +=
            "the same was asked and answered, by " + counted(diff.same, "thread and port") + "; only times differ\n";
    text += "\nmedian ms             first    second\n";
    const TraceStat a = statOf(first), b = statOf(second);
    for (const TraceStat::Kind& kind : a.kinds)
        for (const TraceStat::Kind& other : b.kinds)
            if (other.code == kind.code && other.port == kind.port && kind.latency.count != 0)
                text +=
                    format("%-17s %u %8.3f  %8.3f\n", wire::requestName(kind.code), kind.port,
                           static_cast<double>(kind.latency.p50) * 1e-4, static_cast<double>(other.latency.p50) * 1e-4);
    return text;
}

Json diffJson(const TraceDiff& diff) {
    Json json = jsonOf("trace");
    json["same"] = diff.lanes.empty();
    json["lanesThatAgree"] = diff.same;
    json["differences"] = Json::array();
    for (const TraceDiff::Lane& lane : diff.lanes) {
        Json lines = Json::array();
        for (const TraceDiff::Line& line : lane.lines)
            if (line.side != ' ') lines.push_back(std::string(1, line.side) + ' ' + line.step);
        json["differences"].push_back({{"lane", lane.name}, {"lines", lines}});
    }
    return json;
}

} // namespace kestra::ctl
