// Stop, Pause and Run in every order, from every thread.
#include "compliance/tests.h"

#include <thread>

namespace kestra::compliance {
namespace {

HRESULT change(IBaseFilter* filter, char step) {
    switch (step) {
    case 'S':
        return CALL(filter->Stop());
    case 'P':
        return CALL(filter->Pause());
    default:
        return CALL(filter->Run(0));
    }
}

FILTER_STATE stateAfter(char step) {
    return step == 'S' ? State_Stopped : step == 'P' ? State_Paused : State_Running;
}

void expectState(IBaseFilter* filter, FILTER_STATE wanted, const std::string& after) {
    FILTER_STATE state{};
    const HRESULT hr = CALL(filter->GetState(5000, &state));
    expect(hr == S_OK || (hr == VFW_S_CANT_CUE && wanted == State_Paused), "S_OK from GetState after " + after,
           resultText(hr));
    expect(state == wanted, statesText(wanted) + " after " + after, statesText(state));
}

/// All sequences of three steps.
void everyOrder(Context& context, bool connected) {
    const std::string steps = "SPR";
    for (const char a : steps)
        for (const char b : steps)
            for (const char c : steps) {
                Rig rig(context);
                if (connected) rig.connect();
                std::string done;
                for (const char step : {a, b, c}) {
                    done += step;
                    rig.sink->Run(0);
                    expectSuccess(change(rig.filter.get(), step), format("the last of %s", done.c_str()).c_str());
                    expectState(rig.filter.get(), stateAfter(step), done);
                }
            }
}

void getStateNull(Context& context) {
    const auto filter = context.subject.create();
    EXPECT_RESULT(E_POINTER, filter->GetState(0, nullptr));
}

/// A live source has nothing to show before it runs, and says so.
void cantCue(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.pause();
    FILTER_STATE state{};
    EXPECT_RESULT(VFW_S_CANT_CUE, rig.filter->GetState(1000, &state));
}

void nothingWhilePaused(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.pause();
    note("waiting half a second in the paused state");
    const auto came = [&] { return rig.sink->samples().size(); };
    waitFor([&] { return came() != 0; }, 500);
    expect(came() == 0, "no sample of a live source while paused", format("%zu", came()));
}

void runPauseRun(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(2);
    for (int i = 0; i < 3; ++i) {
        EXPECT_SUCCESS(rig.filter->Pause());
        EXPECT_SUCCESS(rig.filter->Run(0));
        rig.awaitSamples(static_cast<int>(rig.sink->samples().size()) + 2);
    }
    rig.stop();
}

void otherThread(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.sink->Run(0);
    for (int i = 0; i < context.settings.cycles(20, 3); ++i)
        for (const char step : std::string("PRS")) {
            HRESULT hr = E_FAIL;
            std::thread([&] {
                CoInitializeEx(nullptr, COINIT_MULTITHREADED);
                hr = change(rig.filter.get(), step);
                CoUninitialize();
            }).join();
            expectSuccess(hr, "a change of state on a thread of its own");
        }
}

/// Two threads that change the state as they like.
void racing(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.sink->Run(0);
    const int rounds = context.settings.cycles(100, 15);
    const auto hurry = [&](const char* steps) {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        for (int i = 0; i < rounds; ++i)
            for (const char* step = steps; *step; ++step)
                change(rig.filter.get(), *step);
        CoUninitialize();
    };
    std::thread one(hurry, "PRS"), other(hurry, "SPR");
    one.join();
    other.join();
    EXPECT_SUCCESS(rig.filter->Stop());
    expectState(rig.filter.get(), State_Stopped, "two threads' changes and a stop");
}

/// The questions that a receiver asks in the middle of a sample.
void askedInReceive(Context& context) {
    Rig rig(context);
    rig.connect();
    std::atomic<bool> answered{false};
    rig.sink->onReceive = [&](IMediaSample*, int number) {
        if (number > 0) return S_OK;
        FILTER_STATE state{};
        CALL(rig.filter->GetState(0, &state));
        ComRef<IPin> peer;
        CALL(rig.pin->ConnectedTo(peer.out()));
        AM_MEDIA_TYPE type{};
        if (SUCCEEDED(CALL(rig.pin->ConnectionMediaType(&type)))) freeMediaType(type);
        PIN_INFO info{};
        if (SUCCEEDED(CALL(rig.pin->QueryPinInfo(&info)))) info.pFilter->Release();
        answered = true;
        return S_OK;
    };
    rig.receive(2);
    expect(answered, "answers inside Receive", "none");
    rig.stop();
}

/// A receiver asks from inside a sample while another thread stops the filter: neither may wait for the other.
void stopWhileAsked(Context& context) {
    Rig rig(context);
    rig.connect();
    std::atomic<bool> stopping{false}, stopped{false};
    rig.sink->onReceive = [&](IMediaSample*, int number) {
        if (number != 1) return S_OK;
        waitFor([&] { return stopping.load(); }, 2000);
        // Again and again, so that the stop is under way at one of the times, however late it begins.
        waitFor(
            [&] {
                FILTER_STATE state{};
                CALL(rig.filter->GetState(0, &state));
                ComRef<IPin> peer;
                CALL(rig.pin->ConnectedTo(peer.out()));
                return stopped.load();
            },
            300);
        return S_OK;
    };
    rig.receive(2);
    stopping = true;
    rig.stop();
    stopped = true;
}

void releasedRunning(Context& context) {
    {
        Rig rig(context);
        rig.connect();
        rig.receive(2);
        rig.stop();
        rig.disconnect();
    }
    Rig again(context); // the device is free
    again.connect();
    again.receive(1);
    again.stop();
}

void startTime(Context& context) {
    Rig rig(context);
    ComRef<IReferenceClock> clock;
    if (FAILED(CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock,
                                reinterpret_cast<void**>(clock.out()))))
        notApplicable("the system has no clock");
    EXPECT_RESULT(S_OK, rig.filter->SetSyncSource(clock.get()));
    rig.connect();
    rig.pause();
    REFERENCE_TIME now = 0;
    clock->GetTime(&now);
    rig.sink->Run(now);
    EXPECT_SUCCESS(rig.filter->Run(now));
    rig.awaitSamples(2);
    rig.stop();
    EXPECT_RESULT(S_OK, rig.filter->SetSyncSource(nullptr));
}

constexpr char kState[] = "IMediaFilter::GetState method", kStates[] = "Filter States";
const Test kTests[] = {
    {"state", "orders-unconnected", kStates, [](Context& c) { everyOrder(c, false); }, 2},
    {"state", "orders-connected", kStates, [](Context& c) { everyOrder(c, true); }, 4},
    {"state", "null", kState, getStateNull},
    {"state", "paused-cannot-cue", kState, cantCue},
    {"state", "paused-delivers-nothing", "Producing Data in a Capture Filter", nothingWhilePaused},
    {"state", "run-pause-run", kStates, runPauseRun},
    {"state", "other-thread", "Threads and Critical Sections", otherThread},
    {"state", "racing-threads", "Threads and Critical Sections", racing},
    {"state", "asked-in-receive", "Threads and Critical Sections", askedInReceive},
    {"state", "stop-while-asked", "Threads and Critical Sections", stopWhileAsked},
    {"state", "released", kStates, releasedRunning},
    {"state", "start-time", "IMediaFilter::Run method", startTime},
};

} // namespace

std::span<const Test> stateTests() {
    return kTests;
}

} // namespace kestra::compliance
