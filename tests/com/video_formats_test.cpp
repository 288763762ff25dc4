// The video filter and its pin at rest: creation, formats, acceptance, persistence, capabilities, category.
#include "tests/com/video_test.h"

#include <ks.h>

#include <ksmedia.h>
#include <ksproxy.h>

#include <algorithm>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class VideoFormats : public VideoTest {};

constexpr DWORD fourcc(const char (&text)[5]) {
    return DWORD(text[0]) | DWORD(text[1]) << 8 | DWORD(text[2]) << 16 | DWORD(text[3]) << 24;
}

} // namespace

TEST_F(VideoFormats, FilterIsNamedHasOnePinAndTracesItsLife) {
    ASSERT_EQ(makeFilter(), S_OK);
    m_trace.clear();
    ASSERT_EQ(makeFilter(), S_OK);
    PIN_INFO info{};
    ASSERT_EQ(m_pin->QueryPinInfo(&info), S_OK);
    EXPECT_STREQ(info.achName, L"Video Capture");
    EXPECT_EQ(info.dir, PINDIR_OUTPUT);
    info.pFilter->Release();
    CLSID clsid{};
    EXPECT_EQ(m_filter->GetClassID(&clsid), S_OK);
    EXPECT_EQ(clsid, kVideoFilter);
    ComRef<IEnumPins> pins;
    ASSERT_EQ(m_filter->EnumPins(pins.out()), S_OK);
    EXPECT_EQ(pins->Skip(2), S_FALSE) << "one pin only";
    m_trace.clear();
    ComRef<IBaseFilter> second;
    ASSERT_EQ(m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(second.out())), S_OK);
    EXPECT_EQ(lines(L"CKestraCapture->Constructor->#2 "), 1);
    EXPECT_EQ(lines(L"CKestraStream->Constructor"), 1);
    second = ComRef<IBaseFilter>();
    EXPECT_EQ(lines(L"CKestraCapture->Destructor->#2 "), 1);
    EXPECT_EQ(lines(L"CKestraStream->Destructor"), 1);
}

TEST_F(VideoFormats, CreationFailsWithoutACardOrASignal) {
    m_card.setSignal(kNoSignal);
    const CardControl second(1);
    second.setSignal(kNoSignal);
    EXPECT_EQ(makeFilter(), E_FAIL);
    EXPECT_FALSE(m_filter);
    m_card.unplug();
    second.unplug();
    EXPECT_EQ(makeFilter(), E_FAIL);
    m_card.plug();
    second.reset();
    EXPECT_EQ(m_card.state().clients, 0u);
    EXPECT_EQ(m_module.canUnloadNow(), S_OK);
}

TEST_F(VideoFormats, FirstCardWithASignalIsTaken) {
    m_card.setSignal(kNoSignal);
    const CardControl second(1);
    second.reset();
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(m_card.state().clients, 0u) << "the card without one is closed again";
    EXPECT_EQ(second.state().clients, 1u);
}

TEST_F(VideoFormats, FourFormatsFollowTheSignal) {
    ASSERT_EQ(makeFilter(), S_OK);
    const struct {
        GUID subtype;
        WORD bits;
        DWORD compression, imageBytes;
        bool second;
    } expected[] = {{MEDIASUBTYPE_YUY2, 16, fourcc("YUY2"), 1920 * 1080 * 2, false},
                    {MEDIASUBTYPE_RGB24, 24, BI_RGB, 1920 * 1080 * 3, false},
                    {MEDIASUBTYPE_UYVY, 16, fourcc("UYVY"), 1920 * 1080 * 2, true},
                    {MEDIASUBTYPE_RGB32, 32, BI_RGB, 1920 * 1080 * 4, true}};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        const Type type = capability(i);
        ASSERT_NE(type.type, nullptr);
        EXPECT_EQ(type.type->majortype, MEDIATYPE_Video);
        EXPECT_EQ(type.type->subtype, expected[i].subtype);
        EXPECT_EQ(type.type->formattype, expected[i].second ? FORMAT_VideoInfo2 : FORMAT_VideoInfo);
        EXPECT_EQ(type.type->lSampleSize, expected[i].imageBytes);
        EXPECT_TRUE(type.type->bFixedSizeSamples);
        EXPECT_FALSE(type.type->bTemporalCompression);
        const BITMAPINFOHEADER& header = expected[i].second ? type.info2()->bmiHeader : type.info()->bmiHeader;
        EXPECT_EQ(header.biSize, 40u);
        EXPECT_EQ(header.biWidth, 1920);
        EXPECT_EQ(header.biHeight, 1080);
        EXPECT_EQ(header.biPlanes, 1);
        EXPECT_EQ(header.biBitCount, expected[i].bits);
        EXPECT_EQ(header.biCompression, expected[i].compression);
        EXPECT_EQ(header.biSizeImage, expected[i].imageBytes);
        EXPECT_EQ(header.biClrImportant, 0u);
        EXPECT_EQ(type.info()->AvgTimePerFrame, 166666);
        EXPECT_EQ(type.info()->dwBitRate, DWORD(uint64_t{expected[i].imageBytes} * 60 * 8));
        if (expected[i].second) {
            EXPECT_EQ(type.info2()->rcSource.right, 1920);
            EXPECT_EQ(type.info2()->rcTarget.bottom, 1080);
            EXPECT_EQ(type.info2()->dwPictAspectRatioX, 16u);
            EXPECT_EQ(type.info2()->dwPictAspectRatioY, 9u);
            EXPECT_EQ(type.info2()->dwInterlaceFlags, 0u);
        } else {
            EXPECT_EQ(type.info()->rcSource.right, 0);
            EXPECT_EQ(type.info()->rcTarget.bottom, 0);
        }
    }
}

