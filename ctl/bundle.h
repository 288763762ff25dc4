// Everything that helps to help, in a folder: the log, the last trace, the settings, the versions, what the cards say.
#pragma once

#include "ctl/console.h"

#include <optional>
#include <string>
#include <vector>

namespace kestra::ctl {

class Bundle {
public:
    /// Makes the folder, and looks which trace is the last: whoever asks cards from then on, such as this program, may
    /// write one. Throws Failure.
    Bundle(std::string folder, Console& console);
    /// @param log     a log's file; empty: the configured one
    /// @param doctor  what doctor has said; none: it is asked
    /// @return what the folder holds, in words. Throws Failure.
    std::string fill(const std::string& log, const std::optional<std::string>& doctor) const;

private:
    const std::string m_folder;
    Console& m_console;
    const std::vector<std::string> m_trace;
    std::string m_traceStatus;
};

} // namespace kestra::ctl
