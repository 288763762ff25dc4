// What the audio filter's tests share: the module, a filter on the simulated card, its pin, a sink, the system's graph,
// and a record of the trace lines seen.
#pragma once

#include "tests/com/sink_filter.h"

#include "tests/com/com_module.h"
#include "tests/support/card_fixture.h"
#include "tests/support/debug_output_capture.h"
#include "tests/support/registry_sandbox.h"

#include <kestra_interfaces.h>
#include <mmreg.h>

#include <optional>
#include <set>
#include <string>

namespace kestra::test {

inline constexpr CLSID kAudioFilter = {0x47BAFEE0, 0x4F9B, 0x4115, {0xAA, 0x9F, 0x89, 0x64, 0xA2, 0x3B, 0x53, 0xE9}};
inline constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
inline constexpr simcard::Signal kNoSignal = {};
inline constexpr simcard::Signal kInterlaced60 = {1, 1, 1, 7, 0, 0, 1920, 1080, 0, 30, 1, 0};
inline constexpr simcard::Signal kProgressive50 = {1, 0, 1, 8, 0, 0, 1280, 720, 0, 50, 1, 0};
inline constexpr simcard::Signal kCinema = {1, 0, 1, kVideoMode24, 0, 0, 1280, 720, 0, 24, 1, 0};

/// Every trace text that this program's tests have seen, without line ends.
inline std::set<std::wstring> seenLines;

/// If all tests ran, fails for every text that none of them has seen.
class TraceAccount : public testing::Environment {
public:
    explicit TraceAccount(std::vector<std::wstring> texts) : m_texts(std::move(texts)) {}
    void TearDown() override {
        if (testing::GTEST_FLAG(filter) != "*") return;
        for (const std::wstring& text : m_texts)
            EXPECT_TRUE(seenLines.count(text)) << "never written: " << std::string(text.begin(), text.end());
    }

private:
    const std::vector<std::wstring> m_texts;
};

/// A media type of the caller's.
struct OwnedType {
    AM_MEDIA_TYPE* type = nullptr;
    OwnedType() = default;
    OwnedType(OwnedType&& other) noexcept : type(std::exchange(other.type, nullptr)) {}
    OwnedType& operator=(OwnedType&&) = delete;
    ~OwnedType() { DeleteMediaType(type); }
    WAVEFORMATEX* wave() const { return reinterpret_cast<WAVEFORMATEX*>(type->pbFormat); }
    WAVEFORMATEXTENSIBLE* extensible() const { return reinterpret_cast<WAVEFORMATEXTENSIBLE*>(type->pbFormat); }
};

class AudioTest : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        ASSERT_NE(m_module->handle(), nullptr);
    }
    void TearDown() override {
        release();
        EXPECT_TRUE(waitUntil([&] { return m_module->canUnloadNow() == S_OK; })) << "an object is still alive";
        m_module.reset();
        EXPECT_EQ(GetModuleHandleW(L"KestraCapture.dll"), nullptr) << "the module stays in memory";
        clearTrace();
        CardTest::TearDown();
    }

    HRESULT makeFilter() {
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        const HRESULT hr = m_module->create(kAudioFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out()));
        m_pin = onlyPin(m_filter.get());
        clearTrace();
        return hr;
    }
    /// A filter that offers that depth, connected to the sink without a graph.
    void connect(int format = 0) {
        m_registry.setDword(kSettings, L"AudioFormat", DWORD(format));
        ASSERT_EQ(makeFilter(), S_OK);
        ASSERT_EQ(m_pin->Connect(&m_sink->pin, nullptr), S_OK);
    }
    void disconnect() {
        if (m_pin) m_pin->Disconnect();
        m_sink->pin.Disconnect();
    }
    /// The filter and the sink in the system's graph, not connected.
    void makeGraph() {
        ASSERT_EQ(makeFilter(), S_OK);
        ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                   reinterpret_cast<void**>(m_graph.out())),
                  S_OK);
        ASSERT_EQ(m_graph->AddFilter(m_filter.get(), L"sound"), S_OK);
        ASSERT_EQ(m_graph->AddFilter(m_sink.get(), L"sink"), S_OK);
    }
    void makeConnectedGraph() {
        makeGraph();
        ASSERT_EQ(m_graph->ConnectDirect(m_pin.get(), &m_sink->pin, nullptr), S_OK);
        clearTrace();
    }
    void release() {
        if (m_graph) control()->Stop();
        m_graph = ComRef<IGraphBuilder>();
        if (m_filter) m_filter->Stop();
        disconnect();
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
    }

    ComRef<IMediaControl> control() { return query<IMediaControl>(m_graph.get(), IID_IMediaControl); }
    ComRef<IAMStreamConfig> config() { return query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig); }
    ComRef<IKestraAudioPropertyPage> depth() {
        return query<IKestraAudioPropertyPage>(m_pin.get(), IID_IKestraAudioPropertyPage);
    }
    OwnedType capability(int index) {
        OwnedType result;
        AUDIO_STREAM_CONFIG_CAPS caps;
        config()->GetStreamCaps(index, &result.type, reinterpret_cast<BYTE*>(&caps));
        return result;
    }
    OwnedType format() {
        OwnedType result;
        EXPECT_EQ(config()->GetFormat(&result.type), S_OK);
        return result;
    }
    /// The type that the pin offers at a position, if any.
    OwnedType offered(ULONG position) {
        OwnedType result;
        ComRef<IEnumMediaTypes> types;
        if (m_pin->EnumMediaTypes(types.out()) != S_OK) return result;
        types->Skip(position);
        types->Next(1, &result.type, nullptr);
        return result;
    }
    FILTER_STATE state(IBaseFilter* filter) {
        FILTER_STATE now = FILTER_STATE(-1);
        filter->GetState(0, &now);
        return now;
    }
    bool receives(int count = 3) { // waits for at most sixteen a second
        const int before = m_sink->pin.received;
        return waitUntil([&] { return m_sink->pin.received >= before + count; }, std::chrono::seconds(10 + count / 16));
    }

    /// How often that line was written since clearTrace.
    int lines(const std::wstring& text) { return m_trace.count(text + L"\r\n"); }
    void clearTrace() {
        for (std::wstring line : m_trace.lines())
            if (line.size() > 2) seenLines.insert(line.substr(0, line.size() - 2));
        m_trace.clear();
    }

    RegistrySandbox m_registry;
    DebugOutputCapture m_trace;
    std::optional<ComModule> m_module{std::in_place, KESTRA_MODULE};
    ComRef<SinkFilter> m_sink = SinkFilter::create();
    ComRef<IGraphBuilder> m_graph;
    ComRef<IBaseFilter> m_filter;
    ComRef<IPin> m_pin;
};

} // namespace kestra::test
