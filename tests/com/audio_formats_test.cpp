// The audio filter and its pin at rest: creation, formats, acceptance, persistence, capabilities. The account of the
// trace lines holds for this whole program.
#include "tests/com/audio_test.h"
#include "tests/support/scoped_import_hook.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <algorithm>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class AudioFormats : public AudioTest {
protected:
    /// A filter whose pin could not apply the persisted format, because the card did not answer at that moment.
    void makeFilterWithoutASetFormat() {
        m_card.failNext(wire::kVideoStatus, 0xC0000001, 1, 1);
        ASSERT_EQ(makeFilter(), S_OK);
    }
};

const auto* const kAccount = testing::AddGlobalTestEnvironment(new TraceAccount({
    L"CKestraAudioCapture->Constructor->#1 ",
    L"CKestraAudioCapture->Destructor->#1 ",
    L"CKestraAudioStream->Constructor->start",
    L"CKestraAudioStream->Constructor->end",
    L"CKestraAudioStream->Destructor",
    L"CKestraAudioStream->CheckMediaType->start",
    L"CKestraAudioStream->CheckMediaType->VFW_S_NO_MORE_ITEMS",
    L"CKestraAudioStream->CheckMediaType->S_OK",
    L"CKestraAudioStream->CheckMediaType->E_OUTOFMEMORY",
    L"CKestraAudioStream->CheckMediaType->VFW_E_NO_CAPTURE_HARDWARE",
    L"CKestraAudioStream->CheckMediaType->E_FAIL",
    L"CKestraAudioStream->SetFormat->start",
    L"CKestraAudioStream->SetFormat->VFW_E_NOT_STOPPED",
    L"CKestraAudioStream->SetFormat->E_OUTOFMEMORY",
    L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE",
    L"CKestraAudioStream->SetFormat->S_OK",
    L"CKestraAudioStream->SetFormat->ReconnectPin->VFW_E_INVALIDMEDIATYPE",
    L"CKestraAudioStream->GetFormat->start",
    L"CKestraAudioStream->GetFormat->S_OK",
    L"CKestraAudioStream->GetNumberOfCapabilities->start",
    L"CKestraAudioStream->GetNumberOfCapabilities->S_OK",
    L"CKestraAudioStream->GetStreamCaps->start",
    L"CKestraAudioStream->GetStreamCaps->S_FALSE",
    L"CKestraAudioStream->GetStreamCaps->FAILED(hr)",
    L"CKestraAudioStream->GetStreamCaps->S_OK",
    L"CKestraAudioStream->GetPages->start",
    L"CKestraAudioStream->GetPages->S_OK",
    L"CKestraAudioStream->DecideBufferSize->start",
    L"CKestraAudioStream->DecideBufferSize->FAILED(hr)",
    L"CKestraAudioStream->DecideBufferSize->NOERROR",
    L"CKestraAudioStream->SuggestAllocatorProperties->S_OK",
    L"CKestraAudioStream->GetAllocatorProperties->start",
    L"CKestraAudioStream->GetAllocatorProperties->S_OK",
    L"CKestraAudioStream->put_BitDepth->start",
    L"CKestraAudioStream->put_BitDepth->QueryInterface",
    L"CKestraAudioStream->put_BitDepth->SetFormat",
    L"CKestraAudioStream->put_BitDepth->S_OK",
}));

} // namespace

