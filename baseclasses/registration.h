// Entering filters with the system's filter mapper.
#pragma once

#include "setup_data.h"

namespace kestra::com {

/// Enters or removes one filter through a filter mapper of its own. Any thread; initialises COM where it is not.
HRESULT registerFilter(const AMOVIESETUP_FILTER& filter, BOOL registered);

} // namespace kestra::com
