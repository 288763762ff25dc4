// The grabbing thread of a channel. Private to device/.
#pragma once

#include "device/grabber.h"

namespace kestra {

/// Makes a run the channel's current one and starts its thread, which keeps the instance alive.
/// @return null if there is no thread to be had.
std::shared_ptr<GrabRun> startGrabThread(TARNIS_GIS& instance, int8_t port, uint32_t startParam,
                                         TarnisCameraData* cameraData, TarnisFrameCallback callback,
                                         uint64_t context) noexcept;

} // namespace kestra
