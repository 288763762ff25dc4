// What the doctor finds: a list of checks, each with a mark, what was found and what to do about it; and how a person
// and a program get to see it. Portable; one thread's.
#pragma once

#include "ctl/json.h"

#include <string>
#include <vector>

namespace kestra::ctl {

enum class Mark { Good, Note, Bad };

struct Check {
    std::string id; ///< for programs; does not change. A card's number stands in it: card.0.signal
    Mark mark;
    std::string name;   ///< what was looked at
    std::string found;  ///< what was found; of a bad one, the cause
    std::string remedy; ///< what to do about it; empty if there is nothing to be done
};

class DoctorReport {
public:
    void add(Check check) { m_checks.push_back(std::move(check)); }
    const std::vector<Check>& checks() const noexcept { return m_checks; }
    /// How many checks are bad, at most 255: the program's exit code.
    int problems() const noexcept;
    /// False if that check is bad or has not been made.
    bool isGood(const std::string& id) const noexcept;

    /// A line for each check, one more for each remedy, and a summary.
    /// @param ascii  marks that every console can show
    std::string text(bool ascii) const;
    Json json() const;

private:
    std::vector<Check> m_checks;
};

} // namespace kestra::ctl
