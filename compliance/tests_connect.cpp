// Connecting, disconnecting, and the buffers that are agreed on.
#include "compliance/tests.h"

namespace kestra::compliance {
namespace {

void direct(Context& context) {
    GraphRig rig(context);
    EXPECT_RESULT(S_OK, rig.graph->ConnectDirect(rig.pin.get(), rig.sink->pin(), nullptr));
    AM_MEDIA_TYPE type{};
    EXPECT_RESULT(S_OK, rig.pin->ConnectionMediaType(&type));
    Type connected(type);
    freeMediaType(type);
    expect(connected == rig.sink->type(), "the type that the receiver was told: " + rig.sink->type().text(),
           connected.text());
    ComRef<IPin> peer;
    EXPECT_RESULT(S_OK, rig.pin->ConnectedTo(peer.out()));
    expect(peer.get() == rig.sink->pin(), "the receiver's pin", "another one");
    EXPECT_RESULT(S_OK, rig.control->Run());
    rig.awaitSamples(2);
    EXPECT_RESULT(S_OK, rig.control->Stop());
}

void everyType(Context& context) {
    for (const Type& type : offeredTypes(Bare(context).pin.get())) {
        Rig rig(context);
        rig.connect(&*type);
        expect(rig.sink->type() == type, "the type that was asked for: " + type.text(), rig.sink->type().text());
    }
}

void partialType(Context& context) {
    Rig rig(context);
    const auto offered = offeredTypes(rig.pin.get());
    expect(!offered.empty(), "a media type", "none");
    AM_MEDIA_TYPE partial{};
    partial.majortype = offered[0]->majortype;
    rig.connect(&partial);
    expect(rig.sink->type()->majortype == offered[0]->majortype && rig.sink->type()->subtype != GUID_NULL,
           "a whole type of this major type", rig.sink->type().text());
    rig.disconnect();
    partial.majortype = MEDIATYPE_Midi;
    EXPECT_FAILURE(rig.pin->Connect(rig.sink->pin(), &partial));
}

void picky(Context& context) {
    Rig rig(context);
    const auto offered = offeredTypes(rig.pin.get());
    expect(!offered.empty(), "a media type", "none");
    const Type& last = offered.back();
    rig.sink->accepts = [&](const AM_MEDIA_TYPE& type) { return Type(type) == last; };
    rig.connect();
    expect(rig.sink->type() == last, "the one type that the receiver takes: " + last.text(), rig.sink->type().text());
}

void refused(Context& context) {
    Rig rig(context);
    rig.sink->accepts = [](const AM_MEDIA_TYPE&) { return false; };
    const long before = rig.sink->references();
    EXPECT_FAILURE(rig.pin->Connect(rig.sink->pin(), nullptr));
    ComRef<IPin> peer;
    EXPECT_RESULT(VFW_E_NOT_CONNECTED, rig.pin->ConnectedTo(peer.out()));
    expect(rig.sink->references() == before, format("%ld references to the receiver, as before", before),
           format("%ld", rig.sink->references()));
    rig.sink->accepts = nullptr;
    rig.connect(); // as if nothing had happened
}

void notifyRefused(Context& context) {
    Rig rig(context);
    rig.sink->notifyAllocatorResult = E_FAIL;
    EXPECT_FAILURE(rig.pin->Connect(rig.sink->pin(), nullptr));
    ComRef<IPin> peer;
    EXPECT_RESULT(VFW_E_NOT_CONNECTED, rig.pin->ConnectedTo(peer.out()));
    rig.sink->pin()->Disconnect(); // a receiver may have been told, or not
    rig.sink->notifyAllocatorResult = S_OK;
    rig.connect();
}

void nullReceiver(Context& context) {
    Rig rig(context);
    EXPECT_RESULT(E_POINTER, rig.pin->Connect(nullptr, nullptr));
}

void already(Context& context) {
    Rig rig(context);
    rig.connect();
    ComRef<Sink> other(new Sink);
    EXPECT_RESULT(VFW_E_ALREADY_CONNECTED, rig.pin->Connect(other->pin(), nullptr));
    expect(rig.sink->type()->majortype != GUID_NULL, "the first connection as it was", "another one");
}

void wrongDirection(Context& context) {
    Rig rig(context);
    EXPECT_FAILURE(rig.pin->Connect(rig.pin.get(), nullptr));
    EXPECT_FAILURE(rig.pin->ReceiveConnection(rig.pin.get(), &*offeredTypes(rig.pin.get()).at(0)));
}

void whileRunning(Context& context) {
    Rig rig(context);
    EXPECT_SUCCESS(rig.filter->Pause());
    const HRESULT hr = CALL(rig.pin->Connect(rig.sink->pin(), nullptr));
    EXPECT_SUCCESS(rig.filter->Stop());
    expectResult(hr, {VFW_E_NOT_STOPPED, VFW_E_WRONG_STATE}, "Connect while paused");
}

void disconnectRunning(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(1);
    EXPECT_RESULT(VFW_E_NOT_STOPPED, rig.pin->Disconnect());
    rig.stop();
    EXPECT_RESULT(S_OK, rig.pin->Disconnect());
    EXPECT_RESULT(S_FALSE, rig.pin->Disconnect());
}

void balanced(Context& context) {
    Rig rig(context);
    const long before = rig.sink->references();
    const ULONG own = referencesTo(rig.filter.get());
    for (int i = 0; i < 20; ++i) {
        rig.connect();
        EXPECT_RESULT(S_OK, rig.pin->Disconnect());
        rig.sink->pin()->Disconnect();
    }
    expect(rig.sink->references() == before, format("%ld references to the receiver after 20 connections", before),
           format("%ld", rig.sink->references()));
    const ULONG after = referencesTo(rig.filter.get());
    expect(after == own, format("%lu references to the filter after 20 connections", own), format("%lu", after));
}

ComRef<ICaptureGraphBuilder2> builderOf(GraphRig& rig) {
    ComRef<ICaptureGraphBuilder2> builder;
    if (FAILED(CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                                reinterpret_cast<void**>(builder.out()))))
        notApplicable("the system has no capture graph builder");
    EXPECT_RESULT(S_OK, builder->SetFiltergraph(rig.graph.get()));
    return builder;
}

void renderStream(Context& context) {
    GraphRig rig(context);
    const auto builder = builderOf(rig);
    EXPECT_SUCCESS(builder->RenderStream(&PIN_CATEGORY_CAPTURE, nullptr, rig.filter.get(), nullptr, rig.sink.get()));
    ComRef<IPin> peer;
    EXPECT_RESULT(S_OK, rig.pin->ConnectedTo(peer.out()));
    EXPECT_RESULT(S_OK, rig.control->Run());
    rig.awaitSamples(2);
    EXPECT_RESULT(S_OK, rig.control->Stop());
}

void findInterface(Context& context) {
    GraphRig rig(context);
    const auto builder = builderOf(rig);
    ComRef<IAMStreamConfig> config;
    const Type type = offeredTypes(rig.pin.get()).at(0);
    EXPECT_RESULT(S_OK, builder->FindInterface(&PIN_CATEGORY_CAPTURE, &type->majortype, rig.filter.get(),
                                               IID_IAMStreamConfig, reinterpret_cast<void**>(config.out())));
    const auto own = queryFor<IUnknown>(rig.pin.get(), IID_IUnknown),
               found = queryFor<IUnknown>(config.get(), IID_IUnknown);
    expect(own.get() == found.get(), "the capture pin's interface", "another object's");
}

// Buffers

ComRef<IMemAllocator> systemAllocator() {
    ComRef<IMemAllocator> allocator;
    expectResult(CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                                  reinterpret_cast<void**>(allocator.out())),
                 {S_OK}, "CoCreateInstance(CLSID_MemoryAllocator)");
    return allocator;
}

