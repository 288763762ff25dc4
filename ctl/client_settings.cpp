// The settings follow from size, scan and rate alone.
#include "ctl/client_settings.h"

#include "ctl/signal_text.h"
#include "ctl/text.h"
#include "protocol/converter_matrix.h"
#include "protocol/frame_rate.h"

namespace kestra::ctl {

namespace {

/// What the DirectShow filter offers for this signal; a rate that was not measured counts as 25 there, too.
uint32_t offeredFrames(const TarnisCameraStatus& status) noexcept {
    const uint32_t rate = reportedRate(status);
    return framesOfRate(rate == 0 ? 25 : rate, status.interlaced != 0);
}

} // namespace

std::string ffmpegCommand(const TarnisCameraStatus& status, uint32_t audioFormat) {
    const bool sound = hasSound(status) && audioFormat == 0;
    const char* matrix = isHighDefinition(status.width, status.height) ? "bt709" : "smpte170m";
    std::string command =
        format("ffmpeg -f dshow -rtbufsize 1G -pixel_format uyvy422 -video_size %ux%u -framerate %u "
               "-i video=\"Kestra Capture Video\"%s",
               status.width, status.height, offeredFrames(status), sound ? ":audio=\"Kestra Capture Audio\"" : "");
    if (status.interlaced) command += " -vf bwdif";
    command += format(" -c:v libx264 -crf 18 -pix_fmt yuv420p -colorspace %s -color_range tv", matrix);
    if (sound) command += " -c:a aac -b:a 192k";
    return command + " recording.mp4";
}

std::string ffmpegTenBitCommand() {
    return "kestra-ctl capture - --depth 10 | ffmpeg -i - -c:v ffv1 recording.mkv";
}

std::vector<Setting> obsSettings(const TarnisCameraStatus& status) {
    std::vector<Setting> settings = {{"Device", "Kestra Capture Video"},
                                     {"Resolution/FPS Type", "Custom"},
                                     {"Resolution", format("%ux%u", status.width, status.height)},
                                     {"FPS", std::to_string(offeredFrames(status))},
                                     {"Video Format", "UYVY"},
                                     {"Color Space", isHighDefinition(status.width, status.height) ? "709" : "601"},
                                     {"Color Range", "Limited"}};
    if (status.interlaced) settings.push_back({"Deinterlacing", "Yadif, top field first"});
    if (hasSound(status)) {
        settings.push_back({"Use custom audio device", "yes"});
        settings.push_back({"Audio Device", "Kestra Capture Audio"});
    }
    return settings;
}

} // namespace kestra::ctl
