// What one can ask a card about its input and its converter, one request or a few each. Any thread; each returns a
// TarnisResult and leaves its out-argument alone on failure. Portable: Requests is CardRequests, or whatever else asks
// and judges as that does. Private to device/.
#pragma once

#include "device/replies.h"
#include "protocol/converter.h"
#include "protocol/frame_rate.h"
#include "protocol/records.h"
#include "protocol/registers.h"

#include <cstdint>

namespace kestra {

/// Questions about an input go to the even port of the pair, whichever port is given.
template <class Requests>
uint32_t isConnected(Requests& requests, int8_t port, uint8_t& connected) noexcept {
    wire::Header request{};
    wire::ConnectionReply reply{};
    const RequestResult result = requests.template ask<wire::Connection>(wire::inputPort(port), request, reply);
    if (result.status == TARNIS_SUCCESS) connected = reply.connected;
    return result.status;
}

template <class Requests>
uint32_t readRegister(Requests& requests, int8_t port, uint16_t registerNumber, uint16_t& value) noexcept {
    wire::ReadRegisterRequest request{{}, registerNumber};
    wire::ReadRegisterReply reply{};
    const RequestResult result = requests.template ask<wire::ReadRegister>(wire::inputPort(port), request, reply);
    if (result.status == TARNIS_SUCCESS) value = reply.value;
    return result.status;
}

template <class Requests>
uint32_t grabStatistics(Requests& requests, int8_t port, TarnisGrabStat& statistics) noexcept {
    wire::Header request{};
    wire::GrabStatisticsReply reply{};
    const RequestResult result = requests.template ask<wire::GrabStatistics>(port, request, reply);
    if (result.status == TARNIS_SUCCESS)
        statistics = {reply.frameRate, {reply.counter64, reply.counter48, reply.counter28, reply.counter32}};
    return result.status;
}

template <class Requests>
uint32_t cameraStatus(Requests& requests, int8_t port, TarnisCameraStatus& status) noexcept {
    const int8_t input = wire::inputPort(port);
    wire::Header request{};
    wire::VideoStatusReply video{};
    const RequestResult result = requests.template ask<wire::VideoStatus>(input, request, video);
    if (result.status != TARNIS_SUCCESS) return result.status;
    status.videoMode = video.videoMode;
    status.formatByte = video.formatByte;
    status.signalFlags = video.signal != 0 ? TARNIS_SIGNAL_PRESENT : 0;

    uint16_t format = 0;
    readRegister(requests, input, kRegisterInput, format);
    status.interlaced = (format & kInputInterlaced) != 0 ? 1 : 0;

    TarnisGrabStat statistics{};
    grabStatistics(requests, input, statistics);
    status.frameRate = rateOfMeasured(statistics.frameRate, format);

    wire::FormatSizeReply size{};
    if (requests.template ask<wire::FormatSize>(input, request, size).status == TARNIS_SUCCESS) {
        status.width = size.width;
        status.height = size.height;
    }
    if (status.signalFlags & TARNIS_SIGNAL_PRESENT) {
        uint16_t audio = 0;
        readRegister(requests, input, kRegisterInput, format);
        const bool other = (format & kInputAudioAlternate) != 0;
        readRegister(requests, input, other ? kRegisterAudioAlternate : kRegisterAudio, audio);
        if (audio & (other ? kAudioAlternateMask : kAudioMask)) status.signalFlags |= TARNIS_SIGNAL_AUDIO;
    }
    return TARNIS_SUCCESS;
}

template <class Requests>
uint32_t getConverter(Requests& requests, TarnisConverterParams& params) noexcept {
    wire::Header request{};
    wire::GetConverterReply reply{};
    const RequestResult result = requests.template ask<wire::GetConverter>(0, request, reply);
    if (result.status == TARNIS_SUCCESS) params = wire::fromWire(reply.converter);
    return result.status;
}

template <class Requests>
uint32_t setConverter(Requests& requests, const TarnisConverterParams& params) noexcept {
    wire::SetConverterRequest request{{}, wire::toWire(params)};
    wire::Reply reply{};
    return requests.template ask<wire::SetConverter>(0, request, reply).status;
}

} // namespace kestra