/// Connects, runs, and looks at what was agreed and delivered.
void agree(Context& context, bool receiversOwn, std::optional<ALLOCATOR_PROPERTIES> wanted) {
    Rig rig(context);
    const auto own = receiversOwn ? systemAllocator() : ComRef<IMemAllocator>();
    rig.sink->allocator = own.get();
    rig.sink->requirements = wanted;
    rig.connect();
    const auto chosen = rig.sink->chosen();
    expect(bool{chosen}, "NotifyAllocator with an allocator", "none");
    ALLOCATOR_PROPERTIES actual{};
    EXPECT_RESULT(S_OK, chosen->GetProperties(&actual));
    expect(actual.cBuffers > 0 && actual.cbBuffer > 0, "at least one buffer of some size",
           format("%ld of %ld bytes", actual.cBuffers, actual.cbBuffer));
    const Type type = rig.sink->type();
    if (type->bFixedSizeSamples && type.isVideo())
        expect(actual.cbBuffer >= static_cast<long>(type->lSampleSize),
               format("buffers of a whole sample, %lu bytes", type->lSampleSize), format("%ld", actual.cbBuffer));
    if (wanted) {
        expect(actual.cbAlign >= wanted->cbAlign || actual.cbAlign == 0, format("an alignment of %ld", wanted->cbAlign),
               format("%ld", actual.cbAlign));
        if (actual.cBuffers < wanted->cBuffers)
            warn(format("the receiver asks for %ld buffers and gets %ld", wanted->cBuffers, actual.cBuffers));
    }
    if (wanted && actual.cbPrefix < wanted->cbPrefix)
        warn(format("the receiver asks for a prefix of %ld bytes and gets %ld", wanted->cbPrefix, actual.cbPrefix));
    std::string asked;
    if (wanted) asked = format("; %ld wanted", wanted->cBuffers);
    if (wanted && wanted->cbAlign > 1) asked += format(", alignment %ld", wanted->cbAlign);
    if (wanted && wanted->cbPrefix > 0) asked += format(", prefix %ld", wanted->cbPrefix);
    fact(format("Buffers (%s%s)", receiversOwn ? "the receiver's allocator" : "no allocator of the receiver's",
                asked.c_str()),
         format("%ld of %ld bytes, alignment %ld, prefix %ld%s", actual.cBuffers, actual.cbBuffer, actual.cbAlign,
                actual.cbPrefix, rig.sink->readOnly ? ", read-only" : ""));
    rig.receive(3);
    rig.stop();
    for (const Received& got : rig.sink->samples()) {
        expect(got.data != nullptr, "samples with memory", "a null pointer");
        expect(got.length > 0 && got.length <= got.size, "a length within the buffer",
               format("%ld of %ld", got.length, got.size));
        if (actual.cbAlign > 1)
            expect(reinterpret_cast<uintptr_t>(got.data) % static_cast<uintptr_t>(actual.cbAlign) == 0,
                   format("memory aligned to %ld", actual.cbAlign), "other memory");
    }
}

