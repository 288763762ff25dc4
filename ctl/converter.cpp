// converter: the card's own converter, which makes its RGB pictures.
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/converter_values.h"
#include "ctl/output_file.h"
#include "ctl/text.h"
#include "ctl/verbs.h"

namespace kestra::ctl {

namespace {

TarnisConverterParams readConverter(OpenCard& card) {
    TarnisConverterParams params{};
    card.need("its converter", params, [](TARNIS_HANDLE handle, TarnisConverterParams& result) {
        return TARNIS_GetColorSpaceConverterParams(handle, &result);
    });
    return params;
}

Json documentOf(const OpenCard& card, const TarnisConverterParams& params) {
    Json json = jsonOf("converter");
    json["card"] = card.entry().number;
    json["converter"] = converterJson(params);
    return json;
}

/// What the card is to have after the action; throws Failure.
TarnisConverterParams changed(TarnisConverterParams params, const Action& action) {
    if (action.name == "set")
        for (const std::string& assignment : action.values)
            setConverterValue(params, assignment);
    else if (action.name == "default")
        TARNIS_GetDefaultColorSpaceConverterParams(&params);
    else if (action.name == "preset")
        takePreset(params, action.values.at(0));
    else
        params = converterOfJson(readFile(action.file), action.file);
    return params;
}

} // namespace

ExitCode runConverter(const Options& options, Console& console) {
    const Action& action = options.converter;
    // Wrong words are refused before any card is asked.
    if (action.name == "set" || action.name == "preset" || action.name == "load") changed({}, action);
    OpenCard card(chooseCard(options.card));
    TarnisConverterParams params = readConverter(card);
    if (action.name == "save") {
        const std::string text = documentOf(card, params).dump(2) + '\n';
        writeFile(action.file, text.data(), text.size());
        if (!options.json) {
            console.write("saved to " + action.file + '\n');
            return ExitCode::Done;
        }
    } else if (action.name != "show") {
        const TarnisConverterParams wanted = changed(params, action);
        console.writeError("kestra-ctl: this changes the colours of every program that takes RGB from this card\n");
        card.order("another converter",
                   [wanted](TARNIS_HANDLE handle) { return TARNIS_SetColorSpaceConverterParams(handle, &wanted); });
        params = readConverter(card);
    }
    console.write(options.json ? jsonLine(documentOf(card, params))
                               : format("card %u\n", card.entry().number) + converterText(params));
    return ExitCode::Done;
}

} // namespace kestra::ctl
