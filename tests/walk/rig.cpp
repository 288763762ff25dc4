// How the other side behaves, and what is checked of each sample.
#include "tests/walk/rig.h"

#include "tests/support/wait_until.h"
#include "tests/walk/card_events.h"
#include "tests/walk/walk.h"

#include <thread>

namespace kestra::walk {
namespace {

constexpr auto kDeadline = std::chrono::seconds(20);

} // namespace

Rig::Rig(ComRef<IBaseFilter> made, bool video, uint32_t shape, SampleCheck& check)
    : isVideo(video), filter(std::move(made)), m_check(check), m_behaviour(shape / 30 % 16) {
    ComRef<IEnumPins> pins;
    if (filter->EnumPins(pins.out()) != S_OK || pins->Next(1, pin.out(), nullptr) != S_OK)
        fail("pin", "the filter has no pin");
    for (ComRef<compliance::Sink>& sink : sinks) {
        sink = ComRef<compliance::Sink>(new compliance::Sink);
        sink->onReceive = [this, &sink](IMediaSample* sample, int number) {
            return receive(*sink.get(), sample, number);
        };
    }
    static constexpr long kBuffers[] = {0, 2, 32, 1};
    if (shape % 5 != 0) sinks[0]->requirements = ALLOCATOR_PROPERTIES{kBuffers[shape % 5 - 1], 0, 1, 0};
    const uint32_t allocating = shape / 5 % 6;
    if (allocating >= 2) sinks[0]->allocator = &m_allocator;
    if (allocating == 3) m_allocator.commitResult = E_FAIL;
    if (allocating == 4) m_allocator.getBufferResult = E_FAIL;
    if (allocating == 5) m_allocator.withoutMemory = true;
    if (shape / 480 % 6 == 0)
        sinks[1]->accepts = [](const AM_MEDIA_TYPE& type) { return type.formattype == FORMAT_VideoInfo2; };
    if (shape / 480 % 6 == 1) sinks[1]->notifyAllocatorResult = E_FAIL;
    if (shape / 2880 % 3 != 0) return;
    if (FAILED(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                reinterpret_cast<void**>(graph.out()))))
        return;
    ++s_graphs;
    graph->AddFilter(filter.get(), L"Source");
    graph->AddFilter(sinks[0].get(), L"Sink");
}

Rig::~Rig() {
    nowIn("stopping");
    if (graph)
        if (const auto control = queryFor<IMediaControl>(graph.get(), IID_IMediaControl)) control->Stop();
    stop([&] { return filter->Stop(); });
    if (graph) {
        graph->RemoveFilter(filter.get());
        graph->RemoveFilter(sinks[0].get());
        graph = {};
    }
    nowIn("disconnecting");
    for (const auto& sink : sinks)
        sink->pin()->Disconnect();
    if (const HRESULT hr = pin->Disconnect(); FAILED(hr)) fail("disconnect", "a stopped pin stays connected");
    nowIn("the end of its references");
    {
        const std::lock_guard lock(m_lock);
        m_queued.clear();
    }
    pin = {};
    filter = {};
    for (const auto& sink : sinks)
        if (!test::waitUntil([&] { return sink->references() == 1; }, kDeadline))
            fail("references", "the filter keeps its receiver: " + std::to_string(sink->references()));
    if (!test::waitUntil([&] { return m_allocator.references() == 0; }, kDeadline))
        fail("references", "the filter keeps an allocator: " + std::to_string(m_allocator.references()));
    nowIn("");
}

HRESULT Rig::receive(compliance::Sink& sink, IMediaSample* sample, int number) {
    if (m_silent) fail("late", "a sample after the stop");
    BYTE* bytes = nullptr;
    const long length = sample->GetActualDataLength();
    if (FAILED(sample->GetPointer(&bytes)) || !bytes || length < 0 || length > sample->GetSize())
        fail("sample", "one of " + std::to_string(length) + " bytes in " + std::to_string(sample->GetSize()));
    const compliance::Type type = sink.type();
    if (!type->pbFormat) return answer(sample, number); // the pin was connected from its side only: no type is known
    const std::string why = m_check.whyNot(*type, bytes, static_cast<uint32_t>(length), m_lastFrame);
    if (!why.empty()) fail("sample", "one that no card has made: " + type.text() + ", " + why);
    ++m_samples;
    if (number > 100) sink.forget();
    return answer(sample, number);
}

HRESULT Rig::answer(IMediaSample* sample, int number) {
    switch (m_behaviour) {
    case 1:
        Sleep(5);
        return S_OK;
    case 2:
        Sleep(60);
        return S_OK;
    case 3:
        Sleep(number == 2 ? 1300 : 0); // longer than a stop waits
        return S_OK;
    case 4:
        return number == 1 ? E_FAIL : S_OK;
    case 5:
        return VFW_E_WRONG_STATE;
    case 6:
        return S_FALSE;
    case 7: { // keeps some
        const std::lock_guard lock(m_lock);
        m_queued.push_back(ComRef<IMediaSample>::share(sample));
        if (m_queued.size() > 3) m_queued.erase(m_queued.begin());
        return S_OK;
    }
    case 8: { // asks its sender
        AM_MEDIA_TYPE type{};
        if (pin->ConnectionMediaType(&type) == S_OK) {
            pin->QueryAccept(&type);
            CoTaskMemFree(type.pbFormat);
        }
        FILTER_STATE state = State_Stopped;
        filter->GetState(0, &state);
        return S_OK;
    }
    case 9: // stops its sender
        if (number == 3) stop([&] { return filter->Stop(); });
        return S_OK;
    case 10: // like a window, it has its questions asked on another thread, and waits for the answers
        if (number % 8 == 1) askOnAnotherThread();
        return S_OK;
    default:
        return S_OK;
    }
}

/// A stop holds the filter's lock for a second at most while it waits for a receiver. Nobody else may do so.
void Rig::askOnAnotherThread() const {
    std::atomic<bool> answered{false};
    std::thread asker([&] {
        const auto config = queryFor<IAMStreamConfig>(pin.get(), IID_IAMStreamConfig);
        AM_MEDIA_TYPE* type = nullptr;
        config->GetFormat(&type);
        compliance::Type::taken(type);
        answered = true;
    });
    const auto isAnswered = [&] { return answered.load(); };
    if (!test::waitUntil(isAnswered, std::chrono::seconds(2))) {
        letCardsAnswer(); // it may be keeping the question
        if (!test::waitUntil(isAnswered, std::chrono::seconds(13)))
            fail("lock", "the filter answers no other thread until its sample has been taken");
    }
    asker.join();
}

} // namespace kestra::walk
