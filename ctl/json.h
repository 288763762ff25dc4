// What the verbs say with --json. Every object names its schema and its verb; docs/kestra-ctl.schema.json describes
// them. Portable.
#pragma once

#include "protocol/records.h"

#include <nlohmann/json.hpp>

#include <string>

namespace kestra::ctl {

/// Keeps its members in the order in which they were added.
using Json = nlohmann::ordered_json;

/// Opens an object of a verb.
Json jsonOf(const char* verb);

/// One line with its end. Bytes that are not UTF-8 are replaced.
std::string jsonLine(const Json& value);

/// What arrives; null without a signal.
Json signalJson(const TarnisCameraStatus& status);

} // namespace kestra::ctl
