// Both filters for a day and a night, and every kind of interruption again and again: no frame and no sample is lost,
// doubled or torn, and nothing is left behind. The long run has the full numbers.
#include "simcard/model/picture.h"
#include "tests/com/audio_test.h"
#include "tests/support/long_run.h"
#include "tests/support/process_counts.h"
#include "tests/support/sound_check.h"

#include <cstring>
#include <mutex>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr Signal kSmall = {1, 0, 1, 9, 0, 0, 320, 240, 0, 60, 1, 0}; // costs no time
constexpr Signal kLarger = {1, 0, 1, 9, 0, 0, 640, 480, 0, 60, 1, 0};

/// Judges YUY2 samples of a progressive picture, in the order in which they come.
class PictureCheck {
public:
    explicit PictureCheck(const Signal& signal)
        : m_format{signal.width,
                   signal.height,
                   false,
                   TARNIS_OUTPUT_YUV422_8,
                   uint8_t(signal.nominalFrameRate()),
                   PictureKind::Bars,
                   wire::toWire(wire::kDefaultConverter)},
          m_expected(frameSizeBytes(m_format)) {}
    void take(const uint8_t* sample, size_t bytes) {
        const auto luma = [&](uint32_t x, uint32_t y) { return sample[(size_t{y} * m_format.width + x) * 2]; };
        uint32_t number = 0;
        const bool isKnown = bytes == m_expected.size() &&
                             readFrameNumber(m_format.width, m_format.height, luma, number) && show(number) &&
                             std::memcmp(m_expected.data(), sample, bytes) == 0;
        ++frames;
        if (!isKnown) {
            ++unlike;
            return;
        }
        if (m_last != 0 && number <= m_last) ++doubled;
        if (m_last != 0 && number > m_last + 1) missing += number - m_last - 1;
        m_last = number;
    }
    std::string text() const {
        char line[120];
        std::snprintf(line, sizeof line, "%llu frames, %llu missing, %llu doubled, %llu unlike the card's", frames,
                      missing, doubled, unlike);
        return line;
    }

    unsigned long long frames = 0, missing = 0, doubled = 0, unlike = 0;

private:
    bool show(uint32_t number) {
        if (m_isShown) return m_source.advance(number) != nullptr;
        return m_isShown = m_source.prepare(m_format, m_expected.data(), m_expected.size(), number);
    }

    const PictureFormat m_format;
    std::vector<uint8_t> m_expected;
    PictureSource m_source;
    bool m_isShown = false;
    uint32_t m_last = 0;
};

/// A filter of the module and what it is connected to.
struct Stream {
    void connect(const ComModule& module, const CLSID& clsid) {
        ASSERT_EQ(module.create(clsid, IID_IBaseFilter, reinterpret_cast<void**>(filter.out())), S_OK);
        pin = onlyPin(filter.get());
        ASSERT_EQ(pin->Connect(&sink, nullptr), S_OK);
    }
    void release() {
        if (filter) filter->Stop();
        if (pin) pin->Disconnect();
        sink.Disconnect();
        pin = ComRef<IPin>();
        filter = ComRef<IBaseFilter>();
    }
    bool receives(int count) {
        const int before = sink.received;
        return waitUntil([&] { return sink.received >= before + count; }, std::chrono::seconds(30));
    }

    ComRef<IBaseFilter> filter;
    ComRef<IPin> pin;
    TestSink sink;
};

class FilterSoak : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_registry.setDword(kSettings, L"VideoFormat", 0); // YUY2
        m_registry.setDword(kSettings, L"AudioFormat", 0); // 16 bits
        m_card.setSignal(kSmall);
        for (Stream* stream : {&m_picture, &m_sound})
            stream->sink.keep = 0;
    }
    void TearDown() override {
        release();
        EXPECT_TRUE(waitUntil([&] { return m_module.canUnloadNow() == S_OK; })) << "an object is still alive";
        CardTest::TearDown();
    }
    void connect() {
        m_picture.connect(m_module, kVideoFilter);
        m_sound.connect(m_module, kAudioFilter);
    }
    void run() {
        ASSERT_EQ(m_sound.filter->Run(0), S_OK);
        ASSERT_EQ(m_picture.filter->Run(0), S_OK);
    }
    void stop() {
        EXPECT_EQ(m_picture.filter->Stop(), S_OK);
        EXPECT_EQ(m_sound.filter->Stop(), S_OK);
    }
    void release() {
        m_picture.release();
        m_sound.release();
    }
    /// From now on, what the video pin delivers is judged. Only between runs.
    void check(const Signal& signal) {
        m_check = std::make_unique<PictureCheck>(signal);
        m_picture.sink.onReceive = [this](IMediaSample* sample) {
            BYTE* bytes = nullptr;
            sample->GetPointer(&bytes);
            m_check->take(bytes, static_cast<size_t>(sample->GetActualDataLength()));
        };
    }
    void expectNoGrowth(const CountsOverCycles& counts) {
        EXPECT_LE(counts.growth().handles, 4) << "the system takes up one now and then";
        EXPECT_LE(counts.growth().threads, 0);
        EXPECT_LT(counts.growth().privateBytes, 2 << 20);
    }

    RegistrySandbox m_registry;
    ComModule m_module{KESTRA_MODULE};
    Stream m_picture, m_sound;
    std::unique_ptr<PictureCheck> m_check;
};

} // namespace

