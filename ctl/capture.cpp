// capture: grabs into files or a pipe, and accounts for every frame.
//
// Three kinds of thread: the device library's, which copy each frame into a ring of preallocated slots; one writer,
// which empties the rings into the files; and the main thread, which starts, watches, and ends.
#include "ctl/capture_account.h"
#include "ctl/cards.h"
#include "ctl/console.h"
#include "ctl/exit_code.h"
#include "ctl/frame_ring.h"
#include "ctl/grab_session.h"
#include "ctl/output_file.h"
#include "ctl/segment_writer.h"
#include "ctl/signal_text.h"
#include "ctl/text.h"
#include "ctl/verbs.h"
#include "protocol/frame_rate.h"
#include "protocol/raw_frame.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>

namespace kestra::ctl {

namespace {

constexpr uint32_t kTickMs = 50;
constexpr uint32_t kRetryMs = 200; ///< between two tries to start
constexpr int kMostRefusals = 5;
constexpr int kMostSilentStarts = 3; ///< of a card that has a signal
constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int64_t kSilenceNs = 3 * kSecondNs;       ///< after this long without a frame the grab must have ended
constexpr int64_t kSettlingNs = 10 * kSecondNs;     ///< longer than any receiver takes
constexpr std::chrono::seconds kOutputPatience{10}; ///< with an output that takes nothing once the capture is over

/// One recording from its start until the signal's format changes or the capture ends: rings, writer, counts.
class Recording {
public:
    Recording(const SegmentFormat& format, std::unique_ptr<ByteSink> picture, std::unique_ptr<ByteSink> sound,
              size_t bufferBytes)
        : m_frameBytes(rawFrameBytes(format.depth == 10 ? TARNIS_OUTPUT_YUV422_10 : TARNIS_OUTPUT_YUV422_8,
                                     format.input.width, format.input.height)),
          m_pictures(std::max<size_t>(bufferBytes / std::max<size_t>(m_frameBytes, 1), 2), m_frameBytes),
          m_sounds(kSoundSlots, sound ? kSoundSlotBytes : 1),
          m_hasSound(sound != nullptr),
          m_writer(format, std::move(picture), std::move(sound), m_phase),
          m_thread([this] { write(); }) {}

