// One view, three forms.
#include "ctl/watch_view.h"

#include "ctl/capture_account.h"
#include "ctl/signal_text.h"
#include "ctl/text.h"

#include <algorithm>

namespace kestra::ctl {

std::string watchScreen(const WatchView& v) {
    std::string text =
        format("card %u  %s%*s%s\n", v.card, v.slotText.c_str(),
               int(std::max<size_t>(60, v.slotText.size() + 10) - v.slotText.size() - 8), "", v.clock.c_str());
    text += field("signal", v.input.text());
    text += field("watched", duration(v.seconds));
    if (v.grabs) {
        text += field("rate", v.counts.rate.perSecond() == 0 ? "no frames yet"
                                                             : format("%.2f per second now, %.3f on average",
                                                                      v.lastSecond, v.counts.rate.perSecond()));
        text += field("frames", std::to_string(v.counts.picture.frames));
        const Losses& l = v.counts.picture.losses;
        text += field(
            "lost", format("%llu: dropped by the card %llu, overrun %llu, unknown status %llu",
                           static_cast<unsigned long long>(l.total()), static_cast<unsigned long long>(l.cardDropped),
                           static_cast<unsigned long long>(l.overrun), static_cast<unsigned long long>(l.otherStatus)));
        text += field("sound", v.counts.sound.frames == 0 ? "none"
                                                          : counted(v.counts.sound.frames, "block") + ", lost " +
                                                                lossText(v.counts.sound.losses));
        text += field("away", counted(v.counts.picture.interruptions, "interruption") + ", " +
                                  counted(v.counts.picture.missedWhileAway, "frame") + " passed by");
    } else {
        text += field("frames", "not counted: " + v.whyNot);
    }
    text += '\n';
    const size_t shown = std::min(v.events.size(), kShownEvents);
    for (size_t i = 0; i < kShownEvents; ++i) // always as many lines, so that nothing jumps
        text += (i < shown ? "  " + v.events[v.events.size() - shown + i] : "") + '\n';
    return text + "Ctrl-C ends it.\n";
}

std::string watchLine(const WatchView& v) {
    std::string line = v.clock + "  " + v.input.text();
    if (v.grabs) {
        line +=
            format("  %.2f/s  %llu frames  lost %s", v.lastSecond,
                   static_cast<unsigned long long>(v.counts.picture.frames), lossText(v.counts.picture.losses).c_str());
        if (v.counts.sound.losses.total() != 0) line += "  sound lost " + lossText(v.counts.sound.losses);
    }
    return line + '\n';
}

Json watchJson(const WatchView& v, const char* type) {
    Json json = jsonOf("watch");
    json.update({{"type", type}, {"card", v.card}, {"time", v.clock}, {"seconds", v.seconds}});
    json["input"] = v.input.name();
    json["signal"] = signalJson(v.input.status);
    json["grabs"] = v.grabs;
    if (v.grabs) {
        json["picture"] = {{"received", v.counts.picture.frames},
                           {"perSecond", v.counts.rate.perSecond()},
                           {"lastSecond", v.lastSecond},
                           {"lost", lossJson(v.counts.picture.losses)}};
        json["sound"] = {{"received", v.counts.sound.frames}, {"lost", lossJson(v.counts.sound.losses)}};
        json["interruptions"] = v.counts.picture.interruptions;
        json["missedWhileAway"] = v.counts.picture.missedWhileAway;
    }
    return json;
}

Json watchEventJson(const WatchView& v, const std::string& text) {
    Json json = jsonOf("watch");
    json.update({{"type", "event"}, {"card", v.card}, {"time", v.clock}, {"text", text}});
    return json;
}

} // namespace kestra::ctl
