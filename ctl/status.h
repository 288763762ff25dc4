// Everything that the card tells without grabbing. Portable but for askStatus.
#pragma once

#include "ctl/json.h"
#include "protocol/records.h"

#include <cstdint>
#include <string>

namespace kestra::ctl {

class OpenCard;

struct CardStatus {
    uint32_t number = 0, slotValue = 0;
    std::string slotText, path;
    TarnisCameraStatus input{};
    TarnisConverterParams converter{};
    TarnisGrabStat statistics[2]{}; ///< by port, of this program's own session
    uint16_t inputRegister = 0, audioRegister = 0, audioAlternateRegister = 0;
    uint32_t audioFormat = 0; ///< the user's choice in DirectShow applications
};

/// Asks for all of it. Throws Failure.
CardStatus askStatus(OpenCard& card);

std::string statusText(const CardStatus& status);
Json statusJson(const CardStatus& status);

} // namespace kestra::ctl
