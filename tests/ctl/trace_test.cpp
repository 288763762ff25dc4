// trace: programs are recorded, one trace each, and what was recorded is shown, summed up, drawn and compared; and what
// is said of files that are none.
#include "ctl/trace_files.h"
#include "tests/ctl/ctl_test.h"
#include "tests/support/wait_until.h"

#include <algorithm>
#include <set>

namespace kestra::test {
namespace {

using nlohmann::json;
using simcard::CardControl;
using simcard::Pace;
using simcard::Signal;
using simcard::StopBehaviour;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr Signal kSmall = {1, 0, 0, 9, 0, 0, 64, 16, 0, 60, 1, 0};
constexpr size_t kSmallFrame = 64 * 16 * 2;

std::string bytesOf(const std::wstring& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

class Trace : public CtlTest {
protected:
    void SetUp() override {
        CtlTest::SetUp();
        m_second.reset();
        for (const CardControl* card : {&m_card, &m_second}) {
            card->setSignal(kSmall);
            card->setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0});
        }
        useFolder("traces");
    }
    void TearDown() override {
        m_second.reset();
        CtlTest::TearDown();
    }
    void start(const std::string& options = "") const {
        const ProgramResult result = ctl("trace start " + m_traces.string() + " " + options);
        ASSERT_EQ(result.exitCode, 0u) << result.error;
    }
    /// A program that takes so many frames.
    std::string captureCommand(const std::string& options) const {
        return "capture " + file("film" + std::to_string(++m_films) + ".y4m") + " --sound none " + options;
    }
    ProgramResult capture(const std::string& options) const { return ctl(captureCommand(options)); }
    /// The first files of all traces, oldest first.
    std::vector<std::string> traces() const {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(m_traces))
            if (entry.path().stem().extension().empty()) found.insert(entry.path().string());
        return {found.begin(), found.end()};
    }
    /// Where traces are written from the next start on.
    void useFolder(const char* name) {
        m_traces = m_folder / name;
        std::filesystem::create_directories(m_traces);
    }
    /// The one trace of a program that has taken a few frames.
    std::string recorded(const std::string& options = "--frames 5") const {
        start();
        EXPECT_EQ(capture(options).exitCode, 0u);
        EXPECT_EQ(ctl("trace stop").exitCode, 0u);
        const std::vector<std::string> all = traces();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? "" : all.front();
    }
    std::string cut(const std::string& trace, size_t bytes) const {
        const std::string whole = readWholeFile(trace).substr(0, bytes), name = file("cut.ktrace");
        std::ofstream(name, std::ios::binary).write(whole.data(), std::streamsize(whole.size()));
        return name;
    }

    CardControl m_second{1};
    std::filesystem::path m_traces;

private:
    mutable int m_films = 0;
    const KeptKey m_log{kLogKey};
};

size_t count(const std::string& text, const std::string& what) {
    size_t found = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size())
        ++found;
    return found;
}

std::vector<json> linesOf(const std::string& text) {
    std::vector<json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        expectSchema("trace", line);
        lines.push_back(json::parse(line, nullptr, false));
    }
    return lines;
}

} // namespace

TEST_F(Trace, IsOffUntilItIsStartedAndAfterItIsStopped) {
    EXPECT_EQ(ctl("trace status").output, "  recording     no\n  last trace    none\n");
    EXPECT_EQ(capture("--frames 1").exitCode, 0u);
    EXPECT_TRUE(traces().empty());
    const ProgramResult started = ctl("trace start " + m_traces.string() + " --frames 2 --megabytes 5");
    EXPECT_EQ(started.exitCode, 0u) << started.error;
    EXPECT_EQ(started.output, "  recording     programs that open a card from now on\n"
                              "  folder        " +
                                  m_traces.string() +
                                  "\n"
                                  "  frames        the first 2 kept\n"
                                  "  limit         5 MB a trace\n"
                                  "  last trace    none\n");
    const ProgramResult status = ctl("trace status --json");
    expectSchema("trace", status.output);
    EXPECT_EQ(json::parse(status.output)["folder"], m_traces.string());
    EXPECT_EQ(json::parse(status.output)["frames"], 2);
    EXPECT_EQ(json::parse(status.output)["megabytes"], 5);
    EXPECT_TRUE(json::parse(status.output)["last"].is_null());
    EXPECT_EQ(capture("--frames 1").exitCode, 0u);
    ASSERT_EQ(traces().size(), 1u);
    const ProgramResult stopped = ctl("trace stop");
    EXPECT_EQ(stopped.exitCode, 0u);
    EXPECT_EQ(stopped.output, "  recording     no\n  last trace    " + traces()[0] + "\n")
        << "its folder is remembered";
    EXPECT_EQ(capture("--frames 1").exitCode, 0u);
    EXPECT_EQ(traces().size(), 1u);
    EXPECT_EQ(json::parse(ctl("trace stop --json").output)["last"], traces()[0]) << "stopping twice is fine";
}