TEST_F(AudioFormats, FilterIsNamedHasOnePinAndTracesItsLife) {
    ASSERT_EQ(makeFilter(), S_OK);
    PIN_INFO info{};
    ASSERT_EQ(m_pin->QueryPinInfo(&info), S_OK);
    EXPECT_STREQ(info.achName, L"Audio Capture");
    EXPECT_EQ(info.dir, PINDIR_OUTPUT);
    info.pFilter->Release();
    CLSID clsid{};
    EXPECT_EQ(m_filter->GetClassID(&clsid), S_OK);
    EXPECT_EQ(clsid, kAudioFilter);
    ComRef<IEnumPins> pins;
    ASSERT_EQ(m_filter->EnumPins(pins.out()), S_OK);
    EXPECT_EQ(pins->Skip(2), S_FALSE) << "one pin only";
    pins = ComRef<IEnumPins>();
    ComRef<IBaseFilter> video;
    ASSERT_EQ(m_module->create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(video.out())), S_OK);
    EXPECT_EQ(lines(L"CKestraCapture->Constructor->#2 "), 1) << "both filters share one counter";
    clearTrace();
    ComRef<IBaseFilter> third;
    ASSERT_EQ(m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(third.out())), S_OK);
    const auto born = m_trace.lines();
    ASSERT_GE(born.size(), 3u);
    EXPECT_EQ(born[0], L"CKestraAudioCapture->Constructor->#3 \r\n");
    EXPECT_EQ(born[1], L"CKestraAudioStream->Constructor->start\r\n");
    EXPECT_EQ(born[2], L"CKestraAudioStream->Constructor->end\r\n");
    clearTrace();
    third = ComRef<IBaseFilter>();
    EXPECT_EQ(m_trace.lines(), (std::vector<std::wstring>{L"CKestraAudioCapture->Destructor->#3 \r\n",
                                                          L"CKestraAudioStream->Destructor\r\n"}));
    video = ComRef<IBaseFilter>();
    clearTrace();
    release();
    EXPECT_EQ(lines(L"CKestraAudioCapture->Destructor->#1 "), 1);
    ASSERT_EQ(m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out())), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioCapture->Constructor->#1 "), 1);
}

TEST_F(AudioFormats, CreationFailsWithoutACardOrSound) {
    Signal silent = kDefaultSignal;
    silent.audio = 0;
    const CardControl second(1);
    for (const Signal& signal : {kNoSignal, silent}) {
        m_card.setSignal(signal);
        second.setSignal(signal);
        EXPECT_EQ(makeFilter(), E_FAIL);
        EXPECT_FALSE(m_filter);
    }
    m_card.unplug();
    second.unplug();
    EXPECT_EQ(makeFilter(), E_FAIL);
    m_card.plug();
    second.reset();
    EXPECT_EQ(m_card.state().clients, 0u);
    EXPECT_EQ(m_module->canUnloadNow(), S_OK);
}

TEST_F(AudioFormats, FirstCardWithSoundIsTaken) {
    Signal silent = kDefaultSignal;
    silent.audio = 0;
    m_card.setSignal(silent);
    const CardControl second(1);
    second.reset();
    second.clearLog();
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(m_card.state().clients, 0u) << "the card without it is closed again";
    EXPECT_EQ(second.state().clients, 1u);
    Signal elsewhere = kDefaultSignal;
    elsewhere.audioInAlternateRegister = 1;
    m_card.setSignal(elsewhere);
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(m_card.state().clients, 1u) << "sound shows in another register";
}

TEST_F(AudioFormats, ChannelIsClaimedOnlyWhileTheStatusIsRead) {
    ASSERT_EQ(makeFilter(), S_OK);
    std::vector<uint8_t> ports;
    for (const LogEntry& entry : m_card.log())
        if (entry.code == wire::kChannelAccess) ports.push_back(entry.bytes[0]);
    EXPECT_EQ(ports, (std::vector<uint8_t>{1, 1})) << "claim and release, both of the audio channel";
}

TEST_F(AudioFormats, FormatsAre16And24BitsOfStereoAt48kHz) {
    ASSERT_EQ(makeFilter(), S_OK);
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const OwnedType type = capability(i);
        ASSERT_NE(type.type, nullptr);
        EXPECT_EQ(type.type->majortype, MEDIATYPE_Audio);
        EXPECT_EQ(type.type->subtype, MEDIASUBTYPE_PCM);
        EXPECT_EQ(type.type->formattype, FORMAT_WaveFormatEx);
        EXPECT_FALSE(type.type->bTemporalCompression);
        EXPECT_TRUE(type.type->bFixedSizeSamples);
        EXPECT_EQ(type.type->lSampleSize, i == 0 ? 2u : 3u) << "one sample, not the block alignment";
        EXPECT_EQ(type.type->cbFormat, i == 0 ? 18u : 40u);
        EXPECT_EQ(type.wave()->wFormatTag, i == 0 ? 1 : 0xFFFE);
        EXPECT_EQ(type.wave()->nChannels, 2);
        EXPECT_EQ(type.wave()->nSamplesPerSec, 48000u);
        EXPECT_EQ(type.wave()->nAvgBytesPerSec, i == 0 ? 192000u : 288000u);
        EXPECT_EQ(type.wave()->nBlockAlign, i == 0 ? 4 : 6);
        EXPECT_EQ(type.wave()->wBitsPerSample, i == 0 ? 16 : 24);
        EXPECT_EQ(type.wave()->cbSize, i == 0 ? 0 : 22);
    }
    const OwnedType deep = capability(1);
    EXPECT_EQ(deep.extensible()->Samples.wValidBitsPerSample, 24);
    EXPECT_EQ(deep.extensible()->dwChannelMask, 3u);
    EXPECT_EQ(deep.extensible()->SubFormat, KSDATAFORMAT_SUBTYPE_PCM);
}

