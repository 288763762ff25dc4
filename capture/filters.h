// The two filters as a class factory makes them: all that other folders see of this one.
#pragma once

#include <streams.h>

namespace kestra {

/// Makes the video filter. @param result  receives E_FAIL if no card has a signal, E_OUTOFMEMORY without memory
CUnknown* CALLBACK createVideoFilter(LPUNKNOWN outer, HRESULT* result);
/// Makes the audio filter. @param result  receives E_FAIL if no card has sound, E_OUTOFMEMORY without memory
CUnknown* CALLBACK createAudioFilter(LPUNKNOWN outer, HRESULT* result);

} // namespace kestra
