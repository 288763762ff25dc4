// A trace as one page that needs nothing else. Portable; a pure function.
#pragma once

#include "trace/trace_reader.h"

#include <string>

namespace kestra::ctl {

/// HTML with a time line of frames, requests and events that can be zoomed, and a histogram of latencies.
std::string tracePage(const trace::Trace& trace, const std::string& name);

} // namespace kestra::ctl
