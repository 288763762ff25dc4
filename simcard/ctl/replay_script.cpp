// Answers by request and order, locks by their run and time, events by their time; and a signal that fits the answers,
// so that the model makes frames of the right size and rate.
#include "simcard/ctl/replay_script.h"

#include "protocol/request_fields.h"
#include "simcard/model/card.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

namespace kestra::simcard {
namespace {

using trace::Event;
using trace::EventKind;
using trace::Request;
using trace::Trace;

constexpr uint64_t kShortestDelay100ns = 30000; // what a busy machine adds by itself is no answer's latency
constexpr uint32_t kWin32Cancelled = 995;

/// The NT status that the system makes this Win32 error of.
uint32_t statusOf(uint32_t win32Error) noexcept {
    constexpr struct {
        uint32_t error, status;
    } kKnown[] = {{0, kStatusSuccess},
                  {1, kStatusInvalidDeviceRequest},
                  {5, kStatusAccessDenied},
                  {6, kStatusInvalidHandle},
                  {50, kStatusNotSupported},
                  {87, kStatusInvalidParameter},
                  {122, kStatusBufferTooSmall},
                  {kWin32Cancelled, kStatusCancelled},
                  {1167, kStatusDeviceNotConnected},
                  {1450, kStatusInsufficientResources}};
    constexpr uint32_t kUnsuccessful = 0xC0000001; // error 31
    for (const auto& known : kKnown)
        if (known.error == win32Error) return known.status;
    return kUnsuccessful;
}

/// The model completes these when what they wait for happens.
bool waits(uint32_t code) noexcept {
    const wire::RequestShape* shape = wire::shapeOf(code);
    return shape &&
           (shape->code == wire::kSessionWatch || shape->code == wire::kLockChunk || shape->code == wire::kSnap);
}

/// The signal, as far as answers have told it.
class Heard {
public:
    void take(const Request& request) {
        if (!request.hasEnded || request.win32Error != 0) return;
        switch (request.code) {
        case wire::kVideoStatus:
            if (const auto reply = as<wire::VideoStatusReply>(request); reply && reply->result == 0) {
                m_signal.present = reply->signal != 0;
                m_signal.videoMode = reply->videoMode;
                m_signal.formatByte = reply->formatByte;
            }
            break;
        case wire::kFormatSize:
            if (const auto reply = as<wire::FormatSizeReply>(request);
                reply && reply->result == 0 && reply->width != 0 && reply->height != 0) {
                m_signal.width = reply->width;
                m_signal.height = reply->height;
            }
            break;
        case wire::kGrabStatistics:
            if (const auto reply = as<wire::GrabStatisticsReply>(request);
                reply && reply->result == 0 && reply->frameRate != 0) {
                m_rate = reply->frameRate;
            }
            break;
        case wire::kReadRegister:
            if (const auto reply = as<wire::ReadRegisterReply>(request); reply && reply->result == 0)
                takeRegister(request, *reply);
            break;
        default:
            break;
        }
    }
    Signal signal() const noexcept {
        Signal signal = m_signal;
        signal.rateNumerator = m_is24 && m_rate == 25 ? 24 : m_rate;
        signal.rateDenominator = 1;
        if (signal.rateNumerator != m_rate) signal.measuredRate = m_rate;
        if (!signal.present) return {};
        return signal.isValid() ? signal : kDefaultSignal;
    }

private:
    template <class Reply>
    static std::optional<Reply> as(const Request& request) {
        if (request.reply.size() < wire::kReadBytes<Reply>) return {};
        Reply reply{};
        std::memcpy(&reply, request.reply.data(), std::min(sizeof reply, request.reply.size()));
        return reply;
    }
    void takeRegister(const Request& request, const wire::ReadRegisterReply& reply) noexcept {
        wire::ReadRegisterRequest sent{};
        if (request.sent.size() < sizeof sent) return;
        std::memcpy(&sent, request.sent.data(), sizeof sent);
        if (sent.registerNumber == kRegisterInput) {
            m_signal.interlaced = (reply.value & kInputInterlaced) != 0;
            m_signal.audioInAlternateRegister = (reply.value & kInputAudioAlternate) != 0;
            m_is24 = (reply.value & kInputRateIs24) != 0;
        } else if (sent.registerNumber ==
                   (m_signal.audioInAlternateRegister ? kRegisterAudioAlternate : kRegisterAudio)) {
            m_signal.audio = reply.value != 0;
        }
    }

    Signal m_signal = kDefaultSignal;
    uint32_t m_rate = 60;
    bool m_is24 = false;
};

struct Building {
    explicit Building(const Trace& recorded) : trace(recorded) {}

    const Trace& trace;
    ReplayScript script;
    ReplayHead head{};
    std::map<std::pair<uint32_t, uint64_t>, std::pair<ReplayKey, std::vector<ReplayAnswer>>> keys;
    std::vector<ReplayLock> locks;
    std::vector<ReplayEvent> events;
    std::vector<uint8_t> replies;

