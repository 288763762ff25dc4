// Registration with the filter mapper, the type library and COM. Called by regsvr32 on its thread.
#pragma once

#include <windows.h>

namespace kestra {

/// Enters the filters in their capture categories; registers the type library and the module's classes.
/// @return the result of registering the last filter or the classes; earlier failures are ignored
HRESULT registerModule() noexcept;
/// Undoes it. @return the result of removing the classes
HRESULT unregisterModule() noexcept;

} // namespace kestra
