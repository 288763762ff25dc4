// Line formats, severity names, source paths, module hash: whole lines, compared to the letter.
#include "log/engine.h"
#include "log/line_format.h"

#include <gtest/gtest.h>

#include <string>

using namespace kestra;

namespace {

LogRecord sample() {
    LogRecord r;
    r.processId = 4321;
    r.threadId = 0x1F;
    r.timeText = "07.03.2026 09:05:07.5";
    r.group = "\"Grabbing Functions\"";
    r.moduleTag = "TARNIS";
    r.sourceFile = L".\\TARNIS_grab.cpp";
    r.functionName = "TARNIS_StartGrab";
    r.line = 118;
    r.severity = LOG_ERROR;
    r.code = 253;
    r.message = L"No DMA Access!";
    return r;
}

std::wstring line(uint32_t detail, const LogRecord& record, LineContext context = {0x1F00000012345, -1}) {
    std::wstring buffer(kLineCapacity, L'#');
    const size_t length = formatLine(buffer.data(), detail, record, context);
    EXPECT_EQ(buffer[length], L'\0');
    return buffer.substr(0, length);
}

std::wstring shortened(const wchar_t* path) {
    LogRecord r = sample();
    r.sourceFile = path;
    const std::wstring whole = line(3, r);
    EXPECT_EQ(whole.substr(0, 2), L"F=");
    return whole.substr(2, whole.find(L',') - 2);
}

std::wstring severityName(uint32_t severity) {
    LogRecord r = sample();
    r.severity = severity;
    const std::wstring whole = line(1, r);
    return whole.substr(0, whole.find(L':'));
}

} // namespace

TEST(LogLine, LevelOneIsSeverityCodeAndMessage) {
    EXPECT_EQ(line(1, sample()), L"ERROR: 253; No DMA Access!");
}

TEST(LogLine, LevelTwoNamesItsFields) {
    EXPECT_EQ(line(2, sample()), L"SV=ERROR; CD=253; MSG=No DMA Access!");
}

TEST(LogLine, LevelThreeAddsTheSource) {
    EXPECT_EQ(line(3, sample()), L"F=.\\TARNIS_grab.cpp,TARNIS_StartGrab,118; SV=ERROR; CD=253; MSG=No DMA Access!");
}

TEST(LogLine, LevelFourAddsIdentifierLengthProcessAndTime) {
    EXPECT_EQ(line(4, sample()), L"{1F00000012345}; ML=14; PT=4321:31; TM=07.03.2026 09:05:07.5; "
                                 L"F=.\\TARNIS_grab.cpp,TARNIS_StartGrab,118; SV=ERROR; CD=253; MSG=No DMA Access!");
}

TEST(LogLine, LevelFiveAddsNestingAndModule) {
    EXPECT_EQ(line(5, sample()),
              L"{1F00000012345}; ML=14; PT=4321:31; NL=-1; TM=07.03.2026 09:05:07.5; MN=\"Grabbing Functions\",TARNIS; "
              L"F=.\\TARNIS_grab.cpp,TARNIS_StartGrab,118; SV=ERROR; CD=253; MSG=No DMA Access!");
}

TEST(LogLine, AnyOtherLevelIsEmpty) {
    for (const uint32_t detail : {0u, 6u, 0xFFFFFFFFu})
        EXPECT_EQ(line(detail, sample()), L"");
}

TEST(LogLine, NegativeAndExtremeNumbersPrintInSignedDecimal) {
    LogRecord r = sample();
    r.code = -1;
    EXPECT_EQ(line(1, r), L"ERROR: -1; No DMA Access!");
    r.code = INT32_MIN;
    EXPECT_EQ(line(1, r), L"ERROR: -2147483648; No DMA Access!");
    r.processId = 0xFFFFFFFF;
    r.threadId = 0x80000000;
    EXPECT_NE(line(4, r).find(L"PT=-1:-2147483648;"), std::wstring::npos);
}

