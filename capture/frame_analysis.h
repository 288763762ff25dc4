// Measures one live frame of the card. Blocks for about a frame's time; called under the filter's state lock.
#pragma once

#include "device/tarnis.h"

#include <windows.h>

namespace kestra {

/// Captures one frame into memory of its own and means its three channels.
/// @param cameraData in: what the channel produces, just as it was prepared if it is grabbing; out: the frame's
/// geometry
/// @param means      of blue, green and red
/// @return E_ACCESSDENIED: another program holds the channel; E_OUTOFMEMORY; E_FAIL: no signal or no frame;
///         HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND): no image library, which is logged. `means` is written only on
///         success.
HRESULT meanOfLiveFrame(TARNIS_HANDLE grabber, TarnisCameraData& cameraData, double (&means)[3]) noexcept;

} // namespace kestra
