// The file that the library logs into, as the user has configured it.
#pragma once

#include <string>

namespace kestra::ctl {

inline constexpr char kLogSwitchOn[] =
    "kestra-ctl log set detail=3 folder=FOLDER switches it on for programs that start then";

/// The folder that the log's file lies in, ended by a backslash; empty: each program's current one.
std::string logFolder();
/// @param wanted  a log's name; empty: the configured one
std::string logFile(const std::string& wanted);
/// What it holds. Throws Failure.
std::string readLog(const std::string& wanted);

} // namespace kestra::ctl
