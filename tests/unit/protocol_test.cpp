// The numbers of the protocol: request codes and sizes, geometry of raw frames, rates, the interface class.
#include "protocol/card_interface.h"
#include "protocol/converter.h"
#include "protocol/frame_rate.h"
#include "protocol/raw_frame.h"
#include "protocol/registers.h"
#include "protocol/request_fields.h"
#include "protocol/requests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <set>
#include <string>

namespace kestra {
namespace {

TEST(Requests, HaveTheCodesAndSizesThatTheDriverKnows) {
    const struct {
        uint32_t code, sentBytes, replyBytes;
        const char* name;
    } kKnown[] = {
        {0xCE322040, 5, 8, "open session"},
        {0xCE322044, 5, 4, "session watch"},
        {0xCE32204C, 5, 520, "slot information"},
        {0xCE322058, 5, 10, "video status"},
        {0xCE322060, 9, 4, "channel access"},
        {0xCE322068, 5, 5, "connection"},
        {0xCE32206C, 13, 4, "register input event"},
        {0xCE3220C0, 5, 12, "format size"},
        {0xCE3220C4, 5, 80, "grab statistics"},
        {0xCE322100, 7, 6, "read register"},
        {0xCE32210C, 58, 4, "set converter"},
        {0xCE322110, 5, 57, "get converter"},
        {0xCE322600, 14, 8, "prepare"},
        {0xCE322606, 0, 0, "lock DMA chunk"},
        {0xCE32260E, 0, 0, "chunk table"},
        {0xCE322614, 9, 4, "start grabbing"},
        {0xCE322618, 5, 4, "stop grabbing"},
        {0xCE32261E, 0, 0, "snap"},
        {0xCE322630, 5, 49, "lock buffer"},
        {0xCE322634, 9, 4, "unlock buffer"},
    };
    ASSERT_EQ(std::size(wire::kRequests), std::size(kKnown));
    for (const auto& known : kKnown) {
        SCOPED_TRACE(known.name);
        const wire::RequestShape* shape = wire::shapeOf(known.code);
        ASSERT_NE(shape, nullptr);
        EXPECT_EQ(shape->sentBytes, known.sentBytes);
        EXPECT_EQ(shape->replyBytes, known.replyBytes);
        EXPECT_STREQ(wire::requestName(known.code), known.name);
    }
    EXPECT_STREQ(wire::requestName(0xCE32260A), "lock DMA chunk") << "of port 1";
    EXPECT_STREQ(wire::requestName(0xCE322612), "chunk table") << "of port 1";
    EXPECT_EQ(wire::LockChunk::codeOf(1), 0xCE32260Au);
    EXPECT_EQ(wire::ChunkTable::codeOf(1), 0xCE322612u);
    EXPECT_EQ(wire::Snap::codeOf(1), 0xCE32261Eu) << "always port 0";
    EXPECT_STREQ(wire::requestName(0xCE322048), "unknown");
}

TEST(Requests, OnlyOpeningAndSlotInformationNeedNoSession) {
    std::set<std::string> without;
    for (const wire::RequestShape& shape : wire::kRequests)
        if (shape.sentBytes != 0 && !shape.session) without.insert(shape.name);
    EXPECT_EQ(without, (std::set<std::string>{"open session", "slot information"}));
}

TEST(RawFrame, LinesAreWordsOrPaddedToFourBytes) {
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_10, 1920), 5120u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_10, 1), 8u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_8, 1), 4u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_RGB24, 1), 4u);
    EXPECT_EQ(rawLineBytes(3, 1920), 0u);
    EXPECT_EQ(rawFrameBytes(TARNIS_OUTPUT_YUV422_8, 1920, 1080), 4147200u);
    EXPECT_EQ(rawFrameBytes(TARNIS_OUTPUT_YUV422_8, 0xFFFF, 32769), 0x100020000u) << "more than 32 bits hold";
}

TEST(RawFrame, FieldsWeaveAndUnweaveForEveryHeight) {
    for (uint32_t height = 1; height < 12; ++height) {
        SCOPED_TRACE(height);
        const uint32_t second = firstFieldLines(height);
        EXPECT_EQ(second, height / 2 + height % 2) << "the odd line is the first field's";
        std::set<uint32_t> lines;
        for (uint32_t raw = 0; raw < height; ++raw) {
            const uint32_t line = wovenLine(raw, second);
            EXPECT_LT(line, height);
            EXPECT_EQ(line % 2 == 0, raw < second);
            EXPECT_EQ(rawLineOf(line, second), raw);
            lines.insert(line);
        }
        EXPECT_EQ(lines.size(), height);
    }
}

TEST(FrameRate, FollowsFromMeasuredRateAndInputRegister) {
    EXPECT_EQ(rateOfMeasured(0, 0), 0);
    EXPECT_EQ(rateOfMeasured(23, 0), 0);
    EXPECT_EQ(rateOfMeasured(24, 0), 25);
    EXPECT_EQ(rateOfMeasured(24, 1u << 13), 24);
    EXPECT_EQ(rateOfMeasured(25, 1u << 13), 24);
    EXPECT_EQ(rateOfMeasured(29, 1u << 13), 30);
    EXPECT_EQ(rateOfMeasured(25, 1u << 11), 50);
    EXPECT_EQ(rateOfMeasured(60, 0), 60);
}

