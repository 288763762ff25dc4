// The files of one trace lie beside each other: name.ktrace, name.1.ktrace, ...
#include "ctl/trace_files.h"

#include "ctl/exit_code.h"
#include "ctl/output_file.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "ctl/user_registry.h"
#include "protocol/user_settings.h"
#include "win32/handle.h"

#include <windows.h>

#include <algorithm>

namespace kestra::ctl {

namespace {

constexpr char kEnding[] = ".ktrace";

std::vector<uint8_t> bytesOfFile(const std::string& name) {
    const std::string bytes = readFile(name);
    return {bytes.begin(), bytes.end()};
}

bool exists(const std::string& name) {
    return GetFileAttributesW(wideOfUtf8(name).c_str()) != INVALID_FILE_ATTRIBUTES;
}

} // namespace

std::string traceFolder() {
    return readText(kLogKey, kTraceFolderValue).value_or("");
}

std::vector<std::string> lastTraceFiles() {
    std::string folder = traceFolder();
    if (folder.empty()) folder = readText(kLogKey, kTraceLastFolderValue).value_or("");
    if (folder.empty()) return {};
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(wideOfUtf8(format("%s\\kestra-*%s", folder.c_str(), kEnding)).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return {};
    std::string last; // their names begin with the time
    do {
        const std::string name = utf8OfWide(found.cFileName);
        if (std::count(name.begin(), name.end(), '.') == 1 && name > last) last = name;
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return last.empty() ? std::vector<std::string>() : filesOfTrace(format("%s\\%s", folder.c_str(), last.c_str()));
}

std::vector<std::string> filesOfTrace(const std::string& first) {
    std::vector<std::string> files{first};
    if (!first.ends_with(kEnding)) return files;
    for (uint32_t i = 1; i < trace::kFiles; ++i) {
        const std::string next = withEnding(first, format(".%u%s", i, kEnding));
        if (exists(next)) files.push_back(next);
    }
    return files;
}

trace::Trace loadTrace(const std::string& first) {
    std::vector<std::vector<uint8_t>> files;
    try {
        for (const std::string& name : filesOfTrace(first)) {
            std::vector<uint8_t> bytes = bytesOfFile(name);
            // Another trace's may have such a name.
            if (files.empty() || trace::headOf(bytes).trace == trace::headOf(files.front()).trace)
                files.push_back(std::move(bytes));
        }
        return trace::readTrace(files);
    } catch (const trace::NoTrace& no) {
        throw Failure(ExitCode::Failure, first + " cannot be read: " + no.what(),
                      "kestra-ctl trace status names the last trace");
    }
}

} // namespace kestra::ctl
