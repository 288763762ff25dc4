// kestra-ctl: Kestra capture cards at the command line.
#include "ctl/command_line.h"
#include "ctl/system_error.h"
#include "ctl/windows_console.h"
#include "log/log.h"

int wmain(int argc, wchar_t** argv) {
    const kestra::LogLifetime log; // the library's failures go where the user has configured
    kestra::ctl::WindowsConsole console;
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(kestra::ctl::utf8OfWide(argv[i]));
    return static_cast<int>(kestra::ctl::runCommandLine(arguments, console));
}
