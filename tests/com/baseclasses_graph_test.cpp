// A source on the base classes in the system's graph, with its sample grabber, null renderer and capture graph builder.
// KESTRA_LONG=1: twenty times as many cycles.
#include "tests/com/baseclasses_fixture.h"
#include "tests/support/long_run.h"
#include "tests/support/process_counts.h"

#include <qedit.h>

#include <cstdlib>
#include <iostream>

namespace kestra::test {
namespace {

CLSID const kNullRenderer{0xC1F400A4, 0x3F08, 0x11D3, {0x9F, 0x0B, 0x00, 0x60, 0x08, 0x03, 0x9E, 0x37}};
CLSID const kSampleGrabber{0xC1F400A0, 0x3F08, 0x11D3, {0x9F, 0x0B, 0x00, 0x60, 0x08, 0x03, 0x9E, 0x37}};

int cycles() {
    return repetitions(1'000, 20'000);
}

void make(REFCLSID clsid, REFIID riid, void** object) {
    ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, object), S_OK);
}

/// Counts what the system's grabber hands over.
class Counter : public ISampleGrabberCB {
public:
    std::atomic<int> m_samples{0}, m_wrongSize{0};
    LONG m_references = 1;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = riid == IID_IUnknown || riid == IID_ISampleGrabberCB ? this : nullptr;
        if (*ppv) AddRef();
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&m_references)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&m_references)); }
    STDMETHODIMP SampleCB(double, IMediaSample* sample) override {
        if (sample->GetActualDataLength() != 16) ++m_wrongSize;
        ++m_samples;
        return S_OK;
    }
    STDMETHODIMP BufferCB(double, BYTE*, LONG) override { return E_NOTIMPL; }
};

/// Source, grabber and null renderer, rendered by the capture graph builder.
class Chain {
public:
    Chain() {
        make(CLSID_FilterGraph, IID_IGraphBuilder, m_graph.putVoid());
        make(CLSID_CaptureGraphBuilder2, IID_ICaptureGraphBuilder2, m_builder.putVoid());
        make(kSampleGrabber, IID_IBaseFilter, m_grabber.putVoid());
        make(kNullRenderer, IID_IBaseFilter, m_renderer.putVoid());
        m_source = new TestSource;
        m_source->AddRef();
        EXPECT_EQ(m_graph->AddFilter(m_source, L"source"), S_OK);
        EXPECT_EQ(m_graph->AddFilter(m_grabber.get(), L"grabber"), S_OK);
        EXPECT_EQ(m_graph->AddFilter(m_renderer.get(), L"renderer"), S_OK);
        Ref<ISampleGrabber> grabber;
        EXPECT_EQ(m_grabber->QueryInterface(IID_ISampleGrabber, grabber.putVoid()), S_OK);
        EXPECT_EQ(grabber->SetCallback(&m_counter, 0), S_OK);
        EXPECT_EQ(m_builder->SetFiltergraph(m_graph.get()), S_OK);
        EXPECT_EQ(m_builder->RenderStream(nullptr, nullptr, m_source->GetOwner(), m_grabber.get(), m_renderer.get()),
                  S_OK);
        EXPECT_EQ(m_graph->QueryInterface(IID_IMediaControl, m_control.putVoid()), S_OK);
        EXPECT_EQ(m_graph->QueryInterface(IID_IMediaEvent, m_events.putVoid()), S_OK);
    }
    ~Chain() {
        m_control->Stop();
        Ref<ISampleGrabber> grabber;
        m_grabber->QueryInterface(IID_ISampleGrabber, grabber.putVoid());
        grabber->SetCallback(nullptr, 0);
        grabber.reset();
        m_control.reset();
        m_events.reset();
        m_builder.reset();
        m_graph.reset();
        EXPECT_EQ(m_source->Release(), 0u) << "the graph has let go of it";
        EXPECT_EQ(m_counter.m_references, 1);
    }
    TestStream& out() { return m_source->stream(); }
    HRESULT run() {
        const HRESULT hr = m_control->Run();
        OAFilterState state = 0;
        return FAILED(hr) ? hr : m_control->GetState(5000, &state);
    }

    Counter m_counter;
    Ref<IGraphBuilder> m_graph;
    Ref<ICaptureGraphBuilder2> m_builder;
    Ref<IBaseFilter> m_grabber, m_renderer;
    Ref<IMediaControl> m_control;
    Ref<IMediaEvent> m_events;
    TestSource* m_source = nullptr;
};

