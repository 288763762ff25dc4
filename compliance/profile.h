// What a filter's author says of it: deviations on purpose, and how its device is taken away.
#pragma once

#include "compliance/runner.h"

#include <map>

namespace kestra::compliance {

struct Profile {
    std::map<std::string, std::string> deviations; ///< test, reason
    std::wstring unplug, plug;                     ///< commands; empty: none
};

/// Reads a profile: {"filters": {"NAME": {"class": "{…}", "deviations": {"group.test": "reason"}, "deviationsOnWine":
/// {…}, "unplug": "…", "plug": "…"}}}. A filter is known by its friendly NAME or its class; "*" is every filter.
/// @throws Failure, with what is wrong with the file
Profile readProfile(const std::wstring& path, const SubjectName& subject);

/// Marks the deviations that the profile excuses, and the excuses that are not needed.
void applyProfile(const Profile& profile, Result& result);

} // namespace kestra::compliance
