// Each fault is planted into a filter that keeps all rules otherwise, and kestra-compliance run on it: the tests that
// should find it do, and no other does; without KESTRA_LONG only their groups are run.
#include "tests/support/long_run.h"
#include "win32/handle.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using kestra::UniqueFile;
using kestra::UniqueObject;

using Tests = std::set<std::string>;
struct Planted {
    const char* fault;
    Tests foundBy;
};
const Planted kPlanted[] = {
    {"accept-anything", {"config.set-unsupported"}},
    {"accept-reads-block", {"config.set-unsupported", "hostile.no-block"}},
    {"buffer-alignment", {"allocator.wants-alignment"}},
    {"buffer-small",
     {"allocator.none-of-receiver", "allocator.receivers", "allocator.wants-0", "allocator.wants-1",
      "allocator.wants-2", "allocator.wants-32", "allocator.wants-alignment", "allocator.wants-prefix",
      "stream.whole-samples"}},
    {"caps-interval", {"config.consistent"}},
    {"caps-leak", {"stress.formats"}},
    {"caps-negative", {"config.negative-index"}},
    {"caps-past-end", {"config.past-end"}},
    {"caps-size", {"config.consistent", "config.counts"}},
    {"category-any", {"category.unsupported"}},
    {"category-exact", {"category.sizes"}},
    {"category-short", {"category.sizes"}},
    {"category-size-query", {"category.size-query"}},
    {"class-id", {"filter.class-id"}},
    {"clock-forgotten", {"filter.clock"}},
    {"connect-active", {"connect.not-stopped"}},
    {"connect-leak", {"connect.refused"}},
    {"cues-paused", {"state.paused-cannot-cue"}},
    {"delivers-after-refusal", {"sink.stops-after-error", "sink.stops-after-false"}},
    {"delivers-paused", {"state.paused-delivers-nothing"}},
    {"direction-null", {"pin.direction"}},
    {"disconnect-active", {"connect.disconnect"}},
    {"duration", {"stream.duration"}},
    {"end-after-stop", {"stream.nothing-after-stop"}},
    {"ends-running", {"stream.no-end-while-running"}},
    {"filter-identity", {"unknown.filter-identity"}},
    {"filter-name", {"filter.join-graph"}},
    {"filter-pointer-left", {"unknown.filter-unknown-interface"}},
    {"find-pin", {"filter.find-pin"}},
    {"get-connected", {"config.get-connected"}},
    {"graph-counted", {"filter.graph-uncounted"}},
    {"handle-leak", {"stress.binds", "stress.lives"}},
    {"loss-forever", {"loss.unplug-and-plug"}},
    {"never-unloaded", {"module.unload"}},
    {"no-sync-point", {"stream.sync-points"}},
    {"not-decommitted", {"allocator.committed", "sink.takes-every-buffer"}},
    {"output-end", {"pin.output-only"}},
    {"pages-none", {"pages.filter"}},
    {"pages-null", {"pages.filter"}},
    {"pin-count", {"module.unload", "unknown.pin-counts"}},
    {"pin-fickle", {"unknown.pin-interfaces", "unknown.pin-symmetric"}},
    {"pin-info-direction", {"pin.info"}},
    {"pin-null", {"unknown.pin-null"}},
    {"pins-clone", {"enum-pins.clone"}},
    {"pins-next-many", {"enum-pins.next-many"}},
    {"pins-next-none", {"enum-pins.next-none"}},
    {"pins-next-null", {"enum-pins.next-null"}},
    {"pins-reset", {"enum-pins.reset"}},
    {"pins-skip", {"enum-pins.skip"}},
    {"sample-kept", {"allocator.all-returned"}},
    {"second-dies", {"process.two"}},
    {"set-anything", {"config.set-unsupported"}},
    {"set-ignored", {"config.connectable", "config.offered-first", "config.set-and-get", "config.set-connected"}},
    {"set-not-reconnected", {"config.set-connected"}},
    {"set-running", {"config.set-running"}},
    {"short-samples", {"stream.whole-samples"}},
    {"stamps-back", {"stream.monotonic"}},
    {"stamps-go-on", {"stream.second-run"}},
    {"stamps-negative", {"stream.first-stamp"}},
    {"stamps-none", {"stream.timed"}},
    {"state-lock", {"state.stop-while-asked"}},
    {"state-wrong", {"state.orders-connected", "state.orders-unconnected", "state.paused-cannot-cue"}},
    {"thread-leak", {"stress.lives"}},
    {"two-threads", {"stream.one-at-a-time"}},
    {"type-header", {"enum-types.well-formed"}},
    {"type-on-samples", {"stream.no-new-type"}},
    {"types-clone", {"enum-types.clone"}},
    {"types-next-many", {"enum-types.next-many"}},
    {"types-next-none", {"enum-types.next-none"}},
    {"types-next-null", {"enum-types.next-null"}},
    {"types-reset", {"enum-types.out-of-sync", "enum-types.reset", "enum-types.skip"}},
    {"types-skip", {"enum-types.skip"}},
    {"unconnected", {"connect.disconnect", "pin.unconnected"}},
};

nlohmann::json contents(const std::wstring& path) {
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char buffer[65536];
        for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
            text.append(buffer, got);
        std::fclose(file);
    }
    return nlohmann::json::parse(text, nullptr, false);
}

