// What each verb takes on the command line. A verb with much to say has a file of its own.
#include "ctl/verbs.h"

#include <CLI/CLI.hpp>

namespace kestra::ctl {

void addListOptions(CLI::App&, Options&) {}

} // namespace kestra::ctl
