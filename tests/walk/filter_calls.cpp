// Calls of filters, pins and enumerators, with what each may answer.
#include "tests/walk/filters_world.h"

#include <dvdmedia.h>
#include <ks.h>

#include <kestra_interfaces.h>
#include <ksmedia.h>
#include <ksproxy.h>

namespace kestra::walk {
namespace {

void free(AM_MEDIA_TYPE* type) {
    compliance::Type::taken(type);
}

} // namespace

HRESULT FiltersWorld::onFilter(Rig& rig, uint16_t call, uint32_t b) {
    IBaseFilter* filter = rig.filter.get();
    switch (call) {
    case kStop:
        return allowed(rig.stop([&] { return filter->Stop(); }), {S_OK}, "Stop");
    case kPause:
        return allowed(rig.start([&] { return filter->Pause(); }), {S_OK, E_FAIL, E_UNEXPECTED, VFW_E_NO_ALLOCATOR},
                       "Pause");
    case kRun:
        return allowed(rig.start([&] { return filter->Run(b); }), {S_OK, E_FAIL, E_UNEXPECTED, VFW_E_NO_ALLOCATOR},
                       "Run");
    case kGetState: {
        FILTER_STATE state{};
        if (b % 8 == 0) return allowed(filter->GetState(0, nullptr), {E_POINTER}, "GetState(null)");
        return allowed(filter->GetState(b % 50, &state), {S_OK}, "GetState");
    }
    case kSyncSource: {
        ComRef<IReferenceClock> clock;
        if (b % 3 == 0) {
            CoCreateInstance(CLSID_SystemClock, nullptr, CLSCTX_INPROC_SERVER, IID_IReferenceClock,
                             reinterpret_cast<void**>(clock.out()));
            return allowed(filter->SetSyncSource(clock.get()), {S_OK}, "SetSyncSource");
        }
        if (b % 3 == 1) return allowed(filter->SetSyncSource(nullptr), {S_OK}, "SetSyncSource(null)");
        return allowed(filter->GetSyncSource(clock.out()), {S_OK}, "GetSyncSource");
    }
    case kEnumPins:
        return enumeratePins(rig, b);
    case kFindPin: {
        ComRef<IPin> found;
        static const wchar_t* const kIds[] = {L"1", L"Video Capture", L"Audio Capture", L"", L"no such pin"};
        if (b % 16 == 0) return allowed(filter->FindPin(L"1", nullptr), {E_POINTER}, "FindPin");
        const HRESULT hr = filter->FindPin(kIds[b % 5], found.out());
        if (SUCCEEDED(hr) != bool(found)) fail("result", "FindPin gave a pin and a failure, or neither");
        return allowed(hr, {S_OK, VFW_E_NOT_FOUND}, "FindPin");
    }
    case kFilterInfo: {
        FILTER_INFO info{};
        const HRESULT hr = filter->QueryFilterInfo(b % 16 == 0 ? nullptr : &info);
        const ComRef<IFilterGraph> graph(info.pGraph);
        return allowed(hr, {b % 16 == 0 ? E_POINTER : S_OK}, "QueryFilterInfo");
    }
    case kJoin:
        if (rig.graph) return static_cast<HRESULT>(kNotMade); // the graph's own matter
        return allowed(filter->JoinFilterGraph(nullptr, b % 2 == 0 ? nullptr : L"a name"), {S_OK}, "JoinFilterGraph");
    case kClassAndVendor: {
        CLSID clsid{};
        LPWSTR vendor = nullptr;
        allowed(filter->QueryVendorInfo(&vendor), {E_NOTIMPL}, "QueryVendorInfo");
        return allowed(filter->GetClassID(&clsid), {S_OK}, "GetClassID");
    }
    default: {
        static const IID* const kInterfaces[] = {&IID_IUnknown,
                                                 &IID_IBaseFilter,
                                                 &IID_IPersist,
                                                 &IID_ISpecifyPropertyPages,
                                                 &IID_IKestraStreamPropCSC,
                                                 &IID_IKestraStreamPropRGBGainOffset,
                                                 &IID_IKestraAudioPropertyPage,
                                                 &IID_IAMStreamConfig,
                                                 &IID_IKsPropertySet,
                                                 &IID_IPin,
                                                 &IID_IQualityControl,
                                                 &IID_IAMBufferNegotiation,
                                                 &IID_IMediaSeeking};
        ComRef<IUnknown> found;
        IUnknown* asked = b % 2 == 0 ? static_cast<IUnknown*>(filter) : rig.pin.get();
        const HRESULT hr =
            asked->QueryInterface(*kInterfaces[b / 2 % std::size(kInterfaces)], reinterpret_cast<void**>(found.out()));
        if (SUCCEEDED(hr) != bool(found)) fail("result", "QueryInterface gave an interface and a failure, or neither");
        return allowed(hr, {S_OK, E_NOINTERFACE}, "QueryInterface");
    }
    }
}

HRESULT FiltersWorld::enumeratePins(Rig& rig, uint32_t b) {
    if (!t_mine->pins || b % 4 == 0) return allowed(rig.filter->EnumPins(t_mine->pins.out()), {S_OK}, "EnumPins");
    IEnumPins* pins = t_mine->pins.get();
    switch (b / 4 % 5) {
    case 0: {
        ComRef<IPin> pin;
        ULONG fetched = 7;
        const HRESULT hr = allowed(pins->Next(1, pin.out(), &fetched), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next");
        if (SUCCEEDED(hr) && (fetched == 1) != bool(pin)) fail("result", "Next counts pins that it does not give");
        return hr;
    }
    case 1:
        return allowed(pins->Skip(b / 32 % 3), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Skip");
    case 2:
        return allowed(pins->Reset(), {S_OK}, "Reset");
    case 3: {
        ComRef<IEnumPins> copy;
        const HRESULT hr = allowed(pins->Clone(copy.out()), {S_OK, VFW_E_ENUM_OUT_OF_SYNC}, "Clone");
        if (copy) t_mine->pins = std::move(copy);
        return hr;
    }
    default: {
        IPin* some[3] = {};
        ULONG fetched = 0;
        const HRESULT hr = allowed(pins->Next(3, some, &fetched), {S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next(3)");
        for (IPin* pin : some)
            if (pin) pin->Release();
        return hr;
    }
    }
}

// Pins.

HRESULT FiltersWorld::onPin(Rig& rig, uint16_t call, uint32_t b) {
    IPin* pin = rig.pin.get();
    switch (call) {
    case kConnect:
        return connect(rig, b);
    case kDisconnect: {
        if (b % 2 == 0)
            for (const auto& sink : rig.sinks)
                sink->pin()->Disconnect();
        return allowed(pin->Disconnect(), {S_OK, S_FALSE, VFW_E_NOT_STOPPED}, "Disconnect");
    }
    case kConnectedTo: {
        ComRef<IPin> other;
        if (b % 16 == 0) return allowed(pin->ConnectedTo(nullptr), {E_POINTER}, "ConnectedTo(null)");
        return allowed(pin->ConnectedTo(other.out()), {S_OK, VFW_E_NOT_CONNECTED}, "ConnectedTo");
    }
    case kMediaType: {
        compliance::Type type;
        if (b % 16 == 0) return allowed(pin->ConnectionMediaType(nullptr), {E_POINTER}, "ConnectionMediaType(null)");
        return allowed(pin->ConnectionMediaType(type.get()), {S_OK, VFW_E_NOT_CONNECTED}, "ConnectionMediaType");
    }
    case kPinQuestions:
        return questions(rig, b);
    case kQueryAccept: {
        if (b % 16 == 0) return allowed(pin->QueryAccept(nullptr), {E_POINTER}, "QueryAccept(null)");
        const compliance::Type type = oddType(rig, b);
        return allowed(pin->QueryAccept(&*type), {S_OK, S_FALSE}, "QueryAccept");
    }
    case kEnumTypes:
        return enumerateTypes(rig, b);
    case kReceiveConnection: { // it is an output pin
        const compliance::Type type = oddType(rig, b);
        const HRESULT hr = pin->ReceiveConnection(b % 8 == 0 ? nullptr : rig.sinks[1]->pin(), &*type);
        if (SUCCEEDED(hr)) return hr;
        return allowed(hr,
                       {E_POINTER, VFW_E_ALREADY_CONNECTED, VFW_E_NOT_STOPPED, VFW_E_TYPE_NOT_ACCEPTED, E_FAIL,
                        VFW_E_NO_CAPTURE_HARDWARE, VFW_E_INVALIDMEDIATYPE, E_OUTOFMEMORY},
                       "ReceiveConnection");
    }
    case kStreamCalls:
        switch (b % 4) {
        case 0:
            return allowed(pin->EndOfStream(), {S_OK, E_UNEXPECTED}, "EndOfStream");
        case 1:
            return allowed(pin->BeginFlush(), {S_OK, E_UNEXPECTED}, "BeginFlush");
        case 2:
            return allowed(pin->EndFlush(), {S_OK, E_UNEXPECTED}, "EndFlush");
        default:
            return allowed(pin->NewSegment(0, b, 1), {S_OK}, "NewSegment");
        }
    case kPropertySet:
        return propertySet(rig, b);
    case kSetFormat: {
        const auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
        if (b % 16 == 0) return allowed(config->SetFormat(nullptr), {E_POINTER}, "SetFormat(null)");
        compliance::Type type = oddType(rig, b);
        return allowed(config->SetFormat(type.get()), {S_OK, VFW_E_NOT_STOPPED, VFW_E_INVALIDMEDIATYPE}, "SetFormat");
    }
    case kGetFormat: {
        const auto config = queryFor<IAMStreamConfig>(pin, IID_IAMStreamConfig);
        if (b % 16 == 0) return allowed(config->GetFormat(nullptr), {E_POINTER}, "GetFormat(null)");
        AM_MEDIA_TYPE* type = nullptr;
        const HRESULT hr = allowed(config->GetFormat(&type), {S_OK}, "GetFormat");
        if (!type) fail("result", "GetFormat gave no type");
        free(type);
        return hr;
    }
    case kCapabilities:
        return capabilities(rig, b);
    case kNegotiation: {
        const auto negotiation = queryFor<IAMBufferNegotiation>(pin, IID_IAMBufferNegotiation);
        if (bool(negotiation) == rig.isVideo) fail("result", "IAMBufferNegotiation is the audio pin's");
        if (!negotiation) return static_cast<HRESULT>(kNotMade);
        ALLOCATOR_PROPERTIES properties{};
        if (b % 2 == 0)
            return allowed(negotiation->SuggestAllocatorProperties(&properties), {S_OK}, "SuggestAllocatorProperties");
        return allowed(negotiation->GetAllocatorProperties(b % 16 == 1 ? nullptr : &properties),
                       {S_OK, E_POINTER, VFW_E_NO_ALLOCATOR}, "GetAllocatorProperties");
    }
    default: { // kPages
        CAUUID pages{};
        const auto specify = queryFor<ISpecifyPropertyPages>(
            b % 2 == 0 ? static_cast<IUnknown*>(rig.filter.get()) : pin, IID_ISpecifyPropertyPages);
        if (!specify) return E_NOINTERFACE; // the audio filter has none
        const HRESULT hr =
            allowed(specify->GetPages(b % 16 == 2 ? nullptr : &pages), {S_OK, E_POINTER}, "ISpecifyPropertyPages");
        CoTaskMemFree(pages.pElems);
        return hr;
    }
    }
}

HRESULT FiltersWorld::connect(Rig& rig, uint32_t b) {
    if (b % 16 == 0) return allowed(rig.pin->Connect(nullptr, nullptr), {E_POINTER}, "Connect(null)");
    IPin* other = b % 32 == 1 ? rig.pin.get() : rig.sinks[b / 32 % 4 == 0 ? 1 : 0]->pin();
    const compliance::Type type = b / 128 % 3 == 0 ? oddType(rig, b / 512) : compliance::Type();
    return allowed(rig.pin->Connect(other, b / 128 % 3 == 0 ? &*type : nullptr),
                   {S_OK, E_FAIL, VFW_E_ALREADY_CONNECTED, VFW_E_NOT_STOPPED, VFW_E_NO_ACCEPTABLE_TYPES,
                    VFW_E_TYPE_NOT_ACCEPTED, VFW_E_INVALIDMEDIATYPE, VFW_E_NO_CAPTURE_HARDWARE, VFW_E_INVALID_DIRECTION,
                    VFW_E_NO_ALLOCATOR},
                   "Connect");
}

HRESULT FiltersWorld::questions(Rig& rig, uint32_t b) {
    IPin* pin = rig.pin.get();
    switch (b % 4) {
    case 0: {
        PIN_INFO info{};
        const HRESULT hr = pin->QueryPinInfo(b % 16 == 0 ? nullptr : &info);
        const ComRef<IBaseFilter> filter(info.pFilter);
        return allowed(hr, {b % 16 == 0 ? E_POINTER : S_OK}, "QueryPinInfo");
    }
    case 1: {
        PIN_DIRECTION direction = PINDIR_INPUT;
        const HRESULT hr = allowed(pin->QueryDirection(&direction), {S_OK}, "QueryDirection");
        if (direction != PINDIR_OUTPUT) fail("result", "a pin of the wrong direction");
        return hr;
    }
    case 2: {
        LPWSTR id = nullptr;
        const HRESULT hr = allowed(pin->QueryId(&id), {S_OK}, "QueryId");
        CoTaskMemFree(id);
        return hr;
    }
    default: {
        ULONG count = 0;
        return allowed(pin->QueryInternalConnections(nullptr, &count), {E_NOTIMPL}, "QueryInternalConnections");
    }
    }
}

HRESULT FiltersWorld::enumerateTypes(Rig& rig, uint32_t b) {
    if (!t_mine->types || b % 4 == 0)
        return allowed(rig.pin->EnumMediaTypes(t_mine->types.out()), {S_OK}, "EnumMediaTypes");
    IEnumMediaTypes* types = t_mine->types.get();
    switch (b / 4 % 4) {
    case 0: {
        AM_MEDIA_TYPE* some[8] = {};
        ULONG fetched = 0;
        const HRESULT hr =
            allowed(types->Next(1 + b / 16 % 8, some, &fetched), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Next");
        for (ULONG i = 0; i < fetched; ++i)
            free(some[i]);
        return hr;
    }
    case 1:
        return allowed(types->Skip(b / 16 % 6), {S_OK, S_FALSE, VFW_E_ENUM_OUT_OF_SYNC}, "Skip");
    case 2:
        return allowed(types->Reset(), {S_OK}, "Reset");
    default: {
        ComRef<IEnumMediaTypes> copy;
        const HRESULT hr = allowed(types->Clone(copy.out()), {S_OK, VFW_E_ENUM_OUT_OF_SYNC}, "Clone");
        if (copy) t_mine->types = std::move(copy);
        return hr;
    }
    }
}

HRESULT FiltersWorld::propertySet(Rig& rig, uint32_t b) {
    const auto set = queryFor<IKsPropertySet>(rig.pin.get(), IID_IKsPropertySet);
    const GUID& which = b % 4 == 0 ? GUID_NULL : AMPROPSETID_Pin;
    const DWORD id = b / 4 % 4 == 0 ? 1 : DWORD{AMPROPERTY_PIN_CATEGORY};
    const auto kNoSet = static_cast<HRESULT>(0x80070492), kNoId = static_cast<HRESULT>(0x80070490);
    GUID category{};
    DWORD bytes = 0;
    switch (b / 16 % 4) {
    case 0:
        return allowed(set->QuerySupported(which, id, b / 64 % 4 == 0 ? nullptr : &bytes), {S_OK, kNoSet, kNoId},
                       "QuerySupported");
    case 1:
        return allowed(set->Set(which, id, nullptr, 0, &category, sizeof category), {E_NOTIMPL}, "Set");
    default:
        return allowed(set->Get(which, id, nullptr, 0, b / 64 % 4 == 0 ? nullptr : &category,
                                b / 256 % 4 == 0 ? 3 : DWORD{sizeof category}, b / 1024 % 4 == 0 ? nullptr : &bytes),
                       {S_OK, E_POINTER, E_UNEXPECTED, kNoSet, kNoId}, "Get");
    }
}

HRESULT FiltersWorld::capabilities(Rig& rig, uint32_t b) {
    const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig);
    int count = 0, size = 0;
    if (b % 16 == 0)
        return allowed(config->GetNumberOfCapabilities(nullptr, &size), {E_POINTER}, "GetNumberOfCapabilities(null)");
    allowed(config->GetNumberOfCapabilities(&count, &size), {S_OK}, "GetNumberOfCapabilities");
    if (count != (rig.isVideo ? 4 : 2)) fail("result", "another number of formats");
    std::vector<BYTE> capability(static_cast<size_t>(size));
    AM_MEDIA_TYPE* type = nullptr;
    const int index = static_cast<int>(b / 16 % 8) - (b / 128 % 16 == 0 ? 8 : 0);
    if (b / 2048 % 16 == 0) return allowed(config->GetStreamCaps(0, nullptr, nullptr), {E_POINTER}, "GetStreamCaps");
    const HRESULT hr = config->GetStreamCaps(index, &type, capability.data());
    if ((hr == S_OK) != (type != nullptr)) fail("result", "GetStreamCaps gave a type and a failure, or neither");
    free(type);
    return allowed(hr, {S_OK, S_FALSE, E_INVALIDARG}, "GetStreamCaps");
}

/// A type that the pin offers, whole or not as it should be.
compliance::Type FiltersWorld::oddType(Rig& rig, uint32_t b) {
    const auto config = queryFor<IAMStreamConfig>(rig.pin.get(), IID_IAMStreamConfig);
    std::vector<BYTE> capability(256);
    AM_MEDIA_TYPE* offered = nullptr;
    config->GetStreamCaps(static_cast<int>(b / 16 % (rig.isVideo ? 4 : 2)), &offered, capability.data());
    if (!offered) return {};
    compliance::Type type = compliance::Type::taken(offered);
    switch (b / 64 % 16) {
    case 0:
        type->subtype = GUID_NULL;
        break;
    case 1:
        type->majortype = MEDIATYPE_Audio;
        break;
    case 2: // no block
        type->cbFormat = 0;
        CoTaskMemFree(type->pbFormat);
        type->pbFormat = nullptr;
        break;
    case 3: // a block that is shorter than its kind
        type->cbFormat = b / 1024 % 18;
        break;
    case 4:
        type->formattype = FORMAT_None;
        break;
    case 5:
        type->lSampleSize = b / 1024 % 5000;
        break;
    case 6:
        if (BITMAPINFOHEADER* header = type.bitmap()) header->biWidth = static_cast<LONG>(b / 1024 % 400);
        break;
    case 7:
        if (BITMAPINFOHEADER* header = type.bitmap()) header->biBitCount = static_cast<WORD>(b / 1024 % 64);
        if (WAVEFORMATEX* wave = type.wave()) wave->wBitsPerSample = b / 1024 % 2 == 0 ? 16 : 24;
        break;
    case 8:
        if (WAVEFORMATEX* wave = type.wave()) wave->nAvgBytesPerSec = b / 1024 % 400000;
        break;
    default:
        break;
    }
    return type;
}

} // namespace kestra::walk
