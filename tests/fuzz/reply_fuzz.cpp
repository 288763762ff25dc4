// Any replies of a driver, of any length, to every question that the library asks: what it makes of them is of the
// kinds that there are, and what failed changed nothing. Each reply lies in a block of exactly its size, so that the
// address sanitizer sees every access beyond.
#include "device/card_queries.h"
#include "device/replies.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace {

using namespace kestra;

/// A card whose answers come from the fuzzer: for each request a byte that says how it ends, one for the length, the
/// reply itself.
class FuzzedCard {
public:
    FuzzedCard(const uint8_t* bytes, size_t size) : m_next(bytes), m_left(size) {}

    template <class R>
    RequestResult ask(int8_t port, typename R::Sent& sent, typename R::Answer& answer) noexcept {
        if (port != 0 && R::kCode != wire::kGrabStatistics) std::abort(); // questions go to the even port
        const wire::Header header{uint8_t(port), 1};
        std::memcpy(&sent, &header, sizeof header);
        RequestResult result;
        if (const uint8_t end = take(); end >= 0xF8) { // the system refused
            result.win32Error = end;
            result.status = end == 0xF8 ? TARNIS_ACCESS_DENIED : end == 0xF9 ? TARNIS_NOT_SUPPORTED : TARNIS_FAILURE;
            return result;
        }
        // Mostly whole replies; a system that counts more than fits is believed as little as one that counts less.
        const uint8_t length = take();
        const uint32_t bytes = length < 0xC0 ? sizeof answer : length - 0xC0;
        const std::unique_ptr<uint8_t[]> reply(new uint8_t[sizeof answer]());
        for (uint32_t i = 0; i < std::min<uint32_t>(bytes, sizeof answer); ++i)
            reply[i] = i < sizeof(wire::Reply) && length < 0x80 ? 0 : take();
        std::memcpy(&answer, reply.get(), sizeof answer);
        switch (kindOfReply(reply.get(), bytes, wire::kReadBytes<typename R::Answer>)) {
        case ReplyKind::Good:
            if (bytes < wire::kReadBytes<typename R::Answer> || driverResultOf(reply.get()) != 0) std::abort();
            break;
        case ReplyKind::Refused:
            if (driverResultOf(reply.get()) == 0) std::abort();
            result.status = TARNIS_FAILURE;
            break;
        case ReplyKind::Short:
            result.status = TARNIS_FAILURE;
            break;
        }
        return result;
    }
    bool hasMore() const { return m_left != 0; }
    uint8_t take() {
        if (m_left == 0) return 0;
        --m_left;
        return *m_next++;
    }

private:
    const uint8_t* m_next;
    size_t m_left;
};

bool isResult(uint32_t code) {
    return code == TARNIS_SUCCESS || code == TARNIS_ACCESS_DENIED || code == TARNIS_NOT_SUPPORTED ||
           code == TARNIS_FAILURE;
}

/// Asks with an out-argument full of a pattern: a failure leaves it alone.
template <class Value, class Ask>
bool asks(Value& value, const Ask& ask) {
    std::memset(&value, 0xA5, sizeof value);
    const Value before = value;
    const uint32_t code = ask(value);
    if (!isResult(code)) std::abort();
    if (code != TARNIS_SUCCESS && std::memcmp(&before, &value, sizeof value) != 0) std::abort();
    return code == TARNIS_SUCCESS;
}

void checkStatus(FuzzedCard& card, int8_t port) {
    TarnisCameraStatus status{};
    if (!asks(status, [&](TarnisCameraStatus& out) { return cameraStatus(card, port, out); })) return;
    if (status.interlaced > 1 || (status.signalFlags & ~(TARNIS_SIGNAL_PRESENT | TARNIS_SIGNAL_AUDIO)) != 0)
        std::abort();
    if ((status.signalFlags & TARNIS_SIGNAL_AUDIO) && !(status.signalFlags & TARNIS_SIGNAL_PRESENT)) std::abort();
    if (status.videoMode > 0xFF || (status.interlaced == 1 && status.frameRate % 2 != 0)) std::abort();
    if (framesOfRate(reportedRate(status), status.interlaced == 1) > 255) std::abort();
}

void checkConverter(FuzzedCard& card) {
    TarnisConverterParams params{};
    if (!asks(params, [&](TarnisConverterParams& out) { return getConverter(card, out); })) return;
    for (const float value :
         {params.Y1, params.R1, params.G1, params.G2, params.B1, params.RedGain, params.GreenGain, params.BlueGain})
        if (!std::isfinite(value)) std::abort();
    // What a card says of itself, sent back, is within a unit of the last place of a float.
    const wire::Converter sent = wire::toWire(params);
    if (sent.yOff != params.YOff || wire::offsetFromWire(sent.redOffset) != params.RedOffset) std::abort();
    if (!isResult(setConverter(card, params))) std::abort();
}

/// The answer to a lock request: only a whole, good one whose buffer is known is shown to a client.
void checkLock(FuzzedCard& card) {
    constexpr uint64_t kBase = 0x10000;
    wire::LockBufferReply reply{};
    const uint32_t bytes = card.take() % (sizeof reply + 4);
    std::unique_ptr<uint8_t[]> raw(new uint8_t[sizeof reply]());
    for (uint32_t i = 0; i < std::min<uint32_t>(bytes, sizeof reply); ++i)
        raw[i] = card.take();
    std::memcpy(&reply, raw.get(), sizeof reply);
    const ReplyKind kind = kindOfReply(raw.get(), bytes, wire::kReadBytes<wire::LockBufferReply>);
    if (kind == ReplyKind::Good && !namesBuffer(reply, bytes)) std::abort(); // what is shown also goes back
    const uint32_t size = 1 + card.take() * 16u, count = card.take() % 11;
    const uint64_t address =
        card.take() < 0x80 ? kBase + reply.bufferId % 11 * uint64_t{size} : uint64_t{reply.bufferAddress};
    const bool known = isBuffer(address, kBase, size, count);
    const bool inside = address >= kBase && address - kBase < uint64_t{size} * count && (address - kBase) % size == 0;
    if (known != inside) std::abort();
    if (known && address + size > kBase + uint64_t{size} * count) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedCard card(bytes, size);
    while (card.hasMore()) {
        const uint8_t what = card.take();
        const auto port = static_cast<int8_t>(what >> 4 & 1);
        uint8_t connected = 0;
        uint16_t value = 0;
        TarnisGrabStat statistics{};
        switch (what % 6) {
        case 0:
            asks(connected, [&](uint8_t& out) { return isConnected(card, port, out); });
            break;
        case 1:
            asks(value, [&](uint16_t& out) { return readRegister(card, port, kRegisterInput, out); });
            break;
        case 2:
            asks(statistics, [&](TarnisGrabStat& out) { return grabStatistics(card, port, out); });
            break;
        case 3:
            checkStatus(card, port);
            break;
        case 4:
            checkConverter(card);
            break;
        default:
            checkLock(card);
        }
    }
    return 0;
}
