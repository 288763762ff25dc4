// The program from its arguments to its exit code. Portable.
#pragma once

#include "ctl/exit_code.h"

#include <string>
#include <vector>

namespace kestra::ctl {

class Console;

/// Parses the arguments (UTF-8, without the program's name), runs the verb that they name, and says on the error output
/// why it failed. Never throws.
ExitCode runCommandLine(const std::vector<std::string>& arguments, Console& console) noexcept;

} // namespace kestra::ctl