TEST(LogLine, IdentifierPrintsInUpperCaseHexadecimalWithoutPadding) {
    EXPECT_EQ(line(4, sample(), {0xABCDEF, 0}).substr(0, 9), L"{ABCDEF};");
    EXPECT_EQ(line(4, sample(), {0, 0}).substr(0, 4), L"{0};");
    EXPECT_EQ(line(4, sample(), {~uint64_t{0}, 0}).substr(0, 19), L"{FFFFFFFFFFFFFFFF};");
}

TEST(LogLine, LongLineIsCutAtTheLastCharacterOfTheBuffer) {
    LogRecord r = sample();
    const std::string longName(5000, 'f');
    r.functionName = longName.c_str();
    const std::wstring cut = line(3, r);
    EXPECT_EQ(cut.size(), kLineCapacity - 1);
    EXPECT_EQ(cut.back(), L'f');
}

TEST(LogLine, LineBreaksBecomeSpaces) {
    LogRecord r = sample();
    r.message = L"a\rb\nc\vd\fe\u0085f\u2028g\u2029h\ti";
    r.functionName = "f\r\nSV=ERROR";
    EXPECT_EQ(line(3, r), L"F=.\\TARNIS_grab.cpp,f  SV=ERROR,118; SV=ERROR; CD=253; MSG=a b c d e f g h\ti");
    EXPECT_NE(line(4, r).find(L"; ML=17; "), std::wstring::npos) << "the length of the message stays";
}

TEST(LogSeverityName, FiveAndSixAreMandatoryAndMoreIsBad) {
    const std::wstring names[] = {L"DEBUG", L"TRACE", L"NOTICE", L"WARNING", L"ERROR", L"MANDATORY", L"MANDATORY"};
    for (uint32_t severity = 0; severity < 7; ++severity)
        EXPECT_EQ(severityName(severity), names[severity]);
    EXPECT_EQ(severityName(7), L"bad severity");
    EXPECT_EQ(severityName(0xFFFFFFFF), L"bad severity");
}

TEST(LogSeverityName, SixPrintsMandatoryAndNinePrintsBadSeverity) {
    LogRecord r = sample();
    r.severity = 6;
    EXPECT_EQ(line(2, r), L"SV=MANDATORY; CD=253; MSG=No DMA Access!");
    r.severity = 9;
    EXPECT_EQ(line(2, r), L"SV=bad severity; CD=253; MSG=No DMA Access!");
}

TEST(LogSourcePath, WithASingleBackslashStaysWhole) {
    EXPECT_EQ(shortened(L".\\TARNIS_grab.cpp"), L".\\TARNIS_grab.cpp");
    EXPECT_EQ(shortened(L"TARNIS_grab.cpp"), L"TARNIS_grab.cpp");
    EXPECT_EQ(shortened(L""), L"");
}

TEST(LogSourcePath, IsCutToTheLastDirectoryAndTheFile) {
    EXPECT_EQ(shortened(L"a\\b\\c\\d"), L"c\\d");
    EXPECT_EQ(shortened(L"C:\\grab.cpp\\"), L"grab.cpp\\");
    EXPECT_EQ(shortened(L"\\a\\b"), L"a\\b");
}

TEST(LogSourcePath, OnlyItsFirst259CharactersCount) {
    const std::wstring path = L"a\\b\\" + std::wstring(400, L'x');
    EXPECT_EQ(shortened(path.c_str()), L"b\\" + std::wstring(255, L'x'));
}

TEST(LogModuleHash, IsTimes31OverBothHalvesInHexadecimal) {
    const auto expected = [](const char* text) {
        uint32_t hash = 0;
        for (; *text; ++text)
            hash = hash * 31 + static_cast<uint32_t>(*text);
        return hash;
    };
    EXPECT_EQ(logModuleHash(0x0000000140000000), expected("140000000"));
    EXPECT_EQ(logModuleHash(0x00007FFF12AB0000), expected("7fff12ab0000"));
    EXPECT_EQ(logModuleHash(0), expected("00"));
    EXPECT_EQ(logModuleHash(0xFFFFFFFF), expected("0ffffffff"));
}
