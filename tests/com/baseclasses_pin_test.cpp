// What pins answer, connected and not, and how they connect.
#include "tests/com/baseclasses_fixture.h"

#include <cstring>
#include <cwchar>

namespace kestra::test {
namespace {

class PinTest : public BaseClassesTest {
protected:
    /// Neither pin is connected or holds the other, and the next connection works.
    void expectNoTrace(ULONG source, ULONG sink) {
        EXPECT_FALSE(out().IsConnected());
        EXPECT_FALSE(in().IsConnected());
        EXPECT_EQ(out().m_pAllocator, nullptr);
        EXPECT_EQ(out().m_pInputPin, nullptr);
        EXPECT_EQ(referencesOf(m_source->GetOwner()), source);
        EXPECT_EQ(referencesOf(m_sink->GetOwner()), sink);
    }
    void expectConnectFails(HRESULT expected, const AM_MEDIA_TYPE* type = nullptr) {
        const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
        EXPECT_EQ(connect(type), expected);
        expectNoTrace(source, sink);
    }
};

TEST_F(PinTest, TellsItsNameDirectionFilterAndId) {
    PIN_INFO info{};
    const ULONG before = referencesOf(m_source->GetOwner());
    ASSERT_EQ(out().QueryPinInfo(&info), S_OK);
    EXPECT_EQ(info.pFilter, static_cast<IBaseFilter*>(m_source));
    EXPECT_EQ(referencesOf(m_source->GetOwner()), before + 1);
    info.pFilter->Release();
    EXPECT_EQ(info.dir, PINDIR_OUTPUT);
    EXPECT_STREQ(info.achName, L"Out");
    PIN_DIRECTION direction = PINDIR_OUTPUT;
    EXPECT_EQ(in().QueryDirection(&direction), S_OK);
    EXPECT_EQ(direction, PINDIR_INPUT);
    LPWSTR id = nullptr;
    ASSERT_EQ(out().QueryId(&id), S_OK);
    EXPECT_STREQ(id, L"1") << "a stream's identifier is its place";
    CoTaskMemFree(id);
    ASSERT_EQ(in().QueryId(&id), S_OK);
    EXPECT_STREQ(id, L"In") << "any other pin's is its name";
    CoTaskMemFree(id);
}

TEST_F(PinTest, LongNameIsCutToWhatPinInfoHolds) {
    const std::wstring name(300, L'x');
    auto* stream = new TestStream(&m_source->m_created, m_source, name.c_str());
    PIN_INFO info{};
    ASSERT_EQ(stream->QueryPinInfo(&info), S_OK);
    info.pFilter->Release();
    EXPECT_EQ(std::wcslen(info.achName), 127u);
}

TEST_F(PinTest, NullPointersAreRefused) {
    EXPECT_EQ(out().QueryPinInfo(nullptr), E_POINTER);
    EXPECT_EQ(out().QueryDirection(nullptr), E_POINTER);
    EXPECT_EQ(out().QueryId(nullptr), E_POINTER);
    EXPECT_EQ(in().QueryId(nullptr), E_POINTER);
    EXPECT_EQ(out().QueryAccept(nullptr), E_POINTER);
    EXPECT_EQ(out().ConnectedTo(nullptr), E_POINTER);
    EXPECT_EQ(out().ConnectionMediaType(nullptr), E_POINTER);
    EXPECT_EQ(out().Connect(nullptr, nullptr), E_POINTER);
    const CMediaType type = testType();
    EXPECT_EQ(in().ReceiveConnection(nullptr, &type), E_POINTER);
    EXPECT_EQ(in().ReceiveConnection(&out(), nullptr), E_POINTER);
}

TEST_F(PinTest, InternalConnectionsAreLeftToTheDefault) {
    ULONG count = 0;
    EXPECT_EQ(out().QueryInternalConnections(nullptr, &count), E_NOTIMPL) << "every input goes to every output";
    EXPECT_EQ(out().Notify(m_source, Quality{}), E_NOTIMPL);
    EXPECT_EQ(out().EndOfStream(), E_UNEXPECTED) << "what goes downstream goes into input pins";
    EXPECT_EQ(in().CBasePin::EndOfStream(), S_OK);
    EXPECT_EQ(out().BeginFlush(), E_UNEXPECTED);
    EXPECT_EQ(out().EndFlush(), E_UNEXPECTED);
    TestGraph sink; // any object would do
    auto* control = reinterpret_cast<IQualityControl*>(static_cast<IFilterGraph*>(&sink));
    EXPECT_EQ(out().SetSink(control), S_OK);
    EXPECT_EQ(out().m_pQSink, control);
    EXPECT_EQ(sink.m_references, 1) << "whoever sets it takes it back in time";
    EXPECT_EQ(out().SetSink(nullptr), S_OK);
    EXPECT_EQ(out().m_pQSink, nullptr);
}

TEST_F(PinTest, SaysTheSameOfItselfConnectedAndNot) {
    for (const bool connected : {false, true}) {
        SCOPED_TRACE(connected);
        if (connected) {
            ASSERT_EQ(connect(), S_OK);
        }
        const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
        for (CBasePin* pin : {static_cast<CBasePin*>(&out()), static_cast<CBasePin*>(&in())}) {
            const bool output = pin == &out();
            PIN_INFO info{};
            ASSERT_EQ(pin->QueryPinInfo(&info), S_OK);
            EXPECT_EQ(info.pFilter, output ? static_cast<IBaseFilter*>(m_source) : m_sink);
            info.pFilter->Release();
            EXPECT_STREQ(info.achName, output ? L"Out" : L"In");
            PIN_DIRECTION direction = PIN_DIRECTION(9);
            EXPECT_EQ(pin->QueryDirection(&direction), S_OK);
            EXPECT_EQ(direction, output ? PINDIR_OUTPUT : PINDIR_INPUT);
            EXPECT_EQ(info.dir, direction);
            LPWSTR id = nullptr;
            ASSERT_EQ(pin->QueryId(&id), S_OK);
            EXPECT_STREQ(id, output ? L"1" : L"In");
            CoTaskMemFree(id);
            EXPECT_EQ(pin->QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(1))), S_OK);
            ULONG count = 4;
            IPin* inner[4] = {};
            EXPECT_EQ(pin->QueryInternalConnections(inner, &count), E_NOTIMPL);
            EXPECT_EQ(inner[0], nullptr);
            Ref<IEnumMediaTypes> types;
            ASSERT_EQ(pin->EnumMediaTypes(types.put()), S_OK);
            EXPECT_EQ(types->Skip(3), output ? S_OK : S_FALSE);
        }
        EXPECT_EQ(referencesOf(m_source->GetOwner()), source);
        EXPECT_EQ(referencesOf(m_sink->GetOwner()), sink);
    }
}

