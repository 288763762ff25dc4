// formats: what the user chose in DirectShow applications, which the filters keep for the next one.
#include "ctl/console.h"
#include "ctl/json.h"
#include "ctl/text.h"
#include "ctl/user_registry.h"
#include "ctl/verbs.h"
#include "protocol/user_settings.h"

#include <span>

namespace kestra::ctl {

namespace {

struct Choice {
    const char* name; ///< on the command line
    const char* text;
};
constexpr Choice kVideoChoices[] = {
    {"yuy2", "YUY2, 4:2:2 in 8 bits"}, {"rgb24", "RGB24"}, {"uyvy", "UYVY, 4:2:2 in 8 bits"}, {"rgb32", "RGB32"}};
constexpr Choice kAudioChoices[] = {{"16", "16 bits"}, {"24", "24 bits"}};

struct Format {
    const char* name; ///< on the command line
    const wchar_t* value;
    std::span<const Choice> choices;
};
constexpr Format kFormats[] = {{"video", kVideoFormatValue, kVideoChoices},
                               {"audio", kAudioFormatValue, kAudioChoices}};

void setFormat(const std::string& assignment, bool isTrial) {
    const size_t equals = assignment.find('=');
    const std::string name = assignment.substr(0, equals);
    const std::string wanted = equals == std::string::npos ? "" : assignment.substr(equals + 1);
    for (const Format& format : kFormats) {
        if (name != format.name) continue;
        std::vector<std::string> names;
        for (const Choice& choice : format.choices) {
            if (wanted == choice.name) {
                if (!isTrial)
                    writeNumber(kFormatsKey, format.value, static_cast<uint32_t>(&choice - format.choices.data()));
                return;
            }
            names.emplace_back(choice.name);
        }
        throw Failure(ExitCode::Usage, ctl::format("'%s' is no format for %s", wanted.c_str(), name.c_str()),
                      "it takes: " + joined(names, ", "));
    }
    throw Failure(ExitCode::Usage, "there is no format '" + name + "'", "for example: video=uyvy audio=16");
}

} // namespace

ExitCode runFormats(const Options& options, Console& console) {
    for (const bool isTrial : {true, false}) // all are checked before any is changed
        for (const std::string& assignment : options.formats.values)
            setFormat(assignment, isTrial);
    if (options.formats.name == "restore")
        for (const Format& format : kFormats)
            removeValue(kFormatsKey, format.value);
    Json json = jsonOf("formats");
    std::string text;
    for (const Format& format : kFormats) {
        const std::optional<uint32_t> stored = readNumber(kFormatsKey, format.value);
        const bool isKnown = !stored || *stored < format.choices.size();
        const Choice& choice = format.choices[stored && isKnown ? *stored : 0];
        json[format.name] = {{"format", choice.name}, {"stored", stored ? Json(*stored) : Json(nullptr)}};
        std::string line = std::string(choice.text) + (stored ? "" : " (the default; nothing was chosen yet)");
        if (!isKnown) line += ctl::format(" (in place of %u, which no format has)", *stored);
        text += field(format.name, line);
    }
    if (readNumber(kFormatsKey, kAudioFormatValue) == 1u)
        text += "FFmpeg takes no 24-bit sound: kestra-ctl formats set audio=16 lets it record sound again.\n";
    console.write(options.json ? jsonLine(json) : text);
    return ExitCode::Done;
}

} // namespace kestra::ctl
