// The page "RGB Gain/Offset".
#include "pages/number_page.h"
#include "pages/pages.h"
#include "pages/resource.h"
#include "protocol/converter_matrix.h"

#include <kestra_interfaces.h>

#include <commctrl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

namespace kestra {
namespace {

constexpr double kMostSlider = 4;   // where the sliders end; any gain can be typed
constexpr int kStepsPerUnit = 1000; // of a slider: as fine as the edit beside it
constexpr size_t kColors = 3;       // red, green, blue

constexpr NumberField gainField(int id, const wchar_t* name) {
    return {id,
            name,
            false,
            -kMostCoefficient,
            kMostCoefficient,
            0,
            kMostSlider,
            L"where the slider ends",
            id - IDC_RED_GAIN + IDC_RED_GAIN_CARD,
            coefficientOnCard};
}
constexpr NumberField offsetField(int id, const wchar_t* name) {
    return {id,
            name,
            true,
            -128,
            127,
            -127,
            127,
            L"which the card can hold",
            id - IDC_RED_OFFSET + IDC_RED_OFFSET_CARD,
            offsetOnCard};
}

// Gains, then offsets.
constexpr NumberField kFields[] = {
    gainField(IDC_RED_GAIN, L"Red gain"),           gainField(IDC_GREEN_GAIN, L"Green gain"),
    gainField(IDC_BLUE_GAIN, L"Blue gain"),         offsetField(IDC_RED_OFFSET, L"Red offset"),
    offsetField(IDC_GREEN_OFFSET, L"Green offset"), offsetField(IDC_BLUE_OFFSET, L"Blue offset")};
static_assert(std::ranges::all_of(kFields, canBeShown));

#define KESTRA_PROPERTY(name)                                                                                          \
    property<IKestraStreamPropRGBGainOffset, &IKestraStreamPropRGBGainOffset::get_##name,                              \
             &IKestraStreamPropRGBGainOffset::put_##name>()
constexpr Property<IKestraStreamPropRGBGainOffset> kProperties[] = {
    KESTRA_PROPERTY(RedGain),   KESTRA_PROPERTY(GreenGain),   KESTRA_PROPERTY(BlueGain),
    KESTRA_PROPERTY(RedOffset), KESTRA_PROPERTY(GreenOffset), KESTRA_PROPERTY(BlueOffset)};
#undef KESTRA_PROPERTY

using Means = std::array<unsigned char, kColors>;

/// "Mean RGB = {167,121,100}"
std::wstring meanText(const Means& means) {
    return L"Mean RGB = {" + wholeText(means[0]) + L"," + wholeText(means[1]) + L"," + wholeText(means[2]) + L"}";
}

/// The hourglass while the object lives.
class WaitCursor {
public:
    WaitCursor() noexcept : m_before(SetCursor(LoadCursor(nullptr, IDC_WAIT))) {}
    ~WaitCursor() { SetCursor(m_before); }
    WaitCursor(const WaitCursor&) = delete;
    WaitCursor& operator=(const WaitCursor&) = delete;

private:
    HCURSOR m_before;
};

class CKestraStreamPropRGB final : public PropertiesPage<IKestraStreamPropRGBGainOffset> {
public:
    explicit CKestraStreamPropRGB(LPUNKNOWN pUnk)
        : PropertiesPage(NAME("RGB gain and offset page"), pUnk, IDD_GAIN, kFields, kProperties,
                         IID_IKestraStreamPropRGBGainOffset) {}

    HRESULT OnActivate() override {
        const HRESULT hr = PropertiesPage::OnActivate();
        if (!m_bDirty) rememberProportions();
        return hr;
    }
    HRESULT OnDisconnect() override {
        m_linked = m_zeroOffsets = false;
        m_means.reset();
        m_meanText = meanText({});
        m_meanNote.clear();
        return PropertiesPage::OnDisconnect();
    }
    INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) override;

private:
    void prepareControls() override;
    void fieldChanged(size_t field, bool byUser) override;
    void buttonPressed(int id) override;
    HWND slider(size_t color) const { return GetDlgItem(m_Dlg, IDC_RED_SLIDER + static_cast<int>(color)); }
    void sliderMoved(size_t color);
    void moveOthers(size_t color);
    void rememberProportions();
    void editGains(const std::array<double, kColors>& gains);
    void analyze();
    void showMeans();

    bool m_linked = false, m_zeroOffsets = false;
    double m_proportions[kColors] = {1, 1, 1}; ///< of the gains when they were linked: they are kept while one moves
    LRESULT m_positions[kColors] = {};         ///< of the sliders, as they were put last
    std::optional<Means> m_means;              ///< of the last picture that was measured
    std::wstring m_meanText = meanText({}), m_meanNote;
};

INT_PTR CKestraStreamPropRGB::OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_HSCROLL && lParam && m_object) {
        const int color = GetDlgCtrlID(reinterpret_cast<HWND>(lParam)) - IDC_RED_SLIDER;
        if (color >= 0 && color < static_cast<int>(kColors)) sliderMoved(static_cast<size_t>(color));
        return TRUE;
    }
    return PropertiesPage::OnReceiveMessage(hwnd, uMsg, wParam, lParam);
}

