// Often, together, and what is left afterwards; pages, unloading, the loss of the device.
#include "compliance/process_counts.h"
#include "compliance/second_process.h"
#include "compliance/tests.h"
#include "win32/handle.h"

#include <ocidl.h>

#include <cmath>
#include <thread>

namespace kestra::compliance {
namespace {

void startStop(Context& context) {
    Rig rig(context);
    rig.connect();
    const int cycles = context.settings.cycles(1000, 40);
    for (int i = 0; i < cycles; ++i) {
        rig.pause();
        rig.run();
        if (i % 3 != 2) { // now and then it is stopped before anything came
            const double began = nowMs();
            rig.awaitSamples(static_cast<int>(rig.sink->samples().size()) + 1);
            measured("start", nowMs() - began);
        }
        const double began = nowMs();
        rig.stop();
        const double took = nowMs() - began;
        measured("stop", took);
        expect(rig.sink->afterClosing == 0, "nothing after Stop", format("%d", rig.sink->afterClosing.load()));
        if (i % 50 == 49) {
            const ProcessCounts counts = processCounts();
            measured("threads over start and stop", static_cast<double>(counts.threads));
            rig.sink->forget();
        }
    }
}

double megabytes(const ProcessCounts& counts) {
    return static_cast<double>(counts.privateBytes) / (1 << 20);
}

/// Compares counts after a fifth of the cycles with those at the end: what the first uses leave behind is no leak.
template <class Cycle>
void leaks(int cycles, Cycle cycle) {
    ProcessCounts early{}, late{};
    for (int i = 0; i < cycles; ++i) {
        cycle();
        if (i % std::max(1, cycles / 40) == 0 || i == cycles - 1) {
            late = processCounts();
            measured("cycle", i);
            measured("handles", static_cast<double>(late.handles));
            measured("memory", megabytes(late));
        }
        if (i == cycles / 5) early = processCounts();
    }
    CoFreeUnusedLibrariesEx(0, 0);
    waitFor([&] { return (late = processCounts()).threads <= early.threads; }, 2000); // one may be on its way out
    const int allowed = std::max(3, cycles / 20);
    const auto grew = [&](const char* what, int before, int after) {
        expect(after - before < allowed, format("as many %s as after the first cycles: %d", what, before),
               format("%d after %d cycles", after, cycles));
    };
    grew("handles", early.handles, late.handles);
    grew("threads", early.threads, late.threads);
    grew("GDI objects", early.gdiObjects, late.gdiObjects);
    grew("USER objects", early.userObjects, late.userObjects);
    const double growth = megabytes(late) - megabytes(early), perCycleKb = 1024 * growth / (0.8 * cycles);
    // The heap takes memory from the system in pieces: only what grows with the cycles is a leak.
    expect(growth < 8 || perCycleKb < 16,
           format("about as much memory as after the first cycles: %.1f MB", megabytes(early)),
           format("%.1f MB, %.1f KB a cycle", megabytes(late), perCycleKb));
}

void binds(Context& context) {
    leaks(context.settings.cycles(1000, 60), [&] {
        const auto filter = context.subject.create();
        const auto pin = capturePin(filter.get());
        for (const Type& type : offeredTypes(pin.get()))
            pin->QueryAccept(&*type);
    });
}

void lives(Context& context) {
    leaks(context.settings.cycles(100, 15), [&] {
        Rig rig(context);
        rig.connect();
        rig.receive(1);
        rig.stop();
        rig.disconnect();
    });
}

/// Samples are given back although their receiver asks for types, and formats are read again and again.
void formats(Context& context) {
    const auto filter = context.subject.create();
    const auto config = configOf(capturePin(filter.get()).get());
    leaks(context.settings.cycles(1000, 200), [&] {
        for (Capability& one : capabilitiesOf(config.get()))
            EXPECT_SUCCESS(config->SetFormat(one.type.get()));
        formatOf(config.get());
    });
}

void twoFilters(Context& context) {
    Rig first(context);
    first.connect();
    first.receive(2);
    note("creating a second filter");
    ComRef<IBaseFilter> second;
    const HRESULT hr = CALL(context.subject.create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(second.out())));
    if (SUCCEEDED(hr)) {
        const auto pin = capturePin(second.get());
        ComRef<Sink> sink(new Sink);
        if (SUCCEEDED(CALL(pin->Connect(sink->pin(), nullptr)))) {
            sink->Run(0);
            const HRESULT started = CALL(second->Run(0));
            fact("A second filter beside a running one",
                 SUCCEEDED(started) ? "runs" : "does not start: " + resultText(started));
            CALL(second->Stop());
            sink->pin()->Disconnect();
            CALL(pin->Disconnect());
        }
        second = {};
    } else {
        fact("A second filter beside a running one", "cannot be created: " + resultText(hr));
    }
    first.awaitSamples(static_cast<int>(first.sink->samples().size()) + 5);
    first.stop();
}

/// What a second application does when it lists devices and their formats.
void listedWhileRunning(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(2);
    for (int i = 0; i < context.settings.cycles(10, 3); ++i) {
        ComRef<IBaseFilter> other;
        const HRESULT hr =
            CALL(context.subject.create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(other.out())));
        if (FAILED(hr)) {
            warn("a device that is in use cannot be listed with its formats: " + resultText(hr));
            break;
        }
        const auto pin = capturePin(other.get());
        expect(!offeredTypes(pin.get()).empty(), "formats of a device in use", "none");
    }
    rig.awaitSamples(static_cast<int>(rig.sink->samples().size()) + 5);
    rig.stop();
}

