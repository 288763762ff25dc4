// The report as one page: no script, no font, no picture from anywhere else. Plots are drawn here, as SVG.
#include "compliance/report.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kestra::compliance {
namespace {

constexpr char kStyle[] = R"(
:root{--paper:#fff;--ink:#1b2330;--dim:#5d6878;--line:#dfe4ea;--tint:#f5f7f9;--data:#2456b5;--ok:#1a7f4b;--bad:#c22f2f;--mid:#9a6a00}
@media(prefers-color-scheme:dark){:root{--paper:#12161d;--ink:#e4e9f0;--dim:#98a4b5;--line:#2b3442;--tint:#1a202a;--data:#7aa7f7;--ok:#4fc48a;--bad:#f07878;--mid:#e0b050}}
*{box-sizing:border-box}
body{margin:0 auto;padding:32px 24px 64px;max-width:1120px;background:var(--paper);color:var(--ink);font:15px/1.5 system-ui,"Segoe UI",sans-serif}
h1{font-size:26px;margin:0 0 4px;overflow-wrap:anywhere}h2{font-size:18px;margin:40px 0 12px}p{margin:0;color:var(--dim)}
.totals{display:grid;grid-template-columns:repeat(auto-fit,minmax(130px,1fr));gap:12px;margin:24px 0}
.totals div{background:var(--tint);border:1px solid var(--line);border-radius:8px;padding:12px 16px;color:var(--dim)}
.totals b{display:block;font-size:28px;line-height:1.2;color:var(--ink);font-variant-numeric:tabular-nums}
.bad b{color:var(--bad)}.good b{color:var(--ok)}.fair b{color:var(--mid)}
table{border-collapse:collapse;width:100%}td,th{text-align:left;vertical-align:top;padding:6px 12px 6px 0;border-bottom:1px solid var(--line);overflow-wrap:anywhere}
th{font-weight:600;color:var(--dim)}.facts th{width:280px}.tests td:first-child{width:230px;font-family:ui-monospace,Consolas,monospace;font-size:13.5px}.tests td:nth-child(2){width:84px;font-weight:600}
.OK{color:var(--ok)}.FAIL{color:var(--bad)}.warning,.excused{color:var(--mid)}.na{color:var(--dim)}
.detail{color:var(--dim);font-size:13.5px}.detail b{color:var(--ink);font-weight:600}.time{text-align:right;color:var(--dim);font-variant-numeric:tabular-nums;width:80px;white-space:nowrap}
.plots{display:grid;grid-template-columns:repeat(auto-fit,minmax(440px,1fr));gap:24px}
figure{margin:0;border:1px solid var(--line);border-radius:8px;padding:14px 16px 8px}figcaption{font-weight:600}figcaption small{display:block;font-weight:400;color:var(--dim)}
svg{width:100%;height:auto;display:block;margin-top:8px}svg text{fill:var(--dim);font:11px system-ui,"Segoe UI",sans-serif}
.grid{stroke:var(--line)}.data{stroke:var(--data);fill:none;stroke-width:1.6;stroke-linejoin:round}.bar{fill:var(--data)}
@media(max-width:520px){.plots{grid-template-columns:1fr}.facts th{width:auto}}
)";

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

// Plots

constexpr double kWidth = 520, kHeight = 220, kLeft = 56, kRight = 12, kTop = 24, kBottom = 36;

/// 1, 2 or 5 times a power of ten: at most five of them fill the range.
double stepFor(double range) {
    const double power = std::pow(10, std::floor(std::log10(std::max(range, 1e-9) / 5)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (range / (factor * power) <= 5) return factor * power;
    return 10 * power;
}

struct Axis {
    double least, most, step;
    Axis(double low, double high, bool fromZero) {
        if (fromZero) low = std::min(0.0, low);
        if (high - low < 1e-9) {
            high += 0.5;
            low -= fromZero && low >= 0 ? 0 : 0.5;
        }
        step = stepFor(high - low);
        least = std::floor(low / step + 1e-9) * step;
        most = std::ceil(high / step - 1e-9) * step;
    }
    double part(double value) const { return (value - least) / (most - least); }
};

std::string number(double value, double step) {
    if (std::fabs(value) < step / 1000) value = 0; // no "-0"
    const int digits = step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
    return format("%.*f", digits, value);
}

double xOf(const Axis& axis, double value) {
    return kLeft + axis.part(value) * (kWidth - kLeft - kRight);
}

double yOf(const Axis& axis, double value) {
    return kHeight - kBottom - axis.part(value) * (kHeight - kTop - kBottom);
}

/// What stands at the ends of the axes: the quantity or its unit.
struct Titles {
    const char *x, *y;
};

std::string frameOf(const Axis& x, const Axis& y, Titles titles) {
    std::string svg = format("<svg viewBox=\"0 0 %g %g\" role=\"img\">", kWidth, kHeight);
    for (double value = y.least; value <= y.most + y.step / 2; value += y.step)
        svg += format("<line class=\"grid\" x1=\"%.1f\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\"/><text x=\"%.1f\" "
                      "y=\"%.1f\" text-anchor=\"end\">%s</text>",
                      kLeft, kWidth - kRight, yOf(y, value), yOf(y, value), kLeft - 6, yOf(y, value) + 4,
                      number(value, y.step).c_str());
    for (double value = x.least; value <= x.most + x.step / 2; value += x.step)
        svg += format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%s</text>", xOf(x, value),
                      kHeight - kBottom + 16, number(value, x.step).c_str());
    return svg + format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%s</text><text x=\"0\" y=\"10\">%s</text>",
                        kWidth - kRight, kHeight - 4, titles.x, titles.y);
}

std::string lineOf(const std::vector<double>& xs, const std::vector<double>& ys, Titles titles, bool fromZero) {
    const auto [low, high] = std::minmax_element(ys.begin(), ys.end());
    const Axis x(xs.front(), xs.back(), false), y(*low, *high, fromZero);
    std::string svg = frameOf(x, y, titles) + "<path class=\"data\" d=\"";
    for (size_t i = 0; i < ys.size(); ++i)
        svg += format("%c%.1f %.1f", i == 0 ? 'M' : 'L', xOf(x, xs[i]), yOf(y, ys[i]));
    return svg + "\"/></svg>";
}

/// @param ofWhat  what is counted
std::string histogramOf(std::vector<double> values, const char* ofWhat) {
    std::sort(values.begin(), values.end());
    // A few outliers would squeeze all others into one bar: they are counted in the last one.
    const double cut = values[values.size() * 98 / 100] * 1.5 + 1;
    const Axis x(values.front(), std::min(values.back(), cut), false);
    constexpr int kBars = 40;
    int counts[kBars] = {};
    for (const double value : values)
        ++counts[std::clamp(static_cast<int>(x.part(value) * kBars), 0, kBars - 1)];
    const Axis y(0, *std::max_element(counts, counts + kBars), true);
    std::string svg = frameOf(x, y, {"ms", ofWhat});
    const double bar = (kWidth - kLeft - kRight) / kBars;
    for (int i = 0; i < kBars; ++i)
        if (counts[i] > 0)
            svg += format("<rect class=\"bar\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>",
                          kLeft + i * bar + 0.5, yOf(y, counts[i]), bar - 1, kHeight - kBottom - yOf(y, counts[i]));
    return svg + "</svg>";
}

std::vector<double> valuesOf(const Series& series) {
    return {series.values, series.values + series.count};
}

std::vector<double> countTo(size_t count) {
    std::vector<double> numbers(count);
    for (size_t i = 0; i < count; ++i)
        numbers[i] = static_cast<double>(i);
    return numbers;
}

std::string summary(std::vector<double> milliseconds) {
    std::sort(milliseconds.begin(), milliseconds.end());
    const size_t count = milliseconds.size();
    return format("%zu values, median %.2f ms, 99 %% up to %.2f ms, greatest %.2f ms", count, milliseconds[count / 2],
                  milliseconds[std::min(count - 1, count * 99 / 100)], milliseconds.back());
}

std::string figure(const std::string& title, const std::string& note, const std::string& svg) {
    return "<figure><figcaption>" + escaped(title) + "<small>" + escaped(note) + "</small></figcaption>" + svg +
           "</figure>\n";
}

std::string plotsOf(const Result& result) {
    const auto find = [&](const char* name) -> const Series* {
        for (const Series& series : result.series)
            if (std::strcmp(series.name, name) == 0 && series.count > 1) return &series;
        return nullptr;
    };
    const std::string test = result.test->id();
    std::string html;
    if (const Series *stamps = find("stamp against clock"), *arrivals = find("arrival"); stamps && arrivals) {
        std::vector<double> seconds = valuesOf(*arrivals);
        for (double& value : seconds)
            value /= 1000;
        html += figure("Time stamps against the wall clock",
                       "by how much a stamp is ahead of the clock since the first sample",
                       lineOf(seconds, valuesOf(*stamps), {"s", "ms"}, false));
    }
    if (const Series* intervals = find("interval"))
        html += figure("Intervals between samples", summary(valuesOf(*intervals)),
                       histogramOf(valuesOf(*intervals), "intervals"));
    if (const Series* start = find("start"))
        html += figure("Start: from Run to the first sample", test + ": " + summary(valuesOf(*start)),
                       histogramOf(valuesOf(*start), "starts"));
    if (const Series* stop = find("stop"))
        html += figure("Stop", test + ": " + summary(valuesOf(*stop)), histogramOf(valuesOf(*stop), "stops"));
    struct OverCycles {
        const char *series, *title, *unit;
    };
    const Series* const cycles = find("cycle");
    for (const auto& [name, title, unit] :
         {OverCycles{"handles", "Handles over cycles", "handles"},
          {"memory", "Private memory over cycles", "MB"},
          {"threads over start and stop", "Threads over starts and stops", "threads"}})
        if (const Series* series = find(name)) {
            const auto values = valuesOf(*series);
            const bool known = cycles && cycles->count == series->count;
            html +=
                figure(title, format("%s: first %.4g, last %.4g %s", test.c_str(), values.front(), values.back(), unit),
                       lineOf(known ? valuesOf(*cycles) : countTo(values.size()), values,
                              {known ? "cycle" : "measurement", unit}, true));
        }
    return html;
}

std::string rowOf(const Result& result) {
    const std::string verdict = verdictText(result);
    std::string detail;
    const auto say = [&](const char* name, const std::string& text) {
        if (!text.empty()) detail += format("%s<b>%s</b> ", detail.empty() ? "" : "<br>", name) + escaped(text);
    };
    if (result.failed()) {
        if (result.verdict == Verdict::Crash) say("crash in", result.call);
        if (result.verdict == Verdict::Hang) say("hang in", result.call);
        say("expected", result.expected);
        say("got", result.got);
        say("rule", result.test->rule);
        if (result.verdict == Verdict::Fail) say("after", result.call);
    } else if (result.verdict == Verdict::NotApplicable) {
        say("because", result.got);
    }
    say("note", result.warnings);
    say(result.excuseUnneeded ? "the profile excuses what does not deviate" : "excused", result.excuse);
    return "<tr><td>" + std::string(result.test->name) + "</td><td class=\"" + (verdict == "n.a." ? "na" : verdict) +
           "\">" + verdict + "</td><td class=\"detail\">" + (detail.empty() ? escaped(result.test->rule) : detail) +
           format("</td><td class=\"time\">%.0f ms</td></tr>\n", result.milliseconds);
}

} // namespace

std::string htmlOf(const std::string& subject, const std::vector<Result>& results) {
    const Totals totals = totalsOf(results);
    std::string html = "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><meta name=\"viewport\" "
                       "content=\"width=device-width\">"
                       "<title>kestra-compliance: " +
                       escaped(subject) + "</title><style>" + kStyle + "</style></head><body>\n";
    html += "<h1>" + escaped(subject) +
            "</h1><p>Capture filter against the platform's rules: " + format("%zu tests", results.size()) +
            "</p>\n<div class=\"totals\">";
    const auto total = [&](const char* kind, int count, const char* name) {
        html += format("<div class=\"%s\"><b>%d</b>%s</div>", count ? kind : "", count, name);
    };
    total("good", totals.ok, "OK");
    total("bad", totals.failed, "failed");
    total("fair", totals.excused, "excused by the profile");
    total("fair", totals.warnings, "with a warning");
    total("", totals.notApplicable, "not applicable");
    if (totals.unneeded > 0) total("bad", totals.unneeded, "excuses not needed");
    html += "</div>\n<h2>The filter</h2>\n<table class=\"facts\">\n";
    for (const Result& result : results)
        for (const auto& [name, value] : result.facts)
            html += "<tr><th>" + escaped(name) + "</th><td>" + escaped(value) + "</td></tr>\n";
    html += "</table>\n";
    std::string plots;
    for (const Result& result : results)
        plots += plotsOf(result);
    if (!plots.empty()) html += "<h2>Measured</h2>\n<div class=\"plots\">\n" + plots + "</div>\n";
    std::string group;
    for (const Result& result : results) {
        if (group != result.test->group) {
            if (!group.empty()) html += "</table>\n";
            group = result.test->group;
            html += "<h2>" + group + "</h2>\n<table class=\"tests\">\n";
        }
        html += rowOf(result);
    }
    if (!group.empty()) html += "</table>\n";
    return html + "</body></html>\n";
}

} // namespace kestra::compliance
