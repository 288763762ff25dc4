// Traces on this machine: where they are, and reading one. Throws Failure.
#pragma once

#include "trace/trace_reader.h"

#include <optional>
#include <string>
#include <vector>

namespace kestra::ctl {

/// The folder that programs write traces into; empty: they write none.
std::string traceFolder();
/// The files of the trace that was begun last, the first one first; empty: there is none.
std::vector<std::string> lastTraceFiles();

/// The files of a trace that are there, the given one first.
std::vector<std::string> filesOfTrace(const std::string& first);
trace::Trace loadTrace(const std::string& first);

} // namespace kestra::ctl