TEST(FrameRate, OneStandardMeansTwentyFour) {
    TarnisCameraStatus status{};
    status.frameRate = 50;
    EXPECT_EQ(reportedRate(status), 50u);
    status.videoMode = 16;
    EXPECT_EQ(reportedRate(status), 24u);
    EXPECT_EQ(framesOfRate(50, true), 25u);
    EXPECT_EQ(framesOfRate(50, false), 50u);
    EXPECT_FALSE(isSettling(253));
    EXPECT_TRUE(isSettling(254));
    EXPECT_TRUE(isSettling(255));
    EXPECT_FALSE(isSettling(256));
}

TEST(RawFrame, RgbLinesArePaddedToFourBytes) {
    for (uint32_t width = 0; width < 20; ++width) {
        EXPECT_GE(rgbLineBytes(width), width * 3);
        EXPECT_LT(rgbLineBytes(width), width * 3 + 4);
        EXPECT_EQ(rgbLineBytes(width) % 4, 0u);
    }
}

TEST(Converter, OffsetsAreSignAndMagnitudeOnTheCard) {
    for (int value = -127; value <= 127; ++value) {
        const uint8_t onCard = wire::offsetToWire(int8_t(value));
        EXPECT_EQ(onCard & 0x7F, value < 0 ? -value : value);
        EXPECT_EQ(onCard >> 7, value < 0);
        EXPECT_EQ(wire::offsetFromWire(onCard), value);
    }
    EXPECT_EQ(wire::offsetFromWire(0x80), 0) << "the card's minus 0, which -128 becomes";
    EXPECT_EQ(wire::offsetToWire(-128), 0x80);
}

TEST(Converter, ValuesBeyondTheCardsNumbersAreItsLeast) {
    constexpr int32_t kLeast = std::numeric_limits<int32_t>::min();
    EXPECT_EQ(wire::fixedToWire(8388607.5f), 2147483520);
    EXPECT_EQ(wire::fixedToWire(8388608.0f), kLeast);
    EXPECT_EQ(wire::fixedToWire(-8388608.0f), kLeast);
    EXPECT_EQ(wire::fixedToWire(-8388609.0f), kLeast);
    EXPECT_EQ(wire::fixedToWire(std::numeric_limits<float>::quiet_NaN()), kLeast);
    EXPECT_EQ(wire::fixedToWire(-1.164f), -297) << "toward zero";
}

TEST(RequestFields, AreThoseOfTheirRequestAndFillIt) {
    for (const wire::RequestShape& shape : wire::kRequests) {
        SCOPED_TRACE(shape.name);
        const wire::RequestFields& fields = wire::fieldsOf(shape.code);
        EXPECT_EQ(fields.code, shape.code);
        size_t sent = 0, reply = 0;
        for (const wire::Field& field : fields.sent)
            sent += field.bytes;
        for (const wire::Field& field : fields.reply)
            reply += field.bytes;
        if (shape.sentBytes != 0) {
            EXPECT_EQ(sent, shape.sentBytes);
            EXPECT_EQ(reply, shape.replyBytes);
        }
    }
    EXPECT_EQ(&wire::fieldsOf(0xCE322048), &wire::kNoFields);
    EXPECT_EQ(wire::fieldsOf(wire::ChunkTable::codeOf(1)).repeated.size(), wire::FieldsOf<wire::Chunk>::kAll.size());
}

TEST(RequestFields, ClearsWhatIsThereOfTheChosenKinds) {
    const wire::Field fields[] = {{"a", 0, 2, wire::FieldKind::Value, false, false, false},
                                  {"b", 2, 2, wire::FieldKind::Own, false, false, false},
                                  {"c", 4, 4, wire::FieldKind::Count, false, false, false}};
    const auto cleared = [&](size_t size, std::initializer_list<wire::FieldKind> kinds) {
        std::string record(size + 8, 'x'); // and a guard
        wire::clearFields(std::span(reinterpret_cast<uint8_t*>(record.data()), size), fields, kinds);
        for (char& c : record)
            if (c == '\0') c = '0';
        return record;
    };
    EXPECT_EQ(cleared(8, {wire::FieldKind::Own}), "xx00xxxxxxxxxxxx");
    EXPECT_EQ(cleared(8, {wire::FieldKind::Own, wire::FieldKind::Count}), "xx000000xxxxxxxx");
    EXPECT_EQ(cleared(6, {wire::FieldKind::Count}), "xxxx00xxxxxxxx") << "cut in a field";
    EXPECT_EQ(cleared(4, {wire::FieldKind::Count}), "xxxxxxxxxxxx");
    EXPECT_EQ(cleared(3, {wire::FieldKind::Own}), "xx0xxxxxxxx");
    EXPECT_EQ(cleared(3, {wire::FieldKind::Count}), "xxxxxxxxxxx") << "a field that is not there";
}

TEST(CardInterface, IsTheClassOfTheDriver) {
    const uint8_t kBytes[16] = {0xe4, 0x25, 0xde, 0xed, 0x80, 0x99, 0x76, 0x48,
                                0x92, 0x17, 0xad, 0x8a, 0xa1, 0xb9, 0x2a, 0x03};
    EXPECT_EQ(std::memcmp(&kCardInterface, kBytes, sizeof kBytes), 0);
    struct Guid {
        uint32_t Data1;
        uint16_t Data2, Data3;
        uint8_t Data4[8];
    };
    const auto guid = asGuid<Guid>(kCardInterface);
    EXPECT_EQ(std::memcmp(&guid, kBytes, sizeof kBytes), 0);
}

} // namespace
} // namespace kestra
