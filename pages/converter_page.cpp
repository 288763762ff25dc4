// The page "Color space converter".
#include "pages/number_page.h"
#include "pages/pages.h"
#include "pages/resource.h"

#include <kestra_interfaces.h>

namespace kestra {
namespace {

// Levels of 10-bit samples; coefficients as far as the card's 8.8 fixed point goes; limits of 8-bit colours.
constexpr float kLevel = 1023, kCoefficient = 127.996f, kColor = 255;

// In the order of the interface's properties.
constexpr NumberField kFields[] = {{IDC_YOFF, L"Y Off", true, -kLevel, kLevel},
                                   {IDC_CROFF, L"Cr Off", true, -kLevel, kLevel},
                                   {IDC_CBOFF, L"Cb Off", true, -kLevel, kLevel},
                                   {IDC_Y1, L"Y1", false, -kCoefficient, kCoefficient},
                                   {IDC_R1, L"R1", false, -kCoefficient, kCoefficient},
                                   {IDC_G1, L"G1", false, -kCoefficient, kCoefficient},
                                   {IDC_G2, L"G2", false, -kCoefficient, kCoefficient},
                                   {IDC_B1, L"B1", false, -kCoefficient, kCoefficient},
                                   {IDC_RMIN, L"Red Min", true, 0, kColor},
                                   {IDC_RMAX, L"Red Max", true, 0, kColor},
                                   {IDC_GMIN, L"Green Min", true, 0, kColor},
                                   {IDC_GMAX, L"Green Max", true, 0, kColor},
                                   {IDC_BMIN, L"Blue Min", true, 0, kColor},
                                   {IDC_BMAX, L"Blue Max", true, 0, kColor}};

class CKestraStreamPropCSC final : public NumberPage {
public:
    explicit CKestraStreamPropCSC(LPUNKNOWN pUnk)
        : NumberPage(NAME("Color space converter page"), pUnk, IDD_CONVERTER, kFields) {}

    HRESULT OnConnect(IUnknown* object) override {
        m_converter = ask<IKestraStreamPropCSC>(object, IID_IKestraStreamPropCSC);
        return m_converter ? S_OK : E_NOINTERFACE;
    }
    HRESULT OnDisconnect() override {
        m_converter.reset();
        return NumberPage::OnDisconnect();
    }

private:
    bool isAvailable() override {
        LONG rgb = 0;
        return m_converter && SUCCEEDED(m_converter->get_RGBOut(&rgb)) && rgb != 0;
    }
    void load() override;
    HRESULT send() override;
    void buttonPressed(int id) override;
    void showValues(const KestraConverterValues& values);

    ComOwner<IKestraStreamPropCSC> m_converter;
};

void CKestraStreamPropCSC::showValues(const KestraConverterValues& v) {
    size_t field = 0;
    for (const LONG offset : {v.YOff, v.CrOff, v.CbOff})
        show(field++, wholeText(offset));
    for (const float coefficient : {v.Y1, v.R1, v.G1, v.G2, v.B1})
        show(field++, decimalText(coefficient));
    for (const unsigned char limit : {v.RMin, v.RMax, v.GMin, v.GMax, v.BMin, v.BMax})
        show(field++, wholeText(limit));
}

void CKestraStreamPropCSC::load() {
    KestraConverterValues v{};
    IKestraStreamPropCSC& converter = *m_converter;
    converter.get_YOff(&v.YOff);
    converter.get_CrOff(&v.CrOff);
    converter.get_CbOff(&v.CbOff);
    converter.get_Y1(&v.Y1);
    converter.get_R1(&v.R1);
    converter.get_G1(&v.G1);
    converter.get_G2(&v.G2);
    converter.get_B1(&v.B1);
    converter.get_RMin(&v.RMin);
    converter.get_RMax(&v.RMax);
    converter.get_GMin(&v.GMin);
    converter.get_GMax(&v.GMax);
    converter.get_BMin(&v.BMin);
    converter.get_BMax(&v.BMax);
    showValues(v);
}

void CKestraStreamPropCSC::buttonPressed(int id) {
    KestraConverterValues defaults{};
    if (id != IDC_DEFAULT || FAILED(m_converter->get_DefaultColorSpaceConverter(&defaults))) return;
    showValues(defaults);
    markDirty();
}

HRESULT CKestraStreamPropCSC::send() {
    IKestraStreamPropCSC& converter = *m_converter;
    const auto limit = [this](size_t field) { return static_cast<unsigned char>(whole(field)); };
    converter.put_FreezeUpdate(1); // so that no half-written set reaches the card
    converter.put_YOff(whole(0));
    converter.put_CrOff(whole(1));
    converter.put_CbOff(whole(2));
    converter.put_Y1(decimal(3));
    converter.put_R1(decimal(4));
    converter.put_G1(decimal(5));
    converter.put_G2(decimal(6));
    converter.put_B1(decimal(7));
    converter.put_RMin(limit(8));
    converter.put_RMax(limit(9));
    converter.put_GMin(limit(10));
    converter.put_GMax(limit(11));
    converter.put_BMin(limit(12));
    converter.put_BMax(limit(13));
    return converter.put_FreezeUpdate(0);
}

} // namespace

CUnknown* CALLBACK createConverterPage(LPUNKNOWN pUnk, HRESULT* phr) {
    return createPage<CKestraStreamPropCSC>(pUnk, phr);
}

} // namespace kestra
