// tarnis.dll: the device library and the decoder for programs that want the card itself, without DirectShow. Their
// code is in device/ and decode/; here is what a module adds.
#include "log/log.h"

namespace {

kestra::LogLifetime g_log; // the library's log is open for as long as the module is loaded

} // namespace
