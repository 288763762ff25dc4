// The page is ctl/trace_page.html; what it draws is put in as JSON.
#include "ctl/trace_plot.h"

#include "ctl/json.h"
#include "ctl/trace_stat.h"
#include "ctl/trace_text.h"
#include "protocol/requests.h"

#include <kestra_trace_page.h>

namespace kestra::ctl {

namespace {

/// What waits is cancelled when the card is closed, and told so when it is pulled: that is no failure.
Json failureOf(const trace::Request& request) {
    constexpr uint32_t kCancelled = 995, kNotConnected = 1167;
    const uint32_t error = request.win32Error;
    if (error == 0 && driverResultOf(request) == 0) return nullptr;
    if (isWaiting(request.code) && (error == kCancelled || error == kNotConnected)) return nullptr;
    return error != 0 ? "error " + std::to_string(error) : "driver result " + std::to_string(driverResultOf(request));
}

} // namespace

std::string tracePage(const trace::Trace& trace, const std::string& name) {
    Json requests = Json::array(), events = Json::array();
    for (const trace::Request& request : trace.requests)
        // Begin, duration (or -1), thread, port, name, whether it waits by nature, how it failed (or nothing).
        requests.push_back(
            {request.begin100ns,
             request.hasBegun && request.hasEnded ? Json(request.end100ns - request.begin100ns) : Json(-1),
             request.thread, portOf(request), wire::requestName(request.code), isWaiting(request.code),
             failureOf(request)});
    for (const trace::Event& event : trace.events)
        events.push_back({event.time100ns, event.thread, event.port,
                          eventText(event, [](uint32_t) { return std::string("not opened"); }),
                          event.kind == trace::EventKind::CallbackBegin ? Json(event.value) : Json(nullptr)});
    Json data = {{"name", name}, {"caution", traceCaution(trace)}, {"requests", requests}, {"events", events}};
    std::string json = jsonLine(data);
    // Nothing in it may end the script that it stands in.
    for (size_t at = 0; (at = json.find("</", at)) != std::string::npos; at += 3)
        json.replace(at, 2, "<\\/");
    std::string page = kTracePage;
    constexpr std::string_view kPlace = "/*DATA*/null";
    page.replace(page.find(kPlace), kPlace.size(), json);
    return page;
}

} // namespace kestra::ctl
