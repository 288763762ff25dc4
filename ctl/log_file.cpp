// Where the log is follows from the values that the library reads, too.
#include "ctl/log_file.h"

#include "ctl/exit_code.h"
#include "ctl/output_file.h"
#include "ctl/user_registry.h"
#include "protocol/user_settings.h"

namespace kestra::ctl {

std::string logFolder() {
    return readText(kLogKey, L"LogDir").value_or("");
}

std::string logFile(const std::string& wanted) {
    return wanted.empty() ? logFolder() + "TARNIS.txt" : wanted;
}

std::string readLog(const std::string& wanted) {
    try {
        return readFile(logFile(wanted));
    } catch (const Failure& failure) {
        if (!wanted.empty() || readNumber(kLogKey, L"FileOutDetail").value_or(0) != 0) throw;
        throw Failure(failure.code(), failure.what(), std::string("the log is off: ") + kLogSwitchOn);
    }
}

} // namespace kestra::ctl
