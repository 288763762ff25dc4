// IAMStreamConfig, and media types that nobody should send.
#include "compliance/tests.h"

#include <dvdmedia.h>

#include <climits>
#include <cstring>

namespace kestra::compliance {
namespace {

struct Configured : Bare {
    ComRef<IAMStreamConfig> config;
    explicit Configured(const Context& context) : Bare(context), config(configOf(pin.get())) {}
};

void counts(Context& context) {
    const Configured c(context);
    int count = 0, size = 0;
    EXPECT_RESULT(S_OK, c.config->GetNumberOfCapabilities(&count, &size));
    expect(count > 0, "at least one capability", format("%d", count));
    const bool audio = formatOf(c.config.get()).isAudio();
    const int wanted = audio ? sizeof(AUDIO_STREAM_CONFIG_CAPS) : sizeof(VIDEO_STREAM_CONFIG_CAPS);
    expect(size == wanted, format("records of %d bytes", wanted), format("%d", size));
    EXPECT_RESULT(E_POINTER, c.config->GetNumberOfCapabilities(nullptr, &size));
    EXPECT_RESULT(E_POINTER, c.config->GetNumberOfCapabilities(&count, nullptr));
}

void readable(Context& context) {
    const Configured c(context);
    const auto list = capabilitiesOf(c.config.get());
    for (size_t i = 0; i < list.size(); ++i) {
        fact(format("Capability %zu", i), list[i].type.text());
    }
}

void pastEnd(Context& context) {
    const Configured c(context);
    int count = 0, size = 0;
    EXPECT_RESULT(S_OK, c.config->GetNumberOfCapabilities(&count, &size));
    std::vector<BYTE> caps(static_cast<size_t>(size));
    AM_MEDIA_TYPE* type = nullptr;
    EXPECT_RESULT(S_FALSE, c.config->GetStreamCaps(count, &type, caps.data()));
    EXPECT_RESULT(S_FALSE, c.config->GetStreamCaps(INT_MAX, &type, caps.data()));
    expect(!type, "no media type with S_FALSE", "one");
}

void negative(Context& context) {
    const Configured c(context);
    BYTE caps[256];
    AM_MEDIA_TYPE* type = nullptr;
    const HRESULT hr = CALL(c.config->GetStreamCaps(-1, &type, caps));
    Type::taken(SUCCEEDED(hr) ? type : nullptr);
    expectResult(hr, {E_INVALIDARG}, "GetStreamCaps(-1)");
}

void capsNull(Context& context) {
    const Configured c(context);
    BYTE caps[256];
    AM_MEDIA_TYPE* type = nullptr;
    EXPECT_RESULT(E_POINTER, c.config->GetStreamCaps(0, nullptr, caps));
    EXPECT_RESULT(E_POINTER, c.config->GetStreamCaps(0, &type, nullptr));
    EXPECT_RESULT(E_POINTER, c.config->GetFormat(nullptr));
    EXPECT_RESULT(E_POINTER, c.config->SetFormat(nullptr));
}

/// The record that goes with a type does not contradict it.
void consistent(Context& context) {
    const Configured c(context);
    for (const Capability& one : capabilitiesOf(c.config.get())) {
        if (const BITMAPINFOHEADER* header = one.type.bitmap()) {
            expect(one.caps.size() >= sizeof(VIDEO_STREAM_CONFIG_CAPS), "a VIDEO_STREAM_CONFIG_CAPS",
                   format("%zu bytes", one.caps.size()));
            VIDEO_STREAM_CONFIG_CAPS caps;
            std::memcpy(&caps, one.caps.data(), sizeof caps);
            expect(caps.guid == one.type->formattype, "the format type in guid: " + guidText(one.type->formattype),
                   guidText(caps.guid));
            const long height = std::labs(header->biHeight);
            expect(caps.MinOutputSize.cx <= header->biWidth && header->biWidth <= caps.MaxOutputSize.cx &&
                       caps.MinOutputSize.cy <= height && height <= caps.MaxOutputSize.cy,
                   format("%ldx%ld between least and largest output size", header->biWidth, height),
                   format("%ldx%ld to %ldx%ld", caps.MinOutputSize.cx, caps.MinOutputSize.cy, caps.MaxOutputSize.cx,
                          caps.MaxOutputSize.cy));
            const REFERENCE_TIME frame = one.type.frameTime();
            expect(caps.MinFrameInterval <= frame && frame <= caps.MaxFrameInterval,
                   format("%lld between least and largest frame interval", static_cast<long long>(frame)),
                   format("%lld to %lld", static_cast<long long>(caps.MinFrameInterval),
                          static_cast<long long>(caps.MaxFrameInterval)));
        }
        if (const WAVEFORMATEX* wave = one.type.wave(); wave && one.caps.size() >= sizeof(AUDIO_STREAM_CONFIG_CAPS)) {
            AUDIO_STREAM_CONFIG_CAPS caps;
            std::memcpy(&caps, one.caps.data(), sizeof caps);
            expect(caps.MinimumChannels <= wave->nChannels && wave->nChannels <= caps.MaximumChannels,
                   "the channels within their range", format("%d", wave->nChannels));
            expect(caps.MinimumBitsPerSample <= wave->wBitsPerSample &&
                       wave->wBitsPerSample <= caps.MaximumBitsPerSample,
                   "the bits within their range", format("%d", wave->wBitsPerSample));
            expect(caps.MinimumSampleFrequency <= wave->nSamplesPerSec &&
                       wave->nSamplesPerSec <= caps.MaximumSampleFrequency,
                   "the rate within its range", format("%lu", wave->nSamplesPerSec));
        }
    }
}

/// Each call allocates anew: two callers do not share memory.
void separate(Context& context) {
    const Configured c(context);
    AM_MEDIA_TYPE *one = nullptr, *other = nullptr;
    EXPECT_RESULT(S_OK, c.config->GetFormat(&one));
    EXPECT_RESULT(S_OK, c.config->GetFormat(&other));
    const bool apart = one && other && one != other && (!one->pbFormat || one->pbFormat != other->pbFormat);
    expect(apart, "two blocks of memory for two calls", "one");
    Type::taken(one);
    Type::taken(other);
}

void settable(Context& context) {
    const Configured c(context);
    for (const Capability& one : capabilitiesOf(c.config.get())) {
        Type wanted = one.type;
        EXPECT_RESULT(S_OK, c.config->SetFormat(wanted.get()));
        const Type now = formatOf(c.config.get());
        expect(now == wanted, "GetFormat to answer what was set: " + wanted.text(), now.text());
    }
}

/// From then on the pin offers the chosen type only, or at least first.
void offeredFirst(Context& context) {
    const Configured c(context);
    for (const Capability& one : capabilitiesOf(c.config.get())) {
        Type wanted = one.type;
        EXPECT_RESULT(S_OK, c.config->SetFormat(wanted.get()));
        const auto offered = offeredTypes(c.pin.get());
        expect(!offered.empty() && offered[0] == wanted, "the type that was set to be offered first: " + wanted.text(),
               offered.empty() ? "none" : offered[0].text());
    }
}

void connectable(Context& context) {
    std::vector<Type> types;
    {
        const Configured c(context);
        for (const Capability& one : capabilitiesOf(c.config.get()))
            types.push_back(one.type);
    }
    for (Type& type : types) {
        Rig rig(context);
        EXPECT_RESULT(S_OK, configOf(rig.pin.get())->SetFormat(type.get()));
        rig.connect();
        expect(rig.sink->type() == type, "a connection of the type that was set: " + type.text(),
               rig.sink->type().text());
        rig.disconnect();
        rig.connect(&*type);
    }
}

void formatConnected(Context& context) {
    Rig rig(context);
    const auto config = configOf(rig.pin.get());
    rig.connect();
    const Type connected = rig.sink->type();
    const Type now = formatOf(config.get());
    expect(now == connected, "the connection's type: " + connected.text(), now.text());
    rig.receive(1);
    expect(formatOf(config.get()) == connected, "the connection's type while running", "another one");
    rig.stop();
    expect(formatOf(config.get()) == connected, "the connection's type after the run", "another one");
}

void setRunning(Context& context) {
    Rig rig(context);
    const auto config = configOf(rig.pin.get());
    rig.connect();
    Type now = formatOf(config.get());
    rig.receive(1);
    EXPECT_EITHER(VFW_E_NOT_STOPPED, VFW_E_WRONG_STATE, config->SetFormat(now.get()));
    rig.stop();
    expect(formatOf(config.get()) == now, "the format as before", "another one");
}

void setConnected(Context& context) {
    GraphRig rig(context);
    const auto config = configOf(rig.pin.get());
    const auto list = capabilitiesOf(config.get());
    EXPECT_RESULT(S_OK, rig.graph->ConnectDirect(rig.pin.get(), rig.sink->pin(), nullptr));
    for (const Capability& one : list) {
        Type wanted = one.type;
        EXPECT_RESULT(S_OK, config->SetFormat(wanted.get()));
        expect(rig.sink->type() == wanted, "the connection made again with the type that was set: " + wanted.text(),
               rig.sink->type().text());
    }
    EXPECT_RESULT(S_OK, rig.graph->Disconnect(rig.pin.get()));
    EXPECT_SUCCESS(rig.graph->Disconnect(rig.sink->pin()));
}

void unsupported(Context& context) {
    const Configured c(context);
    const Type before = formatOf(c.config.get());
    Type wrong = before;
    wrong->majortype = MEDIATYPE_Midi;
    EXPECT_EITHER(VFW_E_INVALIDMEDIATYPE, VFW_E_TYPE_NOT_ACCEPTED, c.config->SetFormat(wrong.get()));
    Type nonsense = before;
    nonsense->subtype = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
    EXPECT_EITHER(VFW_E_INVALIDMEDIATYPE, VFW_E_TYPE_NOT_ACCEPTED, c.config->SetFormat(nonsense.get()));
    expect(formatOf(c.config.get()) == before, "the format as before a refusal", "another one");
}

// Hostile types. Each is tried by QueryAccept, SetFormat and Connect; whatever is accepted must also deliver without
// a byte behind a buffer's end.

void provoke(Context& context, Type (*change)(Type)) {
    for (const Type& good : offeredTypes(Bare(context).pin.get())) {
        Type bad = change(good);
        Rig rig(context);
        CALL(rig.pin->QueryAccept(&*bad));
        if (const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig)) {
            CALL(config->SetFormat(bad.get()));
            // What was accepted must not stay the format.
            Type again = good;
            CALL(config->SetFormat(again.get()));
            CALL(config->SetFormat(bad.get()));
        }
        const HRESULT hr = CALL(rig.pin->Connect(rig.sink->pin(), &*bad));
        if (SUCCEEDED(hr)) {
            rig.sink->Run(0);
            CALL(rig.filter->Pause());
            CALL(rig.filter->Run(0));
            note("waiting for samples of a hostile type");
            waitFor([&] { return rig.sink->samples().size() >= 2; }, 300);
            CALL(rig.filter->Stop());
            for (const Received& got : rig.sink->samples())
                expect(got.length >= 0 && got.length <= got.size, "samples no longer than their buffer",
                       format("%ld of %ld", got.length, got.size));
        }
        if (const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig)) {
            rig.disconnect();
            Type again = good;
            EXPECT_SUCCESS(config->SetFormat(again.get()));
        }
    }
}

