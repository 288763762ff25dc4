// Shows the property pages of the real filters, on the simulated card, in each of their states:
// page_pictures DPI [FOLDER [SUFFIX]]. Exit code 1 if the screen is not of so many dots per inch, if a text is cut or
// if a picture could not be made; with a folder it keeps a picture of each state.
#include "tests/com/page_audio_graph.h"

#include "pages/resource.h"
#include "simcard/ctl/control.h"
#include "simcard/model/card.h"
#include "simcard/model/picture.h"
#include "tests/com/page_host.h"
#include "tests/support/own_dialogs.h"
#include "tests/support/registry_sandbox.h"

#include <commctrl.h>
#include <olectl.h>
#include <prsht.h>

#include <cstdio>
#include <thread>

namespace kestra::test {
namespace {

/// The frame's picture as a bitmap file of 24 bits a pixel.
bool save(HWND window, SIZE size, const std::wstring& path) {
    const HDC from = GetDC(window), to = CreateCompatibleDC(from);
    BITMAPINFO info{};
    const LONG stride = (size.cx * 3 + 3) & ~3;
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), size.cx, -size.cy, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
    void* bits = nullptr;
    const HBITMAP bitmap = CreateDIBSection(from, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    const HGDIOBJ before = SelectObject(to, bitmap);
    const bool copied = bitmap && BitBlt(to, 0, 0, size.cx, size.cy, from, 0, 0, SRCCOPY);
    GdiFlush();
    bool written = false;
    if (copied) {
        const DWORD bytes = DWORD(stride) * DWORD(size.cy);
        BITMAPFILEHEADER head{};
        head.bfType = 0x4D42; // "BM"
        head.bfOffBits = sizeof head + sizeof info.bmiHeader;
        head.bfSize = head.bfOffBits + bytes;
        FILE* file = _wfopen(path.c_str(), L"wb");
        if (file) {
            written = std::fwrite(&head, sizeof head, 1, file) == 1 &&
                      std::fwrite(&info.bmiHeader, sizeof info.bmiHeader, 1, file) == 1 &&
                      std::fwrite(bits, bytes, 1, file) == 1;
            std::fclose(file);
        }
    }
    SelectObject(to, before);
    DeleteObject(bitmap);
    DeleteDC(to);
    ReleaseDC(window, from);
    return written;
}

void paintAll() {
    MSG message;
    // Until everything has been painted.
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

/// The dialog of this process with that caption (null: any) and that control (0: any), as soon as there is one.
HWND awaitDialog(const wchar_t* caption, int control) {
    HWND found = nullptr;
    waitUntil([&] {
        found = findOwnDialog([=](HWND window) {
            wchar_t title[64] = L"";
            GetWindowTextW(window, title, 64);
            return IsWindowVisible(window) && (!caption || std::wcscmp(title, caption) == 0) &&
                   (control == 0 || GetDlgItem(window, control));
        });
        return found != nullptr;
    });
    return found;
}

class Pictures {
public:
    Pictures(std::wstring folder, std::wstring suffix) : m_folder(std::move(folder)), m_suffix(std::move(suffix)) {
        m_card.reset();
        showPicture(simcard::PictureKind::Tinted);
    }
    ~Pictures() { m_card.reset(); }
    Pictures(const Pictures&) = delete;
    Pictures& operator=(const Pictures&) = delete;

    int takeAll();

private:
    /// A fresh video filter of a format.
    ComRef<IBaseFilter> videoFilter(DWORD format) {
        m_registry.setDword(L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow", L"VideoFormat", format);
        ComRef<IBaseFilter> filter;
        m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
        return filter;
    }
    void showPicture(simcard::PictureKind picture) {
        simcard::Options options = simcard::kDefaultOptions;
        options.picture = uint32_t(picture);
        m_card.setOptions(options);
    }
    void fail(const wchar_t* name, const std::wstring& why) {
        std::fwprintf(stderr, L"%ls: %ls\n", name, why.c_str());
        m_failed = true;
    }
    /// Opens a page on an object, lets `act` do something, and looks at what is to be seen.
    template <class Act>
    void take(const CLSID& clsid, IUnknown* object, const wchar_t* name, Act act) {
        ComRef<IPropertyPage> page;
        PageHost host;
        if (FAILED(m_module.create(clsid, IID_IPropertyPage, reinterpret_cast<void**>(page.out()))) ||
            FAILED(host.open(std::move(page), object)))
            return fail(name, L"the page cannot be shown");
        act(host);
        RedrawWindow(host.dialog(), nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
        paintAll();
        for (const std::wstring& cut : host.cutTexts())
            fail(name, cut);
        keep(host.dialog(), host.size(), name);
    }
    template <class Act>
    void takeVideo(const CLSID& clsid, DWORD format, const wchar_t* name, Act act) {
        take(clsid, videoFilter(format).get(), name, act);
    }
    /// Saves what a window shows.
    void keep(HWND window, SIZE size, const wchar_t* name) {
        if (m_folder.empty()) return;
        const std::wstring path = m_folder + L"\\" + name + m_suffix + L".bmp";
        if (!window || !save(window, size, path)) fail(name, path + L" cannot be written");
    }
    void keepClient(HWND window, const wchar_t* name) {
        RECT area{};
        GetClientRect(window, &area);
        RedrawWindow(window, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
        SendMessageW(window, WM_NULL, 0, 0);
        keep(window, {area.right, area.bottom}, name);
    }
    void takeFrame(const wchar_t* name);
    void takeRefusedAudio(const wchar_t* page, const wchar_t* box);

    RegistrySandbox m_registry;
    simcard::CardControl m_card{0};
    ComModule m_module{KESTRA_MODULE};
    const std::wstring m_folder, m_suffix;
    bool m_failed = false;
};

/// The system's own frame with the pages of the video filter, as an application opens it.
void Pictures::takeFrame(const wchar_t* name) {
    CLSID pages[] = {CLSID_KestraStreamPropCSC, CLSID_KestraStreamPropRGB};
    DWORD cookies[2] = {};
    for (int i = 0; i < 2; ++i) {
        ComRef<IClassFactory> factory;
        m_module.classObject(pages[i], IID_IClassFactory, reinterpret_cast<void**>(factory.out()));
        CoRegisterClassObject(pages[i], factory.get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookies[i]);
    }
    std::thread user([&] {
        constexpr int kApply = 0x3021;
        const HWND frame = awaitDialog(nullptr, kApply);
        keepClient(frame, name);
        PostMessageW(frame, WM_COMMAND, IDCANCEL, 0); // posted, as a click is
    });
    const ComRef<IBaseFilter> filter = videoFilter(1);
    IUnknown* unknown = filter.get();
    OleCreatePropertyFrame(nullptr, 0, 0, L"Kestra Capture Video", 1, &unknown, 2, pages, 0, 0, nullptr);
    user.join();
    for (const DWORD cookie : cookies)
        CoRevokeClassObject(cookie);
}

void Pictures::takeRefusedAudio(const wchar_t* page, const wchar_t* box) {
    AudioGraph graph(m_module);
    graph.sink->pin.refuses24 = true;
    if (!graph.isMade() || !graph.connect()) return fail(page, L"there is no graph");
    take(CLSID_KestraAudioPropertyPage, graph.pin.get(), page, [&](PageHost& host) {
        SendMessageW(host.control(IDC_BITS), CB_SETCURSEL, 1, 0);
        SendMessageW(host.dialog(), WM_COMMAND, MAKEWPARAM(IDC_BITS, CBN_SELCHANGE), 0);
        std::thread user([&] {
            const HWND message = awaitDialog(L"Error", 0);
            keepClient(message, box);
            SendMessageW(message, WM_COMMAND, IDOK, 0);
        });
        host.apply();
        user.join();
    });
}

int Pictures::takeAll() {
    const CLSID &converter = CLSID_KestraStreamPropCSC, &gain = CLSID_KestraStreamPropRGB;
    const auto nothing = [](PageHost&) {};
    const auto analyze = [](PageHost& host) { host.click(IDC_ANALYZE); };
    takeVideo(converter, 1, L"page-converter", nothing);
    takeVideo(converter, 1, L"page-converter-709", [](PageHost& host) {
        SendMessageW(host.control(IDC_MATRIX), CB_SETCURSEL, 1, 0);
        SendMessageW(host.dialog(), WM_COMMAND, MAKEWPARAM(IDC_MATRIX, CBN_SELCHANGE), 0);
    });
    takeVideo(converter, 1, L"page-converter-error", [](PageHost& host) {
        host.type(IDC_CROFF, L"51a");
        host.type(IDC_R1, L"1.5.96");
        host.apply();
    });
    takeVideo(converter, 1, L"page-converter-refused", [&](PageHost& host) {
        host.type(IDC_YOFF, L"2000");
        m_card.failNext(wire::kSetConverter, simcard::kStatusAccessDenied);
        host.apply();
    });
    takeVideo(gain, 1, L"page-gain", [&](PageHost& host) {
        host.type(IDC_BLUE_OFFSET, L"-12");
        analyze(host);
        host.click(IDC_LINK);
        host.click(IDC_LIVE);
    });
    takeVideo(gain, 1, L"page-gain-marked", [](PageHost& host) {
        host.type(IDC_GREEN_GAIN, L"1.38o");
        host.type(IDC_BLUE_OFFSET, L"-200");
        host.apply();
    });
    takeVideo(gain, 1, L"page-gain-unusual", [](PageHost& host) {
        host.type(IDC_GREEN_GAIN, L"4.5001");
        host.type(IDC_BLUE_OFFSET, L"-128");
    });
    takeVideo(gain, 1, L"page-gain-no-picture", [&](PageHost& host) {
        analyze(host);
        m_card.failNext(wire::kSnap, simcard::kStatusInsufficientResources);
        analyze(host);
    });
    takeFrame(L"page-frame");
    takeVideo(converter, 0, L"page-converter-not-available", nothing);
    takeVideo(gain, 0, L"page-gain-not-available", nothing);
    {
        const AudioGraph graph(m_module);
        take(CLSID_KestraAudioPropertyPage, graph.pin.get(), L"page-audio", nothing);
    }
    takeRefusedAudio(L"page-audio-refused", L"page-audio-error");
    return m_failed ? 1 : 0;
}

int dotsPerInch() {
    const HDC screen = GetDC(nullptr);
    const int dots = GetDeviceCaps(screen, LOGPIXELSY);
    ReleaseDC(nullptr, screen);
    return dots;
}

} // namespace
} // namespace kestra::test

int wmain(int count, wchar_t** arguments) {
    if (count < 2) {
        std::fputs("usage: page_pictures DPI [FOLDER [SUFFIX]]\n", stderr);
        return 2;
    }
    SetProcessDPIAware();
    CoInitialize(nullptr);
    int result = 1;
    const int dots = kestra::test::dotsPerInch();
    if (dots == std::stoi(arguments[1]))
        result = kestra::test::Pictures(count > 2 ? arguments[2] : L"", count > 3 ? arguments[3] : L"").takeAll();
    else
        std::fwprintf(stderr, L"the screen has %d dots per inch, not %ls\n", dots, arguments[1]);
    CoUninitialize();
    return result;
}