void apartment(Context& context) {
    std::optional<Failure> failure;
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        try {
            Rig rig(context);
            rig.connect();
            rig.pause();
            rig.run();
            const bool came = waitFor([&] {
                MSG message;
                while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
                    DispatchMessageW(&message);
                return rig.sink->samples().size() >= 3;
            });
            expect(came, "samples in a single-threaded apartment", "none");
            rig.stop();
        } catch (const Failure& thrown) {
            failure = thrown;
        }
        CoUninitialize();
    }).join();
    if (failure) throw *failure;
}

// Other processes

void twoProcesses(Context& context) {
    Rig rig(context);
    rig.connect();
    rig.receive(2);
    note("a second process that captures from the same device");
    const Outcome outcome = runSecondProcess(L"capture");
    fact("A second process beside a running one", outcomeText(outcome));
    expect(outcome == Outcome::Captured || outcome == Outcome::Refused, "a second process to capture or to be refused",
           "that it " + outcomeText(outcome));
    rig.awaitSamples(static_cast<int>(rig.sink->samples().size()) + 5);
    rig.stop();
}

void killedProcess(Context& context) {
    note("a second process that ends in the middle of its capture");
    const Outcome outcome = runSecondProcess(L"die");
    expect(outcome == Outcome::Died, "a second process that captures until it is ended",
           "that it " + outcomeText(outcome));
    Rig rig(context);
    rig.connect();
    rig.receive(2);
    rig.stop();
}

// Pages

/// A page's site that keeps nothing.
class Site : public IPropertyPageSite {
public:
    virtual ~Site() = default;
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IUnknown || riid == IID_IPropertyPageSite ? this : nullptr;
        return *object ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP OnStatusChange(DWORD) override { return S_OK; }
    STDMETHODIMP GetLocaleID(LCID* id) override {
        *id = LOCALE_USER_DEFAULT;
        return S_OK;
    }
    STDMETHODIMP GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }
};

