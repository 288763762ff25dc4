// What a capture filter keeps for its user beyond a run is the format that was chosen last, and the tests choose many.
// A process of its own remembers the first one and sets it again when the run is over, however it ends: it outlives
// tests that crash or hang, and the whole run if that is ended. The run's side belongs to one thread.
#pragma once

#include "compliance/second_process.h"

namespace kestra::compliance {

class FormatKeeper {
public:
    /// Starts the process and waits until it has read the format. setOwnCommand comes first.
    FormatKeeper();
    /// Has the format set again if restore() was not called.
    ~FormatKeeper() { restore(); }
    FormatKeeper(const FormatKeeper&) = delete;
    FormatKeeper& operator=(const FormatKeeper&) = delete;
    /// Has the format set again. @return what went wrong; empty: it is as before, or the filter has none that can be
    /// set
    std::string restore();

private:
    UniqueObject m_over;
    OwnProcess m_process;
};

/// What that process does. @param run  the process that runs the tests
/// @return whether the format is as before, or there is none
bool keepFormat(const SubjectName& name, DWORD run);

} // namespace kestra::compliance
