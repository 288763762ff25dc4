// Enumerators of a filter's pins and of a pin's media types.
#pragma once

#include "pin.h"

namespace kestra::com {

/// Out of sync once the pins have changed, until Reset. Holds the filter. One thread at a time; no lock.
/// @return the caller's reference. Throws std::bad_alloc and whatever the filter throws
IEnumPins* enumerate(CBaseFilter& filter);
/// Likewise; holds the pin.
IEnumMediaTypes* enumerate(CBasePin& pin);

} // namespace kestra::com
