// watch: what arrives, and what is lost, once a second.
#include "ctl/capture_account.h"
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/grab_session.h"
#include "ctl/text.h"
#include "ctl/verbs.h"
#include "ctl/watch_view.h"

#include <windows.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <optional>

namespace kestra::ctl {

namespace {

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int64_t kSilenceNs = 3 * kSecondNs; ///< so long without a frame: the grab has ended without a word

std::string timeOfDay() {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return format("%02u:%02u:%02u", now.wHour, now.wMinute, now.wSecond);
}

/// Counts on the grabbing threads.
class Counter final : public FrameReceiver {
public:
    void receive(int port, const TarnisFrameInfo& frame, int64_t timeNs) noexcept override {
        const std::lock_guard lock(m_mutex);
        if (frame.dmaStatus == DMA_STATUS_DICONNECTED) m_hasChanged = true;
        if (port == 1 && !m_rate.hasBegun()) return; // sound begins first; none is lost before its picture
        LossAccount& account = port == 0 ? m_picture : m_sound;
        const uint64_t interruptions = account.interruptions;
        account.take(frame.dmaStatus, frame.frameWord0, timeNs);
        if (account.interruptions != interruptions) m_rate = {}; // the time away is no part of the rate
        if (port != 0 || frame.dmaStatus != DMA_STATUS_GOOD) return;
        m_rate.take(account.frames, timeNs);
        m_lastNs = timeNs;
    }
    /// Frames are on their way again.
    void begin() {
        const std::lock_guard lock(m_mutex);
        m_hasChanged = false;
        m_rate = {};
        m_lastNs = monotonicNs();
    }
    void show(WatchView& view) const {
        const std::lock_guard lock(m_mutex);
        view.picture = m_picture;
        view.sound = m_sound;
        view.rate = m_rate;
    }
    bool hasStopped() const {
        const std::lock_guard lock(m_mutex);
        return m_hasChanged || monotonicNs() - m_lastNs > kSilenceNs;
    }

private:
    mutable std::mutex m_mutex;
    LossAccount m_picture, m_sound;
    RateMeter m_rate;
    int64_t m_lastNs = 0;
    bool m_hasChanged = false;
};

class Watch {
public:
    Watch(const Options& options, Console& console)
        : m_options(options), m_console(console), m_card(chooseCard(options.card)) {
        m_view.card = m_card.entry().number;
        m_view.slotText = m_card.entry().slotText;
    }

    ExitCode run() {
        claim();
        const int64_t beganNs = monotonicNs();
        std::exception_ptr error;
        try {
            for (int64_t nextNs = beganNs;; nextNs += kSecondNs) {
                const int64_t waitNs = std::max<int64_t>(nextNs - monotonicNs(), 0);
                if (m_console.isInterrupted(static_cast<uint32_t>(waitNs / 1'000'000))) break;
                m_view.seconds = static_cast<double>(monotonicNs() - beganNs) / kSecondNs;
                second();
                if (m_options.watch.seconds != 0 && m_view.seconds >= m_options.watch.seconds) break;
            }
            if (m_session && m_isStarted) m_session->stop();
        } catch (const Failure&) {
            error = std::current_exception();
        }
        summary();
        if (error) std::rethrow_exception(error);
        return ExitCode::Done;
    }

private:
    void claim() {
        if (m_options.watch.passive) {
            m_view.whyNot = "--passive only looks";
            return;
        }
        try {
            m_session.emplace(m_card, true, m_counter, m_console);
            m_view.grabs = true;
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::InUse) throw;
            m_view.whyNot = failure.what();
            m_console.writeError("kestra-ctl: " + m_view.whyNot + ": frames are not counted\n");
        }
    }

    void second() {
        m_view.clock = timeOfDay();
        m_view.input = askInput(m_card);
        if (const std::optional<std::string> event = m_changes.take(m_view.input)) tell(*event);
        if (m_session) grab();
        if (m_options.json)
            m_console.write(jsonLine(watchJson(m_view, "second")));
        else if (m_console.isTerminal())
            m_console.showScreen(watchScreen(m_view));
        else
            m_console.write(watchLine(m_view));
    }

    void grab() {
        const bool hasSignal = m_view.input.kind == InputState::Kind::Signal;
        if (hasSignal && (!m_isStarted || m_counter.hasStopped())) {
            if (m_isStarted) m_session->stop();
            m_isStarted = m_session->start(TARNIS_OUTPUT_YUV422_8, 16).has_value();
            m_counter.begin();
            m_lastFrames = m_view.picture.frames;
            m_lastNs = monotonicNs();
        }
        const Losses before = m_view.picture.losses;
        m_counter.show(m_view);
        const int64_t now = monotonicNs();
        if (now > m_lastNs)
            m_view.lastSecond = static_cast<double>(m_view.picture.frames - m_lastFrames) * kSecondNs /
                                static_cast<double>(now - m_lastNs);
        m_lastFrames = m_view.picture.frames;
        m_lastNs = now;
        const uint64_t lost = m_view.picture.losses.total() - before.total();
        if (lost != 0) tell(counted(lost, "frame") + " lost; in all " + lossText(m_view.picture.losses));
    }

    void tell(const std::string& event) {
        m_view.events.push_back(m_view.clock + "  " + event);
        if (m_view.events.size() > kShownEvents) m_view.events.pop_front();
        if (m_options.json)
            m_console.write(jsonLine(watchEventJson(m_view, event)));
        else if (!m_console.isTerminal())
            m_console.write(m_view.clock + "  ! " + event + '\n');
    }

    void summary() {
        if (m_session) m_counter.show(m_view);
        if (m_options.json) {
            m_console.write(jsonLine(watchJson(m_view, "summary")));
            return;
        }
        std::string text = "watched " + duration(m_view.seconds) + ", " + counted(m_changes.changes(), "change");
        if (m_session)
            text += ", " + counted(m_view.picture.frames, "frame") + ", lost " + lossText(m_view.picture.losses);
        m_console.write(text + '\n');
    }

    const Options& m_options;
    Console& m_console;
    Counter m_counter; // before the card: a late frame may come until that is closed
    OpenCard m_card;
    std::optional<GrabSession> m_session;
    InputWatch m_changes;
    WatchView m_view;
    bool m_isStarted = false;
    uint64_t m_lastFrames = 0;
    int64_t m_lastNs = 0;
};

} // namespace

ExitCode runWatch(const Options& options, Console& console) {
    return Watch(options, console).run();
}

} // namespace kestra::ctl