void CKestraStreamPropRGB::prepareControls() {
    for (size_t color = 0; color < kColors; ++color) {
        SendMessageW(slider(color), TBM_SETRANGEMIN, FALSE, 0);
        SendMessageW(slider(color), TBM_SETRANGEMAX, TRUE, std::lround(kMostSlider * kStepsPerUnit));
        SendMessageW(slider(color), TBM_SETLINESIZE, 0, kStepsPerUnit / 1000);
        SendMessageW(slider(color), TBM_SETPAGESIZE, 0, kStepsPerUnit / 20);
        SendMessageW(slider(color), TBM_CLEARTICS, FALSE, 0);
        SendMessageW(slider(color), TBM_SETTIC, 0, kStepsPerUnit);
        const NumberField& offset = kFields[kColors + color];
        SendDlgItemMessageW(m_Dlg, IDC_RED_SPIN + static_cast<int>(color), UDM_SETRANGE32,
                            static_cast<WPARAM>(offset.least), static_cast<LPARAM>(offset.most));
    }
    CheckDlgButton(m_Dlg, IDC_LINK, m_linked ? BST_CHECKED : BST_UNCHECKED);
    CheckDlgButton(m_Dlg, IDC_ZERO_OFFSETS, m_zeroOffsets ? BST_CHECKED : BST_UNCHECKED);
    showMeans();
}

/// The slider follows its edit; with Link, so do the other two gains.
void CKestraStreamPropRGB::fieldChanged(size_t field, bool byUser) {
    if (field >= kColors || !isGood(field)) return;
    if (m_Dlg) {
        const double shown = value(field) >= 0 ? std::min(value(field), kMostSlider) : 0; // NaN: 0
        m_positions[field] = std::lround(shown * kStepsPerUnit);
        SendMessageW(slider(field), TBM_SETPOS, TRUE, m_positions[field]);
    }
    if (byUser) moveOthers(field);
}

/// Also called at the end of a drag and for keys at the end of the slider: a slider that has not moved changes nothing,
/// so a gain beyond its end is kept.
void CKestraStreamPropRGB::sliderMoved(size_t color) {
    const LRESULT position = SendMessageW(slider(color), TBM_GETPOS, 0, 0);
    if (position == m_positions[color]) return;
    edit(color, static_cast<double>(static_cast<float>(position) / kStepsPerUnit));
    moveOthers(color);
    markDirty();
}

/// Keeps the ratios of the linked gains, so that a white balance is preserved. A gain of 0 has no ratio: all become
/// equal.
void CKestraStreamPropRGB::moveOthers(size_t color) {
    if (!m_linked) return;
    const double moved = value(color), before = m_proportions[color];
    for (size_t other = 0; other < kColors; ++other) {
        if (other == color) continue;
        double gain = before > 0 ? m_proportions[other] * (moved / before) : moved;
        if (!std::isfinite(gain)) gain = moved;
        edit(other,
             std::clamp(static_cast<double>(static_cast<float>(gain)), kFields[other].least, kFields[other].most));
    }
}

void CKestraStreamPropRGB::rememberProportions() {
    for (size_t color = 0; color < kColors; ++color)
        m_proportions[color] = isGood(color) ? value(color) : 1;
}

void CKestraStreamPropRGB::editGains(const std::array<double, kColors>& gains) {
    for (size_t color = 0; color < kColors; ++color)
        edit(color, gains[color]);
    rememberProportions();
}

void CKestraStreamPropRGB::buttonPressed(int id) {
    switch (id) {
    case IDC_LINK:
        m_linked = IsDlgButtonChecked(m_Dlg, IDC_LINK) == BST_CHECKED;
        return rememberProportions();
    case IDC_ZERO_OFFSETS:
        m_zeroOffsets = IsDlgButtonChecked(m_Dlg, IDC_ZERO_OFFSETS) == BST_CHECKED;
        return;
    case IDC_UNITY:
        editGains({1, 1, 1});
        return markDirty();
    case IDC_RED_ZERO:
    case IDC_GREEN_ZERO:
    case IDC_BLUE_ZERO:
        edit(kColors + static_cast<size_t>(id - IDC_RED_ZERO), 0);
        return markDirty();
    case IDC_ANALYZE:
        return analyze();
    default:
        return;
    }
}

void CKestraStreamPropRGB::analyze() {
    Means means{};
    FLOAT gains[kColors] = {};
    HRESULT hr = S_OK;
    {
        const WaitCursor patience;
        hr = m_object->WhiteBalance(&means[0], &means[1], &means[2], &gains[0], &gains[1], &gains[2]);
    }
    m_meanNote.clear();
    if (FAILED(hr)) {
        if (m_means) m_meanText = meanText(*m_means) + L" (old)";
        showMeans();
        return report(L"The picture could not be analyzed. " + describe(hr));
    }
    m_meanText = meanText(means);
    if (means == Means{}) { // gains of 1 then mean nothing
        m_meanNote = L"There was no picture to measure, or it is black.";
        if (m_means) m_meanNote += L" Before: " + meanText(*m_means);
        return showMeans();
    }
    m_means = means;
    editGains({gains[0], gains[1], gains[2]});
    for (size_t offset = kColors; offset < 2 * kColors; ++offset) {
        if (m_zeroOffsets) edit(offset, 0);
        if (value(offset) != 0) m_meanNote = L"The gains are for offsets of 0.";
    }
    markDirty();
    showMeans();
}

void CKestraStreamPropRGB::showMeans() {
    SetDlgItemTextW(m_Dlg, IDC_MEAN, m_meanText.c_str());
    SetDlgItemTextW(m_Dlg, IDC_MEAN_NOTE, m_meanNote.c_str());
}

} // namespace

CUnknown* CALLBACK createGainPage(LPUNKNOWN pUnk, HRESULT* phr) {
    return createPage<CKestraStreamPropRGB>(pUnk, phr);
}

} // namespace kestra
