// The account of a capture as lines and as JSON.
#include "ctl/capture_account.h"

#include "ctl/signal_text.h"
#include "ctl/stream_files.h"
#include "ctl/text.h"
#include "protocol/frame_rate.h"

namespace kestra::ctl {

namespace {

uint32_t framesPerSecond(const TarnisCameraStatus& status) noexcept {
    return framesOfRate(reportedRate(status), status.interlaced != 0);
}

/// "59.998 per second by the clock, -33 ppm against 60".
std::string clockText(const RateMeter& clock, double nominal) {
    const double rate = clock.perSecond();
    if (rate == 0) return "too short to be measured";
    std::string text = format("%.3f per second by the clock", rate);
    if (nominal > 0) text += format(", %+.0f ppm against %.0f", (rate / nominal - 1) * 1e6, nominal);
    return text;
}

struct Cause {
    const char* text; ///< for a person
    const char* name; ///< for programs
    uint64_t Losses::*count;
};
constexpr Cause kCauses[] = {{"dropped by the card", "cardDropped", &Losses::cardDropped},
                             {"overrun", "overrun", &Losses::overrun},
                             {"of an unknown status", "otherStatus", &Losses::otherStatus},
                             {"for want of buffers", "ringFull", &Losses::ringFull},
                             {"by a slow disk or reader", "diskSlow", &Losses::diskSlow},
                             {"not written any more", "unwritten", &Losses::unwritten}};

} // namespace

std::string lossText(const Losses& losses) {
    std::vector<std::string> parts;
    for (const Cause& cause : kCauses)
        if (const uint64_t count = losses.*cause.count) parts.push_back(std::to_string(count) + ' ' + cause.text);
    return std::to_string(losses.total()) + (parts.empty() ? "" : ": " + joined(parts, ", "));
}

Json lossJson(const Losses& losses) {
    Json json = {{"total", losses.total()}};
    for (const Cause& cause : kCauses)
        json[cause.name] = losses.*cause.count;
    json["aborted"] = losses.aborted;
    return json;
}

double CaptureAccount::soundOffsetMs() const noexcept {
    if (!pictureClock.hasBegun() || !soundClock.hasBegun()) return 0;
    return static_cast<double>(soundClock.firstNs() - pictureClock.firstNs()) * 1e-6;
}

double CaptureAccount::soundDriftMs() const noexcept {
    const uint32_t rate = files.empty() ? 0 : framesPerSecond(files.back().input);
    if (rate == 0 || pictureClock.perSecond() == 0 || soundClock.perSecond() == 0) return 0;
    // How long a second of the film takes by the wall clock.
    const double picture = rate / pictureClock.perSecond(), sound = kSoundSamplesPerSecond / soundClock.perSecond();
    return (sound - picture) * 1e3 * pictureClock.seconds();
}

std::string accountText(const CaptureAccount& a) {
    std::string text;
    for (const CapturedFile& file : a.files) {
        text += format("%s: %s of %s in %u bits, %s\n", file.picture == "-" ? "standard output" : file.picture.c_str(),
                       counted(file.frames, "frame").c_str(), signalName(file.input).c_str(), a.depth,
                       byteCount(file.pictureBytes).c_str());
        if (!file.sound.empty())
            text += format("%s: %.2f s of sound, which starts %+.1f ms after the picture\n", file.sound.c_str(),
                           file.soundSeconds, file.soundStartMs);
    }
    const double rate = a.files.empty() ? 0 : framesPerSecond(a.files.back().input);
    text += field("picture", counted(a.picture.frames, "frame") + " received, " + clockText(a.pictureClock, rate));
    text += field("lost", lossText(a.picture.losses));
    if (a.sound.frames != 0) {
        text += field("sound", counted(a.sound.frames, "block") + " received, " +
                                   clockText(a.soundClock, kSoundSamplesPerSecond));
        text += field("lost", lossText(a.sound.losses));
        text +=
            field("together", format("the sound came %+.1f ms after the picture, and drifted by %+.1f ms in %s",
                                     a.soundOffsetMs(), a.soundDriftMs(), duration(a.pictureClock.seconds()).c_str()));
    }
    text +=
        field("signal", counted(a.signalChanges, "change") + ", " + counted(a.picture.interruptions, "interruption") +
                            (a.picture.missedWhileAway != 0
                                 ? " in which " + counted(a.picture.missedWhileAway, "frame") + " passed by"
                                 : ""));
    text += field("buffer", std::to_string(a.bufferMostUsed) + " of " + counted(a.bufferFrames, "frame") + " at most");
    return text;
}

Json accountJson(const CaptureAccount& a, const char* type) {
    Json json = jsonOf("capture");
    json["type"] = type;
    json["card"] = a.card;
    json["depth"] = a.depth;
    json["files"] = Json::array();
    for (const CapturedFile& file : a.files) {
        Json entry = {{"picture", file.picture},
                      {"frames", file.frames},
                      {"bytes", file.pictureBytes},
                      {"signal", signalJson(file.input)}};
        entry["sound"] =
            file.sound.empty()
                ? Json(nullptr)
                : Json{{"file", file.sound}, {"seconds", file.soundSeconds}, {"startMs", file.soundStartMs}};
        json["files"].push_back(std::move(entry));
    }
    json["picture"] = {{"received", a.picture.frames},
                       {"lost", lossJson(a.picture.losses)},
                       {"perSecond", a.pictureClock.perSecond()}};
    json["sound"] = {{"received", a.sound.frames},
                     {"lost", lossJson(a.sound.losses)},
                     {"samplesPerSecond", a.soundClock.perSecond()},
                     {"offsetMs", a.soundOffsetMs()},
                     {"driftMs", a.soundDriftMs()}};
    json["signalChanges"] = a.signalChanges;
    json["interruptions"] = a.picture.interruptions;
    json["missedWhileAway"] = a.picture.missedWhileAway;
    json["buffer"] = {{"frames", a.bufferFrames}, {"mostUsed", a.bufferMostUsed}};
    return json;
}

std::string progressLine(const CaptureAccount& a, double seconds) {
    return format("%s  %llu frames  %.2f/s  lost %llu  buffer %u/%u", duration(seconds).c_str(),
                  static_cast<unsigned long long>(a.picture.frames), a.pictureClock.perSecond(),
                  static_cast<unsigned long long>(a.picture.losses.total()), unsigned(a.bufferUsed),
                  unsigned(a.bufferFrames));
}

} // namespace kestra::ctl