    ~Recording() {
        if (!m_thread.joinable()) return;
        end();
        m_thread.join();
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// On a grabbing thread. @return false: another size than was prepared
    bool putPicture(const TarnisFrameInfo& frame, Losses& losses) noexcept {
        if (frame.bufferSize != m_frameBytes) return false;
        if (m_failed)
            ++losses.unwritten;
        else
            put(m_pictures, frame, losses);
        return true;
    }
    void putSound(const TarnisFrameInfo& frame, Losses& losses) noexcept {
        if (m_hasSound) put(m_sounds, frame, losses);
    }

    bool hasFailed() const noexcept { return m_failed; }
    uint64_t framesWritten() const noexcept { return m_written; }
    size_t waiting() const noexcept { return m_pictures.used(); }
    const FrameRing& pictures() const noexcept { return m_pictures; }

    /// Nothing more comes: lets the writer empty the rings, and closes the files. Throws what the writer ran into.
    /// @param onStuck  called if the output takes nothing any more; does not return
    template <class OnStuck>
    CapturedFile finish(OnStuck onStuck) {
        end();
        {
            std::unique_lock lock(m_mutex);
            for (uint64_t before = m_written; !m_hasEnded; before = m_written)
                if (!m_ended.wait_for(lock, kOutputPatience, [this] { return m_hasEnded; }) && m_written == before)
                    onStuck();
        }
        m_thread.join();
        if (m_error) std::rethrow_exception(m_error);
        return told();
    }

    /// Of what was written; after finish() or its failure.
    CapturedFile told() const {
        const SegmentFormat& format = m_writer.format();
        const uint32_t rate = framesOfRate(reportedRate(format.input), format.input.interlaced != 0);
        return {m_writer.pictureName(),
                m_hasSound ? m_writer.soundName() : "",
                format.input,
                m_writer.frames(),
                m_writer.pictureBytes(),
                m_writer.soundSeconds(),
                rate != 0 ? m_writer.soundStartFrames() * 1e3 / rate : 0};
    }

private:
    static constexpr size_t kSoundSlots = 1024; // more than eight seconds of the fastest signal
    static constexpr size_t kSoundSlotBytes = kSoundSamplesPerSecond * 6 / 10; // a block of ten frames per second

    void put(FrameRing& ring, const TarnisFrameInfo& frame, Losses& losses) noexcept {
        if (!ring.put(frame.frameWord0, frame.lpRawBuffer, frame.bufferSize))
            ++(m_phase == WriterPhase::Writing ? losses.diskSlow : losses.ringFull);
        const std::lock_guard lock(m_mutex);
        m_filled.notify_one();
    }

    void end() {
        const std::lock_guard lock(m_mutex);
        m_isOver = true;
        m_filled.notify_one();
    }

    void write() {
        try {
            while (waitForWork())
                writeOne();
            m_writer.close();
        } catch (...) {
            m_error = std::current_exception();
            m_failed = true;
            closeAfterFailure();
        }
        const std::lock_guard lock(m_mutex);
        m_hasEnded = true;
        m_ended.notify_one();
    }

    /// The picture's file has failed. Its sound may still come, and as a rule has room where half a frame was cut off.
    void closeAfterFailure() noexcept {
        try {
            {
                std::unique_lock lock(m_mutex);
                m_filled.wait(lock, [this] { return m_isOver; });
            }
            while (hasSoundToWrite())
                writeOne();
        } catch (const std::exception&) { // the first failure is the one that is reported
        }
        try {
            m_writer.close();
        } catch (const std::exception&) {
        }
    }

    bool hasSoundToWrite() const noexcept { return m_writer.frames() != 0 && m_sounds.front(); }

    /// @return false: nothing is left, and nothing more comes
    bool waitForWork() {
        std::unique_lock lock(m_mutex);
        m_filled.wait(lock, [this] { return m_isOver || m_pictures.front() || hasSoundToWrite(); });
        return m_pictures.front() || hasSoundToWrite();
    }

    void writeOne() {
        if (hasSoundToWrite()) {
            const FrameRing::Slot& block = *m_sounds.front();
            m_writer.writeSound(block.number, block.bytes.data(), block.size);
            m_sounds.release();
        } else {
            const FrameRing::Slot& frame = *m_pictures.front();
            m_writer.writeFrame(frame.number, frame.bytes.data(), frame.size);
            m_pictures.release();
            ++m_written;
        }
    }

    const size_t m_frameBytes;
    FrameRing m_pictures, m_sounds;
    const bool m_hasSound;
    std::atomic<WriterPhase> m_phase{WriterPhase::Idle};
    SegmentWriter m_writer;
    std::mutex m_mutex;
    std::condition_variable m_filled, m_ended;
    bool m_isOver = false, m_hasEnded = false; ///< under m_mutex
    std::atomic<bool> m_failed{false};
    std::atomic<uint64_t> m_written{0};
    std::exception_ptr m_error; ///< the writer's until it has ended
    std::thread m_thread;       ///< last: it uses the others
};

/// Receives on the grabbing threads; the main thread looks and steers.
class Receiver final : public FrameReceiver {
public:
    Receiver(uint64_t frameLimit, bool untilLoss) : m_frameLimit(frameLimit), m_untilLoss(untilLoss) {}

    void receive(int port, const TarnisFrameInfo& frame, int64_t timeNs) noexcept override {
        const std::lock_guard lock(m_mutex);
        if (!m_recording || m_hasChanged) return;
        if (frame.dmaStatus == DMA_STATUS_DICONNECTED) m_hasChanged = true;
        if (port == 0)
            receivePicture(frame, timeNs);
        else
            receiveSound(frame, timeNs);
        if (m_untilLoss && m_account.hasLost()) m_isComplete = true;
    }

    /// Frames go there from now on.
    void record(Recording& recording, uint32_t soundFrameBytes) {
        const std::lock_guard lock(m_mutex);
        m_recording = &recording;
        m_hasPicture = m_hasSound = false;
        m_soundFrameBytes = soundFrameBytes;
        m_hasChanged = false;
        m_lastPictureNs = monotonicNs();
        m_account.pictureClock = {};
        m_account.soundClock = {};
        m_samples = 0;
        beginAnew();
    }
    /// Frames go nowhere from now on.
    void detach() {
        const std::lock_guard lock(m_mutex);
        m_recording = nullptr;
    }
    /// No more pictures; the sound may catch up with the last one.
    void complete() {
        const std::lock_guard lock(m_mutex);
        m_isComplete = true;
    }
    bool hasAllSound() const {
        const std::lock_guard lock(m_mutex);
        return !m_hasPicture || (m_hasSound && static_cast<int32_t>(m_lastSound - m_lastPicture) >= 0);
    }
    /// The grab begins again into the same recording.
    void goOn() {
        const std::lock_guard lock(m_mutex);
        m_hasChanged = false;
        m_lastPictureNs = monotonicNs();
        beginAnew();
    }

