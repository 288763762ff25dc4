// The page "RGB Gain/Offset".
#include "pages/number_page.h"
#include "pages/pages.h"
#include "pages/resource.h"

#include <kestra_interfaces.h>

#include <commctrl.h>

#include <algorithm>
#include <cmath>

namespace kestra {
namespace {

constexpr float kMostGain = 3.999f, kMostOffset = 127;
constexpr int kStepsPerUnit = 1000; // of a slider: as fine as the edit beside it
constexpr size_t kColors = 3;       // red, green, blue

// Gains, then offsets.
constexpr NumberField kFields[] = {{IDC_RED_GAIN, L"Red gain", false, 0, kMostGain},
                                   {IDC_GREEN_GAIN, L"Green gain", false, 0, kMostGain},
                                   {IDC_BLUE_GAIN, L"Blue gain", false, 0, kMostGain},
                                   {IDC_RED_OFFSET, L"Red offset", true, -kMostOffset, kMostOffset},
                                   {IDC_GREEN_OFFSET, L"Green offset", true, -kMostOffset, kMostOffset},
                                   {IDC_BLUE_OFFSET, L"Blue offset", true, -kMostOffset, kMostOffset}};

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

class CKestraStreamPropRGB final : public NumberPage {
public:
    explicit CKestraStreamPropRGB(LPUNKNOWN pUnk)
        : NumberPage(NAME("RGB gain and offset page"), pUnk, IDD_GAIN, kFields) {}

    HRESULT OnConnect(IUnknown* object) override {
        m_gains = ask<IKestraStreamPropRGBGainOffset>(object, IID_IKestraStreamPropRGBGainOffset);
        return m_gains ? S_OK : E_NOINTERFACE;
    }
    HRESULT OnDisconnect() override {
        m_gains.reset();
        m_linked = false;
        return NumberPage::OnDisconnect();
    }
    INT_PTR OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) override;

private:
    bool isAvailable() override {
        LONG rgb = 0;
        return m_gains && SUCCEEDED(m_gains->get_RGBOut(&rgb)) && rgb != 0;
    }
    void prepareControls() override;
    void load() override;
    HRESULT send() override;
    void fieldChanged(size_t field, bool byUser) override;
    void buttonPressed(int id) override;
    void sliderMoved(size_t color);
    void moveOthers(size_t color);
    void rememberProportions();
    void showGains(const float (&gains)[kColors]);
    void analyze();

    ComOwner<IKestraStreamPropRGBGainOffset> m_gains;
    bool m_linked = false;
    float m_proportions[kColors] = {1, 1, 1}; ///< of the gains when they were linked: they are kept while one moves
};

INT_PTR CKestraStreamPropRGB::OnReceiveMessage(HWND hwnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_HSCROLL && lParam) {
        const int slider = GetDlgCtrlID(reinterpret_cast<HWND>(lParam)) - IDC_RED_SLIDER;
        if (slider >= 0 && slider < static_cast<int>(kColors)) sliderMoved(static_cast<size_t>(slider));
        return TRUE;
    }
    return NumberPage::OnReceiveMessage(hwnd, uMsg, wParam, lParam);
}

void CKestraStreamPropRGB::prepareControls() {
    for (int color = 0; color < static_cast<int>(kColors); ++color) {
        const HWND slider = GetDlgItem(m_Dlg, IDC_RED_SLIDER + color);
        SendMessageW(slider, TBM_SETRANGEMIN, FALSE, 0);
        SendMessageW(slider, TBM_SETRANGEMAX, TRUE, std::lround(kMostGain * kStepsPerUnit));
        SendMessageW(slider, TBM_SETLINESIZE, 0, kStepsPerUnit / 100);
        SendMessageW(slider, TBM_SETPAGESIZE, 0, kStepsPerUnit / 10);
        const auto most = static_cast<int>(kMostOffset);
        SendDlgItemMessageW(m_Dlg, IDC_RED_SPIN + color, UDM_SETRANGE32, static_cast<WPARAM>(-most), most);
    }
    CheckDlgButton(m_Dlg, IDC_LINK, m_linked ? BST_CHECKED : BST_UNCHECKED);
}

