// One row a parameter: its name, its type, where it stands in the record.
#include "ctl/converter_values.h"

#include "ctl/exit_code.h"
#include "ctl/text.h"
#include "protocol/converter_matrix.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>

namespace kestra::ctl {

namespace {

enum class Kind { Level, Coefficient, Limit, Offset };

struct Parameter {
    const char* name;
    Kind kind;
    size_t at; ///< offset in the record
};

#define KESTRA_PARAMETER(name, kind)                                                                                   \
    {                                                                                                                  \
#name, Kind::kind, offsetof(TarnisConverterParams, name)                                                       \
    }
constexpr Parameter kParameters[] = {KESTRA_PARAMETER(YOff, Level),
                                     KESTRA_PARAMETER(CrOff, Level),
                                     KESTRA_PARAMETER(CbOff, Level),
                                     KESTRA_PARAMETER(Y1, Coefficient),
                                     KESTRA_PARAMETER(R1, Coefficient),
                                     KESTRA_PARAMETER(G1, Coefficient),
                                     KESTRA_PARAMETER(G2, Coefficient),
                                     KESTRA_PARAMETER(B1, Coefficient),
                                     KESTRA_PARAMETER(RMin, Limit),
                                     KESTRA_PARAMETER(RMax, Limit),
                                     KESTRA_PARAMETER(GMin, Limit),
                                     KESTRA_PARAMETER(GMax, Limit),
                                     KESTRA_PARAMETER(BMin, Limit),
                                     KESTRA_PARAMETER(BMax, Limit),
                                     KESTRA_PARAMETER(RedOffset, Offset),
                                     KESTRA_PARAMETER(GreenOffset, Offset),
                                     KESTRA_PARAMETER(BlueOffset, Offset),
                                     KESTRA_PARAMETER(RedGain, Coefficient),
                                     KESTRA_PARAMETER(GreenGain, Coefficient),
                                     KESTRA_PARAMETER(BlueGain, Coefficient)};
#undef KESTRA_PARAMETER

struct Range {
    double least, most;
    bool whole;
};

Range rangeOf(Kind kind) noexcept {
    switch (kind) {
    case Kind::Level:
        return {std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max(), true};
    case Kind::Coefficient:
        return {-kMostCoefficient, kMostCoefficient, false};
    case Kind::Limit:
        return {0, 255, true};
    default:
        return {-127, 127, true}; // the card has no -128
    }
}

template <class Number>
Number read(const TarnisConverterParams& params, size_t at) noexcept {
    Number value;
    std::memcpy(&value, reinterpret_cast<const std::byte*>(&params) + at, sizeof value);
    return value;
}

template <class Number>
void store(TarnisConverterParams& params, size_t at, double number) noexcept {
    const auto value = static_cast<Number>(number);
    std::memcpy(reinterpret_cast<std::byte*>(&params) + at, &value, sizeof value);
}

double valueOf(const TarnisConverterParams& params, const Parameter& parameter) noexcept {
    switch (parameter.kind) {
    case Kind::Level:
        return read<int32_t>(params, parameter.at);
    case Kind::Coefficient:
        return double{read<float>(params, parameter.at)};
    case Kind::Limit:
        return read<uint8_t>(params, parameter.at);
    default:
        return read<int8_t>(params, parameter.at);
    }
}

/// The number is in the parameter's range.
void setValue(TarnisConverterParams& params, const Parameter& parameter, double value) noexcept {
    switch (parameter.kind) {
    case Kind::Level:
        return store<int32_t>(params, parameter.at, value);
    case Kind::Coefficient:
        return store<float>(params, parameter.at, value);
    case Kind::Limit:
        return store<uint8_t>(params, parameter.at, value);
    default:
        return store<int8_t>(params, parameter.at, value);
    }
}

bool isInRange(const Parameter& parameter, double value) noexcept {
    const Range range = rangeOf(parameter.kind);
    return std::isfinite(value) && value >= range.least && value <= range.most &&
           (!range.whole || value == std::floor(value));
}

std::string rangeText(const Parameter& parameter) {
    const Range range = rangeOf(parameter.kind);
    return format(range.whole ? "a whole number from %.0f to %.0f" : "a number from %.1f to %.1f", range.least,
                  range.most);
}

bool isSameName(const std::string& a, const char* b) noexcept {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b, b + std::strlen(b), [&](char x, char y) { return lower(x) == lower(y); });
}

const Parameter* parameterOf(const std::string& name) noexcept {
    for (const Parameter& parameter : kParameters)
        if (isSameName(name, parameter.name)) return &parameter;
    return nullptr;
}

std::optional<double> numberOf(const std::string& text) noexcept {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return {};
    return value;
}

ConverterMatrix matrixOf(const TarnisConverterParams& params) noexcept {
    ConverterMatrix matrix{};
    for (size_t i = 0; i < kMatrixValues; ++i)
        matrix[i] = valueOf(params, kParameters[i]);
    return matrix;
}

} // namespace