    bool isComplete() const { return locked(&Receiver::m_isComplete); }
    bool hasChanged() const { return locked(&Receiver::m_hasChanged); }
    int64_t lastPictureNs() const { return locked(&Receiver::m_lastPictureNs); }
    CaptureAccount account() const { return locked(&Receiver::m_account); }
    CaptureAccount& ownAccount() noexcept { return m_account; } ///< when nothing is received

private:
    void beginAnew() noexcept {
        m_account.picture.wasAway();
        m_account.sound.wasAway();
    }

    void receivePicture(const TarnisFrameInfo& frame, int64_t timeNs) noexcept {
        if (m_isComplete) return;
        LossAccount& account = m_account.picture;
        if (frame.dmaStatus == DMA_STATUS_GOOD && !m_recording->putPicture(frame, account.losses)) {
            m_hasChanged = true;
            return;
        }
        const uint64_t interruptions = account.interruptions;
        take(account, m_account.sound, frame.dmaStatus, frame.frameWord0, timeNs);
        if (frame.dmaStatus != DMA_STATUS_GOOD) return;
        if (account.interruptions != interruptions) // the time away is no part of the rate
            m_account.pictureClock = m_account.soundClock = {};
        m_hasPicture = true;
        m_lastPicture = frame.frameWord0;
        m_lastPictureNs = timeNs;
        m_account.pictureClock.take(account.frames, timeNs);
        if (m_frameLimit != 0 && account.frames >= m_frameLimit) m_isComplete = true;
    }

    void receiveSound(const TarnisFrameInfo& frame, int64_t timeNs) noexcept {
        LossAccount& account = m_account.sound;
        // Before the first picture there is nothing that sound could belong to: none is lost yet.
        if (m_hasPicture) take(account, m_account.picture, frame.dmaStatus, frame.frameWord0, timeNs);
        if (frame.dmaStatus != DMA_STATUS_GOOD) return;
        m_recording->putSound(frame, account.losses);
        m_hasSound = true;
        m_lastSound = frame.frameWord0;
        if (!m_hasPicture) return;
        m_samples += frame.bufferSize / m_soundFrameBytes;
        m_account.soundClock.take(m_samples, timeNs);
    }

    template <class Field>
    Field locked(Field Receiver::*field) const {
        const std::lock_guard lock(m_mutex);
        return this->*field;
    }

    const uint64_t m_frameLimit;
    const bool m_untilLoss;
    mutable std::mutex m_mutex;
    Recording* m_recording = nullptr;
    bool m_isComplete = false, m_hasChanged = false;
    bool m_hasPicture = false, m_hasSound = false;
    uint32_t m_lastPicture = 0, m_lastSound = 0; ///< the card's numbers
    int64_t m_lastPictureNs = 0;
    uint64_t m_samples = 0;
    uint32_t m_soundFrameBytes = 4;
    CaptureAccount m_account;
};

/// The verb from its options to its exit code.
class Capture {
public:
    Capture(const Options& options, Console& console)
        : m_options(options),
          m_what(options.capture),
          m_console(console),
          m_receiver(m_what.frames, m_what.untilLoss),
          m_card(chooseCard(options.card)) {}

    ExitCode run() {
        m_watch.take(InputState::of(needSignal(m_card)));
        m_receiver.ownAccount().card = m_card.entry().number;
        m_receiver.ownAccount().depth = m_what.depth;
        const bool wantsSound = soundBits() != 0 && (m_what.file != "-" || !m_what.wav.empty());
        GrabSession session(m_card, wantsSound, m_receiver, m_console);
        std::exception_ptr error;
        try {
            while (!isOver() && recordOne(session)) {
            }
        } catch (const Failure&) {
            error = std::current_exception();
        }
        tell(m_receiver.account());
        if (error) std::rethrow_exception(error);
        if (!m_receiver.account().hasLost()) return ExitCode::Done;
        throw Failure(ExitCode::Failure, "frames were lost: see the account",
                      "a faster disk, --buffer, or less work beside it may help; kestra-ctl watch shows what the card "
                      "alone loses");
    }

private:
    std::string cardName() const { return "card " + std::to_string(m_card.entry().number); }
    uint32_t soundBits() const { return m_what.sound == "none" ? 0 : m_what.sound == "24" ? 24 : 16; }