void pagesOf(Context& context, bool ofPin) {
    const auto filter = context.subject.create();
    const auto pin = capturePin(filter.get());
    IUnknown* const object = ofPin ? static_cast<IUnknown*>(pin.get()) : filter.get();
    const auto specify = queryFor<ISpecifyPropertyPages>(object, IID_ISpecifyPropertyPages);
    if (!specify) notApplicable(ofPin ? "the pin has no property pages" : "the filter has no property pages");
    EXPECT_RESULT(E_POINTER, specify->GetPages(nullptr));
    CAUUID pages{};
    EXPECT_RESULT(S_OK, specify->GetPages(&pages));
    const std::vector<GUID> list(pages.pElems, pages.pElems + pages.cElems);
    CoTaskMemFree(pages.pElems);
    expect(!list.empty(), "at least one page", "none");
    const HWND window =
        CreateWindowExW(0, L"STATIC", L"pages", WS_POPUP, 0, 0, 800, 600, nullptr, nullptr, nullptr, nullptr);
    expect(window != nullptr, "a window for the page", "none: is there a display?");
    Site site;
    for (const GUID& clsid : list) {
        ComRef<IPropertyPage> page;
        ComRef<IClassFactory> factory;
        HRESULT hr =
            CALL(context.subject.classObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.out())));
        if (SUCCEEDED(hr))
            hr = factory->CreateInstance(nullptr, IID_IPropertyPage, reinterpret_cast<void**>(page.out()));
        if (FAILED(hr))
            hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IPropertyPage,
                                  reinterpret_cast<void**>(page.out()));
        if (FAILED(hr)) {
            warn("page " + guidText(clsid) + " is not on this system: " + resultText(hr));
            continue;
        }
        EXPECT_RESULT(S_OK, page->SetPageSite(&site));
        IUnknown* objects[] = {object};
        EXPECT_RESULT(S_OK, page->SetObjects(1, objects));
        PROPPAGEINFO info{};
        info.cb = sizeof info;
        EXPECT_RESULT(S_OK, page->GetPageInfo(&info));
        fact(ofPin ? "Page of the pin" : "Page of the filter", info.pszTitle ? narrow(info.pszTitle) : guidText(clsid));
        CoTaskMemFree(info.pszTitle);
        CoTaskMemFree(info.pszDocString);
        CoTaskMemFree(info.pszHelpFile);
        const RECT place = {0, 0, info.size.cx, info.size.cy};
        EXPECT_RESULT(S_OK, page->Activate(window, &place, FALSE));
        EXPECT_SUCCESS(page->Show(SW_SHOW));
        EXPECT_RESULT(S_FALSE, page->IsPageDirty());
        EXPECT_SUCCESS(page->Deactivate());
        EXPECT_SUCCESS(page->SetObjects(0, nullptr));
        EXPECT_SUCCESS(page->SetPageSite(nullptr));
    }
    DestroyWindow(window);
}

void unloads(Context& context) {
    if (!context.subject.isFromDll()) notApplicable("only of a DLL that is named");
    {
        Rig rig(context);
        rig.connect();
        rig.receive(1);
        EXPECT_RESULT(S_FALSE, context.subject.canUnloadNow());
        rig.stop();
        rig.disconnect();
    }
    note("DllCanUnloadNow()");
    expect(waitFor([&] { return context.subject.canUnloadNow() == S_OK; }, 3000),
           "S_OK from DllCanUnloadNow once nobody holds an object", "S_FALSE");
}

void registered(Context& context) {
    IMoniker* const moniker = context.subject.moniker();
    if (!moniker) notApplicable("the filter was not found in a capture category");
    ComRef<IPropertyBag> bag;
    EXPECT_RESULT(S_OK,
                  moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out())));
    for (const wchar_t* name : {L"FriendlyName", L"CLSID"}) {
        VARIANT value;
        VariantInit(&value);
        EXPECT_RESULT(S_OK, bag->Read(name, &value, nullptr));
        expect(value.vt == VT_BSTR && *value.bstrVal, "a text", "none");
        fact(narrow(name), narrow(value.bstrVal));
        VariantClear(&value);
    }
    LPOLESTR display = nullptr;
    ComRef<IBindCtx> bind;
    CreateBindCtx(0, bind.out());
    EXPECT_RESULT(S_OK, moniker->GetDisplayName(bind.get(), nullptr, &display));
    ComRef<IMoniker> parsed;
    ULONG eaten = 0;
    const HRESULT hr = CALL(MkParseDisplayName(bind.get(), display, &eaten, parsed.out()));
    CoTaskMemFree(display);
    if (FAILED(hr)) warn("the moniker's display name cannot be parsed: " + resultText(hr));
}

