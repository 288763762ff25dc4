// The list of all tests, and what the rigs do.
#include "compliance/tests.h"

namespace kestra::compliance {

const std::vector<Test>& allTests() {
    static const std::vector<Test> tests = [] {
        std::vector<Test> all;
        for (const auto list : {filterTests, unknownTests, enumerationTests, configTests, hostileTests, connectTests,
                                allocatorTests, stateTests, streamTests, sinkTests, stressTests, processTests})
            all.insert(all.end(), list().begin(), list().end());
        return all;
    }();
    return tests;
}

Bare::Bare(const Subject& subject) : filter(subject.create()), pin(capturePin(filter.get())) {}

ULONG referencesTo(IUnknown* object) {
    CALL(object->AddRef());
    return CALL(object->Release());
}

Receiver taking(int milliseconds) {
    return [milliseconds](IMediaSample*, int) {
        Sleep(static_cast<DWORD>(milliseconds));
        return S_OK;
    };
}

Receiver answering(HRESULT answer, int number) {
    return [answer, number](IMediaSample*, int now) { return number == kEvery || number == now ? answer : S_OK; };
}

Rig::Rig(Context& context) : Bare(context), m_context(context) {}

Rig::~Rig() {
    CALL(filter->Stop());
    sink->Stop();
    disconnect();
}

void Rig::disconnect() {
    sink->pin()->Disconnect();
    CALL(pin->Disconnect());
}

void Rig::connect(const AM_MEDIA_TYPE* type) {
    EXPECT_RESULT(S_OK, pin->Connect(sink->pin(), type));
}

void Rig::pause() {
    sink->closed = false;
    sink->Pause();
    EXPECT_SUCCESS(filter->Pause());
}

void Rig::run() {
    sink->closed = false; // a run need not be paused first
    sink->Run(0);
    EXPECT_SUCCESS(filter->Run(0));
}

void Rig::stop() {
    sink->Stop(); // downstream first, as a graph does
    EXPECT_SUCCESS(filter->Stop());
    sink->closed = true;
}

void Rig::awaitSamples(int samples) {
    note("waiting for samples");
    const bool came = waitFor([&] { return static_cast<int>(sink->samples().size()) >= samples; });
    expect(came, format("%d samples within 10 s", samples), format("%d", static_cast<int>(sink->samples().size())));
}

void Rig::receive(int samples) {
    pause();
    run();
    awaitSamples(samples);
}

GraphRig::GraphRig(Context& context) : Rig(context) {
    expectResult(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                  reinterpret_cast<void**>(graph.out())),
                 {S_OK}, "CoCreateInstance(CLSID_FilterGraph)");
    control = queryFor<IMediaControl>(graph.get(), IID_IMediaControl);
    EXPECT_RESULT(S_OK, graph->AddFilter(filter.get(), L"Source"));
    EXPECT_RESULT(S_OK, graph->AddFilter(sink.get(), L"Sink"));
}

GraphRig::~GraphRig() {
    CALL(control->Stop());
    CALL(graph->RemoveFilter(filter.get()));
    graph->RemoveFilter(sink.get());
}

ComRef<IAMStreamConfig> configOf(IPin* pin) {
    auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
    if (!config) notApplicable("the pin has no IAMStreamConfig");
    return config;
}

std::vector<Capability> capabilitiesOf(IAMStreamConfig* config) {
    int count = 0, size = 0;
    EXPECT_RESULT(S_OK, config->GetNumberOfCapabilities(&count, &size));
    std::vector<Capability> list;
    for (int i = 0; i < count && i < 1000; ++i) {
        Capability capability;
        capability.caps.resize(static_cast<size_t>(size > 0 ? size : 1));
        AM_MEDIA_TYPE* type = nullptr;
        EXPECT_RESULT(S_OK, config->GetStreamCaps(i, &type, capability.caps.data()));
        expect(type != nullptr, "a media type from GetStreamCaps", "a null pointer");
        capability.type = Type::taken(type);
        list.push_back(std::move(capability));
    }
    return list;
}

Type formatOf(IAMStreamConfig* config) {
    AM_MEDIA_TYPE* type = nullptr;
    EXPECT_RESULT(S_OK, config->GetFormat(&type));
    expect(type != nullptr, "a media type from GetFormat", "a null pointer");
    return Type::taken(type);
}

std::string statesText(FILTER_STATE state) {
    return state == State_Stopped   ? "stopped"
           : state == State_Paused  ? "paused"
           : state == State_Running ? "running"
                                    : "?";
}

} // namespace kestra::compliance
