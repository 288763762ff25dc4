// The video pin's frame callback, from the raw frame to the receiver's Receive, beside the best plain copy of as many
// bytes into buffers of the same allocator, in one run: 1080p, frames and samples cold; five rounds, and their spread.
// Needs a simulated card for the filter's creation; the frames are this program's.
#include "bench/decode_frames.h"
#include "capture/trace.h"
#include "capture/video_filter.h"
#include "simcard/ctl/control.h"
#include "win32/com_ref.h"

#include <emmintrin.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>

CFactoryTemplate g_Templates[1]; // this program makes its filter itself
int g_cTemplates = 0;

namespace {

using namespace kestra;
using namespace kestra::bench;

const int kFrames = fullOrShort(1500, 40), kRounds = fullOrShort(5, 1);

TarnisFrameCallback g_callback;
uint64_t g_context;

} // namespace

extern "C" uint32_t __wrap_TARNIS_StartGrab(TARNIS_HANDLE, int8_t, uint32_t, TarnisCameraData* cameraData,
                                            TarnisFrameCallback callback, uint64_t context) {
    g_callback = callback;
    g_context = context;
    cameraData->status.width = kHd.width;
    cameraData->status.height = kHd.height;
    cameraData->status.frameRate = 60;
    return TARNIS_SUCCESS;
}

namespace {

/// Accepts everything and keeps so many samples that each is cold when it comes again.
class ColdSink : public IPin, public IMemInputPin {
public:
    virtual ~ColdSink() = default;
    ColdSink() = default;
    ColdSink(const ColdSink&) = delete;
    ColdSink& operator=(const ColdSink&) = delete;

    IMemAllocator* allocator() const { return m_allocator.get(); }
    void hold(IMediaSample* sample) {
        sample->AddRef();
        m_held.emplace_back(sample);
        if (m_held.size() * static_cast<size_t>(sample->GetSize()) > kColdBytes) m_held.pop_front();
    }
    void letGo() { m_held.clear(); }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override {
        *object = riid == IID_IMemInputPin ? static_cast<void*>(static_cast<IMemInputPin*>(this))
                                           : static_cast<void*>(static_cast<IPin*>(this));
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP Connect(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP ReceiveConnection(IPin*, const AM_MEDIA_TYPE*) override { return S_OK; }
    STDMETHODIMP Disconnect() override { return S_OK; }
    STDMETHODIMP ConnectedTo(IPin**) override { return VFW_E_NOT_CONNECTED; }
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryPinInfo(PIN_INFO*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override {
        *direction = PINDIR_INPUT;
        return S_OK;
    }
    STDMETHODIMP QueryId(LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE*) override { return S_OK; }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes**) override { return E_NOTIMPL; }
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override { return S_OK; }
    STDMETHODIMP BeginFlush() override { return S_OK; }
    STDMETHODIMP EndFlush() override { return S_OK; }
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    STDMETHODIMP GetAllocator(IMemAllocator**) override { return VFW_E_NO_ALLOCATOR; }
    STDMETHODIMP NotifyAllocator(IMemAllocator* allocator, BOOL) override {
        allocator->AddRef();
        m_allocator = ComRef<IMemAllocator>(allocator);
        return S_OK;
    }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
        *properties = {};
        properties->cBuffers =
            static_cast<long>(kColdBytes / (size_t{kHd.width} * kHd.height * 2)) + 8; // enough for the smallest samples
        return S_OK;
    }
    STDMETHODIMP Receive(IMediaSample* sample) override {
        hold(sample);
        return S_OK;
    }
    STDMETHODIMP ReceiveMultiple(IMediaSample**, long, long*) override { return E_NOTIMPL; }
    STDMETHODIMP ReceiveCanBlock() override { return S_FALSE; }

private:
    ComRef<IMemAllocator> m_allocator;
    std::deque<ComRef<IMediaSample>> m_held;
};

void copyMemcpy(uint8_t* to, const uint8_t* from, size_t bytes) {
    std::memcpy(to, from, bytes);
}
void copyString(uint8_t* to, const uint8_t* from, size_t bytes) {
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(bytes) : : "memory");
}
void copyStreamed(uint8_t* to, const uint8_t* from, size_t bytes) {
    for (size_t i = 0; i + 16 <= bytes; i += 16)
        _mm_stream_si128(reinterpret_cast<__m128i*>(to + i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i)));
    _mm_sfence();
}

struct Way {
    enum Kind { Callback, DebuggerLines, Copy } kind;
    void (*copy)(uint8_t* to, const uint8_t* from, size_t bytes) = nullptr;
    std::vector<double> milliseconds{};
};

struct Format {
    const char* name;
    DWORD index;
    uint32_t rawBytesPerPixel, sampleBytesPerPixel;
    std::vector<double> ratios{}, callbacks{}, copies{}; ///< of each round, without the debugger lines
};

