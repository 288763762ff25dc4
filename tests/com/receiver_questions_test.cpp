// What a receiver asks the video pin and its filter from inside Receive, as renderers do, while the stream is being
// stopped: none of it waits for the stop, which itself waits for the receiver.
#include "tests/com/sink_filter.h"
#include "tests/com/video_test.h"

namespace kestra::test {
namespace {

TEST_F(VideoTest, ReceiverThatAsksWhileTheStreamIsStoppedHoldsNothingUp) {
    ASSERT_EQ(makeFilter(), S_OK);
    const auto sink = SinkFilter::create();
    ASSERT_EQ(m_pin->Connect(&sink->pin, nullptr), S_OK);
    ASSERT_EQ(sink->Pause(), S_OK);
    std::atomic<bool> asked{false};
    std::atomic<ULONGLONG> longestMs{0};
    sink->pin.onReceive = [&] {
        if (asked || !waitUntil([&] { return lines(L"CKestraStream->Inactive->start") != 0; })) return;
        const auto ask = [&](const char* what, const std::function<void()>& question) {
            const ULONGLONG begin = GetTickCount64();
            question();
            const ULONGLONG tookMs = GetTickCount64() - begin;
            EXPECT_LT(tookMs, kVainStopMs) << what;
            longestMs = std::max(longestMs.load(), tookMs);
        };
        ask("ConnectionMediaType", [&] {
            CMediaType type;
            EXPECT_EQ(m_pin->ConnectionMediaType(&type), S_OK);
            EXPECT_EQ(type.majortype, MEDIATYPE_Video);
        });
        ask("QueryAccept", [&] { m_pin->QueryAccept(&sink->pin.type()); });
        ask("EnumMediaTypes", [&] { offered(0); });
        ask("QueryId", [&] {
            LPWSTR id = nullptr;
            EXPECT_EQ(m_pin->QueryId(&id), S_OK);
            CoTaskMemFree(id);
        });
        ask("QueryPinInfo", [&] {
            PIN_INFO info{};
            EXPECT_EQ(m_pin->QueryPinInfo(&info), S_OK);
            if (info.pFilter) info.pFilter->Release();
        });
        ask("GetState", [&] {
            FILTER_STATE state;
            m_filter->GetState(0, &state);
        });
        ask("QueryFilterInfo", [&] {
            FILTER_INFO info{};
            EXPECT_EQ(m_filter->QueryFilterInfo(&info), S_OK);
        });
        ask("GetSyncSource", [&] {
            ComRef<IReferenceClock> clock;
            EXPECT_EQ(m_filter->GetSyncSource(clock.out()), S_OK);
        });
        asked = true;
    };
    ASSERT_EQ(m_filter->Run(0), S_OK);
    ASSERT_TRUE(waitUntil([&] { return sink->pin.insideReceive > 0; }));
    const ULONGLONG begin = GetTickCount64();
    EXPECT_EQ(m_filter->Stop(), S_OK);
    EXPECT_LT(GetTickCount64() - begin, kVainStopMs);
    EXPECT_TRUE(asked);
    EXPECT_EQ(sink->Stop(), S_OK);
    m_pin->Disconnect();
    sink->pin.Disconnect();
}

} // namespace
} // namespace kestra::test
