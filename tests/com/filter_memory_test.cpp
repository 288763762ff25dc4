// Filters and pages that a class factory makes while memory is short: an error or a whole object, nothing held, and the
// next one works. The code is linked into the test.
#include "capture/filters.h"
#include "pages/pages.h"
#include "tests/support/card_fixture.h"
#include "tests/support/failing_allocations.h"
#include "win32/com_ref.h"

#include <streams.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <utility>

namespace {

constexpr GUID kClasses[] = {{1, 0, 0, {}}, {2, 0, 0, {}}, {3, 0, 0, {}}, {4, 0, 0, {}}, {5, 0, 0, {}}};

} // namespace

CFactoryTemplate g_Templates[] = {{L"video filter", &kClasses[0], kestra::createVideoFilter, nullptr, nullptr},
                                  {L"audio filter", &kClasses[1], kestra::createAudioFilter, nullptr, nullptr},
                                  {L"converter page", &kClasses[2], kestra::createConverterPage, nullptr, nullptr},
                                  {L"gain page", &kClasses[3], kestra::createGainPage, nullptr, nullptr},
                                  {L"audio page", &kClasses[4], kestra::createAudioPage, nullptr, nullptr}};
int g_cTemplates = std::size(g_Templates);

STDAPI DllGetClassObject(REFCLSID rClsID, REFIID riid, void** pv);

namespace kestra::test {
namespace {

class MakingWithoutMemory : public CardTest, public testing::WithParamInterface<size_t> {
protected:
    static HRESULT make(ComRef<IUnknown>& object) {
        ComRef<IClassFactory> factory;
        const HRESULT hr =
            DllGetClassObject(kClasses[GetParam()], IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        return FAILED(hr) ? hr : factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(object.out()));
    }
};

} // namespace

TEST_P(MakingWithoutMemory, FailsOrMakesAWholeObjectAndLeavesNothingBehind) {
    ComRef<IUnknown> object;
    ASSERT_EQ(make(object), S_OK);
    object = ComRef<IUnknown>();
    const LONG before = CBaseObject::ObjectsActive();
    int failures = 0;
    for (int passing = 0;; ++passing) {
        SCOPED_TRACE(passing);
        allocationsThatPass = passing;
        const HRESULT hr = make(object);
        const bool failed = std::exchange(allocationsThatPass, -1) == -1;
        EXPECT_TRUE(hr == S_OK || hr == E_OUTOFMEMORY || hr == E_FAIL) << "E_FAIL: no card could be opened";
        EXPECT_EQ(bool(object), hr == S_OK);
        failures += FAILED(hr);
        object = ComRef<IUnknown>();
        ASSERT_EQ(CBaseObject::ObjectsActive(), before);
        ASSERT_EQ(m_card.state().clients, 0u) << "the card is let go of";
        if (!failed) {
            EXPECT_EQ(hr, S_OK);
            break;
        }
    }
    std::printf("%ls: %d failures\n", g_Templates[GetParam()].m_Name, failures);
    EXPECT_GE(failures, 2) << "the factory and the object";
}

INSTANTIATE_TEST_SUITE_P(, MakingWithoutMemory, testing::Range(size_t{0}, std::size(kClasses)));

} // namespace kestra::test
