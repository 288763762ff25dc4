// Runs tests, each in a child process of its own, which may crash or hang.
#pragma once

#include "compliance/tests.h"

#include <functional>

namespace kestra::compliance {

struct Result {
    const Test* test;
    Verdict verdict;
    std::string expected, got, call, warnings;
    double milliseconds = 0;
    std::vector<Series> series;
    std::vector<std::pair<std::string, std::string>> facts;
    std::string excuse;          ///< the profile's reason for a deviation
    bool excuseUnneeded = false; ///< the profile excuses it, but it does not deviate
    bool failed() const { return verdict == Verdict::Fail || verdict == Verdict::Crash || verdict == Verdict::Hang; }
};

/// @param childCommand  how this program is started as a child: the subject and the settings
/// @param shared        a child goes on with the next test until one fails: faster, but not as clean
/// @param done          told of each result as it comes
/// @throws NoSubject    before the first test, if there is no filter to test
std::vector<Result> runTests(const std::vector<size_t>& tests, const std::wstring& childCommand,
                             const Settings& settings, bool shared, const std::function<void(const Result&)>& done);

/// The child's side. @param mapping  the name of the memory that it shares with the parent
int runAsChild(const std::wstring& mapping, const SubjectName& name, const Settings& settings);

} // namespace kestra::compliance