TEST_F(FilterSoak, EveryFrameAndEverySampleOfADayArrivesOnceAndWhole) {
    const int day = repetitions(200, 24 * 60 * 60 * 60); // of 60 frames a second
    m_card.setSignal(kDefaultSignal);
    Options fast = kDefaultOptions;
    fast.pace = Pace::AsTaken;
    m_card.setOptions(fast);
    connect();
    check(kDefaultSignal);
    SoundCheck sound(kDefaultSignal.nominalFrameRate());
    std::mutex mutex; // of the sound's report
    m_sound.sink.onReceive = [&](IMediaSample* sample) {
        BYTE* bytes = nullptr;
        sample->GetPointer(&bytes);
        const std::lock_guard lock(mutex);
        if (m_sound.sink.received < day) sound.take(bytes, static_cast<size_t>(sample->GetActualDataLength()));
    };
    CountsOverCycles counts;
    run();
    int last = 0;
    ULONGLONG lastMove = GetTickCount64();
    bool soundEnded = false;
    EXPECT_TRUE(waitUntil(
        [&] {
            counts.noteNowAndThen();
            if (!soundEnded && m_sound.sink.received >= day) soundEnded = m_sound.filter->Stop() == S_OK;
            const int now = m_picture.sink.received;
            if (now != last) lastMove = GetTickCount64();
            last = now;
            return (now >= day && soundEnded) || GetTickCount64() - lastMove > 30'000;
        },
        std::chrono::hours(24)));
    stop();
    EXPECT_GE(m_check->frames, static_cast<unsigned long long>(day)) << "no frame for 30 s";
    EXPECT_EQ(m_check->missing + m_check->doubled + m_check->unlike, 0u) << m_check->text();
    EXPECT_TRUE(sound.report().isWhole());
    char found[200];
    std::snprintf(found, sizeof found, "%s; %zu sound samples, %zu missing, %zu doubled, %zu unlike the card's",
                  m_check->text().c_str(), sound.report().samples, sound.report().lost, sound.report().doubled,
                  sound.report().unlike);
    counts.report("looks", found);
    expectNoGrowth(counts);
}

TEST_F(FilterSoak, StartingAndStoppingBothLeavesNothingBehind) {
    const int starts = repetitions(20, 10'000);
    connect();
    CountsOverCycles counts;
    unsigned long long frames = 0, wrong = 0;
    for (int i = 0; i < starts; ++i) {
        check(kSmall);
        run();
        ASSERT_TRUE(m_picture.receives(2) && m_sound.receives(1)) << i;
        stop();
        frames += m_check->frames;
        wrong += m_check->doubled + m_check->unlike;
        counts.note();
    }
    EXPECT_EQ(wrong, 0u);
    counts.report("starts and stops of picture and sound",
                  std::to_string(frames) + " frames, " + std::to_string(wrong) + " doubled or unlike the card's");
    expectNoGrowth(counts);
}

TEST_F(FilterSoak, BindingAndReleasingLeavesNothingBehind) {
    const int binds = repetitions(50, 10'000);
    CountsOverCycles counts;
    for (int i = 0; i < binds; ++i) {
        connect();
        for (const Stream* stream : {&m_picture, &m_sound}) {
            CAUUID pages{};
            ASSERT_EQ(query<ISpecifyPropertyPages>(stream->pin.get(), IID_ISpecifyPropertyPages)->GetPages(&pages),
                      S_OK);
            EXPECT_GT(pages.cElems, 0u);
            CoTaskMemFree(pages.pElems);
        }
        release();
        ASSERT_EQ(m_module.canUnloadNow(), S_OK) << i;
        counts.note();
    }
    counts.report("bindings, connections and releases of both filters");
    expectNoGrowth(counts);
}

TEST_F(FilterSoak, PullingTheCardUnderLoadLeavesNothingBehind) {
    const int pulls = repetitions(6, 1'000);
    connect();
    check(kSmall);
    run();
    CountsOverCycles counts;
    for (int i = 0; i < pulls; ++i) {
        ASSERT_TRUE(m_picture.receives(2) && m_sound.receives(1)) << i;
        m_card.unplug();
        ASSERT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }, std::chrono::seconds(30))) << i;
        counts.note();
        m_card.plug();
    }
    EXPECT_TRUE(m_picture.receives(3) && m_sound.receives(3));
    stop();
    EXPECT_EQ(m_check->doubled + m_check->unlike, 0u) << m_check->text();
    counts.report("removals of the card while picture and sound run", m_check->text());
    expectNoGrowth(counts);
}

TEST_F(FilterSoak, ChangingTheSignalUnderLoadLeavesNothingBehind) {
    const int changes = repetitions(6, 1'000);
    connect();
    CountsOverCycles counts;
    unsigned long long frames = 0, wrong = 0;
    for (int i = 0; i < changes; ++i) {
        const Signal &now = i % 2 ? kLarger : kSmall, &next = i % 2 ? kSmall : kLarger;
        check(now);
        m_picture.sink.endOfStreams = 0;
        run();
        ASSERT_TRUE(m_picture.receives(2) && m_sound.receives(1)) << i;
        m_card.setSignal(next);
        ASSERT_TRUE(waitUntil([&] { return m_picture.sink.endOfStreams == 1; }, std::chrono::seconds(30))) << i;
        release();
        frames += m_check->frames;
        wrong += m_check->doubled + m_check->unlike;
        connect();
        counts.note();
    }
    EXPECT_EQ(wrong, 0u);
    counts.report("changes of the picture's size",
                  std::to_string(frames) + " frames, " + std::to_string(wrong) + " doubled or unlike the card's");
    expectNoGrowth(counts);
}

} // namespace kestra::test
