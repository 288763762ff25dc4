// Walks over all functions of the device library: two cards, six handles, four threads, callbacks that call back, and
// cards that are pulled, change their input, and answer as no card should.
#include "tests/walk/device_world.h"

#include <cstdio>

namespace kestra::walk {
namespace {

enum : uint16_t {
    kInit,
    kInitRefused,
    kDone,
    kDoneWhileAsked,
    kGetAccess,
    kReleaseAccess,
    kBufferCount,
    kCameraStatus,
    kConnected,
    kGrabStat,
    kDefaultConverter,
    kGetConverter,
    kSetConverter,
    kStartGrab,
    kStopGrab,
    kSnap,
    kPrepare,
    kReadRegister,
    kEnumerate,
    kInvalid,
    kAwaitFrames,
    kSleep,
    kCardSteps
};
const std::vector<Call> kCalls = withCardCalls({
    {"TARNIS_InitByHandle", 6, 4},
    {"TARNIS_InitByHandle, refused", 3, 0},
    {"TARNIS_Done", 3, 2},
    {"TARNIS_Done, a call under way", 1, 0},
    {"TARNIS_GetDMAAccess", 22, 20},
    {"TARNIS_ReleaseDMAAccess", 5, 5},
    {"TARNIS_SetBufferCount", 3, 3},
    {"TARNIS_GetCameraStatus", 6, 6},
    {"TARNIS_IsCameraConnected", 6, 6},
    {"TARNIS_GetGrabStat", 5, 5},
    {"TARNIS_GetDefaultColorSpaceConverterParams", 1, 1},
    {"TARNIS_GetColorSpaceConverterParams", 4, 4},
    {"TARNIS_SetColorSpaceConverterParams", 4, 4},
    {"TARNIS_StartGrab", 16, 16},
    {"TARNIS_StopGrab", 8, 8},
    {"TARNIS_SnapFrames", 4, 4},
    {"noexp_TARNIS_Prepare", 4, 4},
    {"noexp_TARNIS_ReadI2C", 4, 4},
    {"TARNIS_EnumOpen/Next/Close", 3, 3},
    {"with invalid arguments", 6, 6},
    {"wait for frames", 10, 12},
    {"wait", 6, 6},
});

} // namespace

const std::vector<Call>& DeviceWorld::calls() const {
    return kCalls;
}

void DeviceWorld::begin(const Act& act) {
    m_slowStops = 0;
    beginCards(act, kSignals.size());
}

uint32_t DeviceWorld::step(const Step& step) {
    const uint32_t a = step.a, b = step.b;
    const auto port = static_cast<int8_t>(b >> 31);
    if (step.call == kInitRefused || step.call == kDoneWhileAsked) m_cardsAnswer = false;
    noteStep(step.call - kCardSteps);
    if (step.call >= kCardSteps) return cardStep(step.call - kCardSteps, a, b);
    switch (step.call) {
    case kInit:
        return open(a, b);
    case kInitRefused:
        return openRefused(a, b);
    case kEnumerate:
        return enumerate(a, b);
    case kSleep:
        Sleep(a % 8 == 0 ? b % 150 : b % 25);
        return 0;
    case kDefaultConverter: {
        TarnisConverterParams params{};
        return expected(TARNIS_GetDefaultColorSpaceConverterParams(&params), {0}, "default converter");
    }
    default:
        break;
    }
    Slot& slot = slotOf(a);
    if (step.call == kDone) return done(slot);
    if (step.call == kDoneWhileAsked) return doneWhileAsked(slot, b);
    const Use use(slot);
    if (step.call == kInvalid) return invalid(use.handle, b);
    if (!use.handle) return kNotMade;
    const auto asked = [&](uint32_t result) {
        if (m_calm) return expected(result, {0}, kCalls[step.call].name);
        return expected(result, {0, 4, 254, 255}, kCalls[step.call].name);
    };
    switch (step.call) {
    case kGetAccess:
        return changeAccess(slot, use.handle, port, true);
    case kReleaseAccess:
        return changeAccess(slot, use.handle, port, false);
    case kBufferCount:
        return expected(withAccess(slot, port, "TARNIS_SetBufferCount",
                                   [&] { return TARNIS_SetBufferCount(use.handle, port, b % 64); }),
                        {0, 253}, "TARNIS_SetBufferCount");
    case kCameraStatus: {
        TarnisCameraStatus status{};
        const uint32_t result = asked(TARNIS_GetCameraStatus(use.handle, port, &status));
        if (m_calm && (status.width == 0 || (status.signalFlags & TARNIS_SIGNAL_PRESENT) == 0))
            fail("result", "a signal is not seen");
        return result;
    }
    case kConnected: {
        uint8_t connected = 7;
        const uint32_t result = asked(TARNIS_IsCameraConnected(use.handle, port, &connected));
        if (result != TARNIS_SUCCESS && connected != 7) fail("result", "a failed question has changed its answer");
        if (m_calm && connected != 1) fail("result", "a signal is not seen");
        return result;
    }
    case kGrabStat: {
        TarnisGrabStat statistics{};
        return asked(TARNIS_GetGrabStat(use.handle, port, &statistics));
    }
    case kGetConverter: {
        TarnisConverterParams params{};
        return asked(TARNIS_GetColorSpaceConverterParams(use.handle, &params));
    }
    case kSetConverter:
        return asked(TARNIS_SetColorSpaceConverterParams(use.handle, &converters()[b % converters().size()]));
    case kReadRegister: {
        uint16_t value = 0;
        return asked(noexp_TARNIS_ReadI2C(use.handle, port, static_cast<uint16_t>(b), b % 8 == 0 ? nullptr : &value));
    }
    case kStartGrab:
        return withAccess(slot, port, "TARNIS_StartGrab", [&] { return start(slot, use.handle, port, b); });
    case kStopGrab:
        return withAccess(slot, port, "TARNIS_StopGrab", [&] { return stop(use.handle, port); });
    case kSnap:
        return withAccess(slot, 0, "TARNIS_SnapFrames", [&] { return snap(use.handle, b); });
    case kAwaitFrames:
        return awaitFrames(use.handle, b);
    case kPrepare: {
        TarnisCameraData data{};
        data.outputSelector = b % 3;
        data.extra = b / 3 % 2;
        return expected(withAccess(slot, port, "noexp_TARNIS_Prepare",
                                   [&] { return noexp_TARNIS_Prepare(use.handle, port, &data); }),
                        {0, 4, 253, 254, 255}, "noexp_TARNIS_Prepare");
    }
    default:
        return kNotMade;
    }
}

void DeviceWorld::end() {
    letCardsAnswer();
    for (Slot& slot : m_slots)
        done(slot);
    nowIn("callbacks still running");
    for (const auto& grab : m_grabs)
        while (grab->inside != 0)
            Sleep(1);
    awaitClosedCards();
    m_former.swap(m_grabs);
    m_grabs.clear();
    m_pictures.forget();
}

std::string DeviceWorld::summary() const {
    char text[320];
    std::snprintf(text, sizeof text,
                  "%llu callbacks: %llu frames and %llu blocks of sound as the card made them, %llu with another DMA "
                  "status, %llu for another format, %llu late; %llu looked at twice; %llu times a card was made to "
                  "answer\n",
                  m_callbacks.load(), m_pictures.frames(), m_pictures.blocks(), m_otherStatus.load(), m_lost.load(),
                  m_late.load(), m_twice.load(), m_rescues.load());
    return text;
}

} // namespace kestra::walk

int main(int argc, char** argv) {
    return kestra::walk::walkOverCards<kestra::walk::DeviceWorld>(argc, argv);
}