    struct Start {
        uint64_t time;
        uint8_t port;
    };
    std::vector<Start> starts;

    void build() {
        for (const Request& request : trace.requests)
            if (isStart(request)) starts.push_back({request.end100ns, request.port});
        std::stable_sort(starts.begin(), starts.end(), [](const Start& a, const Start& b) { return a.time < b.time; });
        takeEvents();
        for (const Request& request : trace.requests) {
            if (!request.hasBegun || !isReplayed(request.code)) continue;
            if (request.code == wire::kLockBuffer)
                takeLock(request);
            else
                takeAnswer(request);
        }
        takeSignals();
        put();
    }

    uint32_t epochOf(uint64_t time) const noexcept {
        return static_cast<uint32_t>(
            std::count_if(m_eventTimes.begin(), m_eventTimes.end(), [=](uint64_t t) { return t <= time; }));
    }

private:
    static bool isStart(const Request& request) noexcept {
        wire::Reply reply{};
        if (request.reply.size() >= sizeof reply) std::memcpy(&reply, request.reply.data(), sizeof reply);
        return request.code == wire::kStartGrabbing && request.hasEnded && request.win32Error == 0 &&
               reply.result == 0 && request.port <= 1;
    }

    /// Of the port's run at that time.
    uint32_t unlocksBefore(uint64_t time, uint8_t port) const noexcept {
        uint64_t start = 0;
        for (const Start& one : starts)
            if (one.port == port && one.time <= time) start = one.time;
        return static_cast<uint32_t>(
            std::count_if(trace.requests.begin(), trace.requests.end(), [&](const Request& request) {
                return request.code == wire::kUnlockBuffer && request.port == port && request.begin100ns >= start &&
                       request.begin100ns <= time;
            }));
    }

    uint32_t startsBefore(uint64_t time) const noexcept {
        return static_cast<uint32_t>(
            std::count_if(starts.begin(), starts.end(), [=](const Start& start) { return start.time <= time; }));
    }

    void takeEvents() {
        const uint64_t first = trace.requests.empty() ? 0 : trace.requests.front().begin100ns;
        bool opened = false;
        uint32_t refusal = 0;
        for (const Event& event : trace.events) {
            if (event.kind == EventKind::Opened) (event.value == 0 ? opened = true : refusal = event.value);
            // Every instance of the library hears of an event by itself: those within a moment are one.
            ReplayEvent made{};
            if (event.kind == EventKind::InputEvent)
                made.kind = ReplayEventKind::Input;
            else if (event.kind == EventKind::Removal)
                made.kind = ReplayEventKind::Removal;
            else if (event.kind == EventKind::Arrival)
                made.kind = ReplayEventKind::Arrival;
            else
                continue;
            constexpr uint64_t kMoment100ns = 1'000'000;
            if (!events.empty() && events.back().kind == made.kind &&
                event.time100ns - m_eventTimes.back() < kMoment100ns)
                continue;
            made.starts = startsBefore(event.time100ns);
            made.after100ns =
                event.time100ns - (made.starts == 0 ? std::min(first, event.time100ns) : starts[made.starts - 1].time);
            for (const uint8_t port : {0, 1})
                made.unlocks[port] = unlocksBefore(event.time100ns, port);
            events.push_back(made);
            m_eventTimes.push_back(event.time100ns);
        }
        if (refusal != 0) takeRefusal(refusal, opened);
    }

    /// Which openings were refused cannot be told from the outside: all, or none.
    void takeRefusal(uint32_t win32Error, bool opened) {
        constexpr uint32_t kNoSuchFile = 2, kAccessDenied = 5, kSharingViolation = 32;
        const std::string error = "error " + std::to_string(win32Error) + " of an opening ";
        if (opened) {
            script.cautions.push_back(error + "is left out, as other openings went well");
            return;
        }
        script.openRefusal = win32Error == kAccessDenied       ? uint32_t{kStatusAccessDenied}
                             : win32Error == kSharingViolation ? uint32_t{kStatusSharingViolation}
                                                               : uint32_t{kStatusNoSuchName};
        if (script.openRefusal == kStatusNoSuchName && win32Error != kNoSuchFile)
            script.cautions.push_back(error + "becomes error 2");
    }