TEST_F(AudioFormats, EveryPositionOffersTheSetFormatAndTheThirdNone) {
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 24);
    EXPECT_EQ(offered(1).wave()->wBitsPerSample, 24);
    clearTrace();
    EXPECT_EQ(offered(2).type, nullptr);
    EXPECT_GE(lines(L"CKestraAudioStream->CheckMediaType->start"), 1);
    EXPECT_GE(lines(L"CKestraAudioStream->CheckMediaType->VFW_S_NO_MORE_ITEMS"), 1);
}

TEST_F(AudioFormats, WithoutASetFormatEachPositionOffersItsOwn) {
    makeFilterWithoutASetFormat();
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 16);
    const OwnedType deep = offered(1);
    EXPECT_EQ(deep.type->cbFormat, 40u);
    EXPECT_EQ(deep.wave()->nAvgBytesPerSec, 288000u);
    EXPECT_EQ(offered(2).type, nullptr);
}

TEST_F(AudioFormats, AcceptanceComparesTheSampleRateAndNotTheDepth) {
    makeFilterWithoutASetFormat();
    OwnedType deep = capability(1);
    clearTrace();
    EXPECT_EQ(m_pin->QueryAccept(deep.type), S_OK);
    EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->S_OK"), 2) << "it matches the first candidate";
    for (const bool set : {false, true}) {
        SCOPED_TRACE(set);
        OwnedType type = capability(0);
        if (set) {
            ASSERT_EQ(config()->SetFormat(type.type), S_OK);
            EXPECT_EQ(m_pin->QueryAccept(deep.type), S_OK) << "the other depth also of a set format";
        }
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_OK);
        type.wave()->nSamplesPerSec = 44100;
        clearTrace();
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE);
        EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->E_FAIL"), 1);
        type.wave()->nSamplesPerSec = 48000;
        type.wave()->nChannels = 6;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_OK) << "nothing else of the block is compared";
        type.type->subtype = GUID_NULL;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE) << "an empty subtype stands for none";
        type.type->subtype = MEDIASUBTYPE_PCM;
        type.type->formattype = FORMAT_None;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE);
        type.type->formattype = FORMAT_WaveFormatEx;
        type.type->majortype = MEDIATYPE_Video;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE);
        type.type->majortype = MEDIATYPE_Audio;
        type.type->cbFormat = 15;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE) << "a block that has no room for what is compared";
        type.type->cbFormat = 0;
        EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE);
    }
}

TEST_F(AudioFormats, CardThatTellsNoStatusIsNoHardware) {
    ASSERT_EQ(makeFilter(), S_OK);
    const OwnedType type = capability(0);
    m_card.failNext(wire::kVideoStatus, 0xC0000001);
    EXPECT_EQ(m_pin->Connect(&m_sink->pin, type.type), VFW_E_NO_CAPTURE_HARDWARE);
    EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->VFW_E_NO_CAPTURE_HARDWARE"), 1);
    m_card.failNext(wire::kVideoStatus, 0xC0000001);
    EXPECT_EQ(config()->SetFormat(type.type), VFW_E_INVALIDMEDIATYPE);
    m_card.unplug();
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE);
    EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->VFW_E_NO_CAPTURE_HARDWARE"), 3);
    m_card.plug();
    EXPECT_TRUE(waitUntil([&] { return m_pin->QueryAccept(type.type) == S_OK; }));
}

