// Any values in the log's registry key, of any type, length and bytes: what is of the right type is taken as it stands,
// everything else counts as missing, and the log opens, takes a record at any severity and closes. Each value lies in a
// block of exactly its size.
#include "log/configuration.h"

#include "log/engine.h"
#include "log/log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace kestra;

struct Value {
    uint32_t type = 0;
    std::vector<uint8_t> bytes;
};
using Key = std::map<std::wstring, Value>;

void require(bool holds) {
    if (!holds) std::abort();
}

/// Values one after the other: which one, its type, its length, its bytes.
Key keyFrom(const uint8_t* bytes, size_t size) {
    std::vector<std::wstring> names{L"LogDir"};
    for (const LogOutputKind& kind : logOutputKinds())
        names.insert(names.end(), {kind.detailValue, kind.thresholdValue});
    Key key;
    while (size >= 3) {
        Value& value = key[names[bytes[0] % names.size()]];
        value.type = bytes[1];
        const size_t wanted = bytes[2] < 0xF0 ? bytes[2] : bytes[2] * 2 + size_t{32}; // 512 to 542 at the end
        bytes += 3;
        size -= 3;
        const size_t length = std::min(wanted, size);
        value.bytes.assign(bytes, bytes + length);
        bytes += length;
        size -= length;
    }
    return key;
}

/// As the system reads: nothing is written of what does not fit, and it says how much there is.
bool read(const Key& key, const wchar_t* name, uint32_t& type, void* data, uint32_t& bytes) {
    const auto found = key.find(name);
    if (found == key.end()) return false;
    const Value& value = found->second;
    const bool fits = value.bytes.size() <= bytes;
    if (fits && !value.bytes.empty()) std::memcpy(data, value.bytes.data(), value.bytes.size());
    type = value.type;
    bytes = static_cast<uint32_t>(value.bytes.size());
    return fits;
}

uint32_t expectedNumber(const Key& key, const wchar_t* name, uint32_t missing) {
    const auto found = key.find(name);
    if (found == key.end() || found->second.type != 4 || found->second.bytes.size() != 4) return missing;
    uint32_t number = 0;
    std::memcpy(&number, found->second.bytes.data(), sizeof number);
    return number;
}

void checkDirectory(const Key& key, const LogConfiguration& configuration) {
    const auto found = key.find(L"LogDir");
    const bool expected = found != key.end() && found->second.type == 1 && found->second.bytes.size() <= 520;
    require(configuration.hasDirectory == expected);
    if (!expected) return;
    const std::vector<uint8_t>& bytes = found->second.bytes;
    const size_t whole = bytes.size() / sizeof(wchar_t);
    require(configuration.directory[whole] == 0);
    require(whole == 0 || std::memcmp(configuration.directory, bytes.data(), whole * sizeof(wchar_t)) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const Key key = keyFrom(bytes, size);
    const LogConfiguration configuration =
        logConfigurationFrom([&](const wchar_t* name, uint32_t& type, void* data, uint32_t& room) {
            return read(key, name, type, data, room);
        });
    const std::span<const LogOutputKind> kinds = logOutputKinds();
    for (size_t row = 0; row < kinds.size(); ++row) {
        require(configuration.details[row] == expectedNumber(key, kinds[row].detailValue, 0));
        require(configuration.thresholds[row] == expectedNumber(key, kinds[row].thresholdValue, 7));
    }
    checkDirectory(key, configuration);

    // The file channel exists on Windows only.
    const bool opens = configuration.details[0] != 0 || configuration.details[2] != 0;
    LogEngine* engine = logFindOrCreateEngine(kTarnisLogHandle);
    const wchar_t* directory = configuration.hasDirectory ? configuration.directory : nullptr;
    require((logOpen(kTarnisLogHandle, directory, configuration.details) == 0) == opens);
    if (opens) {
        engine->applyThresholds(configuration.thresholds);
        logUpdateFloor();
        LogRecord record;
        for (const uint32_t severity : {0u, 3u, 4u, 5u, 6u, 0xFFFFFFFFu}) {
            record.severity = severity;
            require(LogSend(kTarnisLogHandle, record) == 0);
        }
        LogClose(kTarnisLogHandle);
    }
    require(logFindEngine(kTarnisLogHandle) == nullptr);
    return 0;
}
