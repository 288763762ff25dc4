// Reads a profile, and applies it to results.
#include "compliance/profile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace kestra::compliance {
namespace {

std::string contentsOf(const std::wstring& path) {
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char buffer[4096];
        for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
            text.append(buffer, got);
        std::fclose(file);
        return text;
    }
    throw Failure{"a profile in " + narrow(path.c_str()), "no such file"};
}

/// @throws Failure for a test that does not exist
void addDeviations(Profile& profile, const nlohmann::json& deviations) {
    for (const auto& [name, reason] : deviations.get<std::map<std::string, std::string>>()) {
        const std::string& test = name; // a structured binding cannot be captured everywhere
        const auto& tests = allTests();
        if (std::none_of(tests.begin(), tests.end(), [&](const Test& known) { return known.id() == test; }))
            throw Failure{"a test in the profile", "\"" + test + "\", which there is not"};
        profile.deviations[test] = reason;
    }
}

bool isWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace

Profile readProfile(const std::wstring& path, const SubjectName& subject) {
    Profile profile;
    try {
        const auto json = nlohmann::json::parse(contentsOf(path));
        const std::string friendly = narrow(subject.friendlyName.c_str());
        const std::string names[] = {"*", friendly.empty() ? "*" : friendly,
                                     subject.clsid == GUID_NULL ? "*" : guidText(subject.clsid)};
        for (const auto& [name, filter] : json.at("filters").items()) {
            const std::string named[] = {name, filter.value("class", std::string())};
            if (std::find_first_of(std::begin(names), std::end(names), std::begin(named), std::end(named)) ==
                std::end(names))
                continue;
            addDeviations(profile, filter.value("deviations", nlohmann::json::object()));
            if (isWine()) addDeviations(profile, filter.value("deviationsOnWine", nlohmann::json::object()));
            if (filter.contains("unplug")) profile.unplug = wide(filter["unplug"]);
            if (filter.contains("plug")) profile.plug = wide(filter["plug"]);
        }
    } catch (const nlohmann::json::exception& error) {
        throw Failure{"a profile in JSON", error.what()};
    }
    return profile;
}

void applyProfile(const Profile& profile, Result& result) {
    const auto found = profile.deviations.find(result.test->id());
    if (found == profile.deviations.end()) return;
    result.excuse = found->second;
    result.excuseUnneeded =
        !result.failed() && result.verdict != Verdict::Warning && result.verdict != Verdict::NotApplicable;
}

} // namespace kestra::compliance
