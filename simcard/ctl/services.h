// The service manager of the system, which starts and stops drivers. Any thread.
#pragma once

namespace kestra::simcard {

/// Waits until there is one service manager, and says on standard error what it waits for. Where a Wine prefix's last
/// program has just ended and the next one begins, its old service manager is still there beside the new one. They
/// answer in turn, and what one was told the other does not know. The old one goes as soon as no program runs, so not
/// while the caller does: after three seconds it is ended. Throws ControlError after a minute.
void awaitOneServiceManager();

} // namespace kestra::simcard
