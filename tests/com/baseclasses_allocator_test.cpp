// The output pin: agreeing on an allocator, and what goes downstream.
#include "tests/com/baseclasses_fixture.h"

namespace kestra::test {
namespace {

class AllocatorTest : public BaseClassesTest {
protected:
    ALLOCATOR_PROPERTIES agreed() {
        ALLOCATOR_PROPERTIES properties{};
        EXPECT_EQ(out().m_pAllocator->GetProperties(&properties), S_OK);
        return properties;
    }
};

TEST_F(AllocatorTest, ReceiversAllocatorIsPreferred) {
    in().m_offersAllocator = true;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().m_initAllocator.calls, 0);
    EXPECT_EQ(out().m_pAllocator, in().m_allocator);
    EXPECT_EQ(agreed().cbBuffer, 16);
    EXPECT_EQ(agreed().cBuffers, 2);
    EXPECT_EQ(agreed().cbAlign, 1) << "an alignment that nobody asks for is 1";
}

TEST_F(AllocatorTest, OwnAllocatorIsMadeWhereTheReceiverHasNone) {
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().m_initAllocator.calls, 1);
    EXPECT_EQ(in().m_notified, 1);
    EXPECT_EQ(out().m_pAllocator, in().m_allocator);
}

TEST_F(AllocatorTest, OwnAllocatorIsMadeWhereTheReceiverGivesNullAndCallsItSuccess) {
    in().m_offersNothing = true;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().m_initAllocator.calls, 1);
}

TEST_F(AllocatorTest, OwnAllocatorIsMadeWhereTheReceiverRefusesItsOwn) {
    in().m_offersAllocator = true;
    in().m_refusals = 1;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(in().m_notified, 2);
    EXPECT_EQ(out().m_initAllocator.calls, 1);
    EXPECT_EQ(out().m_bufferSize.calls, 2);
}

TEST_F(AllocatorTest, ReceiverThatRefusesEveryAllocatorIsNotConnected) {
    in().m_offersAllocator = true;
    in().m_refusals = 1000; // of every type
    const CMediaType type = testType();
    EXPECT_EQ(connect(&type), E_FAIL);
    EXPECT_EQ(connect(), VFW_E_NO_ACCEPTABLE_TYPES) << "each type was tried";
    EXPECT_FALSE(out().IsConnected());
    EXPECT_FALSE(in().IsConnected());
    EXPECT_EQ(out().m_pAllocator, nullptr);
    EXPECT_EQ(out().m_pInputPin, nullptr);
}

TEST_F(AllocatorTest, ReceiversWishesReachTheBufferSize) {
    in().m_required.cbAlign = 16;
    in().m_required.cbPrefix = 8;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(agreed().cbAlign, 16);
    EXPECT_EQ(agreed().cbPrefix, 8);
}

TEST_F(AllocatorTest, ConnectionHoldsTheAllocatorAndGivesItBack) {
    ASSERT_EQ(connect(), S_OK);
    Ref<IMemAllocator> allocator;
    ASSERT_EQ(out().m_pAllocator->QueryInterface(IID_IMemAllocator, allocator.putVoid()), S_OK);
    EXPECT_EQ(referencesOf(allocator.get()), 3u) << "this test, the output pin, the input pin";
    disconnect();
    EXPECT_EQ(referencesOf(allocator.get()), 2u);
}

TEST_F(AllocatorTest, BuffersComeFromACommittedAllocatorOnly) {
    IMediaSample* sample = reinterpret_cast<IMediaSample*>(8);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), E_NOINTERFACE) << "unconnected";
    EXPECT_EQ(sample, nullptr);
    ASSERT_EQ(connect(), S_OK);
    sample = reinterpret_cast<IMediaSample*>(8);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
    EXPECT_EQ(sample, nullptr);
    ASSERT_EQ(static_cast<CBaseOutputPin&>(out()).CBaseOutputPin::Active(), S_OK);
    ASSERT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), S_OK);
    Ref<IMediaSample> first(sample), second;
    ASSERT_EQ(out().GetDeliveryBuffer(second.put(), nullptr, nullptr, 0), S_OK);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, AM_GBF_NOWAIT), VFW_E_TIMEOUT) << "both are out";
    EXPECT_EQ(sample, nullptr);
    EXPECT_GE(first->GetSize(), 16);
    ASSERT_EQ(static_cast<CBaseOutputPin&>(out()).CBaseOutputPin::Inactive(), S_OK);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
}

TEST_F(AllocatorTest, UnconnectedPinDeliversNothingAndSaysSo) {
    EXPECT_EQ(out().Deliver(nullptr), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().DeliverEndOfStream(), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().DeliverBeginFlush(), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().DeliverEndFlush(), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().DeliverNewSegment(0, 1, 1.0), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(static_cast<CBaseOutputPin&>(out()).CBaseOutputPin::Active(), VFW_E_NO_ALLOCATOR);
    EXPECT_EQ(static_cast<CBaseOutputPin&>(out()).CBaseOutputPin::Inactive(), VFW_E_NO_ALLOCATOR);
}

TEST_F(AllocatorTest, EndOfStreamFlushAndSegmentReachTheReceiver) {
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().DeliverEndOfStream(), S_OK);
    EXPECT_EQ(in().m_eos, 1);
    EXPECT_EQ(out().DeliverBeginFlush(), S_OK);
    EXPECT_EQ(in().m_beginFlush, 1);
    EXPECT_EQ(in().m_endFlush, 0);
    EXPECT_EQ(out().DeliverEndFlush(), S_OK);
    EXPECT_EQ(in().m_endFlush, 1);
    EXPECT_EQ(out().DeliverNewSegment(3, 4, 1.5), S_OK);
    EXPECT_EQ(in().CurrentStartTime(), 3);
    EXPECT_EQ(in().CurrentStopTime(), 4);
    EXPECT_EQ(in().CurrentRate(), 1.5);
}

TEST_F(AllocatorTest, ReceiversAnswerIsTheAnswerOfDeliver) {
    ASSERT_EQ(connect(), S_OK);
    ASSERT_EQ(static_cast<CBaseOutputPin&>(out()).CBaseOutputPin::Active(), S_OK);
    Ref<IMediaSample> sample;
    ASSERT_EQ(out().GetDeliveryBuffer(sample.put(), nullptr, nullptr, 0), S_OK);
    const ULONG references = referencesOf(sample.get());
    for (const HRESULT answer : {S_OK, S_FALSE, E_ABORT, HRESULT(VFW_E_WRONG_STATE)}) {
        in().m_receive.result = answer;
        EXPECT_EQ(out().Deliver(sample.get()), answer);
    }
    EXPECT_EQ(referencesOf(sample.get()), references);
    EXPECT_EQ(in().m_receive.calls, 4);
}

} // namespace
} // namespace kestra::test