TEST_F(PinTest, AcceptsItsOwnTypesOnly) {
    EXPECT_EQ(out().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(2))), S_OK);
    EXPECT_EQ(out().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(3))), S_FALSE);
    in().m_check.result = S_FALSE;
    EXPECT_EQ(in().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(0))), S_FALSE)
        << "no is no, however it is said";
    in().m_check.throws = 1;
    EXPECT_EQ(in().QueryAccept(&static_cast<const AM_MEDIA_TYPE&>(testType(0))), S_FALSE);
    AM_MEDIA_TYPE broken = testType();
    broken.cbFormat = 100;
    EXPECT_EQ(out().QueryAccept(&broken), S_FALSE) << "a length without a block";
}

TEST_F(PinTest, UnconnectedPinSaysSoAndNullsWhatItWasGiven) {
    IPin* peer = &out();
    EXPECT_EQ(out().ConnectedTo(&peer), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(peer, nullptr);
    AM_MEDIA_TYPE type;
    std::memset(&type, 0xCC, sizeof type);
    EXPECT_EQ(out().ConnectionMediaType(&type), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(type.pbFormat, nullptr);
    EXPECT_EQ(type.cbFormat, 0u);
    EXPECT_EQ(type.pUnk, nullptr);
    EXPECT_TRUE(IsEqualGUID(type.majortype, GUID_NULL));
    EXPECT_TRUE(type.bFixedSizeSamples);
    EXPECT_EQ(type.lSampleSize, 1u) << "as a new type has it";
    EXPECT_EQ(out().Disconnect(), S_FALSE);
}

TEST_F(PinTest, ConnectedPinsNameEachOtherAndTheirType) {
    const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
    ASSERT_EQ(connect(), S_OK);
    Ref<IPin> peer;
    EXPECT_EQ(out().ConnectedTo(peer.put()), S_OK);
    EXPECT_EQ(peer.get(), static_cast<IPin*>(&in()));
    EXPECT_EQ(in().ConnectedTo(peer.put()), S_OK);
    EXPECT_EQ(peer.get(), static_cast<IPin*>(&out()));
    peer.reset();
    CMediaType type;
    EXPECT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0));
    type.ResetFormatBuffer();
    EXPECT_EQ(in().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0));
    EXPECT_EQ(out().Disconnect(), S_OK);
    EXPECT_EQ(in().Disconnect(), S_OK);
    EXPECT_EQ(in().Disconnect(), S_FALSE);
    expectNoTrace(source, sink);
}