    ReplayAnswer answerOf(const Request& request) {
        ReplayAnswer answer{};
        answer.status = !request.hasEnded ? kNeverAnswered : statusOf(request.win32Error);
        if (waits(request.code)) {
            // Refused at once, or ended by what it waited for.
            if (answer.status == kNeverAnswered || answer.status == kStatusCancelled ||
                answer.status == kStatusDeviceNotConnected)
                answer.status = kStatusSuccess;
        } else if (answer.status == kStatusCancelled) {
            answer.status = kNeverAnswered;
        } else if (request.end100ns - request.begin100ns >= kShortestDelay100ns) {
            answer.delayMs =
                static_cast<uint32_t>(std::min<uint64_t>((request.end100ns - request.begin100ns) / 10000, 600000));
        }
        if (request.hasEnded && request.win32Error != 0 && answer.status == 0xC0000001 && request.win32Error != 31)
            script.cautions.push_back("error " + std::to_string(request.win32Error) + " of \"" +
                                      wire::requestName(request.code) + "\" becomes error 31");
        answer.epoch = epochOf(request.begin100ns);
        if (answer.status == kStatusSuccess && !waits(request.code)) {
            answer.replyOffset = static_cast<uint32_t>(replies.size());
            answer.replyBytes = static_cast<uint32_t>(request.reply.size());
            replies.insert(replies.end(), request.reply.begin(), request.reply.end());
        }
        return answer;
    }

    void takeAnswer(const Request& request) {
        std::vector<uint8_t> sent = request.sent;
        const uint64_t hash = replayHash(request.code, sent);
        auto& [key, answers] = keys[{request.code, hash}];
        key.code = request.code;
        key.sentHash = hash;
        key.inAnyEpoch = request.code == wire::kUnlockBuffer;
        answers.push_back(answerOf(request));
    }

    void takeLock(const Request& request) {
        if (!request.hasEnded || request.port > 1) return;
        wire::LockBufferReply reply{};
        if (request.win32Error == 0 && request.reply.size() >= offsetof(wire::LockBufferReply, bufferAddress))
            std::memcpy(&reply, request.reply.data(), std::min(sizeof reply, request.reply.size()));
        // A stop ends a lock, and a removal does; the model knows when.
        if (request.win32Error == kWin32Cancelled || statusOf(request.win32Error) == kStatusDeviceNotConnected ||
            reply.dmaStatus == DMA_STATUS_ABORTED || reply.result == kResultNotGrabbing)
            return;
        const auto isBefore = [&](const Start& start) {
            return start.port == request.port && start.time <= request.end100ns;
        };
        const auto last = std::find_if(starts.rbegin(), starts.rend(), isBefore);
        if (last == starts.rend()) return;
        ReplayLock lock{};
        lock.port = request.port;
        lock.run = static_cast<uint32_t>(std::count_if(starts.begin(), starts.end(), isBefore));
        lock.afterStart100ns = request.end100ns - last->time;
        lock.answer = answerOf(request);
        lock.answer.delayMs = 0;
        locks.push_back(lock);
    }

    /// Between two events the signal stays: the last answers of that time tell it best.
    void takeSignals() {
        Heard heard;
        size_t next = 0;
        const auto settle = [&] {
            if (next == 0)
                head.signal = script.signal = heard.signal();
            else
                events[next - 1].signal = heard.signal();
        };
        for (const Request& request : trace.requests) {
            while (next < events.size() && m_eventTimes[next] <= request.begin100ns) {
                settle();
                ++next;
            }
            heard.take(request);
        }
        for (;; ++next) {
            settle();
            if (next == events.size()) break;
        }
    }

    template <class Record>
    void put(const Record& record) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
        script.bytes.insert(script.bytes.end(), bytes, bytes + sizeof record);
    }

    void put() {
        std::stable_sort(locks.begin(), locks.end(), [](const ReplayLock& a, const ReplayLock& b) {
            return a.run != b.run ? a.run < b.run : a.afterStart100ns < b.afterStart100ns;
        });
        head.keys = static_cast<uint32_t>(keys.size());
        head.locks = static_cast<uint32_t>(locks.size());
        head.events = static_cast<uint32_t>(events.size());
        head.replyBytes = static_cast<uint32_t>(replies.size());
        for (auto& [id, found] : keys) {
            found.first.first = head.answers;
            found.first.count = static_cast<uint32_t>(found.second.size());
            head.answers += found.first.count;
        }
        put(head);
        for (const auto& [id, found] : keys)
            put(found.first);
        for (const auto& [id, found] : keys)
            for (const ReplayAnswer& answer : found.second)
                put(answer);
        for (const ReplayLock& lock : locks)
            put(lock);
        for (const ReplayEvent& event : events)
            put(event);
        script.bytes.insert(script.bytes.end(), replies.begin(), replies.end());
    }

    std::vector<uint64_t> m_eventTimes;
};

} // namespace

ReplayScript replayScriptOf(const Trace& trace) {
    Building building(trace);
    building.build();
    if (trace.missingParts != 0) building.script.cautions.push_back("files of the trace are missing");
    if (trace.lost != 0) building.script.cautions.push_back(std::to_string(trace.lost) + " records are missing");
    return std::move(building.script);
}

} // namespace kestra::simcard