void setConverterValue(TarnisConverterParams& params, const std::string& assignment) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos)
        throw Failure(ExitCode::Usage, "'" + assignment + "' is not NAME=VALUE", "for example: RedGain=1.25");
    const std::string name = assignment.substr(0, equals), value = assignment.substr(equals + 1);
    const Parameter* parameter = parameterOf(name);
    if (!parameter) {
        std::vector<std::string> names;
        for (const Parameter& known : kParameters)
            names.emplace_back(known.name);
        throw Failure(ExitCode::Usage, "the converter has no '" + name + "'", "it has: " + joined(names, ", "));
    }
    const std::optional<double> number = numberOf(value);
    if (!number || !isInRange(*parameter, *number))
        throw Failure(ExitCode::Usage, "'" + value + "' is no value for " + parameter->name,
                      "it takes " + rangeText(*parameter) + ", with a point before decimals");
    setValue(params, *parameter, *number);
}

void takePreset(TarnisConverterParams& params, const std::string& shortName) {
    std::vector<std::string> names;
    for (const MatrixPreset& preset : kMatrixPresets) {
        names.emplace_back(preset.shortName);
        if (names.back() != shortName) continue;
        for (size_t i = 0; i < kMatrixValues; ++i)
            setValue(params, kParameters[i], preset.matrix[i]);
        return;
    }
    throw Failure(ExitCode::Usage, "there is no preset '" + shortName + "'", "there are: " + joined(names, ", "));
}

const char* presetNameOf(const TarnisConverterParams& params) noexcept {
    const size_t preset = presetOf(matrixOf(params));
    return preset < std::size(kMatrixPresets) ? kMatrixPresets[preset].shortName : nullptr;
}

std::string converterText(const TarnisConverterParams& p) {
    const char* preset = presetNameOf(p);
    return field("preset", preset ? preset : "none: set by hand") +
           field("levels", format("YOff %d, CrOff %d, CbOff %d", p.YOff, p.CrOff, p.CbOff)) +
           field("matrix", format("Y1 %.4f, R1 %.4f, G1 %.4f, G2 %.4f, B1 %.4f", double{p.Y1}, double{p.R1},
                                  double{p.G1}, double{p.G2}, double{p.B1})) +
           field("gains", format("RedGain %.4f, GreenGain %.4f, BlueGain %.4f", double{p.RedGain}, double{p.GreenGain},
                                 double{p.BlueGain})) +
           field("offsets",
                 format("RedOffset %d, GreenOffset %d, BlueOffset %d", p.RedOffset, p.GreenOffset, p.BlueOffset)) +
           field("limits", format("RMin %u, RMax %u, GMin %u, GMax %u, BMin %u, BMax %u", p.RMin, p.RMax, p.GMin,
                                  p.GMax, p.BMin, p.BMax));
}

std::string converterLine(const TarnisConverterParams& p) {
    const char* preset = presetNameOf(p);
    return format("%s; gains %.3f %.3f %.3f, offsets %d %d %d, limits %u-%u %u-%u %u-%u",
                  preset ? preset : "a matrix of its own", double{p.RedGain}, double{p.GreenGain}, double{p.BlueGain},
                  p.RedOffset, p.GreenOffset, p.BlueOffset, p.RMin, p.RMax, p.GMin, p.GMax, p.BMin, p.BMax);
}

Json converterJson(const TarnisConverterParams& params) {
    const char* preset = presetNameOf(params);
    Json json = {{"preset", preset ? Json(preset) : Json(nullptr)}};
    for (const Parameter& parameter : kParameters) {
        const double value = valueOf(params, parameter);
        if (rangeOf(parameter.kind).whole)
            json[parameter.name] = static_cast<int64_t>(value);
        else
            json[parameter.name] = value;
    }
    return json;
}

TarnisConverterParams converterOfJson(const std::string& text, const std::string& fileName) {
    const auto refuse = [&](const std::string& why) {
        return Failure(ExitCode::Failure, fileName + ": " + why, "kestra-ctl converter save FILE makes such a file");
    };
    const Json document = Json::parse(text, nullptr, false);
    if (!document.is_object() || !document.contains("converter") || !document["converter"].is_object())
        throw refuse("holds no converter");
    TarnisConverterParams params{};
    const Json& values = document["converter"];
    for (const auto& [name, value] : values.items())
        if (name != "preset" && !parameterOf(name)) throw refuse("the converter has no '" + name + "'");
    for (const Parameter& parameter : kParameters) {
        if (!values.contains(parameter.name)) throw refuse(std::string("lacks ") + parameter.name);
        const Json& value = values[parameter.name];
        if (!value.is_number() || !isInRange(parameter, value.get<double>()))
            throw refuse(std::string(parameter.name) + " is not " + rangeText(parameter));
        setValue(params, parameter, value.get<double>());
    }
    return params;
}

} // namespace kestra::ctl
