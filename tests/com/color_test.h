// What the tests of the converter's interfaces share: a filter of a format, its interfaces, and what the card received.
#pragma once

#include "simcard/model/card.h"
#include "simcard/model/picture.h"
#include "tests/com/video_test.h"

#include <kestra_interfaces.h>

#include <cstring>

namespace kestra::test {

inline bool same(const wire::Converter& a, const wire::Converter& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class ColorTest : public VideoTest {
protected:
    void TearDown() override {
        release();
        VideoTest::TearDown();
    }
    /// Stops the filter and releases its interfaces.
    void release() {
        if (m_filter) m_filter->Stop();
        if (m_pin) m_pin->Disconnect();
        m_sink.Disconnect();
        m_csc = ComRef<IKestraStreamPropCSC>();
        m_rgb = ComRef<IKestraStreamPropRGBGainOffset>();
    }
    /// A filter of that format, and its interfaces.
    void make(int format = 1) {
        m_registry.setDword(kSettings, L"VideoFormat", DWORD(format));
        ASSERT_EQ(makeFilter(), S_OK);
        m_csc = query<IKestraStreamPropCSC>(m_filter.get(), IID_IKestraStreamPropCSC);
        m_rgb = query<IKestraStreamPropRGBGainOffset>(m_filter.get(), IID_IKestraStreamPropRGBGainOffset);
        ASSERT_TRUE(m_csc && m_rgb);
        m_card.clearLog();
    }
    void showPicture(simcard::PictureKind picture) const {
        simcard::Options options = simcard::kDefaultOptions;
        options.picture = uint32_t(picture);
        m_card.setOptions(options);
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
    struct Balance {
        HRESULT hr;
        unsigned char mean[3];
        float gain[3];
    };
    Balance analyze() {
        Balance b{};
        b.hr = m_rgb->WhiteBalance(&b.mean[0], &b.mean[1], &b.mean[2], &b.gain[0], &b.gain[1], &b.gain[2]);
        return b;
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
    /// Means of the R, G and B bytes of an RGB24 sample whose lines have no gaps.
    static void meansOf(const std::vector<uint8_t>& bytes, double (&mean)[3]) {
        uint64_t sums[3] = {};
        for (size_t i = 0; i + 2 < bytes.size(); i += 3)
            for (size_t channel = 0; channel < 3; ++channel)
                sums[channel] += bytes[i + 2 - channel];
        for (int channel = 0; channel < 3; ++channel)
            mean[channel] = double(sums[channel]) / double(bytes.size() / 3);
    }

    TestSink m_sink;
    ComRef<IKestraStreamPropCSC> m_csc;
    ComRef<IKestraStreamPropRGBGainOffset> m_rgb;
};

} // namespace kestra::test