/// A copy with another block length, and as much memory behind it.
Type withBlock(const Type& from, ULONG bytes) {
    AM_MEDIA_TYPE raw = *from;
    std::vector<BYTE> block(bytes ? bytes : 1);
    std::memcpy(block.data(), raw.pbFormat, std::min<size_t>(raw.cbFormat, bytes));
    raw.pbFormat = block.data();
    raw.cbFormat = bytes;
    return Type(raw);
}

template <class Change>
Type changed(Type type, Change change) {
    if (BITMAPINFOHEADER* header = type.bitmap()) change(*header);
    return type;
}

template <class Change>
Type changedWave(Type type, Change change) {
    if (WAVEFORMATEX* wave = type.wave()) change(*wave);
    return type;
}

void nullBlock(Context& context) {
    provoke(context, [](Type type) {
        CoTaskMemFree(type->pbFormat);
        type->pbFormat = nullptr;
        type->cbFormat = 0;
        return type;
    });
}

/// A length without a block: whoever checks first does not read it.
void lengthOnly(Context& context) {
    const Bare p(context);
    for (const Type& good : offeredTypes(p.pin.get())) {
        AM_MEDIA_TYPE bad = *good;
        bad.pbFormat = nullptr;
        CALL(p.pin->QueryAccept(&bad));
        Rig rig(context);
        CALL(rig.pin->Connect(rig.sink->pin(), &bad));
        if (const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig))
            CALL(config->SetFormat(&bad));
    }
}