bool measure(Format& format) {
    constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
    RegSetKeyValueW(HKEY_CURRENT_USER, kSettings, L"VideoFormat", REG_DWORD, &format.index, sizeof format.index);
    HRESULT hr = S_OK;
    CUnknown* made = CKestraCapture::CreateInstance(nullptr, &hr);
    if (!made || FAILED(hr)) {
        std::fprintf(stderr, "no filter: 0x%08lX\n", hr);
        return false;
    }
    ComRef<IBaseFilter> filter;
    made->NonDelegatingAddRef();
    made->NonDelegatingQueryInterface(IID_IBaseFilter, reinterpret_cast<void**>(filter.out()));
    made->NonDelegatingRelease();
    ComRef<IEnumPins> pins;
    ComRef<IPin> pin;
    filter->EnumPins(pins.out());
    pins->Next(1, pin.out(), nullptr);
    ColdSink sink;
    if (pin->Connect(&sink, nullptr) != S_OK || filter->Run(0) != S_OK) {
        std::fprintf(stderr, "the pin could not be connected and run\n");
        return false;
    }
    const size_t pixels = size_t{kHd.width} * kHd.height;
    const size_t rawBytes = pixels * format.rawBytesPerPixel, sampleBytes = pixels * format.sampleBytesPerPixel;
    const size_t copyBytes = (rawBytes + sampleBytes) / 2; // as many as the callback reads and writes
    std::vector<Block> raws;
    for (size_t i = 0; i < kColdBytes / rawBytes + 1; ++i)
        raws.emplace_back(std::max(rawBytes, copyBytes));

    Way ways[] = {{Way::Callback},
                  {Way::DebuggerLines},
                  {Way::Copy, copyMemcpy},
                  {Way::Copy, copyString},
                  {Way::Copy, copyStreamed}};
    for (int frame = 0; frame < kFrames; ++frame) {
        const Block& raw = raws[static_cast<size_t>(frame) % raws.size()];
        Way& way = ways[static_cast<size_t>(frame) % std::size(ways)];
        const auto begin = std::chrono::steady_clock::now();
        if (way.kind == Way::Callback) {
            TarnisFrameInfo info{};
            info.lpRawBuffer = raw.data();
            info.bufferSize = static_cast<uint32_t>(rawBytes);
            g_callback(g_context, &info);
        } else if (way.kind == Way::DebuggerLines) { // as many as the callback leaves for each frame
            trace(L"CKestraStream->SDIGrabVideoCallback->start");
            trace(L"CKestraStream->SDIGrabVideoCallback->S_OK");
        } else {
            ComRef<IMediaSample> sample;
            BYTE* to = nullptr;
            sink.allocator()->GetBuffer(sample.out(), nullptr, nullptr, 0);
            sample->GetPointer(&to);
            way.copy(to, raw.data(), copyBytes);
            sink.Receive(sample.get());
        }
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        if (frame >= kFrames / 4) way.milliseconds.push_back(took.count()); // by then every buffer is committed
    }
    sink.letGo();
    filter->Stop();
    pin->Disconnect();
    const double ours = median(ways[0].milliseconds), lines = median(ways[1].milliseconds);
    const double copies[] = {median(ways[2].milliseconds), median(ways[3].milliseconds), median(ways[4].milliseconds)};
    const double best = *std::min_element(std::begin(copies), std::end(copies));
    format.ratios.push_back((ours - lines) / best);
    format.callbacks.push_back(ours - lines);
    format.copies.push_back(best);
    std::printf(
        "  %-6s callback %6.3f ms, of which debugger lines %.3f   memcpy %6.3f   rep movsb %6.3f   streamed %6.3f   "
        "callback / best copy %.2f, without its debugger lines %.2f\n",
        format.name, ours, lines, copies[0], copies[1], copies[2], ours / best, format.ratios.back());
    std::fflush(stdout);
    return true;
}

} // namespace

int main() {
    Report report("callback of the video pin");
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    simcard::CardControl(0).reset();
    Format formats[] = {{"YUY2", 0, 2, 2}, {"RGB24", 1, 3, 3}, {"UYVY", 2, 2, 2}, {"RGB32", 3, 3, 4}};
    bool good = true;
    for (int round = 0; round < kRounds; ++round)
        for (Format& format : formats)
            good = measure(format) && good;
    for (const Format& format : formats) {
        if (format.ratios.empty()) continue;
        report.add({format.name, "callback", Role::Ours, median(format.callbacks), "ms"});
        report.add({format.name, "best plain copy", Role::Limit, median(format.copies), "ms"});
        std::printf("  %-6s callback without its debugger lines / best copy: %.2f to %.2f, median %.2f\n", format.name,
                    *std::min_element(format.ratios.begin(), format.ratios.end()),
                    *std::max_element(format.ratios.begin(), format.ratios.end()), median(format.ratios));
    }
    CoUninitialize();
    return good ? 0 : 1;
}
