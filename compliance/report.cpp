// A run's results as text and as JSON.
#include "compliance/report.h"

#include <nlohmann/json.hpp>

#include <cstring>

namespace kestra::compliance {

Totals totalsOf(const std::vector<Result>& results) {
    Totals totals;
    for (const Result& result : results) {
        if (result.excuseUnneeded) ++totals.unneeded;
        if (result.failed())
            ++(result.excuse.empty() ? totals.failed : totals.excused);
        else if (result.verdict == Verdict::Warning)
            ++(result.excuse.empty() ? totals.warnings : totals.excused);
        else
            ++(result.verdict == Verdict::NotApplicable ? totals.notApplicable : totals.ok);
    }
    return totals;
}

const char* verdictText(const Result& result) {
    if (!result.excuse.empty() && (result.failed() || result.verdict == Verdict::Warning)) return "excused";
    switch (result.verdict) {
    case Verdict::Ok:
        return "OK";
    case Verdict::NotApplicable:
        return "n.a.";
    case Verdict::Warning:
        return "warning";
    default:
        return "FAIL";
    }
}

std::string textOf(const Result& result, bool firstOfGroup) {
    std::string text = firstOfGroup ? format("\n%s\n", result.test->group) : "";
    text += format("  %-24s %s", result.test->name, verdictText(result));
    if (result.verdict == Verdict::NotApplicable) text += ": " + result.got;
    text += "\n";
    const char* const kind = result.verdict == Verdict::Crash  ? "crash"
                             : result.verdict == Verdict::Hang ? "hang"
                                                               : nullptr;
    if (result.failed()) {
        if (kind) text += format("      %s in %s\n", kind, result.call.c_str());
        text += "      expected " + result.expected + "\n      got      " + result.got + "\n";
        text += std::string("      rule     ") + result.test->rule + "\n";
        if (!kind) text += "      after    " + result.call + "\n";
    }
    if (!result.warnings.empty()) text += "      note     " + result.warnings + "\n";
    if (!result.excuse.empty() && !result.excuseUnneeded) text += "      excused  " + result.excuse + "\n";
    if (result.excuseUnneeded)
        text += "      the profile excuses a deviation that there is not: \"" + result.excuse + "\"\n";
    return text;
}

std::string textOf(const Totals& totals) {
    std::string text =
        format("\n%d tests OK, %d failed, %d excused by the profile, %d with a warning, %d not applicable\n", totals.ok,
               totals.failed, totals.excused, totals.warnings, totals.notApplicable);
    if (totals.unneeded > 0)
        text += format("%d entries of the profile are not needed: each counts as a failure\n", totals.unneeded);
    return text;
}

std::string jsonOf(const std::string& subject, const std::vector<Result>& results) {
    nlohmann::ordered_json json;
    json["filter"] = subject;
    const Totals totals = totalsOf(results);
    json["totals"] = {{"ok", totals.ok},
                      {"failed", totals.failed},
                      {"excused", totals.excused},
                      {"warnings", totals.warnings},
                      {"notApplicable", totals.notApplicable},
                      {"unneededExcuses", totals.unneeded}};
    json["facts"] = nlohmann::ordered_json::object();
    json["tests"] = nlohmann::ordered_json::array();
    for (const Result& result : results) {
        for (const auto& [name, value] : result.facts)
            json["facts"][name] = value;
        nlohmann::ordered_json one = {{"test", result.test->id()},
                                      {"verdict", verdictText(result)},
                                      {"milliseconds", result.milliseconds},
                                      {"rule", result.test->rule}};
        if (result.failed()) {
            one["kind"] = result.verdict == Verdict::Crash  ? "crash"
                          : result.verdict == Verdict::Hang ? "hang"
                                                            : "fail";
            one["expected"] = result.expected;
            one["call"] = result.call;
        }
        if (result.failed() || !result.got.empty()) one["got"] = result.got;
        if (!result.warnings.empty()) one["note"] = result.warnings;
        if (!result.excuse.empty()) one["excuse"] = result.excuse;
        if (result.excuseUnneeded) one["excuseUnneeded"] = true;
        for (const Series& series : result.series)
            one["series"][series.name] = std::vector<double>(series.values, series.values + series.count);
        json["tests"].push_back(std::move(one));
    }
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace kestra::compliance