TEST_F(Trace, ShowsEachRequestAndEventInTextAndJson) {
    const std::string trace = recorded();
    const ProgramResult text = ctl("trace show " + trace);
    EXPECT_EQ(text.exitCode, 0u);
    EXPECT_EQ(text.error, "");
    EXPECT_THAT(text.output, testing::StartsWith("  begin s     gap ms  took ms thread port\n"));
    EXPECT_THAT(text.output, HasSubstr("format size          -> result=0 width=64 height=16\n"));
    EXPECT_THAT(text.output, HasSubstr("* opened\n"));
    EXPECT_THAT(text.output, HasSubstr("* callback begins: good, 2048 bytes, hash "));
    EXPECT_THAT(text.output, HasSubstr("* closed\n"));
    const ProgramResult shown = ctl("trace show --json " + trace);
    EXPECT_EQ(shown.exitCode, 0u);
    const std::vector<json> lines = linesOf(shown.output);
    EXPECT_EQ(lines.size() + 1, count(text.output, "\n"));
    uint64_t last = 0;
    size_t requests = 0, callbacks = 0;
    for (const json& line : lines) {
        EXPECT_GE(line["begin100ns"], last) << "oldest first";
        last = line["begin100ns"];
        requests += line["entry"] == "request";
        if (line["name"] != "callback begins") continue;
        ++callbacks;
        EXPECT_EQ(line["frameBytes"], kSmallFrame);
        EXPECT_EQ(line["kept"], false) << "nobody asked for it";
    }
    EXPECT_GE(callbacks, 5u);
    EXPECT_GT(requests, 20u);
}

TEST_F(Trace, ShowNamesEveryChunkOfATableInJsonToo) {
    m_card.setSignal({1, 0, 0, 9, 0, 0, 1920, 1080, 0, 60, 1, 0});
    const std::string trace = recorded();
    const std::vector<json> lines = linesOf(ctl("trace show --json " + trace).output);
    const auto table =
        std::find_if(lines.begin(), lines.end(), [](const json& line) { return line["name"] == "chunk table"; });
    ASSERT_NE(table, lines.end());
    const json sent = (*table)["sent"];
    EXPECT_EQ(sent["chunkCount"], std::to_string(sent["chunks"].size()));
    for (const json& chunk : sent["chunks"])
        EXPECT_THAT(chunk["address"].get<std::string>(), testing::StartsWith("0x"));
}

TEST_F(Trace, StatSumsUp) {
    const std::string trace = recorded();
    const ProgramResult text = ctl("trace stat " + trace);
    EXPECT_EQ(text.exitCode, 0u);
    EXPECT_EQ(text.error, "");
    EXPECT_THAT(text.output, HasSubstr("request               port   count    p50 ms    p90 ms    p99 ms   most ms"));
    EXPECT_THAT(text.output, ContainsRegex("\nport 0: \\d+ frames, one every "));
    EXPECT_THAT(text.output, HasSubstr("\nslowest:\n"));
    const ProgramResult stat = ctl("trace stat --json " + trace);
    expectSchema("trace", stat.output);
    const json summed = json::parse(stat.output);
    EXPECT_GE(summed["frames"][0]["good"], 5);
    EXPECT_EQ(summed["frames"][0]["overrun"], 0);
    for (const json& request : summed["requests"])
        EXPECT_LE(request["latency100ns"]["p50"], request["latency100ns"]["most"]) << request;
}

