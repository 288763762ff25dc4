// Both sides of a probe. Whatever the child does, the parent waits for it no longer than kPatienceMs.
#include "ctl/doctor_probe.h"

// Before the DirectShow headers, which take functions of the C library away.
#include "win32/module.h"

#include "ctl/console.h"
#include "ctl/doctor_sink.h"
#include "ctl/exit_code.h"
#include "ctl/system_error.h"
#include "ctl/text.h"
#include "kestra_interfaces.h"
#include "win32/com_ref.h"
#include "win32/handle.h"

#include <array>
#include <thread>

// The base classes want a class table; this program serves none.
CFactoryTemplate g_Templates[1];
int g_cTemplates = 0;

namespace kestra::ctl {

const FilterKind kVideoFilter{"video", CLSID_KestraCapture, CLSID_VideoInputDeviceCategory};
const FilterKind kAudioFilter{"audio", CLSID_KestraAudioCapture, CLSID_AudioInputDeviceCategory};

namespace {

constexpr DWORD kPatienceMs = 20000;     // opening alone may take five seconds a request, with a card that is half dead
constexpr DWORD kFirstSampleMs = 3000;   // a filter that has started, and no sample comes
constexpr DWORD kCountedMs = 1000;       // how long samples are counted
constexpr DWORD kInterruptEveryMs = 100; // between two looks at Ctrl-C

template <class Interface>
HRESULT create(const CLSID& clsid, REFIID riid, ComRef<Interface>& object) {
    return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, reinterpret_cast<void**>(object.out()));
}

/// The filter's entry in the system's list; null: it has none.
ComRef<IMoniker> listed(const FilterKind& kind) {
    ComRef<ICreateDevEnum> devices;
    ComRef<IEnumMoniker> monikers;
    if (FAILED(create(CLSID_SystemDeviceEnum, IID_ICreateDevEnum, devices)) ||
        devices->CreateClassEnumerator(kind.category, monikers.out(), 0) != S_OK)
        return {};
    std::array<wchar_t, 64> wanted{};
    StringFromGUID2(kind.clsid, wanted.data(), static_cast<int>(wanted.size()));
    for (ComRef<IMoniker> moniker; monikers->Next(1, moniker.out(), nullptr) == S_OK;) {
        ComRef<IPropertyBag> properties;
        if (FAILED(
                moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(properties.out()))))
            continue;
        VARIANT clsid;
        VariantInit(&clsid);
        const bool same = SUCCEEDED(properties->Read(L"CLSID", &clsid, nullptr)) && clsid.vt == VT_BSTR &&
                          CompareStringOrdinal(clsid.bstrVal, -1, wanted.data(), -1, TRUE) == CSTR_EQUAL;
        VariantClear(&clsid);
        if (same) return moniker;
    }
    return {};
}

/// What a step of a probe answered; the first that fails ends it.
struct StepFailed {
    const char* step;
    HRESULT result;
};

void need(const char* step, HRESULT result) {
    if (FAILED(result)) throw StepFailed{step, result};
}

/// The filter's only pin.
ComRef<IPin> onlyPin(IBaseFilter& filter) {
    ComRef<IEnumPins> pins;
    ComRef<IPin> pin;
    need("pins", filter.EnumPins(pins.out()));
    need("pins", pins->Next(1, pin.out(), nullptr) == S_OK ? S_OK : E_UNEXPECTED);
    return pin;
}

template <class Condition>
bool within(DWORD patienceMs, Condition condition) {
    const ULONGLONG end = GetTickCount64() + patienceMs;
    while (!condition()) {
        if (GetTickCount64() >= end) return false;
        Sleep(1);
    }
    return true;
}

/// Stops a graph, and the filters themselves: a graph that could not be run may have left them paused.
struct StopAtEnd {
    IMediaControl& control;
    IBaseFilter &source, &sink;
    ~StopAtEnd() {
        control.Stop();
        source.Stop();
        sink.Stop();
    }
};

