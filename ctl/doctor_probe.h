// What might hang or crash the doctor's own process: loading the module, and running its filters. The program starts
// itself again for that, and ends what takes too long. Windows only; one thread's.
#pragma once

#include "ctl/json.h"

#include <windows.h>

#include <string>

namespace kestra::ctl {

class Console;

/// One of the two filters, as the system knows it.
struct FilterKind {
    const char* id; ///< "video", "audio"
    const CLSID& clsid;
    const CLSID& category; ///< the system's list that it stands in
};
extern const FilterKind kVideoFilter, kAudioFilter;

/// True if the system's list of capture devices, as applications read it, holds the filter. Needs COM.
bool isListed(const FilterKind& kind);

/// In the child: does it and writes one line of JSON.
/// @param what  "module", "video" or "audio"
/// @param file  of the module
void runProbe(const std::string& what, const std::string& file, Console& console);

/// In the parent: what the child wrote. If it took too long or did not end well, "failed" says so.
/// Throws Failure if the user has pressed Ctrl-C.
Json probe(const std::string& what, const std::wstring& file, Console& console);

} // namespace kestra::ctl
