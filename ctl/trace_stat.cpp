// The sums, and how they are said.
#include "ctl/trace_stat.h"

#include "ctl/text.h"
#include "ctl/trace_text.h"
#include "protocol/requests.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace kestra::ctl {

namespace {

using namespace trace;

constexpr size_t kSlowest = 5;

double milliseconds(uint64_t time100ns) noexcept {
    return static_cast<double>(time100ns) * 1e-4;
}

/// What a run's frames came like.
struct Run {
    TraceStat::Frames frames;
    std::vector<uint64_t> intervals;
    uint64_t last = 0;
};

void takeLock(Run& run, const Request& request) {
    wire::LockBufferReply reply{};
    if (!request.hasEnded || request.win32Error != 0 || request.reply.size() < wire::kReadBytes<wire::LockBufferReply>)
        return;
    std::memcpy(&reply, request.reply.data(), std::min(sizeof reply, request.reply.size()));
    if (reply.result != 0) return;
    run.frames.account.take(reply.dmaStatus, reply.frameWord0, static_cast<int64_t>(request.end100ns) * 100);
    if (reply.dmaStatus != DMA_STATUS_GOOD) return;
    if (run.last != 0) run.intervals.push_back(request.end100ns - run.last);
    run.last = request.end100ns;
}

Json percentilesJson(const Percentiles& p) {
    return {{"count", p.count}, {"p50", p.p50}, {"p90", p.p90}, {"p99", p.p99}, {"most", p.most}};
}

} // namespace

Percentiles Percentiles::of(std::vector<uint64_t>& values) {
    Percentiles result;
    result.count = values.size();
    if (values.empty()) return result;
    std::sort(values.begin(), values.end());
    const auto at = [&](size_t percent) { return values[(values.size() - 1) * percent / 100]; };
    result.p50 = at(50);
    result.p90 = at(90);
    result.p99 = at(99);
    result.most = values.back();
    return result;
}

bool isWaiting(uint32_t code) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(code);
    return shape && (shape->code == wire::kLockBuffer || shape->code == wire::kSessionWatch ||
                     shape->code == wire::kLockChunk || shape->code == wire::kSnap);
}

TraceStat statOf(const Trace& trace) {
    TraceStat stat;
    std::map<std::pair<size_t, uint8_t>, std::pair<TraceStat::Kind, std::vector<uint64_t>>> kinds; // list's row, port
    std::map<uint8_t, Run> runs;
    for (const Request& request : trace.requests) {
        stat.length100ns = std::max(stat.length100ns, request.end100ns);
        const wire::RequestShape* shape = wire::shapeOf(request.code);
        const size_t row = shape ? static_cast<size_t>(shape - wire::kRequests) : std::size(wire::kRequests);
        const uint8_t port = portOf(request);
        auto& [kind, latencies] = kinds[{row, port}];
        kind.code = request.code;
        kind.port = port;
        if (!request.hasBegun || !request.hasEnded) {
            ++kind.unended;
            continue;
        }
        if (request.win32Error != 0) {
            ++kind.failed;
        } else {
            if (driverResultOf(request) != 0) ++kind.refused;
            latencies.push_back(request.end100ns - request.begin100ns);
        }
        if (!isWaiting(request.code)) stat.slowest.push_back(&request);
        if (shape && shape->code == wire::kStartGrabbing) runs[port].last = 0;
        if (shape && shape->code == wire::kLockBuffer) takeLock(runs[port], request);
    }
    for (const trace::Event& event : trace.events)
        stat.length100ns = std::max(stat.length100ns, event.time100ns);
    stat.events = trace.events.size();
    for (auto& [key, found] : kinds) {
        found.first.latency = Percentiles::of(found.second);
        stat.kinds.push_back(found.first);
    }
    for (auto& [port, run] : runs) {
        run.frames.port = port;
        run.frames.interval = Percentiles::of(run.intervals);
        stat.frames.push_back(run.frames);
    }
    const auto isSlower = [](const Request* a, const Request* b) {
        return a->end100ns - a->begin100ns > b->end100ns - b->begin100ns;
    };
    const size_t count = std::min(kSlowest, stat.slowest.size());
    std::partial_sort(stat.slowest.begin(), stat.slowest.begin() + static_cast<ptrdiff_t>(count), stat.slowest.end(),
                      isSlower);
    stat.slowest.resize(count);
    return stat;
}

