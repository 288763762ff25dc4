// A second process beside a test, which captures from the same device.
#pragma once

#include "compliance/subject.h"

namespace kestra::compliance {

/// How this program is started for the same subject, without anything else. Set once at the start.
void setOwnCommand(std::wstring command);
/// Runs it as "--second ROLE". @return its exit code; 259: it did not end in time, and was ended
DWORD runSecondProcess(const wchar_t* role, DWORD milliseconds);
/// What it does there. @param role  capture: 0 captured, 2 refused, 1 no samples; die: ends itself with 9 while it runs
int secondProcess(const SubjectName& name, const std::wstring& role);

} // namespace kestra::compliance