TEST_F(AudioFormats, ChosenFormatIsOfferedPersistedAndFoundByANewFilter) {
    ASSERT_EQ(makeFilter(), S_OK);
    for (const int index : {1, 0, 1}) {
        const OwnedType type = capability(index);
        clearTrace();
        ASSERT_EQ(config()->SetFormat(type.type), S_OK);
        EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->start"), 1);
        EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->S_OK"), 1);
        EXPECT_EQ(offered(0).wave()->wBitsPerSample, index == 1 ? 24 : 16);
        EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), DWORD(index));
        unsigned char depthIndex = 9;
        EXPECT_EQ(depth()->get_BitDepth(&depthIndex), S_OK);
        EXPECT_EQ(depthIndex, index);
        ComRef<IBaseFilter> fresh;
        ASSERT_EQ(m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(fresh.out())), S_OK);
        OwnedType found;
        ASSERT_EQ(query<IAMStreamConfig>(onlyPin(fresh.get()).get(), IID_IAMStreamConfig)->GetFormat(&found.type),
                  S_OK);
        EXPECT_EQ(found.wave()->wBitsPerSample, index == 1 ? 24 : 16);
    }
    EXPECT_EQ(depth()->get_BitDepth(nullptr), E_POINTER);
}

TEST_F(AudioFormats, PersistedValueAboveOneIsZero) {
    m_registry.setDword(kSettings, L"AudioFormat", 5);
    makeFilterWithoutASetFormat();
    m_registry.setDword(kSettings, L"AudioFormat", 5);
    EXPECT_EQ(format().wave()->wBitsPerSample, 16);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetFormat->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetFormat->S_OK"), 1);
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    EXPECT_EQ(format().wave()->wBitsPerSample, 24) << "read again on every call";
    EXPECT_EQ(config()->GetFormat(nullptr), E_POINTER);
    ASSERT_EQ(makeFilter(), S_OK);
    m_registry.setText(kSettings, L"AudioFormat", L"24");
    EXPECT_EQ(format().wave()->wBitsPerSample, 24) << "the set format, whatever the registry says";
}

TEST_F(AudioFormats, UnacceptableFormatIsRefusedAndChangesNothing) {
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    OwnedType type = capability(0);
    type.wave()->nSamplesPerSec = 96000;
    clearTrace();
    EXPECT_EQ(config()->SetFormat(type.type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE"), 1);
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 24);
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 1u);
    EXPECT_EQ(config()->SetFormat(nullptr), E_POINTER);
}

TEST_F(AudioFormats, FormatCannotBeSetWhileTheFilterIsNotStopped) {
    ASSERT_EQ(makeFilter(), S_OK);
    const OwnedType type = capability(1);
    ASSERT_EQ(m_filter->Pause(), S_OK);
    clearTrace();
    EXPECT_EQ(config()->SetFormat(type.type), VFW_E_NOT_STOPPED);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->VFW_E_NOT_STOPPED"), 1);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(config()->SetFormat(type.type), S_OK);
}

TEST_F(AudioFormats, FormatOfAConnectedPinIsTheConnections) {
    connect(1);
    EXPECT_EQ(format().wave()->wBitsPerSample, 24);
    // Without a graph nobody can reconnect the pin.
    const OwnedType other = capability(0);
    clearTrace();
    EXPECT_EQ(config()->SetFormat(other.type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->ReconnectPin->VFW_E_INVALIDMEDIATYPE"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE"), 0);
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 16) << "set all the same";
    EXPECT_EQ(format().wave()->wBitsPerSample, 24);
    EXPECT_EQ(m_registry.dword(kSettings, L"AudioFormat", 99), 1u) << "not persisted";
}

