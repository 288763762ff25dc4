// Shows the property pages in each of their states and saves a picture of each: page_pictures FOLDER [SUFFIX].
// Exit code 1 if a text is cut or a picture could not be made.
#include "pages/resource.h"
#include "tests/com/com_module.h"
#include "tests/com/page_double.h"
#include "tests/com/page_host.h"

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
    // Until nothing is left to be painted.
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

/// The dialog of this process with that caption (null: any) and that control (0: any), as soon as there is one.
HWND awaitDialog(const wchar_t* caption, int control) {
    HWND found = nullptr;
    waitUntil([&] {
        for (HWND window = nullptr; !found && (window = FindWindowExW(nullptr, window, L"#32770", caption));) {
            DWORD process = 0;
            GetWindowThreadProcessId(window, &process);
            if (process == GetCurrentProcessId() && IsWindowVisible(window) &&
                (control == 0 || GetDlgItem(window, control)))
                found = window;
        }
        return found != nullptr;
    });
    return found;
}

class Pictures {
public:
    Pictures(std::wstring folder, std::wstring suffix) : m_folder(std::move(folder)), m_suffix(std::move(suffix)) {}
    /// Opens a page on the double, lets `act` do something, and saves what is to be seen.
    template <class Act>
    void take(const CLSID& clsid, const wchar_t* name, Act act) {
        ComRef<IPropertyPage> page;
        PageHost host;
        if (FAILED(m_module.create(clsid, IID_IPropertyPage, reinterpret_cast<void**>(page.out()))) ||
            FAILED(host.open(std::move(page), static_cast<IKestraStreamPropCSC*>(&object)))) {
            std::fwprintf(stderr, L"%ls: the page cannot be shown\n", name);
            failed = true;
            return;
        }
        act(host);
        RedrawWindow(host.dialog(), nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
        paintAll();
        for (const std::wstring& cut : host.cutTexts()) {
            std::fwprintf(stderr, L"%ls: %ls\n", name, cut.c_str());
            failed = true;
        }
        keep(host.dialog(), host.size(), name);
    }
    /// Saves what a window shows.
    void keep(HWND window, SIZE size, const wchar_t* name) {
        const std::wstring path = m_folder + L"\\" + name + m_suffix + L".bmp";
        if (!window || !save(window, size, path)) {
            std::fwprintf(stderr, L"%ls cannot be written\n", path.c_str());
            failed = true;
        }
    }
    /// The system's own frame with the pages of the video filter, as an application opens it.
    void takeFrame(const wchar_t* name) {
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
            SendMessageW(frame, PSM_SETCURSEL, 1, 0);
            RedrawWindow(frame, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
            SendMessageW(frame, WM_NULL, 0, 0);
            RECT area{};
            GetClientRect(frame, &area);
            keep(frame, {area.right, area.bottom}, name);
            SendMessageW(frame, WM_COMMAND, IDCANCEL, 0);
        });
        IUnknown* unknown = static_cast<IKestraStreamPropCSC*>(&object);
        OleCreatePropertyFrame(nullptr, 0, 0, L"Kestra Capture Video", 1, &unknown, 2, pages, 0, 0, nullptr);
        user.join();
        for (const DWORD cookie : cookies)
            CoRevokeClassObject(cookie);
    }
    PageDouble object;
    bool failed = false;

private:
    ComModule m_module{KESTRA_MODULE};
    const std::wstring m_folder, m_suffix;
};

int run(const std::wstring& folder, const std::wstring& suffix) {
    Pictures pictures(folder, suffix);
    const auto nothing = [](PageHost&) {};
    pictures.take(CLSID_KestraStreamPropCSC, L"page-converter", nothing);
    pictures.take(CLSID_KestraStreamPropCSC, L"page-converter-error", [](PageHost& host) {
        host.type(IDC_R1, L"1,596");
        host.apply();
    });
    pictures.object.gains[1] = 1.38f;
    pictures.object.gains[2] = 1.67f;
    pictures.object.offsets[2] = -12;
    pictures.object.means[0] = 167;
    pictures.object.means[1] = 121;
    pictures.object.means[2] = 100;
    pictures.object.foundGains[1] = 1.38f;
    pictures.object.foundGains[2] = 1.67f;
    pictures.take(CLSID_KestraStreamPropRGB, L"page-gain", [](PageHost& host) { host.click(IDC_ANALYZE); });
    pictures.takeFrame(L"page-frame");
    pictures.object.analysisResult = E_ACCESSDENIED;
    pictures.take(CLSID_KestraStreamPropRGB, L"page-gain-error", [](PageHost& host) { host.click(IDC_ANALYZE); });
    pictures.take(CLSID_KestraStreamPropRGB, L"page-gain-marked", [](PageHost& host) {
        host.type(IDC_GREEN_GAIN, L"4.5");
        host.type(IDC_BLUE_OFFSET, L"-200");
        host.apply();
    });
    pictures.object.rgbOut = 0;
    pictures.take(CLSID_KestraStreamPropCSC, L"page-converter-not-available", nothing);
    pictures.take(CLSID_KestraStreamPropRGB, L"page-gain-not-available", nothing);
    pictures.take(CLSID_KestraAudioPropertyPage, L"page-audio", nothing);
    pictures.object.putResult = VFW_E_INVALIDMEDIATYPE;
    pictures.take(CLSID_KestraAudioPropertyPage, L"page-audio-refused", [&](PageHost& host) {
        SendMessageW(host.control(IDC_BITS), CB_SETCURSEL, 1, 0);
        SendMessageW(host.dialog(), WM_COMMAND, MAKEWPARAM(IDC_BITS, CBN_SELCHANGE), 0);
        std::thread user([&] {
            const HWND box = awaitDialog(L"Error", 0);
            RECT area{};
            GetClientRect(box, &area);
            RedrawWindow(box, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
            SendMessageW(box, WM_NULL, 0, 0);
            pictures.keep(box, {area.right, area.bottom}, L"page-audio-error");
            SendMessageW(box, WM_COMMAND, IDOK, 0);
        });
        host.apply();
        user.join();
    });
    return pictures.failed ? 1 : 0;
}

} // namespace
} // namespace kestra::test

int wmain(int count, wchar_t** arguments) {
    if (count < 2) {
        std::fputs("usage: page_pictures FOLDER [SUFFIX]\n", stderr);
        return 2;
    }
    SetProcessDPIAware();
    CoInitialize(nullptr);
    const int result = kestra::test::run(arguments[1], count > 2 ? arguments[2] : L"");
    CoUninitialize();
    return result;
}
