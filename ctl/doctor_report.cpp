// Two columns: what was looked at, and what was found.
#include "ctl/doctor_report.h"

#include "ctl/text.h"

#include <algorithm>

namespace kestra::ctl {

namespace {

const char* markText(Mark mark, bool ascii) noexcept {
    switch (mark) {
    case Mark::Good:
        return ascii ? "+" : "✔";
    case Mark::Note:
        return "!";
    default:
        return ascii ? "X" : "✘";
    }
}

const char* markName(Mark mark) noexcept {
    switch (mark) {
    case Mark::Good:
        return "good";
    case Mark::Note:
        return "note";
    default:
        return "bad";
    }
}

} // namespace

int DoctorReport::problems() const noexcept {
    return static_cast<int>(
        std::min<ptrdiff_t>(255, std::count_if(m_checks.begin(), m_checks.end(),
                                               [](const Check& check) { return check.mark == Mark::Bad; })));
}

bool DoctorReport::isGood(const std::string& id) const noexcept {
    return std::any_of(m_checks.begin(), m_checks.end(),
                       [&](const Check& check) { return check.id == id && check.mark != Mark::Bad; });
}

std::string DoctorReport::text(bool ascii) const {
    size_t widest = 0;
    for (const Check& check : m_checks)
        widest = std::max(widest, check.name.size());
    const std::string indent(widest + 4, ' ');
    std::string text;
    for (const Check& check : m_checks) {
        text += std::string(markText(check.mark, ascii)) + ' ' + check.name +
                std::string(widest - check.name.size() + 2, ' ') + check.found + '\n';
        if (!check.remedy.empty()) text += indent + check.remedy + '\n';
    }
    const int bad = problems();
    return text + '\n' + (bad == 0 ? "no problem" : counted(static_cast<uint64_t>(bad), "problem")) + " found\n";
}

Json DoctorReport::json() const {
    Json json = jsonOf("doctor");
    json["problems"] = problems();
    json["checks"] = Json::array();
    for (const Check& check : m_checks)
        json["checks"].push_back({{"check", check.id},
                                  {"mark", markName(check.mark)},
                                  {"name", check.name},
                                  {"found", check.found},
                                  {"remedy", check.remedy}});
    return json;
}

} // namespace kestra::ctl
