// Pages whose object was refused, which some frames activate and apply all the same.
#include "pages/pages.h"
#include "tests/com/page_double.h"

#include <streams.h>

#include <gtest/gtest.h>

CFactoryTemplate g_Templates[1]; // this program makes its pages itself
int g_cTemplates = 0;

namespace kestra::test {
namespace {

/// Has no interface of ours.
class Stranger : public IUnknown {
public:
    virtual ~Stranger() = default;
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

using Create = CUnknown*(CALLBACK*)(LPUNKNOWN, HRESULT*);

class RefusedPage : public testing::TestWithParam<Create> {};

} // namespace

TEST_P(RefusedPage, ReachesNoObjectWhateverIsAskedOfIt) {
    HRESULT hr = S_OK;
    auto* page = static_cast<CBasePropertyPage*>(GetParam()(nullptr, &hr));
    ASSERT_NE(page, nullptr);
    static_cast<CUnknown*>(page)->NonDelegatingAddRef();
    Stranger stranger;
    IUnknown* object = &stranger;
    EXPECT_EQ(page->SetObjects(1, &object), E_NOINTERFACE);
    page->OnActivate(); // what the frame's Activate and Apply lead to
    EXPECT_TRUE(FAILED(page->OnApplyChanges()));
    for (int control = 200; control < 300; ++control)
        for (const int event : {BN_CLICKED, EN_CHANGE, CBN_SELCHANGE})
            page->OnReceiveMessage(nullptr, WM_COMMAND, MAKEWPARAM(control, event), 0);
    EXPECT_EQ(page->IsPageDirty(), S_FALSE);
    page->OnDeactivate();
    EXPECT_EQ(page->SetObjects(0, nullptr), S_OK);
    static_cast<CUnknown*>(page)->NonDelegatingRelease();
}

INSTANTIATE_TEST_SUITE_P(, RefusedPage, testing::Values(createConverterPage, createGainPage, createAudioPage));

} // namespace kestra::test
