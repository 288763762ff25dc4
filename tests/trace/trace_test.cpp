// The files of a trace: their bytes, their limit, and what is read of files that are whole, cut or damaged.
#include "trace/record_queue.h"
#include "trace/trace_reader.h"
#include "trace/trace_writer.h"

#include <gtest/gtest.h>

#include <array>

namespace kestra::trace {
namespace {

using Bytes = std::vector<uint8_t>;

template <class Record>
std::span<const uint8_t> bytesOf(const Record& record) {
    return {reinterpret_cast<const uint8_t*>(&record), sizeof record};
}

/// Keeps the files in memory.
class MemoryFiles final : public TraceFiles {
public:
    bool begin(uint32_t index) noexcept override {
        begun.push_back(index);
        files[index].clear();
        return !refuses;
    }
    bool write(std::span<const uint8_t> bytes) noexcept override {
        ++written;
        files[begun.back()].insert(files[begun.back()].end(), bytes.begin(), bytes.end());
        return !refuses;
    }
    std::array<Bytes, kFiles> files;
    std::vector<uint32_t> begun;
    int written = 0; ///< calls
    bool refuses = false;
};

FileHead someHead() {
    FileHead head{};
    head.trace = 0x1122334455667788;
    head.start100ns = 0x01DC5B0000000000;
    head.version = head.headBytes = head.part = 9; // the writer's to say
    return head;
}

void addRequest(TraceWriter& writer, uint32_t number, uint64_t begin, uint64_t end, Bytes sent, Bytes reply,
                uint32_t error = 0) {
    const SentRecord sentRecord{{uint32_t(sizeof(SentRecord) + sent.size()), RecordKind::Sent, 1, 3, number, begin},
                                0xCE322068,
                                2,
                                77,
                                uint32_t(sent.size()),
                                5};
    writer.add(bytesOf(sentRecord), sent);
    if (end == 0) return;
    const EndedRecord ended{{uint32_t(sizeof(EndedRecord) + reply.size()), RecordKind::Ended, 1, 3, number, end},
                            0xCE322068,
                            error,
                            uint32_t(reply.size())};
    writer.add(bytesOf(ended), reply);
}

TEST(TraceFile, HasTheBytesThatItsDescriptionNames) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    addRequest(writer, 9, 0x0102, 0x0304, {1, 7, 0, 0, 0}, {0, 0, 0, 0, 1}, 5);
    ASSERT_TRUE(writer.flush());
    const Bytes expected = {
        'K',  'E',  'S',  'T',  'R',  'A',  'T',  'R',  1,  0, 0, 0, 40, 0, 0, 0,             // magic, version, head
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0,  0, 0, 0, 0,  0, 0, 0,             // trace, part
        0,    0,    0,    0,    0,    0x5B, 0xDC, 0x01,                                       // start
        45,   0,    0,    0,    1,    1,    3,    0,    9,  0, 0, 0, 2,  1, 0, 0, 0, 0, 0, 0, // sent: port 1, thread 3
        0x68, 0x20, 0x32, 0xCE, 2,    0,    0,    0,    77, 0, 0, 0, 5,  0, 0, 0, 5, 0, 0, 0, // code, opening, sizes
        1,    7,    0,    0,    0,                                                            //
        37,   0,    0,    0,    2,    1,    3,    0,    9,  0, 0, 0, 4,  3, 0, 0, 0, 0, 0, 0, // ended
        0x68, 0x20, 0x32, 0xCE, 5,    0,    0,    0,    5,  0, 0, 0, 0,  0, 0, 0, 1};
    EXPECT_EQ(files.files[0], expected);
}

TEST(TraceFile, GivesBackRequestsInTheOrderOfTheirBeginningsWithWhatBelongsToThem) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    addRequest(writer, 2, 300, 0, {1}, {});
    addRequest(writer, 1, 100, 200, {1, 2}, {3, 4, 5});
    const EventRecord event{
        {sizeof(EventRecord), RecordKind::Event, 0, 4, 1, 150}, EventKind::CallbackBegin, {}, 2, 6, 100, 0xABCD};
    writer.add(bytesOf(event));
    const Bytes frame(100, 0x5A);
    writer.add(bytesOf(ContentRecord{{120, RecordKind::Content, 0, 4, 1, 150}}), frame);
    writer.add(bytesOf(RecordHead{sizeof(RecordHead), RecordKind::Lost, 0, 0, 12, 400}));
    writer.flush();
    const Trace trace = readTrace(std::array{files.files[0]});
    ASSERT_EQ(trace.requests.size(), 2u);
    EXPECT_EQ(trace.requests[0].number, 1u);
    EXPECT_EQ(trace.requests[0].end100ns, 200u);
    EXPECT_EQ(trace.requests[0].reply, (Bytes{3, 4, 5}));
    EXPECT_EQ(trace.requests[0].sent, (Bytes{1, 2}));
    EXPECT_TRUE(trace.requests[0].hasEnded);
    EXPECT_FALSE(trace.requests[1].hasEnded) << "the card has never answered";
    EXPECT_EQ(trace.requests[1].end100ns, 300u);
    ASSERT_EQ(trace.events.size(), 1u);
    EXPECT_EQ(trace.events[0].content, frame);
    EXPECT_EQ(trace.events[0].value, 2u);
    EXPECT_EQ(trace.events[0].frameHash, 0xABCDu);
    EXPECT_EQ(trace.lost, 12u);
    EXPECT_FALSE(trace.isCut);
    EXPECT_EQ(trace.missingParts, 0u);
}