    bool isOver() {
        if (m_console.isInterrupted(0) || m_receiver.isComplete()) return true;
        return m_what.seconds != 0 && m_beganNs != 0 &&
               static_cast<double>(monotonicNs() - m_beganNs) >= m_what.seconds * kSecondNs;
    }

    /// Waits for the signal, then records until the capture is over or the format changes. @return false: it is over
    bool recordOne(GrabSession& session) {
        const uint32_t selector = m_what.depth == 10 ? TARNIS_OUTPUT_YUV422_10 : TARNIS_OUTPUT_YUV422_8;
        std::optional<TarnisCameraStatus> input;
        const int64_t sinceNs = monotonicNs();
        for (int refusals = 0; !(input = session.start(selector, soundBits()));) {
            look();
            if (m_files == 0) needBeginning(sinceNs);
            // A card or a signal may come back; a card that has a signal and still gives no frames will not recover by
            // itself.
            if (m_watch.state().kind == InputState::Kind::Signal && ++refusals == kMostRefusals)
                m_card.fail("frames", TARNIS_FAILURE);
            if (m_console.isInterrupted(kRetryMs) || isOver()) return false;
        }
        if (m_files != 0 && m_what.file == "-")
            throw Failure(ExitCode::Failure,
                          "the signal has changed to " + signalName(*input) +
                              ", and a stream of pictures cannot change with it",
                          "start the capture again, or name a file: each format then gets one of its own");
        const bool sound = session.grabsSound();
        Recording recording(formatOf(*input), openPicture(), sound ? openSound() : nullptr,
                            size_t{m_what.bufferMegabytes} << 20);
        ++m_files;
        m_receiver.record(recording, soundFrameBytes(soundBits() == 24 ? 24 : 16));
        if (m_beganNs == 0) m_beganNs = monotonicNs();
        bool goesOn = false;
        std::exception_ptr error;
        try {
            goesOn = !follow(session, recording, selector);
            if (!goesOn && session.grabsSound()) awaitSound();
            session.stop();
        } catch (const Failure&) { // the files are completed all the same
            error = std::current_exception();
        }
        m_receiver.detach();
        finish(recording);
        if (error) std::rethrow_exception(error);
        return goesOn;
    }

    /// What leaves a capture may come back to it; one that has not begun ends instead, and says why.
    void needBeginning(int64_t sinceNs) {
        needSignal(m_card);
        if (monotonicNs() - sinceNs < kSettlingNs) return;
        throw Failure(ExitCode::NoSignal, cardName() + " has not settled on its signal: " + m_watch.state().text(),
                      "the source may send what the card does not know; kestra-ctl watch shows when it is settled");
    }

    /// @return true: the capture is over; false: the format has changed
    bool follow(GrabSession& session, Recording& recording, uint32_t selector) {
        int64_t nextLookNs = monotonicNs() + kSecondNs;
        int silentStarts = 0;
        uint64_t framesAtStart = 0;
        while (true) {
            const bool interrupted = m_console.isInterrupted(kTickMs);
            if (interrupted || isOver() || recording.hasFailed()) return true;
            if (m_receiver.hasChanged()) return false;
            if (monotonicNs() < nextLookNs) continue;
            nextLookNs += kSecondNs;
            look();
            progress(recording);
            if (monotonicNs() - m_receiver.lastPictureNs() < kSilenceNs ||
                m_watch.state().kind != InputState::Kind::Signal)
                continue;
            // A signal, but no frames: the grab ended with the card's leaving and could not go on by itself.
            const uint64_t frames = m_receiver.account().picture.frames;
            silentStarts = frames == framesAtStart ? silentStarts + 1 : 1;
            framesAtStart = frames;
            if (silentStarts > kMostSilentStarts)
                throw Failure(ExitCode::Failure, cardName() + " has a signal, but gives no frames",
                              "take the card out and in again, or restart the system");
            session.stop();
            m_receiver.goOn();
            const std::optional<TarnisCameraStatus> input = session.start(selector, soundBits());
            if (input && signalName(*input) != signalName(recording.told().input)) return false;
        }
    }

