// The property pages, as the class table makes them. A page belongs to the thread of the frame that shows it.
#pragma once

#include <streams.h>

namespace kestra {

/// "Color space converter" of the video filter. @param phr receives E_OUTOFMEMORY; the result is then null
CUnknown* CALLBACK createConverterPage(LPUNKNOWN pUnk, HRESULT* phr);
/// "RGB Gain/Offset" of the video filter.
CUnknown* CALLBACK createGainPage(LPUNKNOWN pUnk, HRESULT* phr);
/// "Audio Format" of the audio pin.
CUnknown* CALLBACK createAudioPage(LPUNKNOWN pUnk, HRESULT* phr);

} // namespace kestra
