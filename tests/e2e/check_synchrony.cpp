// check_synchrony FORMAT WIDTH HEIGHT INTERLACED FRAMES_PER_SECOND LARGEST_MS SOUND [PICTURE_TIMES SOUND_TIMES] < video
// Compares every frame and every sample of a recording of picture and sound with what the simulated card sent, and
// measures by flash and beep how far the sound is behind the picture at the first pair and at the last. SOUND is a file
// of 16-bit stereo samples, the video is as in check_recording. The offset counts in the recording's own clocks: frames
// at FRAMES_PER_SECOND, samples at 48000 Hz, both from the first one on. With two files of time stamps in milliseconds
// (a line for each frame, and for each block of sound) it is also printed as these have it. Exits with 0 only if
// nothing is lost, doubled or changed, both offsets are at most LARGEST_MS and their difference is below 1 ms.
#include "tests/e2e/recorded_video.h"
#include "tests/support/sound_check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>

using namespace kestra::test;

namespace {

struct PictureReport {
    uint32_t frames = 0, dropped = 0, unlike = 0;
    std::optional<uint32_t> firstNumber;
    std::vector<size_t> flashes; ///< places of the flashing frames
};

bool isFlashing(const Recording& recording, const std::vector<uint8_t>& frame) {
    const FlashArea area = flashArea(recording.height);
    const uint32_t line = recording.lineOf((area.firstLine + area.endLine) / 2);
    const uint32_t channel = recording.format == "yuyv422" ? 0 : 1; // luma, or green
    return frame[line * recording.lineBytes() + size_t{recording.width} / 2 * recording.bytesPerPixel() + channel] >
           128;
}

PictureReport readPicture(const Recording& recording) {
    Expected expected(recording);
    std::vector<uint8_t> frame(recording.lineBytes() * recording.height);
    PictureReport report;
    uint32_t last = 0;
    for (; std::fread(frame.data(), 1, frame.size(), stdin) == frame.size(); ++report.frames) {
        if (isFlashing(recording, frame)) report.flashes.push_back(report.frames);
        uint32_t number = 0;
        if (!numberOf(recording, frame, number) || frame != expected.frame(number)) {
            ++report.unlike;
            continue;
        }
        if (!report.firstNumber)
            report.firstNumber = number;
        else if (number != last + 1)
            report.dropped += number > last ? number - last - 1 : 1;
        last = number;
    }
    return report;
}

std::vector<uint8_t> readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Lines of milliseconds; others begin with '#'.
std::vector<double> readTimes(const char* path) {
    std::ifstream file(path);
    std::vector<double> times;
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#') times.push_back(std::atof(line.c_str()));
    return times;
}

struct Event {
    double flashMs, beepMs;
    double offsetMs() const { return beepMs - flashMs; }
};

/// Each flash with the beep next to it, if there is one within half a second.
std::vector<Event> pairUp(const std::vector<double>& flashMs, const std::vector<double>& beepMs) {
    std::vector<Event> events;
    for (const double flash : flashMs) {
        const auto nearest = std::min_element(beepMs.begin(), beepMs.end(), [&](double a, double b) {
            return std::abs(a - flash) < std::abs(b - flash);
        });
        if (nearest != beepMs.end() && std::abs(*nearest - flash) < 500) events.push_back({flash, *nearest});
    }
    return events;
}

void printOffsets(const char* clock, const std::vector<Event>& events) {
    const Event &first = events.front(), &last = events.back();
    std::printf("sound behind picture by %s: %+.2f ms at %.1f s, %+.2f ms at %.1f s, drift %+.2f ms\n", clock,
                first.offsetMs(), first.flashMs / 1000, last.offsetMs(), last.flashMs / 1000,
                last.offsetMs() - first.offsetMs());
}

/// A beep by the time stamp of the block that it lies in.
std::vector<double> stampedBeeps(const std::vector<size_t>& beeps, const std::vector<double>& times, size_t block) {
    std::vector<double> stamped;
    for (const size_t beep : beeps)
        if (beep / block < times.size())
            stamped.push_back(times[beep / block] + 1000.0 * static_cast<double>(beep % block) / 48000);
    return stamped;
}

} // namespace

int main(int argc, char** argv) {
    Recording recording;
    double largestMs = 0;
    if (argc == 8 || argc == 10) {
        recording.format = argv[1];
        recording.width = static_cast<uint16_t>(std::atoi(argv[2]));
        recording.height = static_cast<uint16_t>(std::atoi(argv[3]));
        recording.interlaced = std::strcmp(argv[4], "1") == 0;
        recording.framesPerSecond = static_cast<uint8_t>(std::atoi(argv[5]));
        largestMs = std::atof(argv[6]);
    }
    const bool known = recording.rgb() || recording.format == "yuyv422" || recording.format == "uyvy422";
    if (!known || recording.width == 0 || recording.height == 0 || recording.framesPerSecond == 0) {
        std::fprintf(stderr, "usage: check_synchrony yuyv422|bgr24|uyvy422|bgr0 WIDTH HEIGHT INTERLACED FPS LARGEST_MS "
                             "SOUND [PICTURE_TIMES SOUND_TIMES] < video\n");
        return 2;
    }
    const PictureReport picture = readPicture(recording);
    const std::vector<uint8_t> sound = readFile(argv[7]);
    const SoundReport heard = compareSound(sound, recording.framesPerSecond);
    const std::vector<size_t> beeps = beepsOf(sound);
    std::printf("picture: %u frames, %u dropped, %u unlike what the card sent\n", picture.frames, picture.dropped,
                picture.unlike);
    std::printf("sound: %zu samples, %zu lost, %zu doubled, %zu unlike what the card sent\n", heard.samples, heard.lost,
                heard.doubled, heard.unlike);

    std::vector<double> flashMs, beepMs;
    for (const size_t flash : picture.flashes)
        flashMs.push_back(1000.0 * static_cast<double>(flash) / recording.framesPerSecond);
    for (const size_t beep : beeps)
        beepMs.push_back(1000.0 * static_cast<double>(beep) / 48000);
    const std::vector<Event> events = pairUp(flashMs, beepMs);
    if (events.size() < 2) {
        std::printf("%zu flashes and %zu beeps are not enough to measure by\n", flashMs.size(), beepMs.size());
        return picture.unlike == 0 && heard.unlike == 0 && picture.dropped != 0 ? 3 : 1;
    }
    printOffsets("count of frames and samples", events);
    if (argc == 10) {
        const std::vector<double> times = readTimes(argv[8]);
        std::vector<double> stampedFlashes;
        for (const size_t flash : picture.flashes)
            if (flash < times.size()) stampedFlashes.push_back(times[flash]);
        const auto stamped =
            pairUp(stampedFlashes, stampedBeeps(beeps, readTimes(argv[9]), 48000u / recording.framesPerSecond));
        if (!stamped.empty()) printOffsets("FFmpeg's stamps (pictures by arrival)", stamped);
    }
    const double first = events.front().offsetMs(), last = events.back().offsetMs();
    const bool together = std::abs(first) <= largestMs && std::abs(last) <= largestMs && std::abs(last - first) < 1;
    if (picture.frames == 0 || picture.unlike != 0 || heard.samples == 0 || heard.unlike != 0 || heard.doubled != 0)
        return 1;
    // A lost frame shifts what follows it, so that the offsets say nothing then.
    if (picture.dropped != 0 || heard.lost != 0) return 3;
    return together ? 0 : 1;
}
