// Handles that closing a log waits for. Windows only.
#pragma once

namespace kestra {

/// Gives a waitable handle to the log: the next LogClose waits for it (pumping messages) and closes it.
/// @return false if memory is short; the handle then stays the caller's.
bool logAddPendingHandle(void* handle) noexcept;

} // namespace kestra