TEST(TraceFile, GivesBackEveryField) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    writer.add(bytesOf(SentRecord{{sizeof(SentRecord), RecordKind::Sent, 1, 3, 9, 100}, 0xCE322068, 4, 5, 6, 7}));
    writer.add(bytesOf(EndedRecord{{sizeof(EndedRecord), RecordKind::Ended, 1, 8, 9, 200}, 0xCE322068, 31, 10}));
    writer.add(bytesOf(
        EventRecord{{sizeof(EventRecord), RecordKind::Event, 1, 11, 12, 150}, EventKind::Opened, {}, 13, 14, 15, 16}));
    writer.flush();
    const Trace trace = readTrace(std::array{files.files[0]});
    EXPECT_EQ(trace.trace, someHead().trace);
    EXPECT_EQ(trace.start100ns, someHead().start100ns);
    ASSERT_EQ(trace.requests.size(), 1u);
    const Request& request = trace.requests[0];
    EXPECT_EQ(request.number, 9u);
    EXPECT_EQ(request.code, 0xCE322068u);
    EXPECT_EQ(request.port, 1u);
    EXPECT_EQ(request.thread, 3u) << "the one that asked, whoever learned of its end";
    EXPECT_EQ(request.opening, 4u);
    EXPECT_EQ(request.threadId, 5u);
    EXPECT_EQ(request.sentBytes, 6u);
    EXPECT_EQ(request.replyRoom, 7u);
    EXPECT_EQ(request.win32Error, 31u);
    EXPECT_EQ(request.replyBytes, 10u);
    EXPECT_TRUE(request.hasBegun && request.hasEnded);
    ASSERT_EQ(trace.events.size(), 1u);
    const Event& event = trace.events[0];
    EXPECT_EQ(event.number, 12u);
    EXPECT_EQ(event.kind, EventKind::Opened);
    EXPECT_EQ(event.port, 1u);
    EXPECT_EQ(event.thread, 11u);
    EXPECT_EQ(event.time100ns, 150u);
    EXPECT_EQ(event.value, 13u);
    EXPECT_EQ(event.opening, 14u);
    EXPECT_EQ(event.frameBytes, 15u);
    EXPECT_EQ(event.frameHash, 16u);
}

TEST(TraceFile, RequestNeverEndsBeforeItBegan) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    addRequest(writer, 1, 300, 200, {}, {}); // a clock that was set back
    writer.flush();
    const Trace trace = readTrace(std::array{files.files[0]});
    ASSERT_EQ(trace.requests.size(), 1u);
    EXPECT_EQ(trace.requests[0].begin100ns, 300u);
    EXPECT_EQ(trace.requests[0].end100ns, 300u);
}

