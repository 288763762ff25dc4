// Measures the white balance of one live frame of the card. Blocks for about a frame's time; called under the filter's
// state lock.
#pragma once

#include "capture/white_balance.h"
#include "device/tarnis.h"

#include <windows.h>

namespace kestra {

class ColorControls;

/// Returned when ippLib.dll cannot be used: the installation is incomplete.
constexpr HRESULT kImageLibraryMissing = HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);

/// Captures one frame with gains and offsets switched off, into its own memory, and averages its three channels. The
/// card gets its gains back as soon as the frame has arrived or failed.
/// @param isGrabbing  the channel is grabbing what `cameraData` says; if the signal has changed since, it is left alone
/// @param cameraData  in: what the channel produces, must equal the prepared record while grabbing; out: the frame's
/// geometry
/// @param result      written only on success
/// @return E_ACCESSDENIED: another program holds the channel; E_OUTOFMEMORY; E_FAIL: no signal or no frame;
///         kImageLibraryMissing: nothing was measured. Failures are logged.
HRESULT analyzeLiveFrame(TARNIS_HANDLE grabber, ColorControls& colors, bool isGrabbing, TarnisCameraData& cameraData,
                         WhiteBalance& result);

} // namespace kestra
