// What a run reports: text as it goes, and JSON or a page at its end.
#pragma once

#include "compliance/runner.h"

namespace kestra::compliance {

struct Totals {
    int ok = 0, failed = 0, excused = 0, warnings = 0, notApplicable = 0, unneeded = 0;
    int failures() const { return failed + unneeded; }
};
Totals totalsOf(const std::vector<Result>& results);

/// "OK", "FAIL", "n.a.", "warning", "excused".
const char* verdictText(const Result& result);
/// The lines of one test, with the group before its first.
std::string textOf(const Result& result, bool firstOfGroup);
std::string textOf(const Totals& totals);
std::string jsonOf(const std::string& subject, const std::vector<Result>& results);
/// One self-contained page.
std::string htmlOf(const std::string& subject, const std::vector<Result>& results);

} // namespace kestra::compliance