template <long buffers, long alignment = 1, long prefix = 0>
void wants(Context& context) {
    agree(context, true, ALLOCATOR_PROPERTIES{buffers, 0, alignment, prefix});
}

/// The receiver's allocator or the filter's own: either must be committed while active, and decommitted
/// afterwards.
void committed(Context& context) {
    Rig rig(context);
    rig.connect();
    const auto chosen = rig.sink->chosen();
    expect(bool{chosen}, "NotifyAllocator with an allocator", "none");
    ComRef<IMediaSample> sample;
    EXPECT_RESULT(VFW_E_NOT_COMMITTED, chosen->GetBuffer(sample.out(), nullptr, nullptr, AM_GBF_NOWAIT));
    rig.receive(1);
    rig.stop();
    EXPECT_RESULT(VFW_E_NOT_COMMITTED, chosen->GetBuffer(sample.out(), nullptr, nullptr, AM_GBF_NOWAIT));
}

/// No buffer is kept after a stop: whoever commits the allocator next can have all of them.
void allReturned(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(3);
    rig.stop();
    const auto chosen = rig.sink->chosen();
    ALLOCATOR_PROPERTIES actual{};
    EXPECT_RESULT(S_OK, chosen->GetProperties(&actual));
    EXPECT_RESULT(S_OK, chosen->Commit());
    std::vector<ComRef<IMediaSample>> held;
    for (long i = 0; i < actual.cBuffers && i < 64; ++i) {
        ComRef<IMediaSample> sample;
        const HRESULT hr = CALL(chosen->GetBuffer(sample.out(), nullptr, nullptr, AM_GBF_NOWAIT));
        if (hr != S_OK)
            throw Failure{format("all %ld buffers free after a stop", actual.cBuffers),
                          format("%ld, then %s", i, resultText(hr).c_str())};
        held.push_back(std::move(sample));
    }
    held.clear();
    EXPECT_RESULT(S_OK, chosen->Decommit());
}