TEST_F(PinTest, ConnectsOnce) {
    ASSERT_EQ(connect(), S_OK);
    const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
    EXPECT_EQ(connect(), VFW_E_ALREADY_CONNECTED);
    EXPECT_EQ(in().ReceiveConnection(&out(), &static_cast<const AM_MEDIA_TYPE&>(testType())), VFW_E_ALREADY_CONNECTED);
    EXPECT_TRUE(out().IsConnected()) << "a second attempt must not break the first";
    EXPECT_EQ(referencesOf(m_source->GetOwner()), source);
    EXPECT_EQ(referencesOf(m_sink->GetOwner()), sink);
}

TEST_F(PinTest, ConnectsOnlyWhileStopped) {
    ASSERT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(connect(), VFW_E_NOT_STOPPED);
    ASSERT_EQ(m_source->Stop(), S_OK);
    ASSERT_EQ(m_sink->Pause(), S_OK);
    expectConnectFails(VFW_E_NOT_STOPPED);
    ASSERT_EQ(m_sink->Stop(), S_OK);
    ASSERT_EQ(connect(), S_OK);
    ASSERT_EQ(m_sink->Pause(), S_OK);
    EXPECT_EQ(in().Disconnect(), VFW_E_NOT_STOPPED);
    EXPECT_TRUE(in().IsConnected());
}

TEST_F(PinTest, ConnectsOnlyToTheOtherDirection) {
    auto* other = new TestSource;
    other->AddRef();
    EXPECT_EQ(out().Connect(&other->stream(), nullptr), VFW_E_INVALID_DIRECTION);
    EXPECT_EQ(out().Connect(&out(), nullptr), VFW_E_INVALID_DIRECTION) << "not to itself either";
    TestSink sink; // on the stack: nobody keeps a reference
    EXPECT_EQ(in().ReceiveConnection(&sink.m_input, &static_cast<const AM_MEDIA_TYPE&>(testType())),
              VFW_E_INVALID_DIRECTION);
    EXPECT_EQ(other->Release(), 0u);
}

TEST_F(PinTest, ReceiverRefusesForEachReasonAndHoldsNothing) {
    const CMediaType type = testType();
    const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
    const auto expectRefused = [&](HRESULT expected, const AM_MEDIA_TYPE& offered) {
        EXPECT_EQ(in().ReceiveConnection(&out(), &offered), expected);
        expectNoTrace(source, sink);
    };
    in().m_check.result = E_FAIL;
    expectRefused(VFW_E_TYPE_NOT_ACCEPTED, type);
    in().m_check.result = S_OK;
    AM_MEDIA_TYPE broken = type;
    broken.cbFormat = 100;
    expectRefused(E_INVALIDARG, broken);
    for (Step* step : {&in().m_set, &in().m_complete}) {
        step->result = E_ABORT;
        expectRefused(E_ABORT, type);
        step->throws = 1;
        expectRefused(E_UNEXPECTED, type);
        step->throws = 0;
        step->result = S_OK;
    }
    ASSERT_EQ(m_sink->Pause(), S_OK);
    expectRefused(VFW_E_NOT_STOPPED, type);
    ASSERT_EQ(m_sink->Stop(), S_OK);
    EXPECT_EQ(in().ReceiveConnection(&out(), &type), S_OK);
    EXPECT_EQ(referencesOf(m_source->GetOwner()), source + 1);
}

TEST_F(PinTest, InputPinMayStartTheConnection) {
    const ULONG source = referencesOf(m_source->GetOwner()), sink = referencesOf(m_sink->GetOwner());
    ASSERT_EQ(in().Connect(&out(), nullptr), S_OK);
    EXPECT_EQ(out().GetConnected(), static_cast<IPin*>(&in()));
    EXPECT_NE(out().m_pAllocator, nullptr);
    CMediaType type;
    ASSERT_EQ(in().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0));
    disconnect();
    out().m_complete.result = E_ABORT;
    EXPECT_EQ(in().Connect(&out(), nullptr), E_ABORT);
    expectNoTrace(source, sink);
}

