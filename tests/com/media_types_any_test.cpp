// Any media type and format block, at random with a printed seed: both pins answer, read nothing beyond a block, and
// keep a format of their own. Each block ends where memory ends. KESTRA_LONG: a million types for each pin;
// KESTRA_SEED: those of another run.
#include "tests/com/video_test.h"

#include <ks.h>
#include <ksmedia.h>

#include <cstdlib>
#include <cstring>
#include <random>

using namespace kestra::test;
using namespace kestra;

namespace {

constexpr CLSID kAudioFilter = {0x47BAFEE0, 0x4F9B, 0x4115, {0xAA, 0x9F, 0x89, 0x64, 0xA2, 0x3B, 0x53, 0xE9}};

/// A page whose end is followed by one that nobody may touch.
class LastPage {
public:
    LastPage() {
        m_base = static_cast<BYTE*>(VirtualAlloc(nullptr, 2 * kBytes, MEM_RESERVE, PAGE_NOACCESS));
        VirtualAlloc(m_base, kBytes, MEM_COMMIT, PAGE_READWRITE);
    }
    ~LastPage() { VirtualFree(m_base, 0, MEM_RELEASE); }
    LastPage(const LastPage&) = delete;
    LastPage& operator=(const LastPage&) = delete;
    BYTE* last(size_t bytes) const { return m_base + kBytes - bytes; }
    static constexpr size_t kBytes = 4096;

private:
    BYTE* m_base;
};

constexpr ULONG kMostSample = 1u << 26; // larger ones would only use up the machine's memory

class AnyMediaType : public VideoTest {
protected:
    uint32_t random(uint32_t below) { return static_cast<uint32_t>(m_random() % below); }

    /// One of the types that the pin offers, changed in a few places.
    AM_MEDIA_TYPE changed(const std::vector<Type>& own) {
        static const GUID kGuids[] = {MEDIATYPE_Video,    MEDIATYPE_Audio,    MEDIASUBTYPE_YUY2,   MEDIASUBTYPE_UYVY,
                                      MEDIASUBTYPE_RGB24, MEDIASUBTYPE_RGB32, MEDIASUBTYPE_PCM,    MEDIASUBTYPE_RGB565,
                                      FORMAT_VideoInfo,   FORMAT_VideoInfo2,  FORMAT_WaveFormatEx, FORMAT_MPEGVideo,
                                      FORMAT_None,        GUID_NULL,          FORMAT_DvInfo};
        const AM_MEDIA_TYPE& from = *own[random(static_cast<uint32_t>(own.size()))].type;
        AM_MEDIA_TYPE type = from;
        if (random(8) == 0) type.majortype = kGuids[random(std::size(kGuids))];
        if (random(3) == 0) type.subtype = kGuids[random(std::size(kGuids))];
        if (random(3) == 0) type.formattype = kGuids[random(std::size(kGuids))];
        if (random(4) == 0) type.lSampleSize = static_cast<ULONG>(m_random());
        if (random(3) == 0) type.cbFormat = random(2) ? random(from.cbFormat + 1) : random(200);
        type.pbFormat = m_page.last(type.cbFormat);
        for (ULONG i = 0; i < type.cbFormat; ++i)
            type.pbFormat[i] = i < from.cbFormat ? from.pbFormat[i] : static_cast<BYTE>(m_random());
        for (uint32_t n = random(4); n != 0 && type.cbFormat != 0; --n) {
            const uint32_t at = random(type.cbFormat), bytes = std::min<uint32_t>(1u << random(3), type.cbFormat - at);
            static constexpr uint32_t kValues[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 16, 24, 32};
            const uint32_t value = random(2) ? kValues[random(std::size(kValues))] : static_cast<uint32_t>(m_random());
            std::memcpy(type.pbFormat + at, &value, bytes);
        }
        if (random(16) == 0) type.pbFormat = nullptr; // with a length, too
        return type;
    }

