// What the values of the log's registry key mean. Portable. Private to log/.
#pragma once

#include "log/outputs.h"

#include <cstddef>
#include <cstdint>

namespace kestra {

/// Of the registry's types those that count here.
enum LogValueType : uint32_t { kLogText = 1, kLogNumber = 4 };

struct LogConfiguration {
    static constexpr size_t kMostDirectoryBytes = 520;

    LogLevels details{}, thresholds = kDefaultThresholds;
    bool hasDirectory = false;
    wchar_t directory[kMostDirectoryBytes / sizeof(wchar_t) + 1] = L""; ///< undefined without one
};

/// Defaults stand for whatever is missing or makes no sense.
/// @param read  bool(name, type, data, bytes): reads a value of up to `bytes` and says its type and how many it has;
///              false: there is none, or it does not fit
template <class Read>
LogConfiguration logConfigurationFrom(Read read) noexcept {
    LogConfiguration configuration;
    const auto readNumber = [&](const wchar_t* name, uint32_t& number) {
        uint32_t type = 0, value = 0, bytes = sizeof value;
        if (read(name, type, &value, bytes) && type == kLogNumber && bytes == sizeof value) number = value;
    };
    for (size_t row = 0; row < logOutputKinds().size(); ++row) {
        readNumber(logOutputKinds()[row].detailValue, configuration.details[row]);
        readNumber(logOutputKinds()[row].thresholdValue, configuration.thresholds[row]);
    }
    // A text without a terminator is read as far as it goes.
    uint32_t type = 0, bytes = LogConfiguration::kMostDirectoryBytes;
    configuration.hasDirectory = read(L"LogDir", type, configuration.directory, bytes) && type == kLogText;
    if (configuration.hasDirectory) configuration.directory[bytes / sizeof(wchar_t)] = L'\0';
    return configuration;
}

} // namespace kestra