void CKestraStreamPropRGB::load() {
    float gains[kColors] = {1, 1, 1};
    signed char offsets[kColors] = {};
    m_gains->get_RedGain(&gains[0]);
    m_gains->get_GreenGain(&gains[1]);
    m_gains->get_BlueGain(&gains[2]);
    m_gains->get_RedOffset(&offsets[0]);
    m_gains->get_GreenOffset(&offsets[1]);
    m_gains->get_BlueOffset(&offsets[2]);
    showGains(gains);
    for (size_t color = 0; color < kColors; ++color)
        show(kColors + color, wholeText(offsets[color]));
}

HRESULT CKestraStreamPropRGB::send() {
    const auto offset = [this](size_t color) { return static_cast<signed char>(whole(kColors + color)); };
    m_gains->put_FreezeUpdate(1); // so that no half-written set reaches the card
    m_gains->put_RedGain(decimal(0));
    m_gains->put_GreenGain(decimal(1));
    m_gains->put_BlueGain(decimal(2));
    m_gains->put_RedOffset(offset(0));
    m_gains->put_GreenOffset(offset(1));
    m_gains->put_BlueOffset(offset(2));
    return m_gains->put_FreezeUpdate(0);
}

/// The slider follows its edit, and with Link the other two gains do.
void CKestraStreamPropRGB::fieldChanged(size_t field, bool byUser) {
    if (field >= kColors || !isGood(field)) return;
    if (m_Dlg)
        SendDlgItemMessageW(m_Dlg, IDC_RED_SLIDER + static_cast<int>(field), TBM_SETPOS, TRUE,
                            std::lround(decimal(field) * kStepsPerUnit));
    if (byUser) moveOthers(field);
}

void CKestraStreamPropRGB::sliderMoved(size_t color) {
    const LRESULT position = SendDlgItemMessageW(m_Dlg, IDC_RED_SLIDER + static_cast<int>(color), TBM_GETPOS, 0, 0);
    std::wstring moved = decimalText(static_cast<float>(position) / kStepsPerUnit);
    if (moved == text(color)) return; // the end of a drag comes as a move too
    show(color, std::move(moved));
    moveOthers(color);
    markDirty();
}

/// Keeps the proportions of the linked gains, so that a white balance stays one. A gain of 0 has none: all become
/// alike.
void CKestraStreamPropRGB::moveOthers(size_t color) {
    if (!m_linked) return;
    const float moved = decimal(color), before = m_proportions[color];
    for (size_t other = 0; other < kColors; ++other) {
        if (other == color) continue;
        const float gain = before > 0 ? m_proportions[other] * (moved / before) : moved;
        show(other, decimalText(std::min(gain, kMostGain)));
    }
}

void CKestraStreamPropRGB::rememberProportions() {
    for (size_t color = 0; color < kColors; ++color)
        m_proportions[color] = isGood(color) ? decimal(color) : 1.0f;
}

void CKestraStreamPropRGB::showGains(const float (&gains)[kColors]) {
    for (size_t color = 0; color < kColors; ++color)
        show(color, decimalText(gains[color]));
    rememberProportions();
}

void CKestraStreamPropRGB::buttonPressed(int id) {
    switch (id) {
    case IDC_LINK:
        m_linked = IsDlgButtonChecked(m_Dlg, IDC_LINK) == BST_CHECKED;
        return rememberProportions();
    case IDC_UNITY:
        showGains({1, 1, 1});
        return markDirty();
    case IDC_RED_ZERO:
    case IDC_GREEN_ZERO:
    case IDC_BLUE_ZERO:
        show(kColors + static_cast<size_t>(id - IDC_RED_ZERO), L"0");
        return markDirty();
    case IDC_ANALYZE:
        return analyze();
    default:
        return;
    }
}

void CKestraStreamPropRGB::analyze() {
    unsigned char mean[kColors] = {};
    float gain[kColors] = {};
    HRESULT hr;
    {
        const WaitCursor wait;
        hr = m_gains->WhiteBalance(&mean[0], &mean[1], &mean[2], &gain[0], &gain[1], &gain[2]);
    }
    if (FAILED(hr)) return report(L"The picture could not be analyzed. " + describe(hr));
    showGains(gain);
    const std::wstring means =
        L"Mean RGB = {" + wholeText(mean[0]) + L"," + wholeText(mean[1]) + L"," + wholeText(mean[2]) + L"}";
    SetDlgItemTextW(m_Dlg, IDC_MEAN, means.c_str());
    markDirty();
}

} // namespace

CUnknown* CALLBACK createGainPage(LPUNKNOWN pUnk, HRESULT* phr) {
    return createPage<CKestraStreamPropRGB>(pUnk, phr);
}

} // namespace kestra
