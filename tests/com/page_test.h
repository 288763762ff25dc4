// What the tests of the property pages share: the page on the real filter or on a test double.
#pragma once

#include "pages/resource.h"
#include "simcard/model/card.h"
#include "simcard/model/picture.h"
#include "tests/com/page_double.h"
#include "tests/com/page_host.h"
#include "tests/com/video_test.h"

#include <cstring>

namespace kestra::test {

class PageTest : public VideoTest {
protected:
    void TearDown() override {
        m_host.close();
        EXPECT_EQ(m_host.references(), 1) << "the page keeps its site";
        EXPECT_EQ(m_double.references, 1) << "the page keeps its object";
        if (m_filter) m_filter->Stop();
        if (m_pin) m_pin->Disconnect();
        m_sink.Disconnect();
        VideoTest::TearDown();
    }
    ComRef<IPropertyPage> makePage(const CLSID& clsid) {
        ComRef<IPropertyPage> page;
        EXPECT_EQ(m_module.create(clsid, IID_IPropertyPage, reinterpret_cast<void**>(page.out())), S_OK);
        return page;
    }
    /// The page on an object.
    void openOn(const CLSID& clsid, IUnknown* object) { ASSERT_EQ(m_host.open(makePage(clsid), object), S_OK); }
    void openOnDouble(const CLSID& clsid) { openOn(clsid, static_cast<IKestraStreamPropCSC*>(&m_double)); }
    /// The page on a filter that delivers in a format; what follows is all that the card's log holds.
    void openOnFilter(const CLSID& clsid, int format = 1) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        ASSERT_EQ(makeFilter(), S_OK);
        openOn(clsid, m_filter.get());
        m_card.clearLog();
    }
    /// The converter records that the card received, in order.
    std::vector<wire::Converter> sent() const {
        std::vector<wire::Converter> records;
        for (const simcard::LogEntry& entry : m_card.log())
            if (entry.code == wire::kSetConverter) {
                wire::SetConverterRequest request;
                std::memcpy(&request, entry.bytes, sizeof request);
                records.push_back(request.converter);
            }
        return records;
    }
    void showPicture(simcard::PictureKind picture) const {
        simcard::Options options = simcard::kDefaultOptions;
        options.picture = uint32_t(picture);
        m_card.setOptions(options);
    }
    /// Runs the filter into the sink. The video keeps coming until the test ends.
    void run() {
        ASSERT_EQ(m_pin->Connect(&m_sink, nullptr), S_OK);
        ASSERT_EQ(m_filter->Run(0), S_OK);
    }
    /// The bytes of a sample that arrives from now on.
    std::vector<uint8_t> nextSample() {
        std::vector<uint8_t> bytes;
        m_sink.forget();
        EXPECT_TRUE(waitUntil([&] {
            if (m_sink.received == 0) return false;
            auto samples = m_sink.samples();
            if (!samples.empty()) bytes = std::move(samples.front().bytes);
            return !bytes.empty();
        }));
        return bytes;
    }
    /// Every letter behind an & of the dialog's texts, in capitals.
    std::wstring accessKeys() const {
        std::wstring keys;
        for (const HWND child : m_host.children()) {
            wchar_t text[128];
            GetWindowTextW(child, text, 128);
            wchar_t kind[16];
            GetClassNameW(child, kind, 16);
            const bool plain = lstrcmpW(kind, L"Edit") == 0 || GetWindowLongPtrW(child, GWL_STYLE) & SS_NOPREFIX;
            const wchar_t* mark = plain && lstrcmpW(kind, L"Button") != 0 ? nullptr : wcschr(text, L'&');
            if (mark) keys += wchar_t(towupper(mark[1]));
        }
        return keys;
    }

    /// The text of the label right before a control, which is where a screen reader finds its name; empty: none is
    /// there.
    std::wstring labelOf(int id) const {
        const HWND label = GetWindow(m_host.control(id), GW_HWNDPREV);
        wchar_t kind[16], text[16];
        GetClassNameW(label, kind, 16);
        GetWindowTextW(label, text, 16);
        return lstrcmpW(kind, L"Static") == 0 ? text : L"";
    }

    /// Repeats a cycle of an open page many times and checks that it leaves no window and no drawing object.
    template <class Cycle>
    void expectNothingLeftBy(Cycle cycle) {
        cycle();
        const GuiCounts before = guiCounts();
        for (int i = 0; i < 50; ++i)
            cycle();
        EXPECT_LE(guiCounts().gdiObjects, before.gdiObjects);
        EXPECT_EQ(guiCounts().windows, before.windows);
    }

    TestSink m_sink;
    PageDouble m_double;
    PageHost m_host;
};

inline bool same(const wire::Converter& a, const wire::Converter& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace kestra::test