void noTransport(Context& context) {
    Rig rig(context);
    rig.sink->hasTransport = false;
    EXPECT_FAILURE(rig.pin->Connect(rig.sink->pin(), nullptr));
    rig.sink->hasTransport = true;
}

constexpr char kConnect[] = "IPin::Connect method", kNegotiate[] = "Negotiating Allocators";
const Test kConnectTests[] = {
    {"connect", "direct", "IFilterGraph::ConnectDirect method", direct},
    {"connect", "every-type", kConnect, everyType},
    {"connect", "partial-type", kConnect, partialType},
    {"connect", "last-type-only", "How Filters Connect", picky},
    {"connect", "refused", "How Filters Connect", refused},
    {"connect", "allocator-refused", "IMemInputPin::NotifyAllocator method", notifyRefused},
    {"connect", "null", kConnect, nullReceiver},
    {"connect", "already", kConnect, already},
    {"connect", "wrong-direction", kConnect, wrongDirection},
    {"connect", "not-stopped", kConnect, whileRunning},
    {"connect", "disconnect", "IPin::Disconnect method", disconnectRunning},
    {"connect", "references", "How Filters Connect", balanced},
    {"connect", "render-stream", "ICaptureGraphBuilder2::RenderStream method", renderStream},
    {"connect", "find-interface", "ICaptureGraphBuilder2::FindInterface method", findInterface},
};
const Test kAllocatorTests[] = {
    {"allocator", "none-of-receiver", kNegotiate, [](Context& c) { agree(c, false, std::nullopt); }},
    {"allocator", "receivers", kNegotiate, [](Context& c) { agree(c, true, std::nullopt); }},
    {"allocator", "wants-0", "IMemInputPin::GetAllocatorRequirements method", wants<0>},
    {"allocator", "wants-1", "IMemInputPin::GetAllocatorRequirements method", wants<1>},
    {"allocator", "wants-2", "IMemInputPin::GetAllocatorRequirements method", wants<2>},
    {"allocator", "wants-32", "IMemInputPin::GetAllocatorRequirements method", wants<32>},
    {"allocator", "wants-alignment", "ALLOCATOR_PROPERTIES structure", wants<2, 4096>},
    {"allocator", "wants-prefix", "ALLOCATOR_PROPERTIES structure", wants<2, 1, 64>},
    {"allocator", "committed", "IMemAllocator::Commit method", committed},
    {"allocator", "all-returned", "IMemAllocator::Decommit method", allReturned},
    {"allocator", "no-transport", "IMemInputPin interface", noTransport},
};

} // namespace

std::span<const Test> connectTests() {
    return kConnectTests;
}

std::span<const Test> allocatorTests() {
    return kAllocatorTests;
}

} // namespace kestra::compliance