TEST_F(Trace, PlotWritesAPage) {
    const std::string trace = recorded();
    const ProgramResult plot = ctl("trace plot " + trace + " --html " + file("page.html"));
    EXPECT_EQ(plot.exitCode, 0u) << plot.error;
    const std::string page = readWholeFile(file("page.html"));
    EXPECT_THAT(page, testing::StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("\"open session\""));
    EXPECT_THAT(page, Not(HasSubstr(m_traces.string()))) << "the page is passed on as well";
    EXPECT_THAT(ctl("trace plot " + trace + " --html -").output, testing::StartsWith("<!DOCTYPE html>"));
    expectFailure(ctl("trace plot " + trace + " --html " + file("no/such/page.html")), 1,
                  file("no/such/page.html") + " cannot be written: Path not found (3)", "make the folder first");
}

TEST_F(Trace, DiffTellsTheSameFromAnotherByItsExitCode) {
    const std::string first = recorded();
    useFolder("second");
    const std::string second = recorded("--frames 8");
    useFolder("third");
    const std::string third = recorded("--frames 5 --depth 10");
    const ProgramResult same = ctl("trace diff " + first + " " + second);
    EXPECT_EQ(same.exitCode, 0u) << same.output;
    EXPECT_THAT(same.output, HasSubstr("; only times differ\n"));
    EXPECT_THAT(same.output, ContainsRegex("\nunlock buffer     0 "));
    const ProgramResult other = ctl("trace diff " + first + " " + third);
    EXPECT_EQ(other.exitCode, 1u);
    EXPECT_THAT(other.output, HasSubstr("\n- prepare port=0 selector=1 "));
    EXPECT_EQ(other.error, "");
    const ProgramResult asJson = ctl("trace diff --json " + first + " " + third);
    EXPECT_EQ(asJson.exitCode, 1u);
    expectSchema("trace", asJson.output);
    EXPECT_EQ(json::parse(asJson.output)["same"], false);
    EXPECT_FALSE(json::parse(asJson.output)["differences"].empty());
}

TEST_F(Trace, TwoProgramsAtOnceWriteOneTraceEach) {
    start();
    const auto command = [this](const std::string& options) { return ctlCommand(captureCommand(options)); };
    ChildProgram first(command("--frames 200")), second(command("--frames 200 --card 1"));
    EXPECT_EQ(first.finish().exitCode, 0u);
    EXPECT_EQ(second.finish().exitCode, 0u);
    ASSERT_EQ(traces().size(), 2u);
    for (const std::string& trace : traces()) {
        const ProgramResult stat = ctl("trace stat --json " + trace);
        EXPECT_EQ(stat.error, "") << "nothing is missing in it";
        EXPECT_GE(json::parse(stat.output)["frames"][0]["good"], 200);
    }
}

TEST_F(Trace, KeepsTheFramesThatWereAskedForAndNoOthers) {
    start("--frames 3");
    EXPECT_EQ(capture("--frames 10").exitCode, 0u);
    const std::string trace = traces().at(0);
    EXPECT_EQ(count(ctl("trace show " + trace).output, ", kept\n"), 3u);
    size_t kept = 0;
    const trace::Trace read = ctl::loadTrace(trace);
    for (const trace::Event& event : read.events)
        if (!event.content.empty()) {
            ++kept;
            EXPECT_EQ(event.content.size(), kSmallFrame);
            EXPECT_EQ(trace::frameHash(event.content), event.frameHash);
        }
    EXPECT_EQ(kept, 3u);
}

