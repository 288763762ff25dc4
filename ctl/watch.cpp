// watch: what arrives, and what is lost, once a second.
#include "ctl/capture_account.h"
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/frame_counter.h"
#include "ctl/grab_session.h"
#include "ctl/text.h"
#include "ctl/verbs.h"
#include "ctl/watch_view.h"

#include <windows.h>

#include <algorithm>
#include <exception>
#include <optional>

namespace kestra::ctl {

namespace {

constexpr int64_t kSecondNs = 1'000'000'000;

std::string timeOfDay() {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return format("%02u:%02u:%02u", now.wHour, now.wMinute, now.wSecond);
}

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
        if (hasSignal && (!m_isStarted || m_counter.hasStopped(monotonicNs()))) {
            if (m_isStarted) m_session->stop();
            m_counter.begin(monotonicNs());
            m_isStarted = m_session->start(TARNIS_OUTPUT_YUV422_8, 16).has_value();
            m_lastFrames = m_view.counts.picture.frames;
            m_lastNs = monotonicNs();
        }
        const Losses before = m_view.counts.picture.losses;
        m_view.counts = m_counter.counts();
        const int64_t now = monotonicNs();
        if (now > m_lastNs)
            m_view.lastSecond = static_cast<double>(m_view.counts.picture.frames - m_lastFrames) * kSecondNs /
                                static_cast<double>(now - m_lastNs);
        m_lastFrames = m_view.counts.picture.frames;
        m_lastNs = now;
        const uint64_t lost = m_view.counts.picture.losses.total() - before.total();
        if (lost != 0) tell(counted(lost, "frame") + " lost; in all " + lossText(m_view.counts.picture.losses));
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
        if (m_session) m_view.counts = m_counter.counts();
        if (m_options.json) {
            m_console.write(jsonLine(watchJson(m_view, "summary")));
            return;
        }
        std::string text = "watched " + duration(m_view.seconds) + ", " + counted(m_changes.changes(), "change");
        if (m_session)
            text += ", " + counted(m_view.counts.picture.frames, "frame") + ", lost " +
                    lossText(m_view.counts.picture.losses);
        m_console.write(text + '\n');
    }

    const Options& m_options;
    Console& m_console;
    FrameCounter m_counter; // before the card: a late frame may come until that is closed
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
