// What the command line can say, as plain data: each verb reads its own part. Portable.
#pragma once

#include <string>

namespace kestra::ctl {

struct Options {
    std::string card;  ///< a card's number or a part of its slot text; empty: the first card
    bool json = false; ///< one JSON object, or one a line for what goes on, in place of text

    struct Doctor {
        bool isInstalledOnly = false;
        bool ascii = false;
        std::string probe, probeFile; ///< what the program started itself for; empty: a person did
    } doctor;
};

} // namespace kestra::ctl
