// Measures the white balance of one live frame of the card. Blocks for about a frame's time; called under the filter's
// state lock.
#pragma once

#include "capture/white_balance.h"
#include "device/tarnis.h"

#include <windows.h>

namespace kestra {

class ColorControls;

/// What analyzing answers when ippLib.dll cannot be used: an incomplete installation, not a picture without an answer.
constexpr HRESULT kImageLibraryMissing = HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);

/// Captures one frame without gains and offsets, into memory of its own, and means its three channels. The card has
/// its gains back as soon as the frame is there, or is known not to come.
/// @param isGrabbing  the channel is grabbing what `cameraData` says: it is left alone if another signal is there now
/// @param cameraData  in: what the channel produces, as it was prepared if it is grabbing; out: the frame's geometry
/// @param result      written only on success
/// @return E_ACCESSDENIED: another program holds the channel; E_OUTOFMEMORY; E_FAIL: no signal or no frame;
///         kImageLibraryMissing: nothing was measured. Failures are logged.
HRESULT analyzeLiveFrame(TARNIS_HANDLE grabber, ColorControls& colors, bool isGrabbing, TarnisCameraData& cameraData,
                         WhiteBalance& result);

} // namespace kestra