TEST_F(AudioFormats, ScarceMemoryIsToldAndTheNextCallWorks) {
    ASSERT_EQ(makeFilter(), S_OK);
    const OwnedType type = capability(1);
    static int left; // allocations that still succeed
    static ScopedImportHook<decltype(&CoTaskMemAlloc)>* hook;
    ScopedImportHook<decltype(&CoTaskMemAlloc)> scarce(
        "ole32.dll", "CoTaskMemAlloc",
        [](SIZE_T bytes) -> LPVOID { return left-- > 0 ? hook->original()(bytes) : nullptr; }, m_module->handle());
    ASSERT_TRUE(scarce.installed());
    hook = &scarce;
    left = 0;
    const HRESULT copying = config()->SetFormat(type.type);
    left = 1000;
    EXPECT_EQ(copying, E_OUTOFMEMORY);
    EXPECT_EQ(lines(L"CKestraAudioStream->SetFormat->E_OUTOFMEMORY"), 1);
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 16);
    EXPECT_EQ(offered(1).wave()->wBitsPerSample, 24) << "no format is set any more";

    AUDIO_STREAM_CONFIG_CAPS caps;
    for (const int allocation : {1, 2}) { // the type itself, and its copy for the caller
        OwnedType none;
        clearTrace();
        left = allocation - 1;
        const HRESULT hr = config()->GetStreamCaps(0, &none.type, reinterpret_cast<BYTE*>(&caps));
        left = 1000;
        EXPECT_EQ(hr, E_OUTOFMEMORY);
        EXPECT_EQ(none.type, nullptr);
        EXPECT_EQ(lines(L"CKestraAudioStream->GetStreamCaps->FAILED(hr)"), 1);
        EXPECT_EQ(lines(L"CKestraAudioStream->CheckMediaType->E_OUTOFMEMORY"), allocation == 1 ? 1 : 0);
        left = allocation - 1;
        const HRESULT format = config()->GetFormat(&none.type);
        left = 1000;
        EXPECT_EQ(format, E_OUTOFMEMORY);
        EXPECT_EQ(none.type, nullptr);
    }
    const auto pages = query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages);
    CAUUID list{};
    left = 0;
    const HRESULT listed = pages->GetPages(&list);
    left = 1000;
    EXPECT_EQ(listed, E_OUTOFMEMORY);
    EXPECT_EQ(list.cElems, 0u);
    ASSERT_EQ(config()->SetFormat(type.type), S_OK);
    left = 0;
    const HRESULT accepted = m_pin->QueryAccept(type.type);
    left = 1000;
    EXPECT_EQ(accepted, S_OK) << "with a set format to compare, asking needs no memory";
}

TEST_F(AudioFormats, CapabilitiesAreTheSameForBothAlsoAfterOneIsSet) {
    m_registry.setDword(kSettings, L"AudioFormat", 1);
    ASSERT_EQ(makeFilter(), S_OK);
    int count = 0, size = 0;
    EXPECT_EQ(config()->GetNumberOfCapabilities(&count, &size), S_OK);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(size, 52);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetNumberOfCapabilities->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetNumberOfCapabilities->S_OK"), 1);
    EXPECT_EQ(config()->GetNumberOfCapabilities(nullptr, &size), E_POINTER);
    EXPECT_EQ(config()->GetNumberOfCapabilities(&count, nullptr), E_POINTER);
    AUDIO_STREAM_CONFIG_CAPS caps;
    for (const int i : {0, 1, -1}) {
        std::fill_n(reinterpret_cast<uint8_t*>(&caps), sizeof caps, uint8_t{0xCC});
        OwnedType type;
        ASSERT_EQ(config()->GetStreamCaps(i, &type.type, reinterpret_cast<BYTE*>(&caps)), S_OK);
        EXPECT_EQ(type.wave()->wBitsPerSample, i == 1 ? 24 : 16);
        EXPECT_EQ(caps.guid, MEDIATYPE_Audio);
        EXPECT_EQ(caps.MinimumChannels, 2u);
        EXPECT_EQ(caps.MaximumChannels, 2u);
        EXPECT_EQ(caps.ChannelsGranularity, 0u);
        EXPECT_EQ(caps.MinimumBitsPerSample, 16u);
        EXPECT_EQ(caps.MaximumBitsPerSample, 24u);
        EXPECT_EQ(caps.BitsPerSampleGranularity, 0u);
        EXPECT_EQ(caps.MinimumSampleFrequency, 48000u);
        EXPECT_EQ(caps.MaximumSampleFrequency, 48000u);
        EXPECT_EQ(caps.SampleFrequencyGranularity, 0u);
    }
    EXPECT_EQ(lines(L"CKestraAudioStream->GetStreamCaps->start"), 3);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetStreamCaps->S_OK"), 3);
    EXPECT_EQ(offered(0).wave()->wBitsPerSample, 24) << "the set format stays";
    EXPECT_EQ(config()->GetStreamCaps(2, nullptr, nullptr), S_FALSE) << "before the arguments are looked at";
    EXPECT_EQ(lines(L"CKestraAudioStream->GetStreamCaps->S_FALSE"), 1);
    AM_MEDIA_TYPE* none = nullptr;
    EXPECT_EQ(config()->GetStreamCaps(0, nullptr, reinterpret_cast<BYTE*>(&caps)), E_POINTER);
    EXPECT_EQ(config()->GetStreamCaps(0, &none, nullptr), E_POINTER);
}