std::string statText(const TraceStat& stat) {
    std::string text = duration(static_cast<double>(stat.length100ns) * 1e-7) + ", " + counted(stat.events, "event") +
                       "\n\n" +
                       "request               port   count    p50 ms    p90 ms    p99 ms   most ms  failed refused\n";
    for (const TraceStat::Kind& kind : stat.kinds) {
        const std::string name =
            wire::shapeOf(kind.code) ? wire::requestName(kind.code) : format("request 0x%08X", kind.code);
        text +=
            format("%-20s %5u %7llu %9.3f %9.3f %9.3f %9.3f %7llu %7llu", name.c_str(), kind.port,
                   static_cast<unsigned long long>(kind.latency.count + kind.failed), milliseconds(kind.latency.p50),
                   milliseconds(kind.latency.p90), milliseconds(kind.latency.p99), milliseconds(kind.latency.most),
                   static_cast<unsigned long long>(kind.failed), static_cast<unsigned long long>(kind.refused));
        if (kind.unended != 0) text += ", not answered: " + std::to_string(kind.unended);
        text += '\n';
    }
    for (const TraceStat::Frames& frames : stat.frames) {
        const Losses& losses = frames.account.losses;
        text += format("\nport %u: %s", frames.port, counted(frames.account.frames, "frame").c_str());
        if (frames.interval.count != 0)
            text += format(", one every %.3f ms (p99 %.3f, most %.3f)", milliseconds(frames.interval.p50),
                           milliseconds(frames.interval.p99), milliseconds(frames.interval.most));
        text += '\n';
        text += field("dropped", std::to_string(losses.cardDropped)) +
                field("overrun", std::to_string(losses.overrun)) + field("aborted", std::to_string(losses.aborted)) +
                field("other", std::to_string(losses.otherStatus));
    }
    if (!stat.slowest.empty()) text += "\nslowest:\n";
    for (const Request* request : stat.slowest)
        text += format("%11.6f s %9.3f ms  %s\n", milliseconds(request->begin100ns) * 1e-3,
                       milliseconds(request->end100ns - request->begin100ns), wire::requestName(request->code));
    return text;
}

Json statJson(const TraceStat& stat) {
    Json json = jsonOf("trace");
    json["length100ns"] = stat.length100ns;
    json["events"] = stat.events;
    json["requests"] = Json::array();
    for (const TraceStat::Kind& kind : stat.kinds)
        json["requests"].push_back({{"name", wire::requestName(kind.code)},
                                    {"code", kind.code},
                                    {"port", kind.port},
                                    {"failed", kind.failed},
                                    {"refused", kind.refused},
                                    {"notAnswered", kind.unended},
                                    {"latency100ns", percentilesJson(kind.latency)}});
    json["frames"] = Json::array();
    for (const TraceStat::Frames& frames : stat.frames)
        json["frames"].push_back({{"port", frames.port},
                                  {"good", frames.account.frames},
                                  {"dropped", frames.account.losses.cardDropped},
                                  {"overrun", frames.account.losses.overrun},
                                  {"aborted", frames.account.losses.aborted},
                                  {"otherStatus", frames.account.losses.otherStatus},
                                  {"interval100ns", percentilesJson(frames.interval)}});
    json["slowest"] = Json::array();
    for (const Request* request : stat.slowest)
        json["slowest"].push_back({{"name", wire::requestName(request->code)},
                                   {"begin100ns", request->begin100ns},
                                   {"duration100ns", request->end100ns - request->begin100ns}});
    return json;
}

} // namespace kestra::ctl
