// list: the cards, whether they open, and what arrives at them.
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/json.h"
#include "ctl/signal_text.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/verbs.h"

#include <optional>

namespace kestra::ctl {

namespace {

/// What one card said; the error if it does not open or answer.
struct Answer {
    std::optional<TarnisCameraStatus> status;
    std::string error;
};

Answer askCard(const CardEntry& entry) {
    if (entry.openError != 0) return {std::nullopt, systemErrorText(entry.openError)};
    try {
        OpenCard card(entry);
        return {cameraStatus(card), ""};
    } catch (const Failure& failure) {
        return {std::nullopt, failure.what()};
    }
}

} // namespace

ExitCode runList(const Options& options, Console& console) {
    const std::vector<CardEntry> cards = findCards();
    Json json = jsonOf("list");
    json["cards"] = Json::array();
    std::string text;
    for (const CardEntry& entry : cards) {
        const Answer answer = askCard(entry);
        Json card = {{"card", entry.number},
                     {"slot", entry.slotText},
                     {"slotValue", entry.slotValue},
                     {"path", utf8OfWide(entry.path.c_str())},
                     {"opens", answer.status.has_value()}};
        if (answer.status)
            card["signal"] = signalJson(*answer.status);
        else
            card["error"] = answer.error;
        json["cards"].push_back(std::move(card));
        text += "card " + std::to_string(entry.number) + "  " +
                (entry.slotText.empty() ? "(its driver gives no slot text)" : entry.slotText) + '\n' +
                field("slot", std::to_string(entry.slotValue)) + field("path", utf8OfWide(entry.path.c_str())) +
                field("opens", answer.status ? "yes" : "no: " + answer.error);
        if (answer.status) text += field("signal", signalLine(*answer.status));
    }
    if (options.json)
        console.write(jsonLine(json));
    else
        console.write(text);
    if (cards.empty())
        throw Failure(ExitCode::NoCard, "there is no card",
                      "plug one in and install its driver; the system's device manager shows whether it is found");
    return ExitCode::Done;
}

} // namespace kestra::ctl