    /// A frame's sound comes a moment after its picture.
    void awaitSound() {
        m_receiver.complete();
        for (int64_t end = monotonicNs() + kSecondNs / 2; !m_receiver.hasAllSound() && monotonicNs() < end;)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    void look() {
        const std::optional<std::string> event = m_watch.take(askInput(m_card));
        if (!event) return;
        m_console.writeError("kestra-ctl: " + *event + '\n');
    }

    void progress(const Recording& recording) {
        CaptureAccount account = m_receiver.account();
        account.bufferFrames = recording.pictures().slots();
        account.bufferUsed = recording.waiting();
        account.bufferMostUsed = recording.pictures().mostUsed();
        const double seconds = static_cast<double>(monotonicNs() - m_beganNs) / kSecondNs;
        m_console.showProgress(progressLine(account, seconds));
        if (m_options.json && m_what.file != "-") m_console.write(jsonLine(accountJson(account, "progress")));
    }

    void finish(Recording& recording) {
        CaptureAccount& account = m_receiver.ownAccount();
        std::exception_ptr error;
        CapturedFile file;
        try {
            file = recording.finish([&] { endStuck(recording); });
        } catch (const Failure&) {
            error = std::current_exception();
            file = recording.told();
            account.picture.losses.unwritten += recording.waiting();
        }
        account.files.push_back(file);
        account.framesWritten += file.frames;
        account.bufferFrames = recording.pictures().slots();
        account.bufferMostUsed = std::max(account.bufferMostUsed, recording.pictures().mostUsed());
        if (error) std::rethrow_exception(error);
    }

    /// No system call reliably ends a write to a pipe: this ends the process.
    [[noreturn]] void endStuck(const Recording& recording) {
        m_receiver.ownAccount().files.push_back(recording.told());
        m_receiver.ownAccount().picture.losses.unwritten += recording.waiting();
        tell(m_receiver.account());
        m_console.writeError("kestra-ctl: the output takes nothing any more\n            whoever reads it has stopped "
                             "reading without ending: end it\n");
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitCode::Failure));
        std::abort();
    }

    void tell(CaptureAccount account) {
        account.signalChanges = m_watch.changes();
        m_console.showProgress("");
        const std::string text = m_options.json ? jsonLine(accountJson(account, "summary")) : accountText(account);
        if (m_what.file == "-")
            m_console.writeError(text);
        else
            m_console.write(text);
    }

    SegmentFormat formatOf(const TarnisCameraStatus& input) const {
        return {input, m_what.depth, m_what.raw, soundBits() == 0 ? 16 : soundBits()};
    }
    std::string numbered(const std::string& name) const { return m_files == 0 ? name : withNumber(name, m_files + 1); }
    std::unique_ptr<ByteSink> openPicture() const {
        return std::make_unique<OutputFile>(m_what.file == "-" ? "-" : numbered(m_what.file));
    }
    std::unique_ptr<ByteSink> openSound() const {
        const std::string name = m_what.wav.empty() ? withEnding(m_what.file, ".wav") : m_what.wav;
        return std::make_unique<OutputFile>(numbered(name));
    }

    const Options& m_options;
    const Options::Capture& m_what;
    Console& m_console;
    Receiver m_receiver; // before the card: a late frame may come until that is closed
    OpenCard m_card;
    InputWatch m_watch;
    int64_t m_beganNs = 0;
    uint32_t m_files = 0;
};

} // namespace

ExitCode runCapture(const Options& options, Console& console) {
    const Options::Capture& what = options.capture;
    if (what.file != "-" && what.sound != "none" && what.wav.empty() && withEnding(what.file, ".wav") == what.file)
        throw Failure(ExitCode::Usage, "picture and sound would have the same file, " + what.file,
                      "give the picture's file another ending, or name the sound's: --wav FILE");
    if (what.wav == "-")
        throw Failure(ExitCode::Usage, "the sound cannot go to the standard output", "name a file: --wav FILE");
    return Capture(options, console).run();
}

} // namespace kestra::ctl