class GraphTest : public testing::Test {
protected:
    GraphTest() : m_objects(CBaseObject::ObjectsActive()) { CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
    ~GraphTest() override {
        EXPECT_EQ(CBaseObject::ObjectsActive(), m_objects);
        CoUninitialize();
    }
    const LONG m_objects;
};

TEST_F(GraphTest, SamplesRunThroughTheSystemsFiltersToTheirEnd) {
    Chain chain;
    chain.out().m_samplesToMake = 100;
    ASSERT_EQ(chain.run(), S_OK);
    long code = 0;
    ASSERT_EQ(chain.m_events->WaitForCompletion(5000, &code), S_OK);
    EXPECT_EQ(code, EC_COMPLETE);
    EXPECT_EQ(chain.m_counter.m_samples, 100);
    EXPECT_EQ(chain.m_counter.m_wrongSize, 0);
}

TEST_F(GraphTest, FailingSourceAbortsTheGraph) {
    Chain chain;
    chain.out().m_fill.result = E_ACCESSDENIED;
    ASSERT_EQ(SUCCEEDED(chain.m_control->Run()), TRUE);
    long code = 0;
    LONG_PTR first = 0, second = 0;
    bool seen = false;
    EXPECT_TRUE(waitUntil([&] {
        while (!seen && chain.m_events->GetEvent(&code, &first, &second, 0) == S_OK) {
            seen = code == EC_ERRORABORT;
            chain.m_events->FreeEventParams(code, first, second);
        }
        return seen;
    }));
    EXPECT_EQ(first, E_ACCESSDENIED);
}

TEST_F(GraphTest, GraphNamesTheFilterAndFindsIt) {
    Chain chain;
    Ref<IBaseFilter> found;
    ASSERT_EQ(chain.m_graph->FindFilterByName(L"source", found.put()), S_OK);
    EXPECT_EQ(found.get(), static_cast<IBaseFilter*>(chain.m_source));
    FILTER_INFO info{};
    ASSERT_EQ(found->QueryFilterInfo(&info), S_OK);
    EXPECT_STREQ(info.achName, L"source");
    ASSERT_NE(info.pGraph, nullptr);
    info.pGraph->Release();
}

TEST_F(GraphTest, PinReconnectsWithAnotherTypeThroughTheGraph) {
    Chain chain;
    CMediaType type;
    ASSERT_EQ(chain.out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0));
    type.ResetFormatBuffer();
    const CMediaType wanted = testType(2);
    ASSERT_EQ(chain.m_source->ReconnectPin(&chain.out(), &wanted), S_OK);
    ASSERT_EQ(chain.out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == wanted);
    chain.out().m_samplesToMake = 5;
    ASSERT_EQ(chain.run(), S_OK);
    EXPECT_TRUE(waitUntil([&] { return chain.m_counter.m_samples == 5; }));
}

TEST_F(GraphTest, CaptureGraphBuilderFindsItsPin) {
    Chain chain;
    Ref<IPin> pin;
    ASSERT_EQ(
        chain.m_builder->FindPin(chain.m_source->GetOwner(), PINDIR_OUTPUT, nullptr, nullptr, FALSE, 0, pin.put()),
        S_OK);
    EXPECT_EQ(pin.get(), static_cast<IPin*>(&chain.out()));
    EXPECT_TRUE(FAILED(
        chain.m_builder->FindPin(chain.m_source->GetOwner(), PINDIR_INPUT, nullptr, nullptr, FALSE, 0, pin.put())));
}

TEST_F(GraphTest, PinsAreConnectedDirectlyWithAFullOrAPartialType) {
    Chain chain;
    Ref<IPin> input;
    ASSERT_EQ(chain.out().ConnectedTo(input.put()), S_OK);
    const auto disconnect = [&] {
        EXPECT_EQ(chain.m_graph->Disconnect(&chain.out()), S_OK);
        EXPECT_EQ(chain.m_graph->Disconnect(input.get()), S_OK);
        EXPECT_FALSE(chain.out().IsConnected());
    };
    disconnect();
    CMediaType wanted = testType(1), type;
    for (const bool partial : {false, true}) {
        if (partial) wanted.SetFormatType(&GUID_NULL);
        ASSERT_EQ(chain.m_graph->ConnectDirect(&chain.out(), input.get(), &wanted), S_OK);
        ASSERT_EQ(chain.out().ConnectionMediaType(&type), S_OK);
        EXPECT_TRUE(type == testType(1));
        type.ResetFormatBuffer();
        disconnect();
    }
    wanted.SetType(&MEDIATYPE_Midi);
    EXPECT_EQ(chain.m_graph->ConnectDirect(&chain.out(), input.get(), &wanted), VFW_E_NO_ACCEPTABLE_TYPES);
    EXPECT_FALSE(chain.out().IsConnected());
}