TEST(TraceFile, StaysBelowTheLimitAndKeepsTheOpening) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 4000);
    for (uint32_t i = 1; i <= 200; ++i) {
        addRequest(writer, i, i * 10, i * 10 + 5, Bytes(20), Bytes(30));
        if (i % 3 == 0) writer.flush();
    }
    writer.flush();
    size_t bytes = 0;
    for (const Bytes& file : files.files) {
        EXPECT_LE(file.size(), 1000u);
        EXPECT_GT(file.size(), 500u);
        bytes += file.size();
    }
    EXPECT_LE(bytes, 4000u);
    ASSERT_GT(files.begun.size(), 8u);
    EXPECT_EQ(files.begun[0], 0u);
    for (size_t i = 1; i < files.begun.size(); ++i)
        EXPECT_EQ(files.begun[i], 1 + (i - 1) % 3);
    const Trace trace = readTrace(files.files);
    EXPECT_EQ(trace.requests.front().number, 1u);
    EXPECT_EQ(trace.requests.back().number, 200u);
    EXPECT_EQ(trace.missingParts, files.begun.size() - 4);
    EXPECT_FALSE(trace.isCut);
}

TEST(TraceFile, ARecordLargerThanTheLimitGetsItsOwnFile) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 400);
    addRequest(writer, 1, 1, 2, Bytes(3000), {});
    addRequest(writer, 2, 3, 4, {}, {});
    writer.flush();
    const Trace trace = readTrace(files.files[3].empty() ? std::span<const Bytes>(files.files).first(3)
                                                         : std::span<const Bytes>(files.files));
    EXPECT_EQ(trace.requests.size(), 2u);
}

TEST(TraceFile, AWriterThatTheSystemRefusesStopsAndSaysSo) {
    MemoryFiles files;
    files.refuses = true;
    TraceWriter writer(files, someHead(), 4000);
    addRequest(writer, 1, 1, 2, {}, {});
    EXPECT_FALSE(writer.flush());
    addRequest(writer, 2, 3, 4, {}, {});
    EXPECT_FALSE(writer.flush());
    EXPECT_EQ(files.begun.size(), 1u);
    EXPECT_EQ(files.written, 0) << "into a file that there is not";
}

TEST(TraceFile, IsFilledToItsLimit) {
    constexpr uint64_t kFileLimit = sizeof(FileHead) + 3 * sizeof(RecordHead);
    MemoryFiles files;
    TraceWriter writer(files, someHead(), kFileLimit * kFiles);
    for (uint32_t i = 1; i <= 4; ++i)
        writer.add(bytesOf(RecordHead{sizeof(RecordHead), RecordKind::Lost, 0, 0, 1, i}));
    writer.flush();
    EXPECT_EQ(files.files[0].size(), kFileLimit);
    EXPECT_EQ(files.files[1].size(), sizeof(FileHead) + sizeof(RecordHead));
    EXPECT_EQ(readTrace(std::span<const Bytes>(files.files).first(2)).lost, 4u);
}

TEST(TraceFile, EventsComeBackInTheOrderOfTheirTimes) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    uint32_t number = 0;
    for (const uint32_t time : {300u, 100u, 200u, 200u}) // threads that wrote late
        writer.add(bytesOf(EventRecord{
            {sizeof(EventRecord), RecordKind::Event, 0, 1, ++number, time}, EventKind::Arrival, {}, 0, 0, 0, 0}));
    writer.flush();
    const Trace trace = readTrace(std::array{files.files[0]});
    std::vector<uint32_t> numbers;
    for (const Event& event : trace.events)
        numbers.push_back(event.number);
    EXPECT_EQ(numbers, (std::vector<uint32_t>{2, 3, 4, 1})) << "of one time, as they were written";
}

TEST(TraceFile, WithoutRecordsThereIsNoFile) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 4000);
    EXPECT_TRUE(writer.flush());
    EXPECT_TRUE(files.begun.empty());
}

TEST(TraceReader, AFileThatEndsAnywhereGivesWhatIsWhole) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    addRequest(writer, 1, 100, 200, {1, 2}, {3});
    addRequest(writer, 2, 300, 400, {1, 2}, {3});
    writer.flush();
    const Bytes whole = files.files[0];
    size_t most = 0;
    for (size_t size = sizeof(FileHead); size <= whole.size(); ++size) {
        const Trace trace = readTrace(std::array{Bytes(whole.begin(), whole.begin() + ptrdiff_t(size))});
        EXPECT_GE(trace.requests.size(), most);
        most = trace.requests.size();
    }
    EXPECT_EQ(most, 2u);
    for (size_t size = 0; size < sizeof(FileHead); ++size)
        EXPECT_THROW(headOf(Bytes(whole.begin(), whole.begin() + ptrdiff_t(size))), NoTrace);
}