void acceptNull(Context& context) {
    EXPECT_RESULT(E_POINTER, Bare(context).pin->QueryAccept(nullptr));
}

template <ULONG bytes>
void blockOf(Context& context) {
    // NOLINTNEXTLINE(performance-unnecessary-value-param): as every change is called
    provoke(context, [](Type type) { return withBlock(type, bytes); });
}

#define BITMAP_CHANGE(...)                                                                                             \
    [](Context& c) {                                                                                                   \
        provoke(c, [](Type t) { return changed(std::move(t), [](BITMAPINFOHEADER& h) { __VA_ARGS__; }); });            \
    }
#define WAVE_CHANGE(...)                                                                                               \
    [](Context& c) {                                                                                                   \
        provoke(c, [](Type t) { return changedWave(std::move(t), [](WAVEFORMATEX& w) { __VA_ARGS__; }); });            \
    }

constexpr char kCaps[] = "IAMStreamConfig::GetStreamCaps method", kSet[] = "IAMStreamConfig::SetFormat method";
constexpr char kHostile[] = "IPin::QueryAccept method";
const Test kConfigTests[] = {
    {"config", "counts", "IAMStreamConfig::GetNumberOfCapabilities method", counts},
    {"config", "readable", kCaps, readable},
    {"config", "past-end", kCaps, pastEnd},
    {"config", "negative-index", kCaps, negative},
    {"config", "null", kCaps, capsNull},
    {"config", "consistent", "VIDEO_STREAM_CONFIG_CAPS structure", consistent},
    {"config", "separate-memory", "IAMStreamConfig::GetFormat method", separate},
    {"config", "set-and-get", kSet, settable},
    {"config", "offered-first", kSet, offeredFirst},
    {"config", "connectable", kSet, connectable},
    {"config", "get-connected", "IAMStreamConfig::GetFormat method", formatConnected},
    {"config", "set-running", kSet, setRunning},
    {"config", "set-connected", kSet, setConnected},
    {"config", "set-unsupported", kSet, unsupported},
};
const Test kHostileTests[] = {
    {"hostile", "null", kHostile, acceptNull},
    {"hostile", "no-block", kHostile, nullBlock},
    {"hostile", "length-without-block", kHostile, lengthOnly},
    {"hostile", "block-of-1", kHostile, blockOf<1>},
    {"hostile", "block-of-17", kHostile, blockOf<17>},
    {"hostile", "block-of-87", kHostile, blockOf<87>},
    {"hostile", "block-of-16-megabytes", kHostile, blockOf<16u << 20>},
    {"hostile", "size-zero", kHostile, BITMAP_CHANGE(h.biWidth = h.biHeight = 0; h.biSizeImage = 0)},
    {"hostile", "size-odd", kHostile, BITMAP_CHANGE(h.biWidth = 1; h.biHeight = 1)},
    {"hostile", "size-huge", kHostile, BITMAP_CHANGE(h.biWidth = LONG_MAX; h.biHeight = LONG_MAX)},
    {"hostile", "height-negative", kHostile, BITMAP_CHANGE(h.biHeight = -h.biHeight)},
    {"hostile", "height-least", kHostile, BITMAP_CHANGE(h.biHeight = LONG_MIN)},
    {"hostile", "image-size-zero", kHostile, BITMAP_CHANGE(h.biSizeImage = 0)},
    {"hostile", "image-size-huge", kHostile, BITMAP_CHANGE(h.biSizeImage = ULONG_MAX)},
    {"hostile", "depth-zero", kHostile, BITMAP_CHANGE(h.biBitCount = 0)},
    {"hostile", "sample-size-zero", kHostile,
     [](Context& c) {
         provoke(c, [](Type t) {
             t->lSampleSize = 0;
             return t;
         });
     }},
    {"hostile", "sample-size-one", kHostile,
     [](Context& c) {
         provoke(c, [](Type t) {
             t->lSampleSize = 1;
             return t;
         });
     }},
    {"hostile", "wave-zeros", kHostile, WAVE_CHANGE(w.nBlockAlign = 0; w.nAvgBytesPerSec = 0; w.nChannels = 0)},
    {"hostile", "wave-huge", kHostile, WAVE_CHANGE(w.nBlockAlign = 0xFFFF; w.nAvgBytesPerSec = ULONG_MAX)},
};

} // namespace

std::span<const Test> configTests() {
    return kConfigTests;
}

std::span<const Test> hostileTests() {
    return kHostileTests;
}

} // namespace kestra::compliance