TEST_F(GraphTest, RemovedFilterIsDisconnectedAndOutsideTheGraph) {
    Chain chain;
    ASSERT_EQ(chain.m_graph->RemoveFilter(chain.m_source), S_OK);
    EXPECT_FALSE(chain.out().IsConnected());
    EXPECT_EQ(chain.m_source->GetFilterGraph(), nullptr);
    EXPECT_EQ(chain.m_source->NotifyEvent(EC_USER, 0, 0), E_NOTIMPL);
}

TEST_F(GraphTest, StartStopCyclesLeaveNoObjectThreadOrHandle) {
    const int rounds = cycles();
    Chain chain;
    chain.out().m_samplesToMake = 1 << 30;
    const auto cycle = [&](int i) {
        const int seen = chain.m_counter.m_samples;
        ASSERT_EQ(i % 3 == 0 ? chain.m_control->Pause() >= 0 : chain.run() >= 0, true);
        ASSERT_TRUE(waitUntil([&] { return i % 3 == 0 || chain.m_counter.m_samples > seen; })) << "cycle " << i;
        ASSERT_EQ(chain.m_control->Stop(), S_OK);
        ASSERT_FALSE(chain.out().ThreadExists());
    };
    for (int i = 0; i < 20; ++i)
        cycle(i);
    const LONG objects = CBaseObject::ObjectsActive();
    const ProcessCounts before = processCounts();
    const ULONGLONG start = GetTickCount64();
    for (int i = 0; i < rounds && !HasFailure(); ++i)
        cycle(i);
    const ULONGLONG tookMs = GetTickCount64() - start;
    const ProcessCounts after = processCounts();
    std::cout << rounds << " cycles in " << tookMs << " ms, " << chain.m_counter.m_samples << " samples; handles "
              << before.handles << " -> " << after.handles << ", threads " << before.threads << " -> " << after.threads
              << ", private KB " << before.privateBytes / 1024 << " -> " << after.privateBytes / 1024 << "\n";
    EXPECT_EQ(CBaseObject::ObjectsActive(), objects);
    EXPECT_LE(after.threads, before.threads);
    // A lock opens an event when two threads first meet at it, in whatever cycle that is.
    EXPECT_LE(after.handles, before.handles + rounds / 100);
    EXPECT_EQ(chain.m_counter.m_wrongSize, 0);
}

// The system's own graph loses an event with each object; what counts is that a source of ours adds nothing to that.
int handlesLostBy(int rounds, const std::function<void()>& cycle) {
    for (int i = 0; i < 3; ++i)
        cycle();
    const ProcessCounts before = processCounts();
    for (int i = 0; i < rounds; ++i)
        cycle();
    // A graph's thread ends some time after its last reference has gone.
    EXPECT_TRUE(waitUntil([&] { return processCounts().threads <= before.threads; }));
    return processCounts().handles - before.handles;
}

TEST_F(GraphTest, GraphsMadeAndReleasedLeaveNoObjectThreadOrHandleOfOurs) {
    const int rounds = cycles() / 20;
    const int system = handlesLostBy(rounds, [] {
        Ref<IGraphBuilder> graph;
        make(CLSID_FilterGraph, IID_IGraphBuilder, graph.putVoid());
        Ref<IMediaControl> control;
        ASSERT_EQ(graph->QueryInterface(IID_IMediaControl, control.putVoid()), S_OK);
        control->Run();
        control->Stop();
    });
    const int ours = handlesLostBy(rounds, [] {
        Chain chain;
        chain.out().m_samplesToMake = 3;
        ASSERT_GE(chain.run(), 0);
        ASSERT_TRUE(waitUntil([&] { return chain.m_counter.m_samples == 3; }));
    });
    std::cout << rounds << " graphs: " << ours << " handles lost with a source of ours, " << system
              << " with an empty graph\n";
    EXPECT_LE(ours, system);
}

} // namespace
} // namespace kestra::test

CFactoryTemplate g_Templates[] = {{L"none", &GUID_NULL, nullptr, nullptr, nullptr}};
int g_cTemplates = 0;
