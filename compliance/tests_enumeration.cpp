// Enumerators of pins and of media types: the same rules for both.
#include "compliance/tests.h"

namespace kestra::compliance {
namespace {

constexpr ULONG kMost = 200;

/// Pins and types as the shared tests see them: an enumerator, its elements, how they are compared and let go.
struct Pins {
    using Enumerator = IEnumPins;
    using Element = IPin*;
    static constexpr char kOf[] = "IBaseFilter::EnumPins";
    ComRef<IBaseFilter> filter;
    explicit Pins(Context& context) : filter(context.subject.create()) {}
    HRESULT open(Enumerator** out) const { return CALL(filter->EnumPins(out)); }
    static bool same(Element a, Element b) { return a == b; }
    static void free(Element pin) { pin->Release(); }
};

struct Types : Bare {
    using Enumerator = IEnumMediaTypes;
    using Element = AM_MEDIA_TYPE*;
    static constexpr char kOf[] = "IPin::EnumMediaTypes";
    using Bare::Bare;
    HRESULT open(Enumerator** out) const { return CALL(pin->EnumMediaTypes(out)); }
    static bool same(Element a, Element b) { return Type(*a) == Type(*b); }
    static void free(Element type) { Type::taken(type); }
};

template <class Kind>
ComRef<typename Kind::Enumerator> opened(const Kind& kind) {
    ComRef<typename Kind::Enumerator> enumerator;
    expectResult(kind.open(enumerator.out()), {S_OK}, Kind::kOf);
    expect(bool{enumerator}, "an enumerator", "a null pointer");
    return enumerator;
}

/// Elements that are let go at the end.
template <class Kind>
struct Elements {
    typename Kind::Element all[kMost + 1] = {};
    ULONG count = 0;
    Elements() = default;
    Elements(const Elements&) = delete;
    ~Elements() {
        for (ULONG i = 0; i < count; ++i)
            if (all[i]) Kind::free(all[i]);
    }
};

/// One by one to the end.
template <class Kind>
void readAll(typename Kind::Enumerator* enumerator, Elements<Kind>& into) {
    ULONG fetched = 0;
    HRESULT hr = S_OK;
    while (into.count < kMost && (hr = CALL(enumerator->Next(1, &into.all[into.count], &fetched))) == S_OK) {
        expect(fetched == 1 && into.all[into.count], "one element with S_OK", format("%lu fetched", fetched));
        ++into.count;
    }
    expectResult(hr, {S_FALSE}, "Next(1) behind the last element");
    expect(fetched == 0, "0 fetched with S_FALSE", format("%lu", fetched));
}

template <class Kind>
void nextOne(Context& context) {
    const Kind kind(context);
    Elements<Kind> elements;
    const auto enumerator = opened(kind);
    readAll<Kind>(enumerator.get(), elements);
    expect(elements.count > 0, "at least one element", "none");
    typename Kind::Element past{};
    EXPECT_RESULT(S_FALSE, enumerator->Next(1, &past, nullptr)); // stays at the end
}

template <class Kind>
void nextOneUncounted(Context& context) {
    const Kind kind(context);
    Elements<Kind> elements;
    const auto enumerator = opened(kind);
    EXPECT_RESULT(S_OK, enumerator->Next(1, &elements.all[0], nullptr)); // allowed for one
    elements.count = 1;
}

template <class Kind>
void nextNone(Context& context) {
    const Kind kind(context);
    const auto enumerator = opened(kind);
    typename Kind::Element untouched{};
    ULONG fetched = 77;
    EXPECT_SUCCESS(enumerator->Next(0, &untouched, &fetched));
    expect(fetched == 0 && !untouched, "nothing fetched by Next(0)", format("%lu", fetched));
    Elements<Kind> elements;
    readAll<Kind>(enumerator.get(), elements);
    expect(elements.count > 0, "Next(0) to leave the position", "at the end");
}

template <class Kind>
void nextMany(Context& context) {
    const Kind kind(context);
    Elements<Kind> single, many;
    readAll<Kind>(opened(kind).get(), single);
    const auto enumerator = opened(kind);
    EXPECT_RESULT(S_FALSE, enumerator->Next(kMost, many.all, &many.count)); // fewer than wanted
    expect(many.count == single.count, format("%lu fetched", single.count), format("%lu", many.count));
    for (ULONG i = 0; i < many.count; ++i)
        expect(many.all[i] && Kind::same(many.all[i], single.all[i]), "the same elements as one by one",
               format("another one at %lu", i));
    Elements<Kind> exact;
    const auto again = opened(kind);
    EXPECT_RESULT(S_OK, again->Next(single.count, exact.all, &exact.count));
    expect(exact.count == single.count, format("%lu fetched", single.count), format("%lu", exact.count));
}

template <class Kind>
void nextNull(Context& context) {
    const Kind kind(context);
    const auto enumerator = opened(kind);
    ULONG fetched = 0;
    EXPECT_RESULT(E_POINTER, enumerator->Next(1, nullptr, &fetched));
    typename Kind::Element pair[2] = {};
    EXPECT_FAILURE(enumerator->Next(2, pair, nullptr)); // how many would not be known
}

template <class Kind>
void skip(Context& context) {
    const Kind kind(context);
    Elements<Kind> all;
    readAll<Kind>(opened(kind).get(), all);
    const auto enumerator = opened(kind);
    EXPECT_RESULT(S_OK, enumerator->Skip(0));
    for (ULONG n = 0; n < all.count; ++n) {
        EXPECT_RESULT(S_OK, enumerator->Reset());
        EXPECT_RESULT(S_OK, enumerator->Skip(n));
        Elements<Kind> one;
        EXPECT_RESULT(S_OK, enumerator->Next(1, one.all, &one.count));
        expect(Kind::same(one.all[0], all.all[n]), format("element %lu after Skip(%lu)", n, n), "another one");
    }
    EXPECT_RESULT(S_OK, enumerator->Reset());
    EXPECT_RESULT(S_FALSE, enumerator->Skip(all.count + 1));
}

template <class Kind>
void reset(Context& context) {
    const Kind kind(context);
    const auto enumerator = opened(kind);
    Elements<Kind> first, second;
    readAll<Kind>(enumerator.get(), first);
    EXPECT_RESULT(S_OK, enumerator->Reset());
    readAll<Kind>(enumerator.get(), second);
    expect(first.count == second.count, format("%lu elements again", first.count), format("%lu", second.count));
}

template <class Kind>
void clone(Context& context) {
    const Kind kind(context);
    const auto enumerator = opened(kind);
    Elements<Kind> first;
    EXPECT_RESULT(S_OK, enumerator->Next(1, first.all, &first.count));
    ComRef<typename Kind::Enumerator> copy;
    EXPECT_RESULT(S_OK, enumerator->Clone(copy.out()));
    Elements<Kind> rest, copied;
    readAll<Kind>(copy.get(), copied);
    readAll<Kind>(enumerator.get(), rest); // where it was, whatever its copy read
    expect(rest.count == copied.count, "a clone at the same place as its origin",
           format("%lu left to the clone, %lu to the origin", copied.count, rest.count));
    EXPECT_RESULT(E_POINTER, enumerator->Clone(nullptr));
}

template <class Kind>
void openNull(Context& context) {
    const Kind kind(context);
    expectResult(kind.open(nullptr), {E_POINTER}, format("%s with a null pointer", Kind::kOf).c_str());
}

void pinReferences(Context& context) {
    const Pins pins(context);
    CALL(pins.filter->AddRef());
    const ULONG before = CALL(pins.filter->Release());
    for (int i = 0; i < 10; ++i) {
        Elements<Pins> elements;
        readAll<Pins>(opened(pins).get(), elements);
    }
    CALL(pins.filter->AddRef());
    const ULONG after = CALL(pins.filter->Release());
    expect(after == before, format("%lu references to the filter, as before ten enumerations", before),
           format("%lu", after));
}

void wellFormed(Context& context) {
    const Types types(context);
    std::vector<Type> list = offeredTypes(types.pin.get());
    expect(!list.empty(), "at least one media type", "none");
    for (size_t i = 0; i < list.size(); ++i) {
        const Type& type = list[i];
        fact(format("Type %zu", i), type.text());
        expect(type->majortype != GUID_NULL && type->subtype != GUID_NULL, "a major type and a subtype", type.text());
        expect((type->cbFormat == 0) == (type->pbFormat == nullptr), "a format block exactly where a length is",
               type.text());
        if (type.isVideo() || type.isAudio())
            expect(type.bitmap() || type.wave() || type->formattype == FORMAT_None,
                   "a format block as long as its format type says",
                   format("%lu bytes, format type %s", type->cbFormat, guidText(type->formattype).c_str()));
        if (const BITMAPINFOHEADER* header = type.bitmap()) {
            expect(header->biSize >= sizeof *header && header->biPlanes == 1, "biSize 40 and biPlanes 1",
                   format("%lu and %d", header->biSize, header->biPlanes));
            expect(header->biWidth > 0 && header->biHeight != 0, "a picture with a size", type.text());
            if (type->bFixedSizeSamples)
                expect(type->lSampleSize >= header->biSizeImage, "lSampleSize to hold biSizeImage",
                       format("%lu below %lu", type->lSampleSize, header->biSizeImage));
        }
        if (const WAVEFORMATEX* wave = type.wave();
            wave && wave->wBitsPerSample % 8 == 0 && wave->wFormatTag == WAVE_FORMAT_PCM) {
            expect(wave->nBlockAlign == wave->nChannels * wave->wBitsPerSample / 8, "nBlockAlign of channels and bits",
                   format("%d", wave->nBlockAlign));
            expect(wave->nAvgBytesPerSec == wave->nSamplesPerSec * wave->nBlockAlign,
                   "nAvgBytesPerSec of rate and block", format("%lu", wave->nAvgBytesPerSec));
        }
    }
}

void accepted(Context& context) {
    const Types types(context);
    for (const Type& type : offeredTypes(types.pin.get()))
        EXPECT_RESULT(S_OK, types.pin->QueryAccept(&*type));
}

void outOfSync(Context& context) {
    const Types types(context);
    const auto config = configOf(types.pin.get());
    const auto capabilities = capabilitiesOf(config.get());
    if (capabilities.size() < 2) notApplicable("the pin has one format only");
    const Type now = formatOf(config.get());
    const auto enumerator = opened(types);
    const Capability* other = nullptr;
    for (const Capability& capability : capabilities)
        if (!(capability.type == now)) other = &capability;
    if (!other) notApplicable("every capability is the current format");
    Type wanted = other->type;
    EXPECT_RESULT(S_OK, config->SetFormat(wanted.get()));
    AM_MEDIA_TYPE* stale = nullptr;
    const HRESULT hr = CALL(enumerator->Next(1, &stale, nullptr));
    const Type read = Type::taken(SUCCEEDED(hr) ? stale : nullptr);
    const auto fresh = offeredTypes(types.pin.get());
    if (hr == S_OK)
        expect(!fresh.empty() && read == fresh[0], "VFW_E_ENUM_OUT_OF_SYNC, or the types that are offered now",
               "a type of before");
    else
        expectResult(hr, {VFW_E_ENUM_OUT_OF_SYNC}, "Next after SetFormat");
    EXPECT_RESULT(S_OK, enumerator->Reset());
    Elements<Types> elements;
    readAll<Types>(enumerator.get(), elements);
    expect(elements.count == fresh.size(), format("%zu types after Reset", fresh.size()),
           format("%lu", elements.count));
}

#define PIN(name) "IEnumPins::" name " method"
#define TYPE(name) "IEnumMediaTypes::" name " method"
const Test kTests[] = {
    {"enum-pins", "next-one", PIN("Next"), nextOne<Pins>},
    {"enum-pins", "next-one-uncounted", PIN("Next"), nextOneUncounted<Pins>},
    {"enum-pins", "next-none", PIN("Next"), nextNone<Pins>},
    {"enum-pins", "next-many", PIN("Next"), nextMany<Pins>},
    {"enum-pins", "next-null", PIN("Next"), nextNull<Pins>},
    {"enum-pins", "skip", PIN("Skip"), skip<Pins>},
    {"enum-pins", "reset", PIN("Reset"), reset<Pins>},
    {"enum-pins", "clone", PIN("Clone"), clone<Pins>},
    {"enum-pins", "null", "IBaseFilter::EnumPins method", openNull<Pins>},
    {"enum-pins", "references", PIN("Next"), pinReferences},
    {"enum-types", "next-one", TYPE("Next"), nextOne<Types>},
    {"enum-types", "next-one-uncounted", TYPE("Next"), nextOneUncounted<Types>},
    {"enum-types", "next-none", TYPE("Next"), nextNone<Types>},
    {"enum-types", "next-many", TYPE("Next"), nextMany<Types>},
    {"enum-types", "next-null", TYPE("Next"), nextNull<Types>},
    {"enum-types", "skip", TYPE("Skip"), skip<Types>},
    {"enum-types", "reset", TYPE("Reset"), reset<Types>},
    {"enum-types", "clone", TYPE("Clone"), clone<Types>},
    {"enum-types", "null", "IPin::EnumMediaTypes method", openNull<Types>},
    {"enum-types", "well-formed", "AM_MEDIA_TYPE structure", wellFormed},
    {"enum-types", "accepted", "IPin::QueryAccept method", accepted},
    {"enum-types", "out-of-sync", TYPE("Next"), outOfSync},
};

} // namespace

std::span<const Test> enumerationTests() {
    return kTests;
}

} // namespace kestra::compliance