TEST(TraceReader, ARecordThatClaimsToBeShorterThanItsHeadEndsTheReading) {
    for (const uint8_t length : {0, 1, 19}) {
        MemoryFiles files;
        TraceWriter writer(files, someHead(), 1 << 20);
        addRequest(writer, 1, 100, 200, {}, {});
        writer.flush();
        Bytes damaged = files.files[0];
        damaged[sizeof(FileHead)] = length;
        const Trace trace = readTrace(std::array{damaged});
        EXPECT_TRUE(trace.isCut);
        EXPECT_TRUE(trace.requests.empty());
    }
}

TEST(TraceReader, SaysWhyAFileIsNoTrace) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    addRequest(writer, 1, 100, 200, {}, {});
    writer.flush();
    const auto reasonOf = [](const std::vector<Bytes>& some) -> std::string {
        try {
            readTrace(some);
            return "";
        } catch (const NoTrace& no) {
            return no.what();
        }
    };
    Bytes other = files.files[0];
    other[0] = 'X';
    EXPECT_EQ(reasonOf({other}), "it is no trace");
    other = files.files[0];
    other[8] = 2;
    EXPECT_EQ(reasonOf({other}), "it is a trace of version 2, and only version 1 is known");
    other = files.files[0];
    other[12] = 39;
    EXPECT_EQ(reasonOf({other}), "its head is damaged");
    other[12] = 0;
    other[13] = 1; // 256: more than the file has
    EXPECT_EQ(reasonOf({other}), "its head is damaged");
    EXPECT_EQ(reasonOf({}), "there is no file");
    other = files.files[0];
    other[16] ^= 1;
    EXPECT_EQ(reasonOf({files.files[0], other}), "its files are of different traces");
}

TEST(TraceReader, AHeadThatHasGrownAndAKindThatIsNewAreRead) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    writer.add(bytesOf(RecordHead{sizeof(RecordHead), RecordKind(99), 0, 0, 1, 1}));
    addRequest(writer, 1, 100, 200, {}, {});
    writer.flush();
    Bytes grown = files.files[0];
    grown.insert(grown.begin() + sizeof(FileHead), 8, uint8_t{0xEE});
    grown[12] = 48;
    EXPECT_EQ(readTrace(std::array{grown}).requests.size(), 1u);
}

TEST(TraceReader, SaysHowManyPartsAreMissing) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), kFiles * (sizeof(FileHead) + sizeof(RecordHead)));
    for (uint32_t i = 1; i <= 4; ++i)
        writer.add(bytesOf(RecordHead{sizeof(RecordHead), RecordKind::Lost, 0, 0, 1, i}));
    writer.flush();
    const auto& all = files.files;
    EXPECT_EQ(readTrace(all).missingParts, 0u);
    EXPECT_EQ(readTrace(std::array{all[1], all[2], all[3]}).missingParts, 1u) << "the opening";
    EXPECT_EQ(readTrace(std::array{all[3], all[0]}).missingParts, 2u) << "in any order";
    EXPECT_EQ(readTrace(std::array{all[2], all[0]}).missingParts, 1u);
}

TEST(TraceReader, AnEndWithoutItsBeginningKeepsItsTime) {
    MemoryFiles files;
    TraceWriter writer(files, someHead(), 1 << 20);
    writer.add(bytesOf(EndedRecord{{sizeof(EndedRecord), RecordKind::Ended, 1, 2, 5, 700}, 0xCE322068, 31, 0}));
    writer.flush();
    const Trace trace = readTrace(std::array{files.files[0]});
    ASSERT_EQ(trace.requests.size(), 1u);
    EXPECT_FALSE(trace.requests[0].hasBegun);
    EXPECT_EQ(trace.requests[0].begin100ns, 700u);
    EXPECT_EQ(trace.requests[0].port, 1u);
    EXPECT_EQ(trace.requests[0].code, 0xCE322068u);
}

