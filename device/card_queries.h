// What one can ask a card about its input and its converter. Any thread; each returns a TarnisResult and leaves its
// out-argument alone on failure. Private to device/.
#pragma once

#include "device/card_requests.h"
#include "protocol/records.h"

#include <cstdint>

namespace kestra {

/// Questions about an input go to the even port of the pair, whichever port is given.
uint32_t isConnected(CardRequests& requests, int8_t port, uint8_t& connected) noexcept;
uint32_t cameraStatus(CardRequests& requests, int8_t port, TarnisCameraStatus& status) noexcept;
uint32_t readRegister(CardRequests& requests, int8_t port, uint16_t registerNumber, uint16_t& value) noexcept;

uint32_t grabStatistics(CardRequests& requests, int8_t port, TarnisGrabStat& statistics) noexcept;
uint32_t getConverter(CardRequests& requests, TarnisConverterParams& params) noexcept;
uint32_t setConverter(CardRequests& requests, const TarnisConverterParams& params) noexcept;

} // namespace kestra
