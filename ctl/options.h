// What the command line can say, as plain data: each verb reads its own part. Portable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::ctl {

/// A verb that does several things: which, and on what.
struct Action {
    std::string name;                ///< of the verb's own verb
    std::vector<std::string> values; ///< NAME=VALUE
    std::string file;
};

struct Options {
    std::string card;  ///< a card's number or a part of its slot text; empty: the first card
    bool json = false; ///< one JSON object, or one a line for what goes on, in place of text

    struct Doctor {
        bool isInstalledOnly = false;
        bool ascii = false;
        std::string bundle;           ///< folder for what helps to help; empty: none
        std::string probe, probeFile; ///< what the program started itself for; empty: a person did
    } doctor;

    struct Watch {
        bool passive = false; ///< looks without grabbing
        double seconds = 0;   ///< 0: until Ctrl-C
    } watch;

    struct Snap {
        std::string file;   ///< "-": standard output
        uint32_t depth = 8; ///< 8 or 10
        bool raw = false;   ///< the raw frame, too, beside the picture
    } snap;

    struct Capture {
        std::string file;         ///< "-": standard output
        uint32_t depth = 8;       ///< 8 or 10
        bool raw = false;         ///< raw frames in place of YUV4MPEG2
        std::string sound = "16"; ///< bits, or "none"
        std::string wav;          ///< file of the sound; empty: beside the picture's
        uint64_t frames = 0;      ///< 0: no limit
        double seconds = 0;       ///< 0: no limit
        bool untilLoss = false;
        uint32_t bufferMegabytes = 512;
    } capture;

    Action converter, formats;

    struct Log {
        std::string action;
        std::vector<std::string> values; ///< NAME=VALUE
        std::string file;                ///< the log's file; empty: the configured one
        std::string folder;              ///< of a bundle
        uint32_t lines = 20;
        bool follow = false;
    } log;

    struct Trace {
        std::string action;
        std::string folder;       ///< that programs write into
        uint32_t frames = 0;      ///< whose contents are kept
        uint32_t megabytes = 64;  ///< of a trace
        std::string file, second; ///< traces
        std::string page;         ///< of a plot
    } trace;
};

} // namespace kestra::ctl
