// The doctor's look at the module: registered, present and fit to be loaded. This is what an installer needs to
// know.
#pragma once

#include "ctl/doctor_report.h"

namespace kestra::ctl {

class Console;

/// Adds the checks whose names begin with "module.". Needs COM.
/// @return false: an application cannot get at the filters
bool examineModule(DoctorReport& report, Console& console);

} // namespace kestra::ctl