    /// The pin answers with the format that it was last set to, to the byte.
    void expectKept(const std::vector<BYTE>& block) {
        Type kept;
        ASSERT_EQ(config()->GetFormat(&kept.type), S_OK);
        ASSERT_EQ(std::vector<BYTE>(kept.type->pbFormat, kept.type->pbFormat + kept.type->cbFormat), block);
    }
    std::vector<BYTE> keptBlock() {
        Type kept;
        EXPECT_EQ(config()->GetFormat(&kept.type), S_OK);
        return {kept.type->pbFormat, kept.type->pbFormat + kept.type->cbFormat};
    }

    void askAnything(const CLSID& filter, const wchar_t* value, DWORD formats, const char* name) {
        ASSERT_EQ(m_module.create(filter, IID_IBaseFilter, reinterpret_cast<void**>(m_filter.out())), S_OK);
        m_pin = onlyPin(m_filter.get());
        std::vector<Type> own;
        for (int i = 0; i < static_cast<int>(formats); ++i) {
            BYTE caps[256];
            Type type;
            ASSERT_EQ(config()->GetStreamCaps(i, &type.type, caps), S_OK);
            own.push_back(std::move(type));
        }
        const char* const seedText = std::getenv("KESTRA_SEED");
        const uint32_t seed =
            seedText ? static_cast<uint32_t>(std::strtoul(seedText, nullptr, 0)) : std::random_device()();
        m_random.seed(seed);
        const int count = std::getenv("KESTRA_LONG") ? 1'000'000 : 2'000;
        int accepted = 0, connections = 0;
        m_sink.accepts = [](const AM_MEDIA_TYPE&) { return true; };
        std::vector<BYTE> block = keptBlock();
        for (int i = 0; i < count && !HasFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << name << ": KESTRA_SEED=" << seed << ", type " << i);
            AM_MEDIA_TYPE type = changed(own);
            const HRESULT accepts = m_pin->QueryAccept(&type);
            ASSERT_TRUE(accepts == S_OK || accepts == S_FALSE || FAILED(accepts));
            ASSERT_EQ(m_pin->QueryAccept(&type), accepts) << "a question changes nothing";
            const DWORD before = m_registry.dword(kSettings, value, 0);
            const HRESULT set = config()->SetFormat(&type);
            const DWORD after = m_registry.dword(kSettings, value, 0);
            ASSERT_LT(after, formats);
            if (FAILED(set)) {
                ASSERT_EQ(after, before) << "what was refused changes nothing";
            } else {
                ++accepted;
                ASSERT_EQ(m_pin->QueryAccept(&type), S_OK);
                block.assign(type.pbFormat, type.pbFormat + type.cbFormat);
            }
            expectKept(block);
            if (i % 16 == 0 && SUCCEEDED(m_pin->Connect(&m_sink, &type))) {
                ++connections;
                // Whatever the block says, frames come or the start fails.
                if (i % 256 == 0 && type.lSampleSize < kMostSample) m_filter->Pause();
                ASSERT_EQ(m_filter->Stop(), S_OK);
                ASSERT_EQ(m_pin->Disconnect(), S_OK);
                m_sink.Disconnect();
            }
            if (i % 256 == 0) m_trace.clear();
        }
        std::printf("%s: seed %u, %d types, %d of them set, %d connections\n", name, seed, count, accepted,
                    connections);
        EXPECT_GT(accepted, count / 100) << "random types that are all refused try little";
    }

    std::mt19937_64 m_random;
    LastPage m_page;
    TestSink m_sink;
};

TEST_F(AnyMediaType, VideoPinKeepsWhatItAccepted) {
    askAnything(kVideoFilter, L"VideoFormat", 4, "video");
}

TEST_F(AnyMediaType, AudioPinKeepsWhatItAccepted) {
    askAnything(kAudioFilter, L"AudioFormat", 2, "audio");
}

} // namespace