TEST_F(PinTest, PeerThatDoesNotTellItsDirectionIsNotConnected) {
    in().m_direction.result = E_ACCESSDENIED;
    expectConnectFails(E_ACCESSDENIED);
}

TEST_F(PinTest, ConnectsOnlyToWhatTakesSamples) {
    in().m_hasTransport = false;
    expectConnectFails(E_NOINTERFACE);
}

TEST_F(PinTest, CompleteTypeIsTakenOrRefusedAsItIs) {
    const CMediaType wanted = testType(1), strange = testType(7);
    expectConnectFails(VFW_E_TYPE_NOT_ACCEPTED, &strange);
    in().m_check.result = E_FAIL;
    expectConnectFails(VFW_E_TYPE_NOT_ACCEPTED, &wanted);
    in().m_check.result = S_FALSE;
    expectConnectFails(VFW_E_TYPE_NOT_ACCEPTED, &wanted);
    in().m_check.result = E_ACCESSDENIED;
    expectConnectFails(E_ACCESSDENIED, &wanted);
    in().m_check.result = S_OK;
    ASSERT_EQ(connect(&wanted), S_OK);
    CMediaType type;
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == wanted);
}

TEST_F(PinTest, PartialTypeChoosesAmongTheOffers) {
    CMediaType partial = testType(1);
    partial.SetFormatType(&GUID_NULL);
    ASSERT_EQ(connect(&partial), S_OK);
    CMediaType type;
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(1));
    disconnect();
    type.ResetFormatBuffer();

    partial.SetSubtype(&GUID_NULL);
    ASSERT_EQ(connect(&partial), S_OK);
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0)) << "the first that fits";
    disconnect();

    partial.SetType(&MEDIATYPE_Video);
    expectConnectFails(VFW_E_NO_ACCEPTABLE_TYPES, &partial);
}

TEST_F(PinTest, ReceiversTypesAreTriedBeforeOurs) {
    in().m_types = 3;
    ASSERT_EQ(connect(), S_OK);
    CMediaType type;
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(2)) << "the receiver's first";
}

TEST_F(PinTest, OwnTypesAreTriedFirstByAPinThatWantsSo) {
    in().m_types = 3;
    out().m_bTryMyTypesFirst = true;
    ASSERT_EQ(connect(), S_OK);
    CMediaType type;
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0));
}

TEST_F(PinTest, OwnTypesDoWhereTheReceiverNamesNone) {
    in().m_enumerate.result = E_NOTIMPL;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(in().m_enumerate.calls, 1);
}

/// One type whose block is missing, then one that is whole; or an error in its place.
class BrokenTypes : public IEnumMediaTypes {
public:
    HRESULT m_second = S_OK;
    int m_given = 0;
    LONG m_references = 1;
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(++m_references); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(--m_references); }
    STDMETHODIMP Next(ULONG, AM_MEDIA_TYPE** out, ULONG*) override {
        *out = nullptr;
        if (m_given == 2) return S_FALSE;
        if (m_given == 1 && FAILED(m_second)) return m_second;
        *out = CreateMediaType(&static_cast<const AM_MEDIA_TYPE&>(testType(1)));
        if (m_given == 0) (*out)->cbFormat = 100;
        ++m_given;
        return S_OK;
    }
    STDMETHODIMP Skip(ULONG) override { return E_NOTIMPL; }
    STDMETHODIMP Reset() override {
        m_given = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumMediaTypes**) override { return E_NOTIMPL; }
};

TEST_F(PinTest, BrokenTypeAmongTheReceiversIsPassedOver) {
    BrokenTypes types;
    in().m_enumerator = &types;
    ASSERT_EQ(connect(), S_OK);
    CMediaType type;
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(1)) << "the whole one";
    EXPECT_EQ(types.m_references, 1);
    disconnect();
    type.ResetFormatBuffer();

    types.m_second = VFW_E_ENUM_OUT_OF_SYNC;
    ASSERT_EQ(connect(), S_OK);
    ASSERT_EQ(out().ConnectionMediaType(&type), S_OK);
    EXPECT_TRUE(type == testType(0)) << "ours, where the receiver's cannot be read on";
    disconnect();
    out().m_types = 0;
    expectConnectFails(VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(types.m_references, 1);
    in().m_enumerator = nullptr;
}