TEST(FrameHash, IsTheOneThatTracesHold) {
    Bytes bytes(100'000);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = uint8_t(i * 7 + i / 256);
    const auto first = [&](size_t size) { return std::span<const uint8_t>(bytes).first(size); };
    EXPECT_EQ(hashOf(first(0)), 0x4D0A2BBE78B92AB1u);
    EXPECT_EQ(hashOf(first(3)), 0x444E5DB1CC9F0230u);
    EXPECT_EQ(hashOf(first(8)), 0x9B9A2661DF0EEBCEu);
    EXPECT_EQ(hashOf(first(13)), 0xBF7A5BDA9AC566D1u);
    EXPECT_EQ(frameHash(first(4096)), 0xBA4593E86FF3188Au);
    EXPECT_EQ(frameHash(first(4096)), hashOf(first(4096)));
    EXPECT_EQ(frameHash(first(4097)), 0xFB9F56BB88BB4D2Eu);
    EXPECT_EQ(frameHash(bytes), 0x72067A9054A30014u);
}

TEST(FrameHash, SeesTheEndsOfALargeFrameAndEveryByteOfASmallOne) {
    Bytes small(4096, 1);
    const uint64_t before = frameHash(small);
    for (uint8_t& byte : small) {
        byte ^= 1;
        EXPECT_NE(frameHash(small), before);
        byte ^= 1;
    }
    Bytes large(1 << 20, 1);
    const uint64_t hash = frameHash(large);
    for (const size_t at : {size_t{0}, size_t{63}, large.size() - 64, large.size() - 1}) {
        large[at] ^= 1;
        EXPECT_NE(frameHash(large), hash) << at;
        large[at] ^= 1;
    }
    EXPECT_EQ(frameHash(large), hash);
    EXPECT_NE(frameHash(Bytes(4096, 0)), frameHash(Bytes(4095, 0)));
    EXPECT_NE(hashOf(Bytes(8, 0)), hashOf(Bytes(16, 0)));
    EXPECT_NE(hashOf(Bytes(1, 0)), hashOf(Bytes(2, 0))) << "as many zeros more";
}

TEST(RecordQueue, GivesBackWhatWasAddedAndCountsWhatFoundNoRoom) {
    RecordQueue queue(64);
    const Bytes one = {1, 2, 3}, two = {4, 5};
    EXPECT_TRUE(queue.add(one, two)); // 16 bytes of the ring
    EXPECT_TRUE(queue.add(Bytes(40, 9)));
    EXPECT_FALSE(queue.add(Bytes{1}));
    EXPECT_FALSE(queue.add(Bytes(60)));
    std::vector<Bytes> taken;
    const auto take = [&](std::span<const uint8_t> bytes) { taken.emplace_back(bytes.begin(), bytes.end()); };
    queue.drain(take);
    EXPECT_EQ(taken, (std::vector<Bytes>{{1, 2, 3, 4, 5}, Bytes(40, 9)}));
    EXPECT_EQ(queue.takeLost(), 2u);
    EXPECT_EQ(queue.takeLost(), 0u);
    taken.clear();
    queue.drain(take);
    EXPECT_TRUE(taken.empty());
}

TEST(RecordQueue, TakesOneEntryAsLargeAsItself) {
    RecordQueue queue(64);
    size_t size = 0;
    for (int round = 0; round < 3; ++round) {
        EXPECT_FALSE(queue.add({})) << "nothing is no entry";
        EXPECT_FALSE(queue.add(Bytes(57)));
        EXPECT_TRUE(queue.add(Bytes(56, 1)));
        queue.drain([&](std::span<const uint8_t> bytes) { size = bytes.size(); });
        EXPECT_EQ(size, 56u);
    }
    EXPECT_EQ(queue.takeLost(), 6u);
    EXPECT_TRUE(queue.add(Bytes{1}));
}

TEST(RecordQueue, GoesAroundItsEndWithEntriesOfAnySize) {
    RecordQueue queue(256);
    uint8_t next = 0;
    for (int round = 0; round < 1000; ++round) {
        std::vector<Bytes> added;
        for (size_t size = 1 + size_t(round) % 90; queue.add(Bytes(size, ++next)); size = size % 37 + 1)
            added.emplace_back(size, next);
        ASSERT_FALSE(added.empty()) << round;
        std::vector<Bytes> taken;
        queue.drain([&](std::span<const uint8_t> bytes) { taken.emplace_back(bytes.begin(), bytes.end()); });
        ASSERT_EQ(taken, added) << round;
    }
}

} // namespace
} // namespace kestra::trace
