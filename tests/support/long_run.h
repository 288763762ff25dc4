// How long a test runs: its ordinary form, or with KESTRA_LONG=1 its long one (`./kestra soak`). Portable.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace kestra::test {

inline bool isLongRun() {
    const char* value = std::getenv("KESTRA_LONG");
    return value && value[0] == '1';
}

/// How often a test does what it repeats: `ordinary` times; in a long run `most` times, or that part of them which
/// KESTRA_SOAK_PART gives (above 0, up to 1), but never fewer than ordinarily.
template <class Count>
Count repetitions(Count ordinary, Count most) {
    if (!isLongRun()) return ordinary;
    const char* part = std::getenv("KESTRA_SOAK_PART");
    return std::max(ordinary, static_cast<Count>(static_cast<double>(most) * (part ? std::atof(part) : 1.0)));
}

} // namespace kestra::test
