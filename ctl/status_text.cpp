// status: as lines for a person and as JSON.
#include "ctl/client_settings.h"
#include "ctl/converter_values.h"
#include "ctl/signal_text.h"
#include "ctl/status.h"
#include "ctl/text.h"
#include "protocol/frame_rate.h"

namespace kestra::ctl {

namespace {

std::string inputRegisterText(uint16_t value) {
    return format("0x%03X = 0x%04X: %s%s%s", kRegisterInput, value,
                  (value & kInputInterlaced) != 0 ? "interlaced" : "progressive",
                  (value & kInputRateIs24) != 0 ? ", a rate of 25 means 24" : "",
                  (value & kInputAudioAlternate) != 0 ? ", sound shows in 0x403" : "");
}

std::string audioRegisterText(uint16_t number, uint16_t value, uint16_t mask) {
    return format("0x%03X = 0x%04X: %s", number, value, (value & mask) != 0 ? "sound" : "no sound");
}

std::string statisticsText(const TarnisGrabStat& s) {
    return format("%u per second; the driver's words 64: %u, 48: %u, 28: %u, 32: %u", s.frameRate, s.counters[0],
                  s.counters[1], s.counters[2], s.counters[3]);
}

std::string clientText(const CardStatus& status) {
    std::string text =
        "\nFFmpeg, as it suits this signal:\n  " + ffmpegCommand(status.input, status.audioFormat) + '\n';
    if (hasSound(status.input) && status.audioFormat != 0)
        text += "  (without sound, as FFmpeg takes no 24 bits; kestra-ctl formats set audio=16 changes that)\n";
    text += "All ten bits, without loss:\n  " + ffmpegTenBitCommand() + '\n';
    text += "OBS, source \"Video Capture Device\":\n";
    for (const Setting& setting : obsSettings(status.input))
        text += format("  %-24s %s\n", setting.name.c_str(), setting.value.c_str());
    return text;
}

} // namespace

std::string statusText(const CardStatus& s) {
    const TarnisCameraStatus& input = s.input;
    std::string text = format("card %u  %s\n", s.number, s.slotText.c_str()) +
                       field("slot", std::to_string(s.slotValue)) + field("path", s.path) +
                       field("signal", signalLine(input));
    if (hasSignal(input)) {
        const uint32_t rate = reportedRate(input);
        text += field("size", format("%u x %u pixels", input.width, input.height));
        text += field("scan", input.interlaced ? "interlaced, two fields a frame" : "progressive");
        if (rate == 0)
            text += field("rate", "not measured");
        else if (input.interlaced)
            text += field("rate", format("%u fields, %u frames per second", rate, rate / 2));
        else
            text += field("rate", format("%u frames per second", rate));
        text += field("video mode", format("%u: %s", input.videoMode, videoModeMeaning(input.videoMode)));
        text += field("format byte", std::to_string(input.formatByte));
        text += field("sound", hasSound(input) ? "embedded, 48 kHz stereo" : "none");
    }
    text += field("converter", converterLine(s.converter));
    text += field("video port", statisticsText(s.statistics[0]));
    text += field("audio port", statisticsText(s.statistics[1]));
    text += field("registers", inputRegisterText(s.inputRegister));
    text += field("", audioRegisterText(kRegisterAudio, s.audioRegister, kAudioMask));
    text += field("", audioRegisterText(kRegisterAudioAlternate, s.audioAlternateRegister, kAudioAlternateMask));
    if (hasSignal(input)) text += clientText(s);
    return text;
}

Json statusJson(const CardStatus& s) {
    Json json = jsonOf("status");
    json.update({{"card", s.number}, {"slot", s.slotText}, {"slotValue", s.slotValue}, {"path", s.path}});
    json["signal"] = signalJson(s.input);
    json["converter"] = converterJson(s.converter);
    json["ports"] = Json::array();
    for (const TarnisGrabStat& statistics : s.statistics)
        json["ports"].push_back({{"framesPerSecond", statistics.frameRate}, {"counters", statistics.counters}});
    json["registers"] = {{"0x022", s.inputRegister}, {"0x202", s.audioRegister}, {"0x403", s.audioAlternateRegister}};
    if (hasSignal(s.input)) {
        Json obs = Json::object();
        for (const Setting& setting : obsSettings(s.input))
            obs[setting.name] = setting.value;
        json["clients"] = {
            {"ffmpeg", ffmpegCommand(s.input, s.audioFormat)}, {"ffmpegTenBit", ffmpegTenBitCommand()}, {"obs", obs}};
    }
    return json;
}

} // namespace kestra::ctl
