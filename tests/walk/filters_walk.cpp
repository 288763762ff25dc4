// Walks over all COM calls of the filters, pins, enumerators and pages: four filters at once, up to four threads, sinks
// and allocators that behave oddly, settings that change, and cards that are pulled, change their input, and answer as
// no card should.
#include "tests/support/wait_until.h"
#include "tests/walk/filters_world.h"

#include <kestra_interfaces.h>

namespace kestra::walk {
namespace {

const std::vector<Call> kCalls = withCardCalls({
    {"CreateInstance", 16, 12},
    {"Release", 3, 3},
    {"Stop", 7, 7},
    {"Pause", 5, 5},
    {"Run", 14, 14},
    {"GetState", 3, 3},
    {"SetSyncSource, GetSyncSource", 2, 2},
    {"EnumPins", 3, 3},
    {"FindPin", 2, 2},
    {"QueryFilterInfo", 2, 2},
    {"JoinFilterGraph", 2, 2},
    {"QueryInterface", 4, 4},
    {"GetClassID, QueryVendorInfo", 1, 1},
    {"GetPages", 2, 2},
    {"Connect", 16, 16},
    {"Disconnect", 3, 3},
    {"ConnectedTo", 2, 2},
    {"ConnectionMediaType", 2, 2},
    {"QueryPinInfo, -Direction, -Id", 3, 3},
    {"QueryAccept", 4, 4},
    {"EnumMediaTypes", 4, 4},
    {"ReceiveConnection", 1, 1},
    {"EndOfStream, flushes, NewSegment", 2, 2},
    {"IKsPropertySet", 3, 3},
    {"SetFormat", 6, 6},
    {"GetFormat", 4, 4},
    {"GetNumberOfCapabilities, GetStreamCaps", 4, 4},
    {"IAMBufferNegotiation", 2, 2},
    {"colours: get", 3, 3},
    {"colours: put", 4, 4},
    {"WhiteBalance", 1, 1},
    {"BitDepth", 3, 3},
    {"property page", 1, 1},
    {"class factory", 2, 2},
    {"graph", 8, 8},
    {"registry", 2, 2},
    {"wait for samples", 12, 14},
    {"wait", 8, 8},
});

} // namespace

const std::vector<Call>& FiltersWorld::calls() const {
    return kCalls;
}

void FiltersWorld::begin(const Act& act) {
    beginCards(act, 5); // with sound
    if (!m_module) m_module.emplace();
}

/// A filter of that kind (1 video, 0 audio, -1 any), if there is one.
FiltersWorld::RigPointer FiltersWorld::rigOf(uint32_t a, int isVideo) {
    const std::lock_guard lock(m_lock);
    for (size_t i = 0; i < kSlots; ++i)
        if (const RigPointer& rig = m_rigs[(a + i) % kSlots]; rig && (isVideo < 0 || rig->isVideo == (isVideo == 1)))
            return rig;
    return nullptr;
}

HRESULT FiltersWorld::create(uint32_t a, uint32_t b) {
    const size_t slot = a % kSlots;
    const bool isVideo = slot < kSlots / 2;
    {
        const std::lock_guard lock(m_lock);
        if (m_rigs[slot]) return static_cast<HRESULT>(kNotMade);
    }
    ComRef<IBaseFilter> filter;
    const HRESULT hr = m_module->create(isVideo ? CLSID_KestraCapture : CLSID_KestraAudioCapture, nullptr,
                                        IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
    if (FAILED(hr) != !filter) fail("result", "CreateInstance gave a filter and a failure, or neither");
    if (m_calm && FAILED(hr)) fail("result", "no filter on a card with a signal");
    if (filter) {
        const auto rig = std::make_shared<Rig>(std::move(filter), isVideo, b, m_check);
        if (b >> 20 & 3) rig->pin->Connect(rig->sinks[0]->pin(), nullptr); // most are of use at once
        const std::lock_guard lock(m_lock);
        if (!m_rigs[slot]) m_rigs[slot] = rig;
    }
    return allowed(hr, {S_OK, E_FAIL}, "CreateInstance");
}

uint32_t FiltersWorld::step(const Step& step) {
    const uint32_t a = step.a, b = step.b;
    noteStep(step.call - kCardSteps);
    if (step.call >= kCardSteps) return cardStep(step.call - kCardSteps, a, b);
    switch (step.call) {
    case kCreate:
        return static_cast<uint32_t>(create(a, b));
    case kFactory:
        return static_cast<uint32_t>(factory(b));
    case kRegistry:
        registry(b);
        return 0;
    case kSleep:
        Sleep(a % 8 == 0 ? b % 150 : b % 25);
        return 0;
    default:
        break;
    }
    const bool isColour = step.call == kGetColours || step.call == kPutColours || step.call == kWhiteBalance;
    const RigPointer rig = rigOf(a, isColour ? 1 : step.call == kBitDepth ? 0 : -1);
    if (!rig) return kNotMade;
    if (step.call == kRelease) {
        RigPointer released; // outlives the lock
        const std::lock_guard lock(m_lock);
        for (RigPointer& slot : m_rigs)
            if (slot == rig) released.swap(slot);
        return 0;
    }
    if (!m_alone) return onRig(*rig, step.call, b);
    const Seen before = look(*rig);
    const uint32_t result = onRig(*rig, step.call, b);
    judge(*rig, step.call, static_cast<HRESULT>(result), before, look(*rig));
    return result;
}

FiltersWorld::Seen FiltersWorld::look(const Rig& rig) {
    ComRef<IPin> other;
    Seen seen{rig.pin->ConnectedTo(other.out()) == S_OK, State_Stopped};
    rig.filter->GetState(0, &seen.state);
    return seen;
}

void FiltersWorld::judge(const Rig& rig, uint16_t call, HRESULT hr, const Seen& before, const Seen& after) {
    const auto demand = [&](bool fits) {
        if (fits) return;
        char text[160];
        std::snprintf(text, sizeof text,
                      "%s gave 0x%08lX to a pin that was %sconnected, in state %d, and is %sconnected, in state %d",
                      kCalls[call].name, static_cast<unsigned long>(hr), before.connected ? "" : "not ", before.state,
                      after.connected ? "" : "not ", after.state);
        fail("result", text);
    };
    if (hr == E_POINTER || static_cast<uint32_t>(hr) == kNotMade) return;
    const bool keptState = before.state == after.state; // a sink may have stopped it
    switch (call) {
    case kDisconnect:
        if (keptState)
            demand(before.state != State_Stopped ? hr == VFW_E_NOT_STOPPED : hr == (before.connected ? S_OK : S_FALSE));
        demand(hr != S_OK || !after.connected);
        break;
    case kConnect:
        demand(!before.connected || hr == VFW_E_ALREADY_CONNECTED);
        demand(FAILED(hr) || after.connected);
        break;
    case kMediaType:
        demand((hr == S_OK) == before.connected);
        break;
    case kSetFormat:
        if (keptState) demand((hr == VFW_E_NOT_STOPPED) == (before.state != State_Stopped));
        break;
    case kStop:
        demand(after.state == State_Stopped);
        break;
    case kPause:
        demand(FAILED(hr) || rig.isStoppedBySink() || after.state == State_Paused);
        break;
    case kRun:
        demand(FAILED(hr) || rig.isStoppedBySink() || after.state == State_Running);
        break;
    default:
        break;
    }
}

/// As many as there are until one has not come for a while.
uint32_t FiltersWorld::awaitSamples(Rig& rig, uint32_t b) {
    const Seen seen = look(rig);
    if (!seen.connected || seen.state == State_Stopped) return kNotMade;
    const uint64_t before = rig.samples();
    return test::waitUntil([&] { return rig.samples() > before + b % 10; }, std::chrono::milliseconds(150)) ? 1 : 0;
}

uint32_t FiltersWorld::onRig(Rig& rig, uint16_t call, uint32_t b) {
    switch (call) {
    case kAwaitSamples:
        return awaitSamples(rig, b);
    case kGetColours:
        return static_cast<uint32_t>(getColours(rig, b));
    case kPutColours:
        return static_cast<uint32_t>(putColours(rig, b));
    case kWhiteBalance: {
        const auto gains =
            queryFor<IKestraStreamPropRGBGainOffset>(rig.filter.get(), IID_IKestraStreamPropRGBGainOffset);
        const std::lock_guard lock(m_colours);
        noteConverters();
        unsigned char red = 0, green = 0, blue = 0;
        float redGain = 0, greenGain = 0, blueGain = 0;
        const HRESULT hr =
            allowed(gains->WhiteBalance(b % 8 == 0 ? nullptr : &red, &green, &blue, &redGain, &greenGain, &blueGain),
                    {b % 8 == 0 ? E_POINTER : S_OK}, "WhiteBalance");
        noteConverters();
        return static_cast<uint32_t>(hr);
    }
    case kBitDepth:
        return static_cast<uint32_t>(bitDepth(rig, b));
    case kPage:
        return static_cast<uint32_t>(page(rig, b));
    case kGraph:
        return static_cast<uint32_t>(onGraph(rig, b));
    default:
        return static_cast<uint32_t>(call < kPages ? onFilter(rig, call, b) : onPin(rig, call, b));
    }
}

void FiltersWorld::rescue() {
    CardsWorld::rescue();
    closeBoxes();
}

void FiltersWorld::end() {
    letCardsAnswer();
    for (RigPointer& rig : m_rigs)
        rig.reset();
    nowIn("until the module may go");
    if (!test::waitUntil([&] { return m_module->canUnload(); }, std::chrono::seconds(20)))
        fail("unload", "an object of the module is still alive");
    awaitClosedCards();
    m_pictures.forget();
}

std::string FiltersWorld::summary() const {
    char text[240];
    std::snprintf(
        text, sizeof text,
        "%llu pictures (%llu of them black) and %llu blocks of sound as the card made them; %llu times a card "
        "was made to answer\n",
        m_check.frames(), m_check.black(), m_check.blocks(), m_rescues.load());
    return text;
}

} // namespace kestra::walk

int main(int argc, char** argv) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    return kestra::walk::walkOverCards<kestra::walk::FiltersWorld>(argc, argv);
}
