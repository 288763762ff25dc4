// Identity, aggregation and reference counts of filters and pins.
#include "tests/com/baseclasses_fixture.h"

#include <vector>

namespace kestra::test {
namespace {

class IdentityTest : public BaseClassesTest {
protected:
    // Every interface of the object leads to every other and to the same IUnknown; none costs a reference.
    void expectOneObject(IUnknown* object, const std::vector<IID>& interfaces) {
        const ULONG before = referencesOf(object);
        Ref<IUnknown> identity;
        ASSERT_EQ(object->QueryInterface(IID_IUnknown, identity.putVoid()), S_OK);
        for (const IID& from : interfaces) {
            Ref<IUnknown> first;
            ASSERT_EQ(object->QueryInterface(from, first.putVoid()), S_OK);
            Ref<IUnknown> again;
            ASSERT_EQ(first->QueryInterface(IID_IUnknown, again.putVoid()), S_OK);
            EXPECT_EQ(again.get(), identity.get());
            for (const IID& to : interfaces) {
                Ref<IUnknown> second;
                ASSERT_EQ(first->QueryInterface(to, second.putVoid()), S_OK);
                Ref<IUnknown> back;
                EXPECT_EQ(second->QueryInterface(from, back.putVoid()), S_OK);
                EXPECT_EQ(back.get(), first.get());
            }
        }
        void* none = object;
        EXPECT_EQ(object->QueryInterface(IID_IMoniker, &none), E_NOINTERFACE);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(object->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
        identity.reset();
        EXPECT_EQ(referencesOf(object), before);
    }
};

TEST_F(IdentityTest, FilterIsOneObjectBehindAllItsInterfaces) {
    expectOneObject(m_source->GetOwner(), {IID_IUnknown, IID_IPersist, IID_IMediaFilter, IID_IBaseFilter});
}

TEST_F(IdentityTest, PinIsOneObjectBehindAllItsInterfaces) {
    expectOneObject(out().GetOwner(), {IID_IUnknown, IID_IPin, IID_IQualityControl});
    expectOneObject(in().GetOwner(), {IID_IUnknown, IID_IPin, IID_IQualityControl, IID_IMemInputPin});
}

TEST_F(IdentityTest, PinIsNotItsFilter) {
    Ref<IUnknown> filter, pin;
    ASSERT_EQ(m_source->QueryInterface(IID_IUnknown, filter.putVoid()), S_OK);
    ASSERT_EQ(out().QueryInterface(IID_IUnknown, pin.putVoid()), S_OK);
    EXPECT_NE(filter.get(), pin.get());
    void* none = this;
    EXPECT_EQ(out().QueryInterface(IID_IBaseFilter, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
}

TEST_F(IdentityTest, EnumeratorsAreOneObjectEach) {
    Ref<IEnumPins> pins;
    ASSERT_EQ(m_source->EnumPins(pins.put()), S_OK);
    expectOneObject(pins.get(), {IID_IUnknown, IID_IEnumPins});
    Ref<IEnumMediaTypes> types;
    ASSERT_EQ(out().EnumMediaTypes(types.put()), S_OK);
    expectOneObject(types.get(), {IID_IUnknown, IID_IEnumMediaTypes});
}

TEST_F(IdentityTest, PinSharesTheCountOfItsFilterAndKeepsItAlive) {
    const int destroyed = TestSource::destroyed;
    auto* source = new TestSource;
    EXPECT_EQ(source->AddRef(), 1u);
    IPin* pin = &source->stream();
    EXPECT_EQ(pin->AddRef(), 2u);
    EXPECT_EQ(source->Release(), 1u);
    EXPECT_EQ(TestSource::destroyed, destroyed) << "the pin still holds it";
    EXPECT_EQ(pin->Release(), 0u);
    EXPECT_EQ(TestSource::destroyed, destroyed + 1);
}

/// An outer object with one filter inside.
class Outer : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown) {
            AddRef();
            *ppv = static_cast<IUnknown*>(this);
            return S_OK;
        }
        return m_inner->NonDelegatingQueryInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override { return --m_references; }
    ULONG m_references = 1;
    INonDelegatingUnknown* m_inner = nullptr;
};

TEST_F(IdentityTest, AggregatedFilterAnswersThroughItsOuterObject) {
    Outer outer;
    auto* inner = new TestSource(&outer);
    outer.m_inner = inner;
    EXPECT_EQ(inner->GetOwner(), &outer);
    EXPECT_EQ(inner->NonDelegatingAddRef(), 1u);
    EXPECT_EQ(outer.m_references, 1u) << "the inner object's own count is not the outer's";

    Ref<IBaseFilter> filter;
    ASSERT_EQ(outer.QueryInterface(IID_IBaseFilter, filter.putVoid()), S_OK);
    EXPECT_EQ(outer.m_references, 2u);
    Ref<IUnknown> identity;
    ASSERT_EQ(filter->QueryInterface(IID_IUnknown, identity.putVoid()), S_OK);
    EXPECT_EQ(identity.get(), &outer);
    Ref<IUnknown> own;
    ASSERT_EQ(inner->NonDelegatingQueryInterface(IID_IUnknown, own.putVoid()), S_OK);
    EXPECT_NE(own.get(), &outer) << "the inner unknown is the outer object's handle on it";
    own.reset();
    identity.reset();
    filter.reset();

    Ref<IPin> pin;
    ASSERT_EQ(inner->FindPin(L"1", pin.put()), S_OK);
    EXPECT_EQ(outer.m_references, 2u) << "a pin's references are its filter's, hence the outer object's";
    PIN_INFO info{};
    ASSERT_EQ(pin->QueryPinInfo(&info), S_OK);
    EXPECT_EQ(outer.m_references, 3u);
    info.pFilter->Release();
    pin.reset();
    EXPECT_EQ(outer.m_references, 1u);
    EXPECT_EQ(inner->NonDelegatingRelease(), 0u);
}

/// Takes and gives back a reference to itself while it is destroyed, as an object that calls others does.
class Restless : public CUnknown {
public:
    explicit Restless(int* destroyed) : CUnknown(NAME("restless"), nullptr), m_destroyed(destroyed) {}
    ~Restless() override {
        GetOwner()->AddRef();
        GetOwner()->Release();
        ++*m_destroyed;
    }
    int* m_destroyed;
};

TEST_F(IdentityTest, ObjectThatIsCountedInItsDestructorIsDestroyedOnce) {
    int destroyed = 0;
    auto* object = new Restless(&destroyed);
    object->NonDelegatingAddRef();
    EXPECT_EQ(object->NonDelegatingRelease(), 0u);
    EXPECT_EQ(destroyed, 1);
}

TEST_F(IdentityTest, CountsOfManyThreadsAddUp) {
    const ULONG before = referencesOf(m_source->GetOwner());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            for (int n = 0; n < 20000; ++n) {
                Ref<IPin> pin;
                m_source->FindPin(L"1", pin.put());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(referencesOf(m_source->GetOwner()), before);
}

} // namespace
} // namespace kestra::test
