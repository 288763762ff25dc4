// One stub a row of the table.
#include "tests/ctl/verb_stubs.h"

#include "ctl/verbs.h"

namespace kestra::test {

LastRun& lastRun() {
    static LastRun run;
    return run;
}

} // namespace kestra::test

namespace kestra::ctl {

#define KESTRA_STUB(name, Function, takes, help, example)                                                              \
    ExitCode run##Function(const Options& options, Console&) {                                                         \
        test::lastRun() = {name, options};                                                                             \
        return ExitCode::Done;                                                                                         \
    }
KESTRA_CTL_VERBS(KESTRA_STUB)
#undef KESTRA_STUB

} // namespace kestra::ctl
