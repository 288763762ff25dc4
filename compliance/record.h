// What the process that runs a test leaves for the one that started it: in shared memory, so that the last call is
// known even if that process crashed or hangs. Plain data.
#pragma once

#include <windows.h>

namespace kestra::compliance {

enum class Verdict : LONG { Ok, Fail, NotApplicable, Warning, Crash, Hang };

/// Measured values that the report draws, in the order in which they came.
struct Series {
    static constexpr int kMost = 1200;
    char name[32];
    LONG count;
    double values[kMost];
};

/// The child writes, the parent reads after `finished` or the child's end.
struct TestRecord {
    static constexpr int kSeries = 6;
    volatile LONG finished;
    Verdict verdict;
    char call[240]; ///< that is about to be made, or being made
    char expected[400], got[600], warnings[1200];
    DWORD exceptionCode;   ///< of a crash; 0: none
    char exceptionAt[160]; ///< module and offset
    double milliseconds;
    LONG seriesCount;
    Series series[kSeries];
    char facts[12000]; ///< lines "name\tvalue" that a test found out about the filter
};

/// The mapping between the two processes: the parent names a test, the child runs it.
struct Exchange {
    static constexpr LONG kProbe = -1;
    volatile LONG test; ///< index into the list of tests; kProbe: whether there is a filter at all
    TestRecord record;
};

} // namespace kestra::compliance