TEST_F(VideoFormats, LostSignalOffers720pAt60) {
    ASSERT_EQ(makeFilter(), S_OK);
    m_card.setSignal(kNoSignal);
    for (int i = 0; i < 4; ++i) {
        const Type type = capability(i);
        EXPECT_EQ(type.info()->AvgTimePerFrame, 166666);
        const BITMAPINFOHEADER& header = i < 2 ? type.info()->bmiHeader : type.info2()->bmiHeader;
        EXPECT_EQ(header.biWidth, 1280);
        EXPECT_EQ(header.biHeight, 720);
    }
    EXPECT_EQ(capability(0).info()->bmiHeader.biSizeImage, 1843200u);
    EXPECT_EQ(capability(2).info2()->dwPictAspectRatioX, 16u);
}

TEST_F(VideoFormats, InterlacedInputAtSixtyFieldsHasThirtyFrames) {
    m_card.setSignal(kInterlaced60);
    ASSERT_EQ(makeFilter(), S_OK);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(capability(i).info()->AvgTimePerFrame, 333333);
    const Type type = capability(3);
    EXPECT_EQ(type.info2()->dwInterlaceFlags, DWORD{AMINTERLACE_IsInterlaced});
    EXPECT_EQ(type.info2()->dwPictAspectRatioX, 16u);
    EXPECT_EQ(type.info2()->dwPictAspectRatioY, 9u);
    EXPECT_EQ(type.info2()->dwBitRate, DWORD(uint64_t{1920 * 1080 * 4} * 60 * 8 / 2));
}

TEST_F(VideoFormats, RatesOfZeroAnd24AreReplaced) {
    Signal signal = kDefaultSignal;
    signal.measuredRate = 10; // reported as 0
    m_card.setSignal(signal);
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(capability(0).info()->AvgTimePerFrame, 400000);
    signal.videoMode = kVideoMode24;
    m_card.setSignal(signal);
    EXPECT_EQ(capability(0).info()->AvgTimePerFrame, 416666);
}

TEST_F(VideoFormats, SquareAndOddPicturesHaveAnAspectRatio) {
    Signal signal = kDefaultSignal;
    signal.width = signal.height = 512;
    m_card.setSignal(signal);
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(capability(2).info2()->dwPictAspectRatioX, 1u);
    EXPECT_EQ(capability(2).info2()->dwPictAspectRatioY, 1u);
    signal.width = 720;
    signal.height = 577; // no small ratio
    m_card.setSignal(signal);
    const Type type = capability(2);
    EXPECT_EQ(uint64_t{type.info2()->dwPictAspectRatioX} * 577, uint64_t{type.info2()->dwPictAspectRatioY} * 720);
}

TEST_F(VideoFormats, EnumerationTracesAndEndsAfterFour) {
    ASSERT_EQ(makeFilter(), S_OK);
    // A fresh filter offers the persisted format at every position.
    for (ULONG i = 0; i < 4; ++i)
        EXPECT_EQ(offered(i).type->subtype, MEDIASUBTYPE_YUY2);
    EXPECT_EQ(offered(4).type, nullptr);
    EXPECT_GE(lines(L"CKestraStream->GetMediaType->start"), 5);
    EXPECT_GE(lines(L"CKestraStream->GetMediaType->S_OK"), 4);
    EXPECT_GE(lines(L"CKestraStream->GetMediaType->VFW_S_NO_MORE_ITEMS"), 1);
}

