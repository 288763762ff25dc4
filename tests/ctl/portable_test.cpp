// The parts of kestra-ctl that need no card: texts, files, accounts.
#include "ctl/capture_account.h"
#include "ctl/converter_values.h"
#include "ctl/exit_code.h"
#include "ctl/frame_counter.h"
#include "ctl/frame_ring.h"
#include "ctl/input_watch.h"
#include "ctl/log_text.h"
#include "ctl/picture_file.h"
#include "ctl/raw_samples.h"
#include "ctl/segment_writer.h"
#include "ctl/stream_files.h"
#include "ctl/text.h"
#include "ctl/watch_view.h"
#include "protocol/converter_matrix.h"
#include "protocol/raw_frame.h"
#include "simcard/model/sound.h"
#include "tests/ctl/media_check.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

namespace kestra::test {
namespace {

using namespace kestra::ctl;
using testing::HasSubstr;

constexpr int64_t kMs = 1'000'000;

TarnisCameraStatus statusOf(uint16_t width, uint16_t height, bool interlaced = false, uint8_t rate = 60,
                            uint8_t flags = TARNIS_SIGNAL_PRESENT | TARNIS_SIGNAL_AUDIO) {
    TarnisCameraStatus status{};
    status.videoMode = 9;
    status.interlaced = interlaced;
    status.frameRate = rate;
    status.width = width;
    status.height = height;
    status.signalFlags = flags;
    return status;
}

/// Memory that runs full at a size, as a disk does.
class SmallSink final : public ByteSink {
public:
    SmallSink(std::vector<uint8_t>& bytes, bool& isClosed, size_t room)
        : m_bytes(bytes), m_isClosed(isClosed), m_room(room) {}
    void write(const void* bytes, size_t size) override {
        const auto* at = static_cast<const uint8_t*>(bytes);
        const size_t fitting = std::min(size, m_room - m_bytes.size());
        m_bytes.insert(m_bytes.end(), at, at + fitting);
        if (fitting < size) throw Failure(ExitCode::Failure, "full", "make room");
    }
    void rewrite(uint64_t at, const void* bytes, size_t size) override {
        ASSERT_LE(at + size, m_bytes.size());
        std::memcpy(m_bytes.data() + at, bytes, size);
    }
    void truncate(uint64_t bytes) noexcept override { m_bytes.resize(bytes); }
    void close() override { m_isClosed = true; }
    uint64_t bytes() const noexcept override { return m_bytes.size(); }
    const std::string& name() const noexcept override { return m_name; }

private:
    std::vector<uint8_t>& m_bytes;
    bool& m_isClosed;
    const size_t m_room;
    const std::string m_name = "small";
};

constexpr simcard::Signal kSignal = {1, 0, 1, 9, 0, 0, 160, 90, 0, 30, 1, 0};

std::vector<uint8_t> rawFrame(const simcard::Signal& signal, uint8_t selector, uint32_t number) {
    const simcard::PictureFormat format = {signal.width,
                                           signal.height,
                                           signal.interlaced != 0,
                                           selector,
                                           uint8_t(signal.nominalFrameRate()),
                                           simcard::PictureKind::Bars,
                                           wire::toWire(wire::kDefaultConverter)};
    std::vector<uint8_t> raw(simcard::frameSizeBytes(format));
    simcard::PictureSource source;
    source.prepare(format, raw.data(), raw.size(), number);
    return raw;
}

} // namespace

TEST(Text, SizesTimesAndNames) {
    EXPECT_EQ(byteCount(1), "1 byte");
    EXPECT_EQ(byteCount(999), "999 bytes");
    EXPECT_EQ(byteCount(1500), "1.5 kB");
    EXPECT_EQ(byteCount(4'976'640'000), "4.98 GB");
    EXPECT_EQ(duration(0.04), "0.0 s");
    EXPECT_EQ(duration(75.25), "1 min 15.2 s");
    EXPECT_EQ(duration(3725), "1 h 2 min 5 s");
    EXPECT_EQ(withEnding("a.b/film", ".wav"), "a.b/film.wav");
    EXPECT_EQ(withEnding("a\\film.y4m", ".wav"), "a\\film.wav");
    EXPECT_EQ(withEnding(".hidden", ".wav"), ".hidden.wav");
    EXPECT_EQ(withNumber("a/film.y4m", 2), "a/film-2.y4m");
    EXPECT_EQ(withNumber("film", 12), "film-12");
    EXPECT_EQ(format("%s %d", std::string(1000, 'x').c_str(), 7).size(), 1002u);
}

TEST(Text, UnicodeGoesBothWaysAndNonsenseIsReplaced) {
    const std::string all = "a\xC3\xBC\xE2\x82\xAC\xF0\x9F\x8E\xA5";
    EXPECT_EQ(utf16(all), u"a\u00FC\u20AC\U0001F3A5");
    EXPECT_EQ(utf8(utf16(all)), all);
    EXPECT_EQ(utf8(std::u16string{u'a', char16_t(0xD83C), u'b'}), "a\xEF\xBF\xBD"
                                                                  "b");
    for (const char* wrong : {"\x80", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\xE2\x82"})
        EXPECT_EQ(utf16(wrong)[0], char16_t(0xFFFD)) << testing::PrintToString(wrong);
}

TEST(Text, NobodysWordsControlATerminal) {
    EXPECT_EQ(utf16ForTerminal("a\tb\n\x1B[2Jc\rd\x7F\xC2\x9B"
                               "e\xC2\xA0"),
              u"a\tb\n\uFFFD[2Jc\uFFFDd\uFFFD\uFFFDe\u00A0");
    EXPECT_EQ(utf16ForTerminal(std::string("\0x", 2)), u"\uFFFDx");
}

TEST(RawSamples, EveryWidthIsSplitAsItsBitsSay) {
    std::mt19937_64 random(1);
    for (uint32_t width = 1; width <= 40; ++width) {
        std::vector<uint16_t> samples(width * 2);
        std::vector<uint8_t> ten(rawLineBytes(TARNIS_OUTPUT_YUV422_10, width));
        std::vector<uint8_t> eight(rawLineBytes(TARNIS_OUTPUT_YUV422_8, width));
        for (uint8_t& byte : eight)
            byte = uint8_t(random());
        for (size_t word = 0; word < ten.size() / 8; ++word) {
            uint64_t bits = random() << 60; // the unused ones, too
            for (uint32_t j = 0; j < 6; ++j) {
                const uint64_t sample = random() & 1023;
                if (word * 6 + j < samples.size()) samples[word * 6 + j] = uint16_t(sample);
                bits |= sample << (10 * j);
            }
            std::memcpy(&ten[word * 8], &bits, 8);
        }
        const size_t chroma = (width + 1) / 2;
        std::vector<uint16_t> y(width), cb(chroma), cr(chroma);
        std::vector<uint8_t> y8(width), cb8(chroma), cr8(chroma);
        splitLine10(ten.data(), width, y.data(), cb.data(), cr.data());
        splitLine8(eight.data(), width, y8.data(), cb8.data(), cr8.data());
        for (uint32_t x = 0; x < width; ++x) {
            ASSERT_EQ(y[x], samples[2 * x]) << width;
            ASSERT_EQ(y8[x], eight[2 * x]) << width;
            const bool isCb = x % 2 == 0;
            ASSERT_EQ((isCb ? cb : cr)[x / 2], samples[2 * x + 1]) << width;
            ASSERT_EQ((isCb ? cb8 : cr8)[x / 2], eight[2 * x + 1]) << width;
        }
        if (width % 2 == 1) {
            EXPECT_EQ(cr.back(), width > 1 ? cr[chroma - 2] : 512) << width;
        }
    }
}

TEST(Y4m, HeaderNamesSizeScanRateAndDepth) {
    EXPECT_EQ(y4mHeader(statusOf(1920, 1080), 8), "YUV4MPEG2 W1920 H1080 F60:1 Ip A1:1 C422 XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(y4mHeader(statusOf(720, 576, true, 50), 10),
              "YUV4MPEG2 W720 H576 F25:1 It A1:1 C422p10 XYSCSS=422P10 XCOLORRANGE=LIMITED\n");
    TarnisCameraStatus film = statusOf(1920, 1080, false, 25);
    film.videoMode = 16;
    EXPECT_THAT(y4mHeader(film, 8), HasSubstr(" F24:1 "));
    EXPECT_THAT(y4mHeader(statusOf(1920, 1080, false, 0), 8), HasSubstr(" F25:1 "));
    EXPECT_EQ(y4mPictureBytes(statusOf(5, 3), 10), (5 + 3 + 3) * 3 * 2u);
}

TEST(Wav, LongSoundIsAnRf64FileWithALongHeader) {
    const WavHeader small = wavHeader(16, 4), large = wavHeader(24, 6'000'000'000);
    EXPECT_EQ(std::string(small.begin(), small.begin() + 4), "RIFF");
    EXPECT_EQ(std::string(large.begin(), large.begin() + 4), "RF64");
    uint64_t riff = 0, data = 0, frames = 0;
    std::memcpy(&riff, &large[20], 8);
    std::memcpy(&data, &large[28], 8);
    std::memcpy(&frames, &large[36], 8);
    EXPECT_EQ(riff, 6'000'000'000 + sizeof(WavHeader) - 8);
    EXPECT_EQ(data, 6'000'000'000u);
    EXPECT_EQ(frames, 1'000'000'000u);
}

TEST(SegmentWriter, AFullDiskLosesOnlyTheFrameThatDidNotFit) {
    const SegmentFormat format = {statusOf(kSignal.width, kSignal.height, false, 30), 10, false, 16};
    const size_t header = y4mHeader(format.input, 10).size(), frame = 6 + y4mPictureBytes(format.input, 10);
    std::vector<uint8_t> picture, sound;
    bool pictureIsClosed = false, soundIsClosed = false;
    std::atomic<WriterPhase> phase{WriterPhase::Idle};
    SegmentWriter writer(format, std::make_unique<SmallSink>(picture, pictureIsClosed, header + 2 * frame + 100),
                         std::make_unique<SmallSink>(sound, soundIsClosed, 1 << 20), phase);
    std::vector<uint8_t> block(1600 * 4);
    for (uint32_t n = 7; n < 9; ++n) {
        const std::vector<uint8_t> raw = rawFrame(kSignal, TARNIS_OUTPUT_YUV422_10, n);
        writer.writeFrame(n, raw.data(), raw.size());
        simcard::soundBlock(n, 30, 1, block.data());
        writer.writeSound(n, block.data(), block.size());
    }
    const std::vector<uint8_t> raw = rawFrame(kSignal, TARNIS_OUTPUT_YUV422_10, 9);
    EXPECT_THROW(writer.writeFrame(9, raw.data(), raw.size()), Failure);
    simcard::soundBlock(9, 30, 1, block.data());
    writer.writeSound(9, block.data(), block.size());
    writer.close();
    EXPECT_TRUE(pictureIsClosed);
    EXPECT_TRUE(soundIsClosed);
    const MediaFindings found = checkY4m({reinterpret_cast<const char*>(picture.data()), picture.size()}, kSignal, 10);
    EXPECT_EQ(found.wrong, "");
    EXPECT_EQ(found.numbers, (std::vector<uint32_t>{7, 8}));
    const MediaFindings heard = checkWav({reinterpret_cast<const char*>(sound.data()), sound.size()}, kSignal, 16, 7);
    EXPECT_EQ(heard.wrong, "");
    EXPECT_EQ(heard.numbers, (std::vector<uint32_t>{7, 8})) << "the sound ends with the picture";
}

TEST(SegmentWriter, SoundBeforeTheFirstPictureIsLeftAway) {
    const SegmentFormat format = {statusOf(kSignal.width, kSignal.height, false, 30), 8, true, 24};
    std::vector<uint8_t> picture, sound;
    bool closed = false;
    std::atomic<WriterPhase> phase{WriterPhase::Idle};
    SegmentWriter writer(format, std::make_unique<SmallSink>(picture, closed, 1 << 20),
                         std::make_unique<SmallSink>(sound, closed, 1 << 20), phase);
    const std::vector<uint8_t> raw = rawFrame(kSignal, TARNIS_OUTPUT_YUV422_8, 0);
    writer.writeFrame(0xFFFFFFFE, raw.data(), raw.size()); // and the numbers may begin anew
    writer.writeFrame(1, raw.data(), raw.size());
    const uint8_t block[6] = {};
    for (const uint32_t number : {0xFFFFFFFCu, 0xFFFFFFFDu, 0u, 1u, 2u})
        writer.writeSound(number, block, sizeof block);
    writer.close();
    EXPECT_EQ(sound.size(), sizeof(WavHeader) + 2 * sizeof block);
    EXPECT_EQ(writer.soundStartFrames(), 2);
}

TEST(FrameRing, NothingIsLostBetweenTwoThreadsUntilItIsFull) {
    FrameRing ring(3, 8);
    std::thread reader([&] {
        for (uint32_t wanted = 0; wanted < 20000;)
            if (const FrameRing::Slot* slot = ring.front()) {
                ASSERT_EQ(slot->number, wanted);
                ASSERT_EQ(slot->bytes[0], uint8_t(wanted));
                ring.release();
                ++wanted;
            } else {
                std::this_thread::yield();
            }
    });
    for (uint32_t number = 0; number < 20000;) {
        const uint8_t byte = uint8_t(number);
        if (ring.put(number, &byte, 1))
            ++number;
        else
            std::this_thread::yield();
    }
    reader.join();
    const uint8_t bytes[9] = {};
    EXPECT_FALSE(ring.put(0, bytes, 9)) << "larger than a slot";
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(ring.put(0, bytes, 8));
    EXPECT_FALSE(ring.put(0, bytes, 8));
    EXPECT_EQ(ring.mostUsed(), 3u);
}

TEST(LossAccount, GapsAreTheCardsUnlessAFailedFrameExplainsThem) {
    LossAccount account;
    account.take(DMA_STATUS_GOOD, 10, 0);
    account.take(DMA_STATUS_GOOD, 11, 33 * kMs);
    account.take(DMA_STATUS_GOOD, 14, 66 * kMs);
    EXPECT_EQ(account.losses.cardDropped, 2u);
    account.take(DMA_STATUS_FIFO_OVERRUN, 0, 100 * kMs);
    account.take(DMA_STATUS_GOOD, 16, 133 * kMs);
    EXPECT_EQ(account.losses.overrun, 1u);
    EXPECT_EQ(account.losses.cardDropped, 2u);
    account.take(77, 0, 166 * kMs);
    account.take(DMA_STATUS_FRAME_DROPED, 0, 180 * kMs);
    account.take(DMA_STATUS_ABORTED, 0, 190 * kMs);
    EXPECT_EQ(account.losses.total(), 5u);
    EXPECT_EQ(account.losses.aborted, 1u);
    EXPECT_EQ(lossText(account.losses), "5: 3 dropped by the card, 1 overrun, 1 of an unknown status");
}

TEST(LossAccount, WhatPassedByWhileTheCardWasAwayIsNoLoss) {
    LossAccount account;
    account.take(DMA_STATUS_GOOD, 10, 0);
    account.take(DMA_STATUS_GOOD, 100, 2000 * kMs);
    account.take(DMA_STATUS_GOOD, 1, 4000 * kMs); // numbers begin anew
    account.take(DMA_STATUS_GOOD, 0xFFFFFFFF, 4001 * kMs);
    account.take(DMA_STATUS_GOOD, 0, 4002 * kMs);
    EXPECT_EQ(account.losses.total(), 0u);
    EXPECT_EQ(account.interruptions, 2u);
    EXPECT_EQ(account.missedWhileAway, 89u);
}

TEST(LossAccount, WhatPassedByBeforeTheGrabBeganAnewIsNoLoss) {
    LossAccount account;
    account.take(DMA_STATUS_GOOD, 10, 0);
    account.wasAway();
    account.take(DMA_STATUS_GOOD, 15, 100 * kMs);
    account.take(DMA_STATUS_DICONNECTED, 0, 120 * kMs);
    account.take(DMA_STATUS_GOOD, 20, 133 * kMs);
    EXPECT_EQ(account.losses.total(), 0u);
    EXPECT_EQ(account.interruptions, 2u);
    EXPECT_EQ(account.missedWhileAway, 8u);
    account.take(DMA_STATUS_GOOD, 22, 166 * kMs);
    EXPECT_EQ(account.losses.cardDropped, 1u);
}

TEST(LossAccount, BothChannelsOfACardAreAwayTogether) {
    LossAccount picture, sound;
    take(picture, sound, DMA_STATUS_GOOD, 10, 1000 * kMs);
    take(sound, picture, DMA_STATUS_GOOD, 10, 1000 * kMs);
    // Pulled. The last blocks of sound come late, and the first one after is early: its clock shows no pause.
    take(sound, picture, DMA_STATUS_GOOD, 11, 1200 * kMs);
    take(sound, picture, DMA_STATUS_GOOD, 32, 1450 * kMs);
    EXPECT_EQ(sound.losses.cardDropped, 20u) << "nothing is known of a pause yet";
    take(picture, sound, DMA_STATUS_GOOD, 33, 1500 * kMs);
    EXPECT_EQ(picture.interruptions, 1u);
    EXPECT_EQ(sound.losses.total(), 0u);
    EXPECT_EQ(sound.missedWhileAway, 20u);
    EXPECT_EQ(sound.interruptions, 1u);
    // And the other way round.
    take(sound, picture, DMA_STATUS_GOOD, 33, 1501 * kMs);
    take(picture, sound, DMA_STATUS_GOOD, 34, 1700 * kMs);
    take(sound, picture, DMA_STATUS_GOOD, 54, 1900 * kMs);
    take(picture, sound, DMA_STATUS_GOOD, 55, 1901 * kMs);
    EXPECT_EQ(picture.losses.total(), 0u);
    // What was lost before the card went stays lost.
    take(picture, sound, DMA_STATUS_GOOD, 58, 1934 * kMs);
    take(sound, picture, DMA_STATUS_GOOD, 58, 1935 * kMs);
    EXPECT_EQ(picture.losses.cardDropped, 2u);
    take(sound, picture, DMA_STATUS_GOOD, 90, 3000 * kMs);
    take(picture, sound, DMA_STATUS_GOOD, 90, 3001 * kMs);
    EXPECT_EQ(picture.losses.cardDropped, 2u);
    EXPECT_EQ(sound.losses.cardDropped, 3u) << "blocks 55 to 57 came not, and no pause explains that";
}

TEST(FrameCounter, SoundThatComesBackBeforeThePictureIsNoLoss) {
    const auto frame = [](uint32_t number, uint32_t status = DMA_STATUS_GOOD) {
        TarnisFrameInfo info{};
        info.frameWord0 = number;
        info.dmaStatus = status;
        return info;
    };
    FrameCounter counter;
    counter.begin(0);
    counter.receive(1, frame(1), 16 * kMs); // nothing that it could belong to
    counter.receive(0, frame(3), 50 * kMs);
    counter.receive(1, frame(3), 51 * kMs);
    // The card is pulled and comes back: the sound first, the picture 21 frames later.
    counter.receive(1, frame(60), 1000 * kMs);
    for (uint32_t number = 61; number <= 81; ++number)
        counter.receive(1, frame(number), int64_t(1000 + (number - 60) * 12) * kMs);
    counter.receive(0, frame(82), 1260 * kMs);
    counter.receive(1, frame(82), 1261 * kMs);
    EXPECT_EQ(counter.counts().sound.losses.total(), 0u);
    EXPECT_EQ(counter.counts().picture.losses.total(), 0u);
    EXPECT_EQ(counter.counts().picture.interruptions, 1u);
    EXPECT_EQ(counter.counts().sound.frames, 24u);
    // Another format: both end, and begin anew with other numbers.
    for (const int port : {0, 1})
        counter.receive(port, frame(0, DMA_STATUS_DICONNECTED), 1270 * kMs);
    EXPECT_TRUE(counter.hasStopped(1271 * kMs));
    counter.begin(1272 * kMs);
    EXPECT_FALSE(counter.hasStopped(1273 * kMs));
    counter.receive(1, frame(90), 1280 * kMs);
    counter.receive(0, frame(95), 1290 * kMs);
    counter.receive(1, frame(95), 1291 * kMs);
    EXPECT_EQ(counter.counts().sound.losses.total() + counter.counts().picture.losses.total(), 0u);
    EXPECT_TRUE(counter.hasStopped(1290 * kMs + 3001 * kMs)) << "no frame for three seconds";
}

TEST(CaptureAccount, DriftIsByHowMuchTheSoundFallsBehind) {
    CaptureAccount account;
    account.files.push_back({"a", "b", statusOf(1920, 1080), 0, 0, 0, 0});
    for (const int64_t second : {0, 10}) {
        account.pictureClock.take(uint64_t(second) * 60, second * 1000 * kMs);
        account.soundClock.take(uint64_t(second) * 47952, second * 1000 * kMs + 5 * kMs);
    }
    account.sound.frames = 600;
    EXPECT_NEAR(account.soundOffsetMs(), 5, 1e-9);
    EXPECT_NEAR(account.soundDriftMs(), 10.01, 0.001);
    EXPECT_THAT(accountText(account), HasSubstr("-1000 ppm against 48000"));
}

TEST(InputWatch, TellsWhatChangedAndNothingElse) {
    InputWatch watch;
    const InputState hd = InputState::of(statusOf(1920, 1080)), gone = InputState::of({});
    EXPECT_FALSE(watch.take(hd));
    EXPECT_FALSE(watch.take(hd));
    EXPECT_EQ(watch.take(gone), "the signal has gone");
    EXPECT_EQ(watch.take(hd), "a signal has come: 1920x1080p60, sound");
    EXPECT_EQ(watch.take({InputState::Kind::Pulled, {}}), "the card was pulled");
    EXPECT_EQ(watch.take(gone), "the card is back, without a signal");
    EXPECT_EQ(watch.take(hd), "a signal has come: 1920x1080p60, sound");
    EXPECT_EQ(watch.take(InputState::of(statusOf(720, 576, true, 50))), "the signal has changed to 720x576i50, sound");
    EXPECT_EQ(watch.changes(), 6u);
}

TEST(WatchView, ScreenHasAlwaysAsManyLines) {
    WatchView view;
    view.grabs = true;
    view.input = InputState::of(statusOf(1920, 1080));
    const auto lines = [&] {
        const std::string screen = watchScreen(view);
        return std::count(screen.begin(), screen.end(), '\n');
    };
    const auto before = lines();
    for (int i = 0; i < 30; ++i)
        view.events.push_back("12:00:00  event " + std::to_string(i));
    EXPECT_EQ(lines(), before);
    EXPECT_THAT(watchScreen(view), HasSubstr("event 29"));
    EXPECT_THAT(watchScreen(view), testing::Not(HasSubstr("event 19\n")));
}

TEST(ConverterValues, EveryPresetIsKnownByItsName) {
    for (const MatrixPreset& preset : kMatrixPresets) {
        TarnisConverterParams params = wire::kDefaultConverter;
        params.RedGain = 3;
        takePreset(params, preset.shortName);
        EXPECT_STREQ(presetNameOf(params), preset.shortName);
        EXPECT_STREQ(presetNameOf(wire::fromWire(wire::toWire(params))), preset.shortName);
        EXPECT_EQ(params.RedGain, 3) << "gains are left alone";
    }
    TarnisConverterParams params = wire::kDefaultConverter;
    setConverterValue(params, "Y1=1.5");
    EXPECT_EQ(presetNameOf(params), nullptr);
}

TEST(ConverterValues, JsonGoesBothWays) {
    TarnisConverterParams params = wire::kDefaultConverter;
    setConverterValue(params, "redgain=-0.25");
    setConverterValue(params, "BLUEOFFSET=-127");
    setConverterValue(params, "YOff=-5");
    Json document = jsonOf("converter");
    document["converter"] = converterJson(params);
    const TarnisConverterParams again = converterOfJson(document.dump(), "c.json");
    EXPECT_EQ(converterJson(again), converterJson(params)) << "all values; the record has a byte of padding";
    document["converter"]["RMin"] = 300;
    EXPECT_THROW(converterOfJson(document.dump(), "c.json"), Failure);
}

TEST(LogText, LinesAreReadAndExplained) {
    const std::u16string wide = u"\uFEFFone\r\ntwo \u00FC\r\nthree\r\n";
    const std::string bytes(reinterpret_cast<const char*>(wide.data()), wide.size() * 2);
    const std::string text = textOfLog(bytes);
    EXPECT_EQ(text, "one\ntwo \xC3\xBC\nthree\n");
    EXPECT_EQ(lastLines(text, 1), "three\n");
    EXPECT_EQ(lastLines(text, 2), "two \xC3\xBC\nthree\n");
    EXPECT_EQ(lastLines(text, 9), text);
    EXPECT_EQ(lastLines("", 1), "");
    EXPECT_EQ(lastLines("a\n\nb", 2), "\nb");
    const auto explain = [](const char* line) {
        return explainLogLine(line, [](uint32_t error) { return "error " + std::to_string(error); });
    };
    EXPECT_EQ(explain("DeviceIOCtl(0xCE322058) failed. ErrorCode=5(0x00000005)."),
              "request \"video status\"; the system says: error 5");
    EXPECT_EQ(explain("DeviceIOCtl(0xCE322600) returned with result=7(0x00000007)."),
              "request \"prepare\"; the card's driver answered 7");
    EXPECT_EQ(explain("TARNISCTL_DMA_LOCK_BUFFER returns with DMA Status = 2"),
              "overrun: the card's memory overflowed");
    EXPECT_EQ(explain("hello"), "");
}

} // namespace kestra::test
