// The page "Color space converter".
#include "pages/number_page.h"
#include "pages/pages.h"
#include "pages/resource.h"
#include "protocol/converter_matrix.h"

#include <kestra_interfaces.h>

#include <dvdmedia.h>

#include <algorithm>
#include <iterator>
#include <limits>

namespace kestra {
namespace {

constexpr double kLeastOffset = std::numeric_limits<int32_t>::min(), kMostOffset = std::numeric_limits<int32_t>::max();

constexpr NumberField offsetField(int id, const wchar_t* name) {
    return {id, name, true, kLeastOffset, kMostOffset, 0, 1023, L"the levels of a 10-bit sample"};
}
constexpr NumberField coefficientField(int id, const wchar_t* name) {
    return {id,
            name,
            false,
            -kMostCoefficient,
            kMostCoefficient,
            -4,
            4,
            L"which a matrix of a standard needs",
            id - IDC_Y1 + IDC_Y1_CARD,
            coefficientOnCard};
}
constexpr NumberField limitField(int id, const wchar_t* name) {
    return {id, name, true, 0, 255, 0, 255, L""};
}

// In the order of the interface's properties.
constexpr NumberField kFields[] = {
    offsetField(IDC_YOFF, L"Y Off"),   offsetField(IDC_CROFF, L"Cr Off"),  offsetField(IDC_CBOFF, L"Cb Off"),
    coefficientField(IDC_Y1, L"Y1"),   coefficientField(IDC_R1, L"R1"),    coefficientField(IDC_G1, L"G1"),
    coefficientField(IDC_G2, L"G2"),   coefficientField(IDC_B1, L"B1"),    limitField(IDC_RMIN, L"Red Min"),
    limitField(IDC_RMAX, L"Red Max"),  limitField(IDC_GMIN, L"Green Min"), limitField(IDC_GMAX, L"Green Max"),
    limitField(IDC_BMIN, L"Blue Min"), limitField(IDC_BMAX, L"Blue Max")};
static_assert(std::ranges::all_of(kFields, canBeShown));

#define KESTRA_PROPERTY(name)                                                                                          \
    property<IKestraStreamPropCSC, &IKestraStreamPropCSC::get_##name, &IKestraStreamPropCSC::put_##name>()
constexpr Property<IKestraStreamPropCSC> kProperties[] = {
    KESTRA_PROPERTY(YOff), KESTRA_PROPERTY(CrOff), KESTRA_PROPERTY(CbOff), KESTRA_PROPERTY(Y1),   KESTRA_PROPERTY(R1),
    KESTRA_PROPERTY(G1),   KESTRA_PROPERTY(G2),    KESTRA_PROPERTY(B1),    KESTRA_PROPERTY(RMin), KESTRA_PROPERTY(RMax),
    KESTRA_PROPERTY(GMin), KESTRA_PROPERTY(GMax),  KESTRA_PROPERTY(BMin),  KESTRA_PROPERTY(BMax)};
#undef KESTRA_PROPERTY

/// Size of the picture that a pin, or a filter through its first pin, can deliver. @return {0, 0} if unknown
SIZE pictureSize(IUnknown* object) {
    ComRef<IAMStreamConfig> config = queryFor<IAMStreamConfig>(object, IID_IAMStreamConfig);
    if (const auto filter = queryFor<IBaseFilter>(object, IID_IBaseFilter); filter && !config) {
        ComRef<IEnumPins> pins;
        ComRef<IPin> pin;
        if (FAILED(filter->EnumPins(pins.out())) || pins->Next(1, pin.out(), nullptr) != S_OK) return {};
        config = queryFor<IAMStreamConfig>(pin.get(), IID_IAMStreamConfig);
    }
    AM_MEDIA_TYPE* type = nullptr;
    VIDEO_STREAM_CONFIG_CAPS caps{};
    if (!config || config->GetStreamCaps(0, &type, reinterpret_cast<BYTE*>(&caps)) != S_OK) return {};
    DeleteMediaType(type);
    return caps.InputSize;
}

class CKestraStreamPropCSC final : public PropertiesPage<IKestraStreamPropCSC> {
public:
    explicit CKestraStreamPropCSC(LPUNKNOWN pUnk)
        : PropertiesPage(NAME("Color space converter page"), pUnk, IDD_CONVERTER, kFields, kProperties,
                         IID_IKestraStreamPropCSC) {}

private:
    void prepareControls() override;
    void fieldChanged(size_t field, bool byUser) override;
    void buttonPressed(int id) override;
    void selectionChanged(int id) override;
    size_t shownPreset() const;
    void updatePreset();
    LRESULT presets(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const {
        return SendDlgItemMessageW(m_Dlg, IDC_MATRIX, message, wParam, lParam);
    }

    SIZE m_picture{};
};

void CKestraStreamPropCSC::prepareControls() {
    for (const MatrixPreset& preset : kMatrixPresets)
        presets(CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(preset.name));
    presets(CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(L"Custom"));
    m_picture = pictureSize(m_object.get());
}

/// The preset that the fields hold; one past the last if none.
size_t CKestraStreamPropCSC::shownPreset() const {
    ConverterMatrix matrix;
    for (size_t field = 0; field < kMatrixValues; ++field) {
        if (!isGood(field)) return std::size(kMatrixPresets);
        matrix[field] = value(field);
    }
    return presetOf(matrix);
}

void CKestraStreamPropCSC::updatePreset() {
    const size_t shown = shownPreset();
    presets(CB_SETCURSEL, shown);
    std::wstring note;
    if (shown < std::size(kMatrixPresets) && m_picture.cx > 0) {
        const bool high = isHighDefinition(m_picture.cx, m_picture.cy),
                   values709 = kMatrixPresets[shown].isHighDefinition;
        const std::wstring size = L" (" + wholeText(m_picture.cx) + L" x " + wholeText(m_picture.cy) + L")";
        if (high && !values709) note = L"The signal is HD" + size + L", which is BT.709: these values are BT.601.";
        if (!high && values709) note = L"The signal is SD" + size + L", which is BT.601: these values are BT.709.";
    }
    SetDlgItemTextW(m_Dlg, IDC_MATRIX_NOTE, note.c_str());
}

void CKestraStreamPropCSC::fieldChanged(size_t field, bool /*byUser*/) {
    if (m_Dlg && field < kMatrixValues) updatePreset();
}

void CKestraStreamPropCSC::selectionChanged(int id) {
    if (id != IDC_MATRIX) return;
    const auto chosen = static_cast<size_t>(presets(CB_GETCURSEL));
    if (chosen >= std::size(kMatrixPresets)) return updatePreset(); // "Custom" is what a matrix becomes by typing
    for (size_t field = 0; field < kMatrixValues; ++field)
        edit(field, kMatrixPresets[chosen].matrix[field]);
    markDirty();
}

void CKestraStreamPropCSC::buttonPressed(int id) {
    KestraConverterValues v{};
    if (id != IDC_DEFAULT || FAILED(m_object->get_DefaultColorSpaceConverter(&v))) return;
    size_t field = 0;
    for (const LONG offset : {v.YOff, v.CrOff, v.CbOff})
        edit(field++, offset);
    for (const float coefficient : {v.Y1, v.R1, v.G1, v.G2, v.B1})
        edit(field++, static_cast<double>(coefficient));
    for (const unsigned char limit : {v.RMin, v.RMax, v.GMin, v.GMax, v.BMin, v.BMax})
        edit(field++, limit);
    markDirty();
}

} // namespace

CUnknown* CALLBACK createConverterPage(LPUNKNOWN pUnk, HRESULT* phr) {
    return createPage<CKestraStreamPropCSC>(pUnk, phr);
}

} // namespace kestra
