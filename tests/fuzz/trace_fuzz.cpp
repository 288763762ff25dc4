// Any bytes as a trace's files: reading them gives what is there or says that it is none.
#include "trace/trace_reader.h"

#include <cstdlib>

using namespace kestra::trace;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    // The first byte says where the second file begins.
    if (size == 0) return 0;
    const std::span<const uint8_t> all(bytes + 1, size - 1);
    const size_t first = bytes[0] == 0 ? all.size() : all.size() * bytes[0] / 256;
    std::vector<std::vector<uint8_t>> files{{all.begin(), all.begin() + ptrdiff_t(first)}};
    if (first != all.size()) files.emplace_back(all.begin() + ptrdiff_t(first), all.end());
    try {
        const Trace trace = readTrace(files);
        size_t kept = 0;
        for (const Request& request : trace.requests) {
            if (request.end100ns < request.begin100ns) std::abort();
            if (!request.hasBegun && !request.hasEnded) std::abort();
            kept += request.sent.size() + request.reply.size();
        }
        for (const Event& event : trace.events)
            kept += event.content.size();
        if (kept > size) std::abort();
    } catch (const NoTrace&) {
    }
    return 0;
}
