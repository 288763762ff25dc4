// check_recording FORMAT WIDTH HEIGHT INTERLACED FRAMES_PER_SECOND < raw video
// Compares every frame of a recording with the simulated card's picture: FORMAT is yuyv422, bgr24, uyvy422 or bgr0, top
// line first as FFmpeg writes it. Prints the number of frames, of frames dropped in between, and of frames that differ;
// exits with 0 if there are frames, none was dropped and none differs, with 3 if some were dropped and none differs.
#include "tests/e2e/recorded_video.h"

#include <cstdio>
#include <cstdlib>

using namespace kestra::test;

int main(int argc, char** argv) {
    Recording recording;
    if (argc == 6) {
        recording.format = argv[1];
        recording.width = static_cast<uint16_t>(std::atoi(argv[2]));
        recording.height = static_cast<uint16_t>(std::atoi(argv[3]));
        recording.interlaced = std::strcmp(argv[4], "1") == 0;
        recording.framesPerSecond = static_cast<uint8_t>(std::atoi(argv[5]));
    }
    const bool known = recording.rgb() || recording.format == "yuyv422" || recording.format == "uyvy422";
    if (!known || recording.width == 0 || recording.height == 0) {
        std::fprintf(stderr, "usage: check_recording yuyv422|bgr24|uyvy422|bgr0 WIDTH HEIGHT INTERLACED FPS < video\n");
        return 2;
    }
    Expected expected(recording);
    std::vector<uint8_t> frame(recording.lineBytes() * recording.height);
    uint32_t frames = 0, dropped = 0, differing = 0, last = 0;
    for (; std::fread(frame.data(), 1, frame.size(), stdin) == frame.size(); ++frames) {
        uint32_t number = 0;
        if (!numberOf(recording, frame, number) || frame != expected.frame(number)) {
            ++differing;
            continue;
        }
        if (last != 0 && number != last + 1) dropped += number > last ? number - last - 1 : 1;
        last = number;
    }
    std::printf("%u frames, %u dropped, %u unlike what the card sent\n", frames, dropped, differing);
    if (frames == 0 || differing != 0) return 1;
    return dropped == 0 ? 0 : 3;
}
