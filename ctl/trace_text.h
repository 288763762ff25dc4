// A trace's requests and events in words, and as JSON. Portable; pure functions.
#pragma once

#include "ctl/json.h"
#include "trace/trace_reader.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kestra::ctl {

using FieldTexts = std::vector<std::pair<std::string, std::string>>; ///< name, value

/// What was sent with a request, and what came back, by the names of the protocol; reserved fields only if they are
/// not 0. A record that is cut ends with its last whole field.
FieldTexts sentFields(const trace::Request& request);
FieldTexts replyFields(const trace::Request& request);

/// Of a direct request it is in the code.
uint8_t portOf(const trace::Request& request) noexcept;
/// The first word of the reply; 0 if there is none.
uint32_t driverResultOf(const trace::Request& request) noexcept;
std::string eventName(const trace::Event& event);
std::string eventText(const trace::Event& event, const std::function<std::string(uint32_t)>& errorText);
/// "good", "dropped", ...
std::string dmaStatusName(uint32_t status);

/// Calls request(r, gap100ns) and event(e) for all, oldest first. A gap is the time since the entry before.
void eachEntry(const trace::Trace& trace, const std::function<void(const trace::Request&, uint64_t)>& request,
               const std::function<void(const trace::Event&, uint64_t)>& event);

/// One line each: begin in seconds, gap and duration in milliseconds, thread, port, name, what was sent and answered.
/// @param errorText  what a Win32 error means
std::string showTrace(const trace::Trace& trace, const std::function<std::string(uint32_t)>& errorText);
/// One object a line.
std::string showTraceJson(const trace::Trace& trace);
/// What is missing in a trace, for every verb that reads one; empty: nothing.
std::string traceCaution(const trace::Trace& trace);

} // namespace kestra::ctl