TEST_F(Trace, StaysBelowItsLimitInFourFilesAndSaysWhatIsMissing) {
    start("--megabytes 1");
    ASSERT_EQ(capture("--frames 6000").exitCode, 0u);
    const std::vector<std::string> files = ctl::filesOfTrace(traces().at(0));
    ASSERT_EQ(files.size(), 4u);
    uintmax_t bytes = 0;
    for (const std::string& file : files) {
        EXPECT_LE(std::filesystem::file_size(file), 250'000u) << file;
        bytes += std::filesystem::file_size(file);
    }
    EXPECT_GT(bytes, 600'000u);
    const ProgramResult shown = ctl("trace show " + files[0]);
    EXPECT_EQ(shown.exitCode, 0u);
    EXPECT_THAT(shown.error, ContainsRegex("^\\d+ files? of the trace \\w+ missing: it had grown beyond its limit\n$"));
    EXPECT_THAT(shown.output, HasSubstr("open session         -> result=0")) << "the first file stays";
    EXPECT_THAT(shown.output, HasSubstr("* closed\n")) << "and the last one is there";
}

TEST_F(Trace, AnotherTracesFileThatLiesBesideOneIsNotTakenForItsOwn) {
    const std::string first = recorded();
    std::filesystem::copy_file(first, file("a.ktrace"));
    useFolder("second");
    std::filesystem::copy_file(recorded(), file("a.1.ktrace"));
    const ProgramResult shown = ctl("trace show " + file("a.ktrace"));
    EXPECT_EQ(shown.error, "");
    EXPECT_EQ(shown.output, ctl("trace show " + first).output);
}

TEST_F(Trace, SaysOfAFileWhyItCannotBeRead) {
    const std::string trace = recorded();
    const std::string whole = readWholeFile(trace);
    const std::string asksStatus = "kestra-ctl trace status names the last trace";
    for (const std::string& verb :
         std::vector<std::string>{"show ", "stat ", "plot --html - ", "show --json ", "diff " + trace + " "}) {
        expectFailure(ctl("trace " + verb + file("none.ktrace")), 1,
                      file("none.ktrace") + " cannot be read: File not found (2)",
                      "check its name and that you may read it");
        std::ofstream(file("text.ktrace")) << "no trace, but a text that is long enough to have a head in it";
        expectFailure(ctl("trace " + verb + file("text.ktrace")), 1,
                      file("text.ktrace") + " cannot be read: it is no trace", asksStatus);
        expectFailure(ctl("trace " + verb + cut(trace, 39)), 1, cut(trace, 39) + " cannot be read: it is no trace",
                      asksStatus);
    }
    std::string later = whole;
    later[8] = 2;
    std::ofstream(file("later.ktrace"), std::ios::binary).write(later.data(), std::streamsize(later.size()));
    expectFailure(ctl("trace show " + file("later.ktrace")), 1,
                  file("later.ktrace") + " cannot be read: it is a trace of version 2, and only version 1 is known",
                  asksStatus);
    const ProgramResult half = ctl("trace show " + cut(trace, whole.size() / 2 + 1));
    EXPECT_EQ(half.exitCode, 0u) << "what is whole is shown";
    EXPECT_EQ(half.error, "a file ends within a record: its program ended there\n");
    EXPECT_THAT(half.output, HasSubstr("open session         -> result=0"));
    const ProgramResult empty = ctl("trace stat " + cut(trace, 40));
    EXPECT_EQ(empty.exitCode, 0u);
    EXPECT_THAT(empty.output, HasSubstr("0 events"));
    EXPECT_EQ(ctl("trace plot --html - " + cut(trace, 40)).exitCode, 0u);
}

TEST_F(Trace, AFolderThatIsNotThereOrCannotBeWrittenIsRefusedAndChangesNothing) {
    start("--frames 7");
    expectFailure(ctl("trace start " + file("missing") + " --frames 1"), 2,
                  "there is no folder '" + file("missing") + "'", "make it first");
    expectFailure(ctl("trace start Z:\\sys --frames 1"), 1,
                  "Z:\\sys\\kestra-trial cannot be written: Access denied (5)",
                  "choose a folder that you may write to; a file that is marked read-only stays as it is");
    const json status = json::parse(ctl("trace status --json").output);
    EXPECT_EQ(status["frames"], 7);
    EXPECT_EQ(status["folder"], m_traces.string());
}

TEST_F(Trace, AFolderThatHasGoneCostsAProgramNothingAndIsLogged) {
    start();
    EXPECT_EQ(ctl("log set detail=3 folder=" + m_folder.string()).exitCode, 0u);
    std::filesystem::remove_all(m_traces);
    const ProgramResult captured = capture("--frames 5");
    EXPECT_EQ(captured.exitCode, 0u) << captured.error;
    EXPECT_THAT(ctl("log tail --lines 100").output,
                HasSubstr("The trace in " + m_traces.string() + " cannot be written"));
    EXPECT_THAT(ctl("trace status").output, HasSubstr("  last trace    none\n"));
}

TEST_F(Trace, WrongWordsAreSaidToBeWrong) {
    for (const char* arguments : {"", "begin", "start", "show", "stat", "plot a.ktrace", "diff a.ktrace",
                                  "start . --frames -1", "start . --frames many", "start . --megabytes 0"}) {
        const ProgramResult result = ctl(std::string("trace ") + arguments);
        EXPECT_EQ(result.exitCode, 2u) << arguments;
        EXPECT_EQ(result.output, "") << arguments;
        EXPECT_THAT(result.error, testing::StartsWith("kestra-ctl: ")) << arguments;
    }
    EXPECT_EQ(ctl("trace --help").exitCode, 0u);
}

TEST_F(Trace, NamesNeitherUserNorMachineNorFolders) {
    wchar_t user[256] = {}, machine[256] = {}, program[MAX_PATH] = {};
    DWORD userSize = 256, machineSize = 256;
    ASSERT_TRUE(GetUserNameW(user, &userSize));
    ASSERT_TRUE(GetComputerNameW(machine, &machineSize));
    ASSERT_NE(GetModuleFileNameW(nullptr, program, MAX_PATH), 0u);
    const std::string trace = recorded();
    std::string bytes = readWholeFile(trace);
    const auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
        return text;
    };
    bytes = lower(bytes);
    const auto has = [&](const std::wstring& word) {
        const std::string narrow = std::filesystem::path(word).string();
        // One of two or three letters stands among any numbers: it counts as a text of its own.
        if (word.size() < 4) return bytes.find(lower(bytesOf(L'\0' + word + L'\0'))) != std::string::npos;
        return bytes.find(lower(narrow)) != std::string::npos || bytes.find(lower(bytesOf(word))) != std::string::npos;
    };
    EXPECT_TRUE(has(L"Kestra HD-SDI")) << "the slot's text would be found, and so would a name";
    EXPECT_FALSE(has(user));
    EXPECT_FALSE(has(machine));
    for (const std::filesystem::path& path : {m_folder, m_traces, std::filesystem::path(program).parent_path()}) {
        EXPECT_FALSE(has(path.wstring())) << path;
        EXPECT_FALSE(has(path.filename().wstring())) << path;
    }
    EXPECT_FALSE(has(L"kestra-ctl")) << "nor the program";
    EXPECT_FALSE(has(L"film1.y4m"));
    for (const wchar_t* part : {L".exe", L".dll", L"C:\\", L"\\\\?\\", L"ROOT#", L"Users"})
        EXPECT_FALSE(has(part)) << std::filesystem::path(part);
}

TEST_F(Trace, IsInABundleAsTheProgramWroteItAndNotAsTheBundleDid) {
    const std::string trace = recorded();
    start(); // the bundle asks cards as well, and is recorded itself
    for (const std::string& verb : std::vector<std::string>{"log bundle ", "doctor --card 0 --bundle "}) {
        const std::filesystem::path folder = m_folder / ("bundle" + std::to_string(verb.size()));
        const ProgramResult made = ctl(verb + folder.string());
        const std::filesystem::path name = std::filesystem::path(trace).filename();
        EXPECT_THAT(made.output, HasSubstr(folder.string() + " holds:\n"));
        EXPECT_THAT(made.output, HasSubstr("  " + name.string() + "\n"));
        EXPECT_EQ(readWholeFile(folder / name), readWholeFile(trace));
        EXPECT_EQ(ctl("trace show " + (folder / name).string()).output, ctl("trace show " + trace).output);
        EXPECT_GE(json::parse(ctl("trace stat --json " + (folder / name).string()).output)["frames"][0]["good"], 5);
        EXPECT_THAT(readWholeFile(folder / "trace.txt"), HasSubstr("  last trace    " + trace + "\n"));
        for (const char* other : {"versions.txt", "list.txt", "doctor.txt", "status-0.txt", "formats.txt", "log.txt"})
            EXPECT_TRUE(std::filesystem::exists(folder / other)) << verb << other;
        EXPECT_THAT(readWholeFile(folder / "doctor.txt"), ContainsRegex("problems? found\n$"));
        for (const std::string& later : traces())
            if (later != trace) std::filesystem::remove(later);
    }
    expectFailure(ctl("doctor --bundle " + file("no/such/folder")), 1,
                  file("no/such/folder") + " cannot be made: Path not found (3)", "choose another folder");
}

} // namespace kestra::test