TEST_F(AudioFormats, PageIsTheAudioFormatPage) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto pages = query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages);
    CAUUID list{};
    ASSERT_EQ(pages->GetPages(&list), S_OK);
    ASSERT_EQ(list.cElems, 1u);
    const CLSID expected = {0x8A2C2A69, 0x416A, 0x4DA2, {0xB9, 0x83, 0xA7, 0xEC, 0x33, 0x15, 0x15, 0xF4}};
    EXPECT_EQ(list.pElems[0], expected);
    CoTaskMemFree(list.pElems);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetPages->start"), 1);
    EXPECT_EQ(lines(L"CKestraAudioStream->GetPages->S_OK"), 1);
    EXPECT_EQ(pages->GetPages(nullptr), E_POINTER);
}

TEST_F(AudioFormats, PropertySetTellsTheCaptureCategory) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto set = query<IKsPropertySet>(m_pin.get(), IID_IKsPropertySet);
    ASSERT_TRUE(set);
    constexpr HRESULT kSet = HRESULT(0x80070492), kId = HRESULT(0x80070490);
    GUID category{};
    DWORD returned = 0, support = 0;
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, &category, sizeof category, &returned), S_OK);
    EXPECT_EQ(category, PIN_CATEGORY_CAPTURE);
    EXPECT_EQ(returned, 16u);
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, &category, 15, nullptr), E_UNEXPECTED);
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 1, nullptr, 0, nullptr, 0, nullptr), kId);
    EXPECT_EQ(set->Get(GUID_NULL, 0, nullptr, 0, nullptr, 0, nullptr), kSet);
    EXPECT_EQ(set->QuerySupported(AMPROPSETID_Pin, 0, &support), S_OK);
    EXPECT_EQ(support, DWORD{KSPROPERTY_SUPPORT_GET});
    EXPECT_EQ(set->QuerySupported(AMPROPSETID_Pin, 1, &support), kId);
    EXPECT_EQ(set->QuerySupported(GUID_NULL, 0, &support), kSet);
    EXPECT_EQ(set->Set(AMPROPSETID_Pin, 0, nullptr, 0, &category, 16), E_NOTIMPL);
}

TEST_F(AudioFormats, PinAnswersItsInterfacesByTheirIdentifiers) {
    ASSERT_EQ(makeFilter(), S_OK);
    const IID page = {0xFB9A258E, 0x9816, 0x4DA8, {0xAC, 0x3F, 0xCD, 0x80, 0x38, 0xCC, 0xBA, 0xDF}};
    EXPECT_TRUE(query<IUnknown>(m_pin.get(), page));
    EXPECT_TRUE(query<IAMBufferNegotiation>(m_pin.get(), IID_IAMBufferNegotiation));
    EXPECT_TRUE(query<IQualityControl>(m_pin.get(), IID_IQualityControl)) << "the base pin's";
    EXPECT_FALSE(query<IAMAudioInputMixer>(m_pin.get(), IID_IAMAudioInputMixer));
    EXPECT_FALSE(query<IUnknown>(m_filter.get(), page)) << "the pin's, not the filter's";
}

} // namespace kestra::test
