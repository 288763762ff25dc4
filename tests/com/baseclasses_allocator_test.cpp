// The output pin: agreeing on an allocator, and what goes downstream.
#include "tests/com/baseclasses_fixture.h"

#include <utility>

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
    ASSERT_EQ(out().CBaseOutputPin::Active(), S_OK);
    ASSERT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), S_OK);
    Ref<IMediaSample> first(sample), second;
    ASSERT_EQ(out().GetDeliveryBuffer(second.put(), nullptr, nullptr, 0), S_OK);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, AM_GBF_NOWAIT), VFW_E_TIMEOUT) << "both are out";
    EXPECT_EQ(sample, nullptr);
    EXPECT_GE(first->GetSize(), 16);
    ASSERT_EQ(out().CBaseOutputPin::Inactive(), S_OK);
    EXPECT_EQ(out().GetDeliveryBuffer(&sample, nullptr, nullptr, 0), VFW_E_NOT_COMMITTED);
}

TEST_F(AllocatorTest, UnconnectedPinDeliversNothingAndSaysSo) {
    EXPECT_EQ(out().Deliver(nullptr), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().DeliverEndOfStream(), VFW_E_NOT_CONNECTED);
    EXPECT_EQ(out().CBaseOutputPin::Active(), VFW_E_NO_ALLOCATOR);
    EXPECT_EQ(out().CBaseOutputPin::Inactive(), VFW_E_NO_ALLOCATOR);
}

TEST_F(AllocatorTest, EndOfStreamReachesTheReceiver) {
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().DeliverEndOfStream(), S_OK);
    EXPECT_EQ(in().m_eos, 1);
}

TEST_F(AllocatorTest, ReceiversAnswerIsTheAnswerOfDeliver) {
    ASSERT_EQ(connect(), S_OK);
    ASSERT_EQ(out().CBaseOutputPin::Active(), S_OK);
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

/// A receiver's allocator whose steps can be made to fail. On the stack: the count is watched, not obeyed.
class WilfulAllocator : public IMemAllocator {
public:
    Step m_setProperties, m_commit, m_decommit;
    ALLOCATOR_PROPERTIES m_set{};
    LONG m_references = 1;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = riid == IID_IUnknown || riid == IID_IMemAllocator ? this : nullptr;
        if (*ppv) AddRef();
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&m_references)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&m_references)); }
    STDMETHODIMP SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override {
        m_set = *actual = *request;
        return m_setProperties.take();
    }
    STDMETHODIMP GetProperties(ALLOCATOR_PROPERTIES* properties) override {
        *properties = m_set;
        return S_OK;
    }
    STDMETHODIMP Commit() override { return m_commit.take(); }
    STDMETHODIMP Decommit() override { return m_decommit.take(); }
    STDMETHODIMP GetBuffer(IMediaSample** sample, REFERENCE_TIME*, REFERENCE_TIME*, DWORD) override {
        *sample = nullptr;
        return VFW_E_NOT_COMMITTED;
    }
    STDMETHODIMP ReleaseBuffer(IMediaSample*) override { return S_OK; }
};

class WilfulAllocatorTest : public AllocatorTest {
protected:
    WilfulAllocatorTest() { in().m_own = &m_wilful; }
    ~WilfulAllocatorTest() override {
        m_source->Stop();
        disconnect();
        if (in().m_allocator) std::exchange(in().m_allocator, nullptr)->Release();
        EXPECT_EQ(m_wilful.m_references, 1);
    }
    WilfulAllocator m_wilful;
};

TEST_F(WilfulAllocatorTest, OwnAllocatorIsMadeWhereTheReceiversCannotHaveOurSize) {
    m_wilful.m_setProperties.result = VFW_E_BADALIGN;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(out().m_initAllocator.calls, 1);
    EXPECT_NE(out().m_pAllocator, &m_wilful);
    EXPECT_EQ(m_wilful.m_references, 1) << "the refused one was let go";
}

TEST_F(WilfulAllocatorTest, ExceptionWhileTheSizeIsSetCostsNoAllocator) {
    const CMediaType type = testType();
    out().m_bufferSize.throws = 1;
    EXPECT_EQ(connect(&type), E_UNEXPECTED);
    EXPECT_EQ(m_wilful.m_references, 1);
    EXPECT_FALSE(out().IsConnected());
    EXPECT_FALSE(in().IsConnected());
    out().m_bufferSize.throws = 0;
    ASSERT_EQ(connect(&type), S_OK);
    EXPECT_EQ(m_wilful.m_references, 3) << "this test, the output pin, the input pin";
}

TEST_F(WilfulAllocatorTest, ReceiverWithoutWishesGetsOurs) {
    in().m_required = {7, 7, 7, 7};
    in().m_require.result = E_NOTIMPL;
    ASSERT_EQ(connect(), S_OK);
    EXPECT_EQ(m_wilful.m_set.cbAlign, 1);
    EXPECT_EQ(m_wilful.m_set.cbPrefix, 0) << "what a failing call leaves behind is no wish";
}

TEST_F(WilfulAllocatorTest, AllocatorThatIsNotCommittedMakesPauseFail) {
    ASSERT_EQ(connect(), S_OK);
    m_wilful.m_commit.result = E_OUTOFMEMORY;
    EXPECT_EQ(m_source->Pause(), E_OUTOFMEMORY);
    EXPECT_EQ(stateOf(m_source), State_Stopped);
    EXPECT_FALSE(out().ThreadExists());
    m_wilful.m_commit.result = S_OK;
    EXPECT_EQ(m_source->Pause(), S_OK);
    EXPECT_EQ(m_source->Stop(), S_OK);
    EXPECT_EQ(m_wilful.m_decommit.calls, 1);
}

TEST_F(WilfulAllocatorTest, AllocatorThatIsNotDecommittedKeepsTheConnectionAndEndsTheWorker) {
    ASSERT_EQ(connect(), S_OK);
    ASSERT_EQ(m_source->Pause(), S_OK);
    m_wilful.m_decommit.result = E_ABORT;
    EXPECT_EQ(m_source->Stop(), E_ABORT);
    EXPECT_EQ(stateOf(m_source), State_Stopped);
    EXPECT_FALSE(out().ThreadExists());
    EXPECT_EQ(out().Disconnect(), E_ABORT);
    EXPECT_TRUE(out().IsConnected());
    EXPECT_EQ(out().m_pAllocator, &m_wilful);
    m_wilful.m_decommit.result = S_OK;
    EXPECT_EQ(out().Disconnect(), S_OK);
}

} // namespace
} // namespace kestra::test
