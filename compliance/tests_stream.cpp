// What is delivered and when; receivers of every kind.
#include "compliance/tests.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <thread>

namespace kestra::compliance {
namespace {

/// Runs for a number of samples and gives them.
std::vector<Received> recorded(Context& context, int samples, Type* type = nullptr) {
    Rig rig(context);
    rig.connect();
    if (type) *type = rig.sink->type();
    rig.receive(samples);
    rig.stop();
    return rig.sink->samples();
}

void delivers(Context& context) {
    Rig rig(context);
    rig.connect();
    fact("Type connected by itself", rig.sink->type().text());
    rig.receive(5);
    rig.stop();
}

void monotonic(Context& context) {
    const auto samples = recorded(context, 20);
    for (size_t i = 0; i < samples.size(); ++i) {
        if (!samples[i].timed) continue;
        expect(
            samples[i].stop > samples[i].start, format("sample %zu to end after its start", i),
            format("%lld to %lld", static_cast<long long>(samples[i].start), static_cast<long long>(samples[i].stop)));
        if (i > 0 && samples[i - 1].timed)
            expect(samples[i].start >= samples[i - 1].start,
                   format("sample %zu not to begin before sample %zu", i, i - 1),
                   format("%lld after %lld", static_cast<long long>(samples[i].start),
                          static_cast<long long>(samples[i - 1].start)));
    }
}

void timed(Context& context) {
    int number = 0;
    for (const Received& sample : recorded(context, 5)) {
        expect(sample.timed, "a time stamp on every sample of a capture pin", format("none on sample %d", number));
        ++number;
    }
}

void duration(Context& context) {
    Type type;
    const auto samples = recorded(context, 10, &type);
    const REFERENCE_TIME frame = type.frameTime();
    if (frame <= 0) notApplicable("the type tells no frame time");
    for (const Received& sample : samples) {
        const REFERENCE_TIME length = sample.stop - sample.start;
        expect(!sample.timed || std::llabs(length - frame) <= frame / 10,
               format("%lld, the type's AvgTimePerFrame", static_cast<long long>(frame)),
               format("%lld", static_cast<long long>(length)));
    }
}

/// Stamps count in stream time: none lies before the run.
void firstStamp(Context& context) {
    const auto samples = recorded(context, 2);
    expect(!samples[0].timed || samples[0].start >= 0, "a first stamp at or after 0",
           format("%lld", static_cast<long long>(samples[0].start)));
    expect(!samples[0].timed || samples[0].start < 50'000'000, "a first stamp within the first seconds of the run",
           format("%lld", static_cast<long long>(samples[0].start)));
}

void secondRun(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(10);
    rig.stop();
    rig.sink->forget();
    rig.receive(2);
    rig.stop();
    const auto samples = rig.sink->samples();
    expect(!samples[0].timed || samples[0].start < 20'000'000, "stamps that begin anew with each run",
           format("%lld", static_cast<long long>(samples[0].start)));
}

/// Stamps follow the wall clock; what is drawn in the report.
void againstClock(Context& context) {
    const int count = context.settings.cycles(150, 30);
    const auto samples = recorded(context, count);
    const double beganMs = samples[0].wallMs, stampMs = static_cast<double>(samples[0].start) / 1e4;
    double last = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        if (!samples[i].timed) notApplicable("samples without stamps");
        const double wall = samples[i].wallMs - beganMs;
        measured("stamp against clock", static_cast<double>(samples[i].start) / 1e4 - stampMs - wall);
        measured("arrival", wall);
        if (i > 0) measured("interval", samples[i].wallMs - samples[i - 1].wallMs);
        last = static_cast<double>(samples[i].start) / 1e4 - stampMs - wall;
    }
    const double wall = samples.back().wallMs - beganMs;
    if (std::fabs(last) > 0.1 * wall + 100)
        warn(format("after %.0f ms the stamps are %+.0f ms from the clock", wall, last));
}

void rate(Context& context) {
    Type type;
    const auto samples = recorded(context, context.settings.cycles(60, 20), &type);
    const double frameMs = static_cast<double>(type.frameTime()) / 1e4;
    if (frameMs <= 0) notApplicable("the type tells no frame time");
    const size_t skip = samples.size() / 4; // a graph that starts has its first samples late
    const double mean = (samples.back().wallMs - samples[skip].wallMs) / static_cast<double>(samples.size() - 1 - skip);
    if (std::fabs(mean - frameMs) > 0.2 * frameMs)
        warn(format("%.2f ms between samples where the type says %.2f", mean, frameMs));
}

void wholeSamples(Context& context) {
    Type type;
    const auto samples = recorded(context, 5, &type);
    for (const Received& sample : samples) {
        expect(sample.length > 0 && sample.length <= sample.size, "a length within the buffer",
               format("%ld of %ld", sample.length, sample.size));
        if (type->bFixedSizeSamples && type.isVideo())
            expect(sample.length == static_cast<long>(type->lSampleSize),
                   format("%lu bytes, as lSampleSize says", type->lSampleSize), format("%ld", sample.length));
        if (const WAVEFORMATEX* wave = type.wave(); wave && wave->nBlockAlign)
            expect(sample.length % wave->nBlockAlign == 0, format("whole blocks of %d bytes", wave->nBlockAlign),
                   format("%ld", sample.length));
    }
}

void syncPoints(Context& context) {
    Type type;
    const auto samples = recorded(context, 3, &type);
    if (type->bTemporalCompression) notApplicable("the format is compressed over time");
    for (const Received& sample : samples)
        expect(sample.syncPoint, "every sample a sync point in a format without temporal compression",
               "one that is none");
}

void noNewType(Context& context) {
    const auto samples = recorded(context, 10);
    for (const Received& sample : samples)
        expect(!sample.hasType, "no media type on a sample while the format stays", "one");
}

void oneAtATime(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.sink->onReceive = taking(20); // long enough for a second sample to come
    rig.receive(15);
    rig.stop();
    expect(rig.sink->reentered == 0, "one Receive at a time", format("%d beside another", rig.sink->reentered.load()));
}

void nothingAfterStop(Context& context) {
    Rig rig(context);
    rig.connect();
    for (int i = 0; i < context.settings.cycles(10, 4); ++i) {
        rig.receive(static_cast<int>(rig.sink->samples().size()) + 2);
        rig.stop();
        expect(rig.sink->inside == 0, "no Receive left when Stop has returned", "one");
        note("waiting after Stop");
        waitFor([&] { return rig.sink->afterClosing != 0; }, 60);
        expect(rig.sink->afterClosing == 0, "no sample, end of stream or flush after Stop",
               format("%d", rig.sink->afterClosing.load()));
        rig.sink->closed = false;
    }
}

/// A live source does not end by itself.
void noEndWhileRunning(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(10);
    const int ends = rig.sink->endOfStreams;
    rig.stop();
    expect(ends == 0, "no end of stream while a live source runs", format("%d", ends));
}

// Receivers

/// Holds samples as a queue does, and lets go of them only after the stop.
void queued(Context& context) {
    Rig rig(context);
    rig.connect();
    const auto chosen = rig.sink->chosen();
    ALLOCATOR_PROPERTIES actual{};
    if (chosen) chosen->GetProperties(&actual);
    const int hold = std::max(1L, actual.cBuffers);
    std::mutex mutex;
    std::vector<ComRef<IMediaSample>> held;
    rig.sink->onReceive = [&](IMediaSample* sample, int) {
        const std::lock_guard lock(mutex);
        if (static_cast<int>(held.size()) < hold) held.push_back(ComRef<IMediaSample>::share(sample));
        return S_OK;
    };
    rig.receive(hold); // and then the filter waits for a buffer
    note("Stop while the receiver holds every buffer");
    const double began = nowMs();
    rig.stop();
    measured("stop", nowMs() - began);
    {
        const std::lock_guard lock(mutex);
        held.clear();
    }
    rig.sink->onReceive = nullptr;
    rig.sink->forget();
    rig.receive(2);
    rig.stop();
}

/// Takes more buffers of the connection while it holds a sample, as a tee does that copies, until it waits for one that
/// nobody has. Stop, which decommits, is what ends that.
void exhausting(Context& context) {
    Rig rig(context);
    rig.connect();
    const auto buffers = rig.sink->chosen();
    if (!buffers) notApplicable("the receiver was told of no allocator");
    std::atomic<int> taken{0};
    rig.sink->onReceive = [&](IMediaSample*, int) {
        std::vector<ComRef<IMediaSample>> held(1);
        while (buffers->GetBuffer(held.back().out(), nullptr, nullptr, 0) == S_OK) {
            held.emplace_back();
            ++taken;
        }
        return S_OK;
    };
    rig.receive(1);
    note("Stop while the receiver waits for one more buffer");
    const double began = nowMs();
    rig.stop();
    measured("stop", nowMs() - began);
    fact("Buffers that a receiver can take while it holds a sample", format("%d", taken.load()));
    expect(rig.sink->inside == 0, "no Receive left when Stop has returned", "one");
}

void blocking(Context& context) {
    Rig rig(context);
    rig.connect();
    std::atomic<bool> let{false}, stopped{false};
    rig.sink->onReceive = [&](IMediaSample*, int) {
        waitFor([&] { return let.load(); }, 30'000);
        return S_OK;
    };
    rig.receive(1);
    const std::jthread downstream([&] { // is stopped first, and lets go of what it blocks in
        waitFor([&] { return stopped.load(); }, 150);
        let = true;
    });
    note("Stop while the receiver blocks");
    rig.stop();
    const bool isLeft = rig.sink->inside != 0;
    stopped = true;
    expect(!isLeft, "no Receive left when Stop has returned", "one");
}

void slow(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.sink->onReceive = taking(100);
    rig.receive(5);
    const double began = nowMs();
    rig.stop();
    const double took = nowMs() - began;
    expect(took < 5000, "a stop within 5 s of a receiver that takes 100 ms", format("%.0f ms", took));
}

/// After a refusal nothing may come any more until the next start.
void stopsAfter(Context& context, HRESULT answer) {
    Rig rig(context);
    rig.connect();
    constexpr int kRefused = 2;
    rig.sink->onReceive = answering(answer, kRefused);
    rig.receive(kRefused + 1);
    note("waiting for samples after a refusal");
    const auto after = [&] { return static_cast<int>(rig.sink->samples().size()) - (kRefused + 1); };
    waitFor([&] { return after() > 0; }, 700);
    rig.stop();
    expect(after() == 0, "no sample after " + resultText(answer) + " from Receive", format("%d", after()));
}

/// Whatever happened, it can be stopped and started again.
void failing(Context& context, HRESULT answer, int number) {
    Rig rig(context);
    rig.connect();
    rig.sink->onReceive = answering(answer, number);
    rig.pause();
    rig.run();
    rig.awaitSamples(1);
    // A filter may give up at the failure, or go on: either way it is stopped in the middle.
    waitFor([&] { return static_cast<int>(rig.sink->samples().size()) > std::max(number, 0) + 1; }, 150);
    rig.stop();
    rig.sink->onReceive = nullptr;
    rig.sink->forget();
    rig.receive(3);
    rig.stop();
}

void reconnecting(Context& context) {
    GraphRig rig(context);
    for (int i = 0; i < context.settings.cycles(10, 3); ++i) {
        EXPECT_RESULT(S_OK, rig.graph->ConnectDirect(rig.pin.get(), rig.sink->pin(), nullptr));
        EXPECT_SUCCESS(rig.graph->Reconnect(rig.pin.get()));
        rig.sink->forget();
        EXPECT_SUCCESS(rig.control->Run());
        rig.awaitSamples(1);
        EXPECT_SUCCESS(rig.control->Stop());
        EXPECT_RESULT(S_OK, rig.graph->Disconnect(rig.pin.get()));
        EXPECT_SUCCESS(rig.graph->Disconnect(rig.sink->pin()));
    }
}

constexpr char kStamps[] = "Time Stamps", kReceive[] = "IMemInputPin::Receive method";
const Test kStreamTests[] = {
    {"stream", "delivers", "Producing Data in a Capture Filter", delivers},
    {"stream", "timed", kStamps, timed},
    {"stream", "monotonic", kStamps, monotonic},
    {"stream", "duration", kStamps, duration},
    {"stream", "first-stamp", kStamps, firstStamp},
    {"stream", "second-run", kStamps, secondRun},
    {"stream", "clock", "Time and Clocks in DirectShow", againstClock},
    {"stream", "rate", "VIDEOINFOHEADER structure", rate},
    {"stream", "whole-samples", "AM_MEDIA_TYPE structure", wholeSamples},
    {"stream", "sync-points", "IMediaSample::SetSyncPoint method", syncPoints},
    {"stream", "no-new-type", "IMediaSample::GetMediaType method", noNewType},
    {"stream", "one-at-a-time", "Data Flow for Filter Developers", oneAtATime},
    {"stream", "nothing-after-stop", "Filter States", nothingAfterStop},
    {"stream", "no-end-while-running", "IPin::EndOfStream method", noEndWhileRunning},
};
const Test kSinkTests[] = {
    {"sink", "queued", "IMemAllocator::Decommit method", queued},
    {"sink", "takes-every-buffer", "IMemAllocator::GetBuffer method", exhausting},
    {"sink", "blocking", "Threads and Critical Sections", blocking},
    {"sink", "slow", "Threads and Critical Sections", slow},
    {"sink", "stops-after-false", kReceive, [](Context& c) { stopsAfter(c, S_FALSE); }},
    {"sink", "stops-after-error", kReceive, [](Context& c) { stopsAfter(c, E_FAIL); }},
    {"sink", "fails-once", kReceive, [](Context& c) { failing(c, E_FAIL, 1); }},
    {"sink", "fails-always", kReceive, [](Context& c) { failing(c, E_FAIL, kEvery); }},
    {"sink", "flushing", kReceive, [](Context& c) { failing(c, S_FALSE, kEvery); }},
    {"sink", "reconnecting", "IFilterGraph::Reconnect method", reconnecting},
};

} // namespace

std::span<const Test> streamTests() {
    return kStreamTests;
}

std::span<const Test> sinkTests() {
    return kSinkTests;
}

} // namespace kestra::compliance
