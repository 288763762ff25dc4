// Grabs of the device library: their starts and ends, and what each callback checks and does.
#include "simcard/ctl/control.h"
#include "tests/support/wait_until.h"
#include "tests/walk/device_world.h"

#include <cstdio>

namespace kestra::walk {

using namespace kestra::simcard;

std::vector<Grab*> DeviceWorld::grabsOf(TARNIS_HANDLE handle, int port) {
    const std::lock_guard lock(m_lock);
    std::vector<Grab*> found;
    for (const auto& grab : m_grabs)
        if (grab->handle == handle && (port < 0 || grab->port == port) && grab->started && !grab->over)
            found.push_back(grab.get());
    return found;
}

std::vector<Grab*> DeviceWorld::endingGrabsOf(TARNIS_HANDLE handle, int port) {
    std::vector<Grab*> grabs = grabsOf(handle, port);
    for (Grab* grab : grabs)
        grab->ending = true;
    return grabs;
}

void DeviceWorld::areOver(const std::vector<Grab*>& grabs, ULONGLONG since) {
    const ULONGLONG now = GetTickCount64();
    const bool givenUp = now - since >= kGivenUpMs;
    for (Grab* grab : grabs) {
        (givenUp ? grab->givenUp : grab->over) = true;
        // Another stop may have given a long callback up.
        if (!givenUp && grab->inside != 0 && grab->insideThread != GetCurrentThreadId() &&
            now - grab->insideSince < kGivenUpMs)
            fail("waiting", "a grab is over while its callback runs");
    }
}

void DeviceWorld::judgeStop(TARNIS_HANDLE handle, ULONGLONG since) {
    const ULONGLONG now = GetTickCount64();
    if (!m_cardsAnswer || now - since < kGivenUpMs || m_lastLongCallback >= since) return;
    {
        const std::lock_guard lock(m_lock);
        for (const auto& grab : m_grabs)
            if (grab->handle == handle && grab->inside != 0) return;
    }
    if (++m_slowStops == 2)
        fail("slow", "the second stop of " + std::to_string(now - since) + " ms without a callback");
}

uint32_t DeviceWorld::start(Slot& slot, TARNIS_HANDLE handle, int8_t port, uint32_t b) {
    Grab* grab = nullptr;
    {
        const std::lock_guard lock(m_lock);
        m_grabs.push_back(std::make_unique<Grab>());
        grab = m_grabs.back().get();
    }
    grab->world = this;
    grab->handle = handle;
    grab->slot = static_cast<size_t>(&slot - m_slots);
    grab->port = port;
    const uint32_t kind = b % 16; // many do nothing but look
    grab->action = kind < 10 ? kind : 0;
    grab->every = 1 + b / 16 % 5;
    TarnisCameraData data{};
    data.outputSelector = b / 128 % 16 == 15 ? 7 : b / 128 % 3;
    data.outputParameter = b / 2048 % 2;
    data.extra = b / 4096 % 2;
    const uint32_t result =
        TARNIS_StartGrab(handle, port, b / 8192 % 4 == 0 ? 1 : 0, &data, onFrame, reinterpret_cast<uint64_t>(grab));
    if (result == TARNIS_SUCCESS)
        grab->started = true;
    else
        grab->over = true;
    return expected(result, {0, 253, 255}, "TARNIS_StartGrab");
}

uint32_t DeviceWorld::stop(TARNIS_HANDLE handle, int8_t port) {
    const auto grabs = endingGrabsOf(handle, port);
    const ULONGLONG since = GetTickCount64();
    const uint32_t result = TARNIS_StopGrab(handle, port);
    if (result != TARNIS_NO_DMA_ACCESS) areOver(grabs, since);
    judgeStop(handle, since);
    return expected(result, {0, 4, 253, 254, 255}, "TARNIS_StopGrab");
}

/// As many as there are until one has not come for a while.
uint32_t DeviceWorld::awaitFrames(TARNIS_HANDLE handle, uint32_t b) {
    const std::vector<Grab*> grabs = grabsOf(handle, -1);
    if (grabs.empty()) return kNotMade;
    const uint64_t before = m_callbacks;
    return test::waitUntil([&] { return m_callbacks > before + b % 12; }, std::chrono::milliseconds(120)) ? 1 : 0;
}

// What the callback does.

void DeviceWorld::called(Grab& grab, const TarnisFrameInfo& frame) {
    if (grab.over) fail("late", "a callback after the grab was over");
    if (grab.lost) fail("late", "a callback after the one that said that the format has changed");
    if (++grab.inside != 1) fail("together", "two callbacks of one grab at once");
    ++m_callbacks;
    const ULONGLONG since = GetTickCount64();
    grab.insideThread = GetCurrentThreadId();
    grab.insideSince = since;
    check(grab, frame);
    if (frame.dmaStatus == DMA_STATUS_DICONNECTED) {
        grab.lost = true;
        ++m_lost;
    }
    if (grab.action != 0 && (grab.lost || ++grab.calls % grab.every == 0)) callBack(grab);
    checkAgain(grab, frame, since);
    if (const ULONGLONG now = GetTickCount64(); now - since >= kGivenUpMs / 2) m_lastLongCallback = now;
    --grab.inside;
}

/// The buffer is the client's until the callback returns, unless the grab is ended meanwhile.
void DeviceWorld::checkAgain(const Grab& grab, const TarnisFrameInfo& frame, ULONGLONG since) {
    if (grab.action == 0 || frame.dmaStatus != DMA_STATUS_GOOD) return;
    const std::string why = whyWrong(grab, frame);
    if (grab.ending || GetTickCount64() - since >= kGivenUpMs) return;
    ++m_twice;
    if (!why.empty()) failFrame(frame, "changed during the callback: " + why);
}

std::string DeviceWorld::whyWrong(const Grab& grab, const TarnisFrameInfo& frame) {
    const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
    return grab.port == 0 ? m_pictures.whyNoFrame(bytes, frame.bufferSize, frame.frameWord0)
                          : m_pictures.whyNoBlock(bytes, frame.bufferSize, frame.frameWord0);
}

void DeviceWorld::check(Grab& grab, const TarnisFrameInfo& frame) {
    if (frame.dmaStatus != DMA_STATUS_GOOD) {
        ++m_otherStatus;
        if (frame.lpRawBuffer) fail("frame", "a frame of DMA status " + std::to_string(frame.dmaStatus) + " has bytes");
        return;
    }
    const ULONGLONG began = GetTickCount64();
    if (!frame.lpRawBuffer) fail("frame", "a good frame without bytes");
    if (frame.frameWord0 <= grab.lastFrame && grab.lastFrame != 0)
        fail("frame", "frame " + std::to_string(frame.frameWord0) + " after " + std::to_string(grab.lastFrame));
    grab.lastFrame = frame.frameWord0;
    const std::string why = whyWrong(grab, frame);
    if (why.empty()) return;
    // The buffer is another frame's once a stop has given the callback up.
    if (grab.over || GetTickCount64() - began >= kGivenUpMs)
        ++m_late;
    else
        failFrame(frame, why);
}

/// Says all that can be known of a wrong frame.
void DeviceWorld::failFrame(const TarnisFrameInfo& frame, const std::string& why) {
    const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
    Sleep(20); // whoever writes late has written then
    MEMORY_BASIC_INFORMATION region{};
    VirtualQuery(bytes, &region, sizeof region);
    std::printf("wrong: %s; at %p in the region from %p; 20 ms later %s\n", why.c_str(), frame.lpRawBuffer,
                region.AllocationBase, describeBytes(bytes, frame.bufferSize).c_str());
    for (uint32_t card = 0; card < kCards; ++card)
        for (const WrittenFrame& written : CardControl(card).writes())
            if (written.address == reinterpret_cast<uint64_t>(bytes) || written.serial == frame.frameWord2)
                std::printf(
                    "  card %u wrote %u (frame %u, client %u, process %u, port %u): %u bytes to 0x%llX, %s, sum "
                    "%u; this is %u in process %lu\n",
                    card, written.serial, written.frameNumber, written.clientId, written.processId, written.port,
                    written.bytes, static_cast<unsigned long long>(written.address),
                    written.written ? "taken" : "refused", written.sourceSum, frame.frameWord2, GetCurrentProcessId());
    for (uint32_t card = 0; card < kCards; ++card)
        for (const LogEntry& entry : CardControl(card).log())
            if (entry.code >= wire::kPrepare && entry.code < wire::kLockBuffer)
                std::printf("  card %u request %llu client %u code %X status %X result %u reply %u\n", card,
                            static_cast<unsigned long long>(entry.sequence), entry.clientId, entry.code, entry.status,
                            entry.result, entry.replySize);
    fail("frame", why);
}

void DeviceWorld::callBack(Grab& grab) {
    if (grab.action == 1 || (grab.action >= 5 && grab.action <= 7)) grab.ending = true;
    TarnisCameraStatus status{};
    TarnisGrabStat statistics{};
    switch (grab.action) {
    case 1: {
        const auto grabs = endingGrabsOf(grab.handle, grab.port);
        const ULONGLONG since = GetTickCount64();
        TARNIS_StopGrab(grab.handle, grab.port);
        areOver(grabs, since);
        break;
    }
    case 2:
        TARNIS_GetCameraStatus(grab.handle, grab.port, &status);
        TARNIS_GetGrabStat(grab.handle, grab.port, &statistics);
        break;
    case 3:
        Sleep(30);
        break;
    case 4: { // longer than a stop waits
        const ULONGLONG until = GetTickCount64() + 1300;
        while (!grab.over && !grab.givenUp && GetTickCount64() < until)
            Sleep(10);
        break;
    }
    case 5: // restarts itself
        start(m_slots[grab.slot], grab.handle, grab.port, 0);
        break;
    case 6: {
        Slot& slot = m_slots[grab.slot];
        {
            const std::lock_guard lock(slot.lock);
            if (slot.handle != grab.handle || slot.users != 0 || slot.closing) break;
        }
        done(slot);
        break;
    }
    case 7:
        changeAccess(m_slots[grab.slot], grab.handle, grab.port, false);
        break;
    case 8: {
        const auto grabs = endingGrabsOf(grab.handle, 1 - grab.port);
        TARNIS_StopGrab(grab.handle, static_cast<int8_t>(1 - grab.port));
        break;
    }
    default: // the card goes once round its buffers
        for (int i = 0; i < 40 && !grab.ending; ++i)
            Sleep(10);
        break;
    }
}

} // namespace kestra::walk
