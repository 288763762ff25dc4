// EnumPins and EnumMediaTypes.
#include "tests/com/baseclasses_fixture.h"

namespace kestra::test {
namespace {

class EnumeratorsTest : public BaseClassesTest {
protected:
    EnumeratorsTest() {
        m_many = new TestSource(nullptr, 3);
        m_many->AddRef();
    }
    ~EnumeratorsTest() override { EXPECT_EQ(m_many->Release(), 0u); }
    Ref<IEnumPins> pins() {
        IEnumPins* found = nullptr;
        EXPECT_EQ(m_many->EnumPins(&found), S_OK);
        return Ref<IEnumPins>(found);
    }
    Ref<IEnumMediaTypes> types() {
        IEnumMediaTypes* found = nullptr;
        EXPECT_EQ(m_many->stream().EnumMediaTypes(&found), S_OK);
        return Ref<IEnumMediaTypes>(found);
    }
    /// The place (from 1) of the pin that comes next; 0 at the end.
    int nextPlace(IEnumPins* pins) {
        Ref<IPin> pin;
        if (pins->Next(1, pin.put(), nullptr) != S_OK) return 0;
        return m_many->FindPinNumber(pin.get()) + 1;
    }
    /// The index of the type that comes next; -1 at the end.
    int nextType(IEnumMediaTypes* types) {
        AM_MEDIA_TYPE* type = nullptr;
        if (types->Next(1, &type, nullptr) != S_OK) return -1;
        const int index = int(type->subtype.Data1 - 0x1000);
        DeleteMediaType(type);
        return index;
    }
    TestSource* m_many;
};

TEST_F(EnumeratorsTest, PinsComeInOrderOneByOneAndEndWithSFalse) {
    const auto all = pins();
    for (const int place : {1, 2, 3, 0, 0})
        EXPECT_EQ(nextPlace(all.get()), place);
}

TEST_F(EnumeratorsTest, NextGivesAsManyPinsAsThereAreAndNullsTheRest) {
    const auto all = pins();
    IPin* got[5];
    std::fill_n(got, 5, reinterpret_cast<IPin*>(8));
    ULONG fetched = 99;
    EXPECT_EQ(all->Next(5, got, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(got[i], static_cast<IPin*>(&m_many->stream(i)));
        got[i]->Release();
    }
    EXPECT_EQ(got[3], nullptr);
    EXPECT_EQ(got[4], nullptr);
    EXPECT_EQ(all->Next(2, got, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(all->Next(0, got, &fetched), S_OK) << "nothing asked for, nothing missing";
}

TEST_F(EnumeratorsTest, NextOfPinsWithoutACountTakesOneAtATime) {
    const auto all = pins();
    IPin* got[2] = {};
    EXPECT_EQ(all->Next(2, got, nullptr), E_INVALIDARG);
    EXPECT_EQ(all->Next(1, nullptr, nullptr), E_POINTER);
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(nextPlace(all.get()), 1) << "the refused calls moved nothing";
}

TEST_F(EnumeratorsTest, PinsAreSkippedUpToTheEndAndNotBeyond) {
    const auto all = pins();
    EXPECT_EQ(all->Skip(4), S_FALSE);
    EXPECT_EQ(all->Skip(ULONG(-1)), S_FALSE);
    EXPECT_EQ(all->Skip(2), S_OK);
    EXPECT_EQ(nextPlace(all.get()), 3);
    EXPECT_EQ(all->Skip(0), S_OK);
    EXPECT_EQ(all->Skip(1), S_FALSE);
    EXPECT_EQ(all->Reset(), S_OK);
    EXPECT_EQ(nextPlace(all.get()), 1);
}

TEST_F(EnumeratorsTest, CloneOfPinsStartsWhereItsOriginalStandsAndGoesItsOwnWay) {
    const auto all = pins();
    nextPlace(all.get());
    Ref<IEnumPins> clone;
    ASSERT_EQ(all->Clone(clone.put()), S_OK);
    EXPECT_EQ(nextPlace(clone.get()), 2);
    EXPECT_EQ(nextPlace(clone.get()), 3);
    EXPECT_EQ(nextPlace(all.get()), 2);
    EXPECT_EQ(all->Clone(nullptr), E_POINTER);
}

TEST_F(EnumeratorsTest, PinsThatChangeAreOutOfSyncUntilReset) {
    const auto all = pins();
    nextPlace(all.get());
    new TestStream(&m_many->m_created, m_many);
    IPin* got = reinterpret_cast<IPin*>(8);
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(1, &got, &fetched), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(all->Skip(1), VFW_E_ENUM_OUT_OF_SYNC);
    auto* clone = reinterpret_cast<IEnumPins*>(8);
    EXPECT_EQ(all->Clone(&clone), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(clone, nullptr);
    EXPECT_EQ(all->Reset(), S_OK);
    EXPECT_EQ(all->Skip(3), S_OK);
    EXPECT_EQ(nextPlace(all.get()), 4) << "the new pin is the fourth";

    delete &m_many->stream(0);
    EXPECT_EQ(all->Next(1, &got, &fetched), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(all->Reset(), S_OK);
    EXPECT_EQ(all->Skip(3), S_OK);
    EXPECT_EQ(nextPlace(all.get()), 0);
}

TEST_F(EnumeratorsTest, EnumeratorHoldsItsFilter) {
    const ULONG before = referencesOf(m_many->GetOwner());
    {
        const auto all = pins();
        const auto kinds = types();
        EXPECT_EQ(referencesOf(m_many->GetOwner()), before + 2);
    }
    EXPECT_EQ(referencesOf(m_many->GetOwner()), before);
    EXPECT_EQ(m_many->EnumPins(nullptr), E_POINTER);
    EXPECT_EQ(m_many->stream().EnumMediaTypes(nullptr), E_POINTER);
}

TEST_F(EnumeratorsTest, TypesComeInOrderAndAreTheCallersToFree) {
    const auto all = types();
    AM_MEDIA_TYPE* got[5];
    ULONG fetched = 9;
    std::fill_n(got, 5, reinterpret_cast<AM_MEDIA_TYPE*>(8));
    EXPECT_EQ(all->Next(5, got, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(CMediaType(*got[i]) == testType(i)) << i;
        DeleteMediaType(got[i]);
    }
    EXPECT_EQ(got[3], nullptr);
    EXPECT_EQ(got[4], nullptr);
    EXPECT_EQ(all->Next(1, got, nullptr), S_FALSE);
    EXPECT_EQ(got[0], nullptr);
    EXPECT_EQ(all->Next(2, got, nullptr), E_INVALIDARG);
    fetched = 9;
    EXPECT_EQ(all->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(fetched, 0u);
}

TEST_F(EnumeratorsTest, TypesAreSkippedResetAndCloned) {
    const auto all = types();
    EXPECT_EQ(all->Skip(2), S_OK);
    Ref<IEnumMediaTypes> clone;
    ASSERT_EQ(all->Clone(clone.put()), S_OK);
    EXPECT_EQ(nextType(clone.get()), 2);
    EXPECT_EQ(nextType(clone.get()), -1);
    EXPECT_EQ(nextType(all.get()), 2);
    EXPECT_EQ(all->Skip(1), S_FALSE);
    EXPECT_EQ(all->Reset(), S_OK);
    EXPECT_EQ(nextType(all.get()), 0);
    EXPECT_EQ(all->Skip(4), S_FALSE);
    EXPECT_EQ(all->Clone(nullptr), E_POINTER);
}

TEST_F(EnumeratorsTest, TypesThatChangeAreOutOfSyncUntilReset) {
    const auto all = types();
    m_many->stream().IncrementTypeVersion();
    auto* got = reinterpret_cast<AM_MEDIA_TYPE*>(8);
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(1, &got, &fetched), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(all->Skip(1), VFW_E_ENUM_OUT_OF_SYNC);
    auto* clone = reinterpret_cast<IEnumMediaTypes*>(8);
    EXPECT_EQ(all->Clone(&clone), VFW_E_ENUM_OUT_OF_SYNC);
    EXPECT_EQ(clone, nullptr);
    EXPECT_EQ(all->Reset(), S_OK);
    EXPECT_EQ(nextType(all.get()), 0);
}

TEST_F(EnumeratorsTest, PinThatThrowsCostsAnErrorAndNoType) {
    const auto all = types();
    m_many->stream().m_getType.throws = 1;
    AM_MEDIA_TYPE* got[2] = {reinterpret_cast<AM_MEDIA_TYPE*>(8), nullptr};
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(2, got, &fetched), E_UNEXPECTED);
    EXPECT_EQ(got[0], nullptr);
    EXPECT_EQ(fetched, 0u);
    m_many->stream().m_getType.throws = 2;
    EXPECT_EQ(all->Skip(1), E_OUTOFMEMORY);
    m_many->stream().m_getType.passing = 1;
    EXPECT_EQ(all->Next(2, got, &fetched), E_OUTOFMEMORY) << "at the second";
    EXPECT_EQ(got[0], nullptr);
    EXPECT_EQ(got[1], nullptr);
    EXPECT_EQ(fetched, 0u);
    m_many->stream().m_getType.throws = 0;
    EXPECT_EQ(nextType(all.get()), 0) << "nothing was passed over";
}

TEST_F(EnumeratorsTest, PinThatFailsToGiveATypeEndsThem) {
    const auto all = types();
    m_many->stream().m_getType.passing = 1;
    m_many->stream().m_getType.result = E_ABORT;
    AM_MEDIA_TYPE* got[2] = {};
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(2, got, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 1u);
    DeleteMediaType(got[0]);
    EXPECT_EQ(got[1], nullptr);
    EXPECT_EQ(all->Skip(1), S_FALSE);
    m_many->stream().m_getType.result = S_OK;
    EXPECT_EQ(nextType(all.get()), 1);
}

TEST_F(EnumeratorsTest, FilterThatThrowsCostsAnErrorAndNoPin) {
    const auto all = pins();
    const ULONG before = referencesOf(m_many->GetOwner());
    m_many->m_getPin.throws = 1;
    m_many->m_getPin.passing = 2;
    IPin* got[3] = {reinterpret_cast<IPin*>(8), reinterpret_cast<IPin*>(8), reinterpret_cast<IPin*>(8)};
    ULONG fetched = 9;
    EXPECT_EQ(all->Next(3, got, &fetched), E_UNEXPECTED) << "at the third";
    for (IPin* pin : got)
        EXPECT_EQ(pin, nullptr);
    EXPECT_EQ(fetched, 0u);
    m_many->m_getPin.throws = 0;
    EXPECT_EQ(referencesOf(m_many->GetOwner()), before) << "the first two were let go";
    EXPECT_EQ(nextPlace(all.get()), 1) << "nothing was passed over";
    m_many->m_pinCount.throws = 2;
    EXPECT_EQ(all->Skip(1), E_OUTOFMEMORY);
    m_many->m_pinCount.throws = 0;
    EXPECT_EQ(nextPlace(all.get()), 2);
}

TEST_F(EnumeratorsTest, PinThatCannotTellWhetherItsTypesChangedMakesEveryCallFail) {
    const auto all = types();
    const ULONG before = referencesOf(m_many->GetOwner());
    m_many->stream().m_typeVersion.throws = 1;
    auto* types = reinterpret_cast<IEnumMediaTypes*>(8);
    EXPECT_EQ(m_many->stream().EnumMediaTypes(&types), E_UNEXPECTED);
    EXPECT_EQ(types, nullptr);
    types = reinterpret_cast<IEnumMediaTypes*>(8);
    EXPECT_EQ(all->Clone(&types), E_UNEXPECTED);
    EXPECT_EQ(types, nullptr);
    EXPECT_EQ(all->Reset(), E_UNEXPECTED);
    EXPECT_EQ(all->Skip(1), E_UNEXPECTED);
    EXPECT_EQ(referencesOf(m_many->GetOwner()), before);
    m_many->stream().m_typeVersion.throws = 0;
}

} // namespace
} // namespace kestra::test
