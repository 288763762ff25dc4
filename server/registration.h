// Registration with the filter mapper, the type library and COM. Called by regsvr32 on its thread.
#pragma once

#include <windows.h>

namespace kestra {

/// Puts the filters into their capture categories, registers the type library and the classes of the module.
/// @return what the last filter's or the classes' registration answered; the others' failures are passed over
HRESULT registerModule() noexcept;
/// Takes it all back. @return what the removal of the classes answered
HRESULT unregisterModule() noexcept;

} // namespace kestra