TEST_F(VideoFormats, ChosenFormatIsOfferedPersistedAndFoundByANewFilter) {
    ASSERT_EQ(makeFilter(), S_OK);
    const int indices[] = {3, 1, 2, 0};
    const GUID subtypes[] = {MEDIASUBTYPE_RGB32, MEDIASUBTYPE_RGB24, MEDIASUBTYPE_UYVY, MEDIASUBTYPE_YUY2};
    for (int i = 0; i < 4; ++i) {
        m_trace.clear();
        ASSERT_EQ(choose(indices[i]), S_OK);
        EXPECT_EQ(lines(L"CKestraStream->setFormat->start"), 1);
        EXPECT_EQ(lines(L"CKestraStream->setFormat->S_OK"), 1);
        EXPECT_EQ(offered(0).type->subtype, subtypes[i]);
        EXPECT_EQ(m_registry.dword(kSettings, L"VideoFormat", 99), DWORD(indices[i]));
        ComRef<IBaseFilter> fresh;
        ASSERT_EQ(m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(fresh.out())), S_OK);
        const ComRef<IPin> pin = onlyPin(fresh.get());
        AM_MEDIA_TYPE* type = nullptr;
        ASSERT_EQ(query<IAMStreamConfig>(pin.get(), IID_IAMStreamConfig)->GetFormat(&type), S_OK);
        EXPECT_EQ(type->subtype, subtypes[i]);
        CoTaskMemFree(type->pbFormat);
        CoTaskMemFree(type);
    }
}

TEST_F(VideoFormats, PersistedValueAboveThreeIsZero) {
    m_registry.setDword(kSettings, L"VideoFormat", 7);
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_EQ(offered(0).type->subtype, MEDIASUBTYPE_YUY2);
    m_registry.setDword(kSettings, L"VideoFormat", 7);
    AM_MEDIA_TYPE* type = nullptr;
    ASSERT_EQ(config()->GetFormat(&type), S_OK);
    EXPECT_EQ(type->subtype, MEDIASUBTYPE_YUY2);
    EXPECT_EQ(lines(L"CKestraStream->GetFormat->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->GetFormat->S_OK"), 1);
    CoTaskMemFree(type->pbFormat);
    CoTaskMemFree(type);
}

TEST_F(VideoFormats, AcceptanceComparesTypesAndNotSizes) {
    m_registry.setDword(kSettings, L"VideoFormat", 0);
    ASSERT_EQ(makeFilter(), S_OK);
    Type type = capability(0);
    type.info()->bmiHeader.biWidth = 64;
    type.info()->bmiHeader.biHeight = 48;
    type.type->lSampleSize = 1;
    m_trace.clear();
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_OK) << "any size";
    EXPECT_EQ(lines(L"CKestraStream->CheckMediaType->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->CheckMediaType->S_OK"), 1);
    type.type->subtype = GUID_NULL;
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_OK) << "any subtype";
    type.type->subtype = MEDIASUBTYPE_RGB24;
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE) << "a format is set, and it is another";
    EXPECT_EQ(lines(L"CKestraStream->CheckMediaType->E_FAIL"), 1);
    type.type->subtype = MEDIASUBTYPE_YUY2;
    type.type->formattype = FORMAT_VideoInfo2;
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE) << "another header";
    type.type->formattype = FORMAT_VideoInfo;
    type.type->majortype = MEDIATYPE_Audio;
    EXPECT_EQ(m_pin->QueryAccept(type.type), S_FALSE) << "another kind of stream";
}