TEST_F(PinTest, FailureOfOneTypeIsTheAnswerUnlessItIsTheTypesFault) {
    for (const HRESULT fault : {E_FAIL, E_INVALIDARG, HRESULT(VFW_E_TYPE_NOT_ACCEPTED)}) {
        in().m_set.result = fault;
        expectConnectFails(VFW_E_NO_ACCEPTABLE_TYPES);
    }
    in().m_set.result = E_ACCESSDENIED;
    expectConnectFails(E_ACCESSDENIED);
}

TEST_F(PinTest, PartialTypeMayNameTheFormatBlock) {
    CMediaType partial;
    partial.SetFormatType(&FORMAT_None);
    ASSERT_EQ(connect(&partial), S_OK) << "the types' empty block is the one that is named";
    disconnect();
    BYTE block[4] = {1, 2, 3, 4};
    ASSERT_TRUE(partial.SetFormat(block, sizeof block));
    expectConnectFails(VFW_E_NO_ACCEPTABLE_TYPES, &partial);
    CMediaType broken = testType();
    broken.cbFormat = 100;
    expectConnectFails(E_INVALIDARG, &broken);
    broken.cbFormat = 0;
}

TEST_F(PinTest, NoCommonTypeIsSaidAsSuch) {
    in().m_check.result = E_FAIL;
    expectConnectFails(VFW_E_NO_ACCEPTABLE_TYPES);
    EXPECT_EQ(in().m_check.calls, 3) << "every type was tried";
    out().m_types = 0;
    in().m_check.result = S_OK;
    expectConnectFails(VFW_E_NO_ACCEPTABLE_TYPES);
    out().m_types = 3;
    EXPECT_EQ(connect(), S_OK);
}

TEST_F(PinTest, EveryStepOfConnectingMayFailAndLeavesNoTrace) {
    Step* const steps[] = {&in().m_set, &in().m_complete, &out().m_complete, &out().m_bufferSize,
                           &out().m_initAllocator};
    const CMediaType type = testType();
    for (size_t i = 0; i < std::size(steps); ++i) {
        SCOPED_TRACE(i);
        steps[i]->result = E_ABORT;
        expectConnectFails(E_ABORT, &type);
        expectConnectFails(E_ABORT);
        steps[i]->result = S_OK;
        steps[i]->throws = 1;
        expectConnectFails(E_UNEXPECTED, &type);
        steps[i]->throws = 2;
        expectConnectFails(E_OUTOFMEMORY, &type);
        steps[i]->throws = 0;
        ASSERT_EQ(connect(), S_OK) << "the failure left something behind";
        disconnect();
    }
    in().m_check.throws = 1;
    expectConnectFails(E_UNEXPECTED, &type);
}

TEST_F(PinTest, FailingBreakConnectKeepsTheConnection) {
    ASSERT_EQ(connect(), S_OK);
    in().m_break.result = E_ABORT;
    EXPECT_EQ(in().Disconnect(), E_ABORT);
    EXPECT_TRUE(in().IsConnected());
    in().m_break.throws = 1;
    EXPECT_EQ(in().Disconnect(), E_UNEXPECTED);
    EXPECT_TRUE(in().IsConnected());
    in().m_break.throws = 0;
    in().m_break.result = S_OK;
    EXPECT_EQ(in().Disconnect(), S_OK);
}

TEST_F(PinTest, DisconnectingWhileActiveIsRefused) {
    ASSERT_EQ(connect(), S_OK);
    out().m_bCanReconnectWhenActive = true; // which is about connecting
    ASSERT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(out().Disconnect(), VFW_E_NOT_STOPPED);
    EXPECT_TRUE(out().IsConnected());
    EXPECT_TRUE(out().ThreadExists());
    EXPECT_EQ(in().Disconnect(), S_OK) << "its filter is stopped";
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(out().Disconnect(), S_OK);
}

TEST_F(PinTest, PinThatMayReconnectConnectsWhileActive) {
    ASSERT_EQ(m_source->Pause(), S_OK);
    out().m_bCanReconnectWhenActive = true;
    EXPECT_TRUE(out().CanReconnectWhenActive());
    EXPECT_EQ(connect(), S_OK);
}

} // namespace
} // namespace kestra::test
