// Creates the two filters for a class factory: all that other folders see of this one.
#pragma once

#include <streams.h>

namespace kestra {

/// Makes the video filter. @param result  receives E_FAIL if no card has a signal, E_OUTOFMEMORY if memory runs out
CUnknown* CALLBACK createVideoFilter(LPUNKNOWN outer, HRESULT* result);
/// Makes the audio filter. @param result  receives E_FAIL if no card carries sound, E_OUTOFMEMORY if memory runs out
CUnknown* CALLBACK createAudioFilter(LPUNKNOWN outer, HRESULT* result);

} // namespace kestra