TEST_F(VideoFormats, UnacceptableFormatIsRefusedAndChangesNothing) {
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(choose(3), S_OK);
    Type type = capability(0);
    type.type->subtype = MEDIASUBTYPE_RGB565;
    m_trace.clear();
    EXPECT_EQ(config()->SetFormat(type.type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(lines(L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE"), 1);
    EXPECT_EQ(offered(0).type->subtype, MEDIASUBTYPE_RGB32);
    EXPECT_EQ(m_registry.dword(kSettings, L"VideoFormat", 99), 3u);
    EXPECT_EQ(config()->SetFormat(nullptr), E_POINTER);
}

TEST_F(VideoFormats, ConnectionWithASampleSizeThatNoBufferHasIsRefused) {
    ASSERT_EQ(makeFilter(), S_OK);
    TestSink sink;
    for (const ULONG bytes : {0x80000000ul, 0xFFFFFFFFul}) {
        Type type = capability(0);
        type.type->lSampleSize = bytes;
        m_trace.clear();
        EXPECT_EQ(m_pin->Connect(&sink, type.type), VFW_E_SIZENOTSET) << bytes;
        EXPECT_EQ(lines(L"CKestraStream->DecideBufferSize->FAILED(hr)"), 1);
        EXPECT_EQ(m_pin->ConnectedTo(ComRef<IPin>().out()), VFW_E_NOT_CONNECTED);
    }
}

TEST_F(VideoFormats, FormatWithoutABlockCountsAsTheFirst) {
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(choose(3), S_OK);
    AM_MEDIA_TYPE bare{};
    bare.majortype = MEDIATYPE_Video;
    bare.subtype = MEDIASUBTYPE_YUY2;
    bare.formattype = FORMAT_VideoInfo;
    EXPECT_EQ(config()->SetFormat(&bare), S_OK);
    EXPECT_EQ(m_registry.dword(kSettings, L"VideoFormat", 99), 0u);
}

TEST_F(VideoFormats, FormatCannotBeSetWhileTheFilterIsNotStopped) {
    ASSERT_EQ(makeFilter(), S_OK);
    const Type type = capability(1);
    ASSERT_EQ(m_filter->Pause(), S_OK);
    m_trace.clear();
    EXPECT_EQ(config()->SetFormat(type.type), VFW_E_NOT_STOPPED);
    EXPECT_EQ(lines(L"CKestraStream->setFormat->VFW_E_NOT_STOPPED"), 1);
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_EQ(config()->SetFormat(type.type), S_OK);
}

TEST_F(VideoFormats, FormatOfAConnectedPinIsTheConnections) {
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(choose(1), S_OK);
    TestSink sink;
    ASSERT_EQ(m_pin->Connect(&sink, nullptr), S_OK);
    m_registry.setDword(kSettings, L"VideoFormat", 2);
    AM_MEDIA_TYPE* type = nullptr;
    ASSERT_EQ(config()->GetFormat(&type), S_OK);
    EXPECT_EQ(type->subtype, MEDIASUBTYPE_RGB24);
    CoTaskMemFree(type->pbFormat);
    CoTaskMemFree(type);
    // Without a graph nobody can reconnect the pin.
    const Type other = capability(0);
    EXPECT_EQ(config()->SetFormat(other.type), VFW_E_INVALIDMEDIATYPE);
    EXPECT_EQ(offered(0).type->subtype, MEDIASUBTYPE_YUY2) << "set all the same";
    EXPECT_EQ(m_pin->Disconnect(), S_OK);
    sink.Disconnect();
}

TEST_F(VideoFormats, CapabilitiesDescribeEachFormatAlsoAfterOneIsSet) {
    ASSERT_EQ(makeFilter(), S_OK);
    ASSERT_EQ(choose(3), S_OK);
    int count = 0, size = 0;
    m_trace.clear();
    EXPECT_EQ(config()->GetNumberOfCapabilities(&count, &size), S_OK);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(size, 128);
    EXPECT_EQ(lines(L"CKestraStream->GetNumberOfCapabilities->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->GetNumberOfCapabilities->S_OK"), 1);
    EXPECT_EQ(config()->GetNumberOfCapabilities(nullptr, &size), E_POINTER);
    EXPECT_EQ(config()->GetNumberOfCapabilities(&count, nullptr), E_POINTER);
    for (int i = 0; i < 4; ++i) {
        VIDEO_STREAM_CONFIG_CAPS caps;
        std::fill_n(reinterpret_cast<uint8_t*>(&caps), sizeof caps, uint8_t{0xCC});
        Type type;
        ASSERT_EQ(config()->GetStreamCaps(i, &type.type, reinterpret_cast<BYTE*>(&caps)), S_OK);
        EXPECT_EQ(caps.guid, i < 2 ? FORMAT_VideoInfo : FORMAT_VideoInfo2);
        for (const SIZE& each :
             {caps.InputSize, caps.MinCroppingSize, caps.MaxCroppingSize, caps.MinOutputSize, caps.MaxOutputSize}) {
            EXPECT_EQ(each.cx, 1920);
            EXPECT_EQ(each.cy, 1080);
        }
        EXPECT_EQ(caps.MinFrameInterval, 166666);
        EXPECT_EQ(caps.MaxFrameInterval, 166666);
        EXPECT_EQ(caps.VideoStandard, 0u);
        EXPECT_EQ(caps.CropGranularityX, 0);
        EXPECT_EQ(caps.OutputGranularityY, 0);
        EXPECT_EQ(caps.StretchTapsX, 0);
        EXPECT_EQ(caps.MinBitsPerSecond, 0);
        EXPECT_EQ(caps.MaxBitsPerSecond, 0);
    }
    EXPECT_EQ(lines(L"CKestraStream->GetStreamCaps->start"), 4);
    EXPECT_EQ(lines(L"CKestraStream->GetStreamCaps->S_OK"), 4);
    EXPECT_EQ(offered(0).type->subtype, MEDIASUBTYPE_RGB32) << "the set format stays";
    VIDEO_STREAM_CONFIG_CAPS caps;
    AM_MEDIA_TYPE* none = nullptr;
    EXPECT_EQ(config()->GetStreamCaps(4, &none, reinterpret_cast<BYTE*>(&caps)), S_FALSE);
    EXPECT_EQ(config()->GetStreamCaps(0, nullptr, reinterpret_cast<BYTE*>(&caps)), E_POINTER);
    EXPECT_EQ(config()->GetStreamCaps(0, &none, nullptr), E_POINTER);
    Type negative;
    EXPECT_EQ(config()->GetStreamCaps(-1, &negative.type, reinterpret_cast<BYTE*>(&caps)), S_OK);
    EXPECT_EQ(negative.type->subtype, MEDIASUBTYPE_YUY2);
}

TEST_F(VideoFormats, PagesAreTheSystemsStreamFormatPage) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto pages = query<ISpecifyPropertyPages>(m_pin.get(), IID_ISpecifyPropertyPages);
    ASSERT_TRUE(pages);
    CAUUID list{};
    ASSERT_EQ(pages->GetPages(&list), S_OK);
    ASSERT_EQ(list.cElems, 1u);
    const CLSID expected = {0x71F96467, 0x78F3, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
    EXPECT_EQ(list.pElems[0], expected);
    CoTaskMemFree(list.pElems);
    EXPECT_EQ(lines(L"CKestraStream->GetPages->start"), 1);
    EXPECT_EQ(lines(L"CKestraStream->GetPages->S_OK"), 1);
    EXPECT_EQ(pages->GetPages(nullptr), E_POINTER);
}

TEST_F(VideoFormats, PropertySetTellsTheCaptureCategory) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto set = query<IKsPropertySet>(m_pin.get(), IID_IKsPropertySet);
    ASSERT_TRUE(set);
    constexpr HRESULT kSet = HRESULT(0x80070492), kId = HRESULT(0x80070490);
    GUID category{};
    DWORD returned = 0, support = 0;
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, &category, sizeof category, &returned), S_OK);
    EXPECT_EQ(category, PIN_CATEGORY_CAPTURE);
    EXPECT_EQ(returned, 16u);
    returned = 0;
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, nullptr, 0, &returned), S_OK);
    EXPECT_EQ(returned, 16u);
    returned = 0;
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, &category, 15, &returned), E_UNEXPECTED);
    EXPECT_EQ(returned, 16u) << "told before the size is checked";
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 0, nullptr, 0, nullptr, 0, nullptr), E_POINTER);
    EXPECT_EQ(set->Get(AMPROPSETID_Pin, 1, nullptr, 0, nullptr, 0, nullptr), kId);
    EXPECT_EQ(set->Get(GUID_NULL, 0, nullptr, 0, nullptr, 0, nullptr), kSet);
    EXPECT_EQ(set->QuerySupported(AMPROPSETID_Pin, 0, &support), S_OK);
    EXPECT_EQ(support, DWORD{KSPROPERTY_SUPPORT_GET});
    EXPECT_EQ(set->QuerySupported(AMPROPSETID_Pin, 0, nullptr), S_OK);
    EXPECT_EQ(set->QuerySupported(AMPROPSETID_Pin, 1, &support), kId);
    EXPECT_EQ(set->QuerySupported(GUID_NULL, 0, &support), kSet);
    EXPECT_EQ(set->Set(AMPROPSETID_Pin, 0, nullptr, 0, &category, 16), E_NOTIMPL);
}

TEST_F(VideoFormats, OtherInterfacesAreTheBasePins) {
    ASSERT_EQ(makeFilter(), S_OK);
    EXPECT_TRUE(query<IQualityControl>(m_pin.get(), IID_IQualityControl));
    EXPECT_FALSE(query<IAMAudioInputMixer>(m_pin.get(), IID_IAMAudioInputMixer));
}

} // namespace kestra::test
