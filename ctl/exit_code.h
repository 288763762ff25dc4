// How the program ends, and what it says when it fails. Portable; plain data.
#pragma once

#include <stdexcept>
#include <string>

namespace kestra::ctl {

/// The program's exit codes; they are part of its interface.
enum class ExitCode : int {
    Done = 0,
    Failure = 1,  ///< anything that has no code of its own
    Usage = 2,    ///< the command line makes no sense; nothing was done
    NoCard = 3,   ///< no card, not that card, or the card was pulled
    NoSignal = 4, ///< nothing arrives at the card's input
    InUse = 5     ///< another program holds the card's channel
};

/// Ends a verb. what() is the cause, in one line without a full stop; the remedy says what to do about it.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& cause, std::string remedy)
        : std::runtime_error(cause), m_code(code), m_remedy(std::move(remedy)) {}
    ExitCode code() const noexcept { return m_code; }
    const std::string& remedy() const noexcept { return m_remedy; }

private:
    ExitCode m_code;
    std::string m_remedy;
};

} // namespace kestra::ctl
