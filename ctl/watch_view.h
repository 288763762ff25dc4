// What watch shows each second: as a screen, as a line, as JSON. Portable.
#pragma once

#include "ctl/frame_counter.h"
#include "ctl/input_watch.h"
#include "ctl/json.h"

#include <cstdint>
#include <deque>
#include <string>

namespace kestra::ctl {

struct WatchView {
    uint32_t card = 0;
    std::string slotText;
    std::string clock;  ///< time of day
    double seconds = 0; ///< since the start
    InputState input;
    bool grabs = false; ///< false: it only looks
    std::string whyNot; ///< why it does not grab
    FrameCounter::Counts counts;
    double lastSecond = 0;          ///< pictures per second, over the last one
    std::deque<std::string> events; ///< with their times of day, oldest first
};

inline constexpr size_t kShownEvents = 10;

std::string watchScreen(const WatchView& view);
std::string watchLine(const WatchView& view);
/// @param type  "second" or "summary"
Json watchJson(const WatchView& view, const char* type);
Json watchEventJson(const WatchView& view, const std::string& text);

} // namespace kestra::ctl
