// No channels of our own on this system.
#include "log/engine.h"

namespace kestra {

std::unique_ptr<LogOutput> makeLogOutput(LogOutput::Type, const wchar_t*, const wchar_t*) noexcept {
    return nullptr;
}

} // namespace kestra