/// Binds the filter as an application does, and lets it run into a counting sink.
void runFilter(const FilterKind& kind, Json& result) {
    const ComRef<IMoniker> moniker = listed(kind);
    need("list", moniker ? S_OK : REGDB_E_CLASSNOTREG);
    ComRef<IBaseFilter> filter;
    need("bind", moniker->BindToObject(nullptr, nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())));
    const ComRef<CountingSink> sink = CountingSink::create();
    ComRef<IGraphBuilder> graph;
    need("graph", create(CLSID_FilterGraph, IID_IGraphBuilder, graph));
    need("graph", graph->AddFilter(filter.get(), L"source"));
    need("graph", graph->AddFilter(sink.get(), L"sink"));
    const ComRef<IPin> pin = onlyPin(*filter.get());
    need("connect", graph->ConnectDirect(pin.get(), &sink->pin, nullptr));
    const ComRef<IMediaControl> control = queryFor<IMediaControl>(graph.get(), IID_IMediaControl);
    need("graph", control ? S_OK : E_NOINTERFACE);
    const StopAtEnd stop{*control.get(), *filter.get(), *sink.get()};
    need("run", control->Run());
    const auto& counts = sink->pin;
    if (within(kFirstSampleMs, [&] { return counts.samples > 0; })) {
        const uint32_t first = counts.samples;
        const uint64_t firstBytes = counts.bytes;
        const ULONGLONG begin = GetTickCount64();
        within(kCountedMs, [&] { return bool(counts.streamHasEnded); });
        result["samples"] = counts.samples - first;
        result["bytes"] = counts.bytes - firstBytes;
        result["milliseconds"] = GetTickCount64() - begin;
    } else {
        result["samples"] = 0;
    }
    result["streamHasEnded"] = bool(counts.streamHasEnded);
}

void loadModule(const std::string& file, Json& result) {
    const UniqueLibrary module(LoadLibraryExW(wideOfUtf8(file).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!module)
        result["error"] = GetLastError();
    else if (!GetProcAddress(module.get(), "DllGetClassObject"))
        result["error"] = uint32_t{ERROR_PROC_NOT_FOUND};
}

using Child = std::pair<UniqueObject, UniqueObject>; ///< a process, and what it writes

/// Starts this program again.
Child startChild(const std::wstring& arguments) {
    std::array<wchar_t, 32768> self{};
    GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
    std::wstring command = L"\"" + std::wstring(self.data()) + L"\" doctor " + arguments;
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    UniqueObject read, write;
    if (!CreatePipe(read.out(), write.out(), &inherit, 1 << 16)) return Child();
    SetHandleInformation(read.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write.get();
    PROCESS_INFORMATION child{};
    if (!CreateProcessW(self.data(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child))
        return Child();
    CloseHandle(child.hThread);
    return Child(child.hProcess, std::move(read));
}

} // namespace

bool isListed(const FilterKind& kind) {
    return bool(listed(kind));
}

void runProbe(const std::string& what, const std::string& file, Console& console) {
    Json result = Json::object();
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try {
        if (what == "module")
            loadModule(file, result);
        else
            runFilter(what == kAudioFilter.id ? kAudioFilter : kVideoFilter, result);
    } catch (const StepFailed& failed) {
        result["step"] = failed.step;
        result["error"] = static_cast<uint32_t>(failed.result);
    }
    if (SUCCEEDED(com)) CoUninitialize();
    console.write(jsonLine(result));
}

Json probe(const std::string& what, const std::wstring& file, Console& console) {
    std::wstring arguments = L"--probe " + wideOfUtf8(what);
    if (!file.empty()) arguments += L" --probe-file \"" + file + L"\"";
    const auto [process, output] = startChild(arguments);
    if (!process) return {{"failed", "no process could be started for it: " + systemErrorText(GetLastError())}};
    std::string text;
    std::thread reader([&text, pipe = output.get()] {
        std::array<char, 4096> buffer;
        for (DWORD bytes = 0; ReadFile(pipe, buffer.data(), DWORD(buffer.size()), &bytes, nullptr) && bytes != 0;)
            text.append(buffer.data(), bytes);
    });
    bool interrupted = false;
    const ULONGLONG end = GetTickCount64() + kPatienceMs;
    while (WaitForSingleObject(process.get(), kInterruptEveryMs) == WAIT_TIMEOUT && GetTickCount64() < end &&
           !interrupted)
        interrupted = console.isInterrupted();
    const bool ended = WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
    if (!ended) TerminateProcess(process.get(), 1);
    reader.join();
    if (interrupted) throw Failure(ExitCode::Failure, "interrupted", "nothing was changed");
    if (!ended)
        return {{"failed",
                 format("it did not come to an end within %lu s", static_cast<unsigned long>(kPatienceMs / 1000))}};
    DWORD code = 0;
    GetExitCodeProcess(process.get(), &code);
    if (code != 0) return {{"failed", format("it crashed: exit code 0x%08lX", static_cast<unsigned long>(code))}};
    Json result = Json::parse(text, nullptr, false);
    if (!result.is_object()) return {{"failed", "its answer cannot be read"}};
    return result;
}

} // namespace kestra::ctl