// The loss of the device

bool command(const std::wstring& line) {
    note("the command that takes the device away or brings it back");
    return runCommand(line, 20'000) == DWORD{0};
}

/// Takes the device away, and brings it back also when a check fails meanwhile.
class Unplugged {
public:
    explicit Unplugged(const Settings& settings) : m_settings(settings) {
        expect(command(settings.unplug), "the profile's command \"unplug\" to succeed", "a failure");
    }
    ~Unplugged() {
        if (!m_plugged) command(m_settings.plug);
    }
    Unplugged(const Unplugged&) = delete;
    void plug() {
        m_plugged = true;
        expect(command(m_settings.plug), "the profile's command \"plug\" to succeed", "a failure");
    }

private:
    const Settings& m_settings;
    bool m_plugged = false;
};

void loss(Context& context) {
    const Settings& settings = context.settings;
    if (settings.unplug.empty() || settings.plug.empty())
        notApplicable("the profile names no command that takes the device away");
    {
        GraphRig rig(context);
        const auto events = queryFor<IMediaEvent>(rig.graph.get(), IID_IMediaEvent);
        EXPECT_RESULT(S_OK, rig.graph->ConnectDirect(rig.pin.get(), rig.sink->pin(), nullptr));
        EXPECT_SUCCESS(rig.control->Run());
        rig.awaitSamples(3);
        Unplugged device(settings);
        const size_t came = rig.sink->samples().size();
        waitFor([&] { return rig.sink->samples().size() > came + 3; }, 500);
        long code = 0;
        LONG_PTR one = 0, other = 0;
        bool told = false;
        while (SUCCEEDED(events->GetEvent(&code, &one, &other, 500))) {
            told = told || code == EC_DEVICE_LOST;
            events->FreeEventParams(code, one, other);
        }
        if (!told) warn("no EC_DEVICE_LOST when the device goes");
        const double began = nowMs();
        EXPECT_SUCCESS(rig.control->Stop());
        measured("stop after the loss", nowMs() - began);
        device.plug();
    }
    note("capturing again after the device has come back");
    const bool again = waitFor([&] {
        ComRef<IBaseFilter> filter;
        return SUCCEEDED(context.subject.create(nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())));
    });
    expect(again, "a filter once the device is back", "none within 10 s");
    Rig rig(context);
    rig.connect();
    rig.receive(2);
    rig.stop();
}

constexpr char kLeaks[] = "Rules for Managing Reference Counts", kThreads[] = "Threads and Critical Sections";
const Test kStressTests[] = {
    {"stress", "start-stop", "Filter States", startStop, 10},
    {"stress", "formats", "IAMStreamConfig::GetStreamCaps method", formats, 4},
    {"stress", "binds", kLeaks, binds, 10},
    {"stress", "lives", kLeaks, lives, 4},
    {"stress", "two-filters", kThreads, twoFilters},
    {"stress", "listed-while-running", "Selecting a Capture Device", listedWhileRunning},
    {"stress", "apartment", "Processes, Threads, and Apartments", apartment},
};
const Test kProcessTests[] = {
    {"process", "two", kThreads, twoProcesses, 5},
    {"process", "killed", kThreads, killedProcess, 5},
    {"pages", "filter", "Filter Property Pages", [](Context& c) { pagesOf(c, false); }},
    {"pages", "pin", "Filter Property Pages", [](Context& c) { pagesOf(c, true); }},
    {"module", "unload", "DllCanUnloadNow function", unloads},
    {"module", "registered", "Using the System Device Enumerator", registered},
    {"loss", "unplug-and-plug", "EC_DEVICE_LOST", loss},
};

} // namespace

std::span<const Test> stressTests() {
    return kStressTests;
}

std::span<const Test> processTests() {
    return kProcessTests;
}

} // namespace kestra::compliance
