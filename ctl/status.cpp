// status: asks the card for everything that it tells, without grabbing.
#include "ctl/status.h"

#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/signal_text.h"
#include "ctl/system_error.h"
#include "ctl/user_registry.h"
#include "ctl/verbs.h"
#include "protocol/registers.h"
#include "protocol/user_settings.h"

namespace kestra::ctl {

CardStatus askStatus(OpenCard& card) {
    CardStatus status;
    status.number = card.entry().number;
    status.slotValue = card.entry().slotValue;
    status.slotText = card.entry().slotText;
    status.path = utf8OfWide(card.entry().path.c_str());
    status.input = cameraStatus(card);
    card.need("its converter", status.converter, [](TARNIS_HANDLE handle, TarnisConverterParams& result) {
        return TARNIS_GetColorSpaceConverterParams(handle, &result);
    });
    for (const int8_t port : {int8_t{0}, int8_t{1}})
        card.need("its counters", status.statistics[port], [port](TARNIS_HANDLE handle, TarnisGrabStat& result) {
            return TARNIS_GetGrabStat(handle, port, &result);
        });
    const auto readRegister = [&](uint16_t number, uint16_t& value) {
        card.need("a register", value, [number](TARNIS_HANDLE handle, uint16_t& result) {
            return noexp_TARNIS_ReadI2C(handle, 0, number, &result);
        });
    };
    readRegister(kRegisterInput, status.inputRegister);
    readRegister(kRegisterAudio, status.audioRegister);
    readRegister(kRegisterAudioAlternate, status.audioAlternateRegister);
    status.audioFormat = readNumber(kFormatsKey, kAudioFormatValue).value_or(0);
    return status;
}

ExitCode runStatus(const Options& options, Console& console) {
    OpenCard card(chooseCard(options.card));
    const CardStatus status = askStatus(card);
    console.write(options.json ? jsonLine(statusJson(status)) : statusText(status));
    return hasSignal(status.input) ? ExitCode::Done : ExitCode::NoSignal;
}

} // namespace kestra::ctl
