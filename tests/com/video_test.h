// What the video filter's tests share: the module, a filter on the simulated card, its pin, its trace lines.
#pragma once

#include "tests/com/com_module.h"
#include "tests/com/test_sink.h"
#include "tests/support/card_fixture.h"
#include "tests/support/debug_output_capture.h"
#include "tests/support/registry_sandbox.h"

#include <dvdmedia.h>

namespace kestra::test {

inline constexpr wchar_t kSettings[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
inline constexpr simcard::Signal kInterlaced60 = {1, 1, 1, 7, 0, 0, 1920, 1080, 0, 30, 1, 0};
inline constexpr simcard::Signal kNoSignal = {};

class VideoTest : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        ASSERT_NE(m_module.handle(), nullptr);
    }
    void TearDown() override {
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        EXPECT_TRUE(waitUntil([&] { return m_module.canUnloadNow() == S_OK; })) << "an object is still alive";
        CardTest::TearDown();
    }
    HRESULT makeFilter() {
        m_pin = ComRef<IPin>();
        m_filter = ComRef<IBaseFilter>();
        const HRESULT hr = m_module.create(kVideoFilter, IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out()));
        m_pin = onlyPin(m_filter.get());
        m_trace.clear();
        return hr;
    }
    ComRef<IAMStreamConfig> config() { return query<IAMStreamConfig>(m_pin.get(), IID_IAMStreamConfig); }
    /// The type that the pin offers at a position, if any.
    struct Type {
        AM_MEDIA_TYPE* type = nullptr;
        Type() = default;
        Type(Type&& other) noexcept : type(std::exchange(other.type, nullptr)) {}
        Type& operator=(Type&&) = delete;
        ~Type() {
            if (!type) return;
            CoTaskMemFree(type->pbFormat);
            CoTaskMemFree(type);
        }
        VIDEOINFOHEADER* info() const { return reinterpret_cast<VIDEOINFOHEADER*>(type->pbFormat); }
        VIDEOINFOHEADER2* info2() const { return reinterpret_cast<VIDEOINFOHEADER2*>(type->pbFormat); }
    };
    Type offered(ULONG position) {
        Type result;
        ComRef<IEnumMediaTypes> types;
        if (m_pin->EnumMediaTypes(types.out()) != S_OK) return result;
        types->Skip(position);
        types->Next(1, &result.type, nullptr);
        return result;
    }
    Type capability(int index) {
        Type result;
        VIDEO_STREAM_CONFIG_CAPS caps;
        config()->GetStreamCaps(index, &result.type, reinterpret_cast<BYTE*>(&caps));
        return result;
    }
    /// Makes the pin offer one of its four formats.
    HRESULT choose(int index) {
        const Type type = capability(index);
        return type.type ? config()->SetFormat(type.type) : E_FAIL;
    }
    int lines(const std::wstring& text) { return m_trace.count(text + L"\r\n"); }

    RegistrySandbox m_registry;
    DebugOutputCapture m_trace;
    ComModule m_module{KESTRA_MODULE};
    ComRef<IBaseFilter> m_filter;
    ComRef<IPin> m_pin;
};

} // namespace kestra::test