/// One run with one fault. @param choice  options that choose tests; empty: all of them
nlohmann::json complianceWith(const std::string& fault, const std::string& choice) {
    const std::wstring wideFault(fault.begin(), fault.end());
    wchar_t folder[MAX_PATH], program[] = KESTRA_COMPLIANCE;
    GetTempPathW(MAX_PATH, folder);
    const std::wstring report =
        folder + (L"faults-" + std::to_wstring(GetCurrentProcessId()) + L"-" + wideFault + L".json");
    std::wstring line =
        std::wstring(L"\"") + program + L"\" --dll \"" + KESTRA_FAULTY_SOURCE +
        L"\" --clsid {6B1A7F02-53CD-4D0E-9A31-207E4C5B8810} --quick --quiet --shared-process --limit 15 --json \"" +
        report + L"\"";
    line.append(choice.begin(), choice.end());
    // The filter's device is gone while there is a file.
    const std::wstring gone = report + L".gone";
    line += L" --unplug \"cmd.exe /c echo 1>" + gone + L"\" --plug \"cmd.exe /c del " + gone + L" 2>nul\"";
    // The environment of this process and the fault in it.
    std::wstring environment = L"KESTRA_FAULT=" + wideFault + L'\0' + L"KESTRA_GONE=" + gone + L'\0';
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* variable = own; *variable; variable += std::wcslen(variable) + 1)
        environment += variable + std::wstring(1, L'\0');
    FreeEnvironmentStringsW(own);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT, environment.data(),
                        nullptr, &startup, &process))
        return nullptr;
    const UniqueObject thread(process.hThread), owner(process.hProcess);
    WaitForSingleObject(process.hProcess, INFINITE); // each of its tests has a limit
    auto json = contents(report);
    DeleteFileW(report.c_str());
    return json;
}

struct Found {
    Tests failed, warned;
    int passed = 0;
    std::string text;
};

Found readReport(const nlohmann::json& report) {
    Found found;
    if (!report.is_object()) {
        found.failed.insert("no report");
        return found;
    }
    for (const auto& test : report["tests"]) {
        const std::string verdict = test.value("verdict", std::string());
        if (verdict == "FAIL") {
            found.failed.insert(test.value("test", std::string()));
            found.text += "    " + test.value("test", std::string()) + ": expected " +
                          test.value("expected", std::string()) + ", got " + test.value("got", std::string()) + " (" +
                          test.value("kind", std::string()) + " after " + test.value("call", std::string()) + ")\n";
        }
        if (verdict == "warning")
            found.warned.insert(test.value("test", std::string()) + ": " + test.value("note", std::string()));
        found.passed += verdict == "OK";
    }
    return found;
}

/// The groups that these tests are in.
std::string groupsOf(const Tests& tests) {
    Tests groups;
    for (const std::string& test : tests)
        groups.insert(test.substr(0, test.find('.')));
    std::string text;
    for (const std::string& group : groups)
        text += (text.empty() ? "" : ",") + group;
    return text;
}

std::string joined(const Tests& tests) {
    std::string text;
    for (const std::string& test : tests)
        text += (text.empty() ? "" : ", ") + test;
    return text;
}

TEST(CorrectFilter, HasNoFault) {
    // Wine now and then neither quite begins nor quite ends a process that was started in the middle of others' work.
    const Found found = readReport(complianceWith("none", kestra::test::isLongRun() ? "" : " --skip process"));
    EXPECT_EQ(found.failed, Tests{}) << found.text;
    EXPECT_GT(found.passed, 120);
    EXPECT_EQ(found.warned, Tests{});
}

/// A third of them each, so that none takes minutes.
class PlantedFaults : public testing::TestWithParam<size_t> {};
constexpr size_t kParts = 3;

TEST_P(PlantedFaults, AreFoundByTheTestsThatShouldFindThem) {
    std::vector<size_t> mine;
    for (size_t n = GetParam(); n < std::size(kPlanted); n += kParts)
        if (kestra::test::isLongRun() || groupsOf(kPlanted[n].foundBy) != "process") mine.push_back(n);
    // Several at once: a run waits for time more than it computes.
    std::vector<Found> found(mine.size());
    std::atomic<size_t> next{0};
    std::vector<std::thread> runners;
    std::mutex mutex;
    const auto began = std::chrono::steady_clock::now();
    std::printf("%-24s %s\n", "planted fault", "found by");
    for (int i = 0; i < 4; ++i)
        runners.emplace_back([&] {
            for (size_t n; (n = next++) < mine.size();) {
                // That no other test finds it is the long form's to show: it starts some thousand processes.
                const Planted& planted = kPlanted[mine[n]];
                found[n] = readReport(complianceWith(
                    planted.fault, kestra::test::isLongRun() ? "" : " --only " + groupsOf(planted.foundBy)));
                const std::lock_guard lock(mutex);
                std::printf("%-24s %s\n", kPlanted[mine[n]].fault, joined(found[n].failed).c_str());
                std::fflush(stdout);
            }
        });
    for (auto& runner : runners)
        runner.join();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("%zu faults in %.0f s\n", mine.size(), took.count());
    for (size_t n = 0; n < mine.size(); ++n) {
        const Planted& planted = kPlanted[mine[n]];
        SCOPED_TRACE(planted.fault + ("\n" + found[n].text));
        if (kestra::test::isLongRun()) {
            EXPECT_EQ(found[n].failed, planted.foundBy);
        } else { // what another group left behind may be missing
            EXPECT_FALSE(found[n].failed.empty());
            for (const std::string& test : found[n].failed)
                EXPECT_TRUE(planted.foundBy.contains(test)) << test;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Parts, PlantedFaults, testing::Range(size_t{0}, kParts));

} // namespace
