// Profiles: which entries count, what they excuse, and what is wrong with one.
#include "compliance/profile.h"
#include "compliance/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace kestra::compliance {
namespace {

const CLSID kClass = {0x6b1a7f02, 0x53cd, 0x4d0e, {0x9a, 0x31, 0x20, 0x7e, 0x4c, 0x5b, 0x88, 0x10}};

class ProfileTest : public testing::Test {
protected:
    void TearDown() override { DeleteFileW(path().c_str()); }
    static std::wstring path() {
        wchar_t folder[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        return folder + (L"profile-" + std::to_wstring(GetCurrentProcessId()) + L".json");
    }
    static Profile read(const std::string& text, const SubjectName& subject = {L"A filter", {}, kClass}) {
        FILE* const file = _wfopen(path().c_str(), L"wb");
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
        return readProfile(path(), subject);
    }
    /// @return what was wrong, "expected: got"
    static std::string troubleWith(const std::string& text) {
        try {
            read(text);
        } catch (const Failure& failure) {
            return failure.expected + ": " + failure.got;
        }
        return "";
    }
    static std::vector<std::string> deviationsOf(const Profile& profile) {
        std::vector<std::string> tests;
        for (const auto& [test, reason] : profile.deviations)
            tests.push_back(test);
        return tests;
    }
    static Result resultOf(const std::string& test, Verdict verdict) {
        Result result{};
        result.test = &*std::find_if(allTests().begin(), allTests().end(),
                                     [&](const compliance::Test& one) { return one.id() == test; });
        result.verdict = verdict;
        return result;
    }
};

using Names = std::vector<std::string>;

TEST_F(ProfileTest, KnowsAFilterByItsNameItsClassOrAsEveryFilter) {
    const std::string text = R"({"filters": {
        "A filter": {"deviations": {"pin.info": "by name"}},
        "Another": {"class": "{6B1A7F02-53CD-4D0E-9A31-207E4C5B8810}", "deviations": {"pin.direction": "by class"}},
        "*": {"deviations": {"filter.info": "every filter"}},
        "Nobody": {"class": "{00000000-53CD-4D0E-9A31-207E4C5B8810}", "deviations": {"filter.clock": "no"}}}})";
    EXPECT_EQ(deviationsOf(read(text)), (Names{"filter.info", "pin.direction", "pin.info"}));
    EXPECT_EQ(deviationsOf(read(text, {L"Nobody", {}, GUID_NULL})), (Names{"filter.clock", "filter.info"}));
    EXPECT_EQ(deviationsOf(read(text, {{}, L"some.dll", GUID_NULL})), Names{"filter.info"});
}

TEST_F(ProfileTest, CountsWhatIsOfWineUnderWine) {
    const bool isWine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    const Profile profile = read(R"({"filters": {"*": {"deviationsOnWine": {"pin.info": "why"}}}})");
    EXPECT_EQ(deviationsOf(profile), isWine ? Names{"pin.info"} : Names{});
}

TEST_F(ProfileTest, NamesTheCommandsThatTakeTheDeviceAway) {
    const Profile profile = read("{\"filters\": {\"*\": {\"unplug\": \"gone \u00fc\", \"plug\": \"back\"}}}");
    EXPECT_EQ(profile.unplug, L"gone \u00fc");
    EXPECT_EQ(profile.plug, L"back");
}

TEST_F(ProfileTest, SaysWhatIsWrongWithIt) {
    EXPECT_EQ(troubleWith(R"({"filters": {"*": {"deviations": {"pin.nonsense": "why"}}}})"),
              "a test in the profile: \"pin.nonsense\", which there is not");
    EXPECT_EQ(troubleWith(R"({"filters": {"*": {"deviationsOnWine": {"pin": "a group is no test"}}}})"),
              "a test in the profile: \"pin\", which there is not");
    for (const char* broken :
         {"", "{", "[]", "{}", R"({"filters": 1})", R"({"filters": {"*": 1}})",
          R"({"filters": {"*": {"deviations": ["pin.info"]}}})",
          R"({"filters": {"*": {"deviations": {"pin.info": 1}}}})", R"({"filters": {"*": {"unplug": 1}}})"})
        EXPECT_EQ(troubleWith(broken).rfind("a profile in JSON: ", 0), 0u)
            << broken << " gives " << troubleWith(broken);
    try {
        readProfile(L"Z:\\no\\such\\profile.json", {});
        ADD_FAILURE() << "a profile that is nowhere was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.expected, "a profile in Z:\\no\\such\\profile.json");
    }
}

TEST_F(ProfileTest, ExcusesADeviationAndCountsAnEntryThatIsStale) {
    Profile profile;
    profile.deviations = {{"pin.info", "on purpose"}, {"pin.direction", "long mended"}};
    struct Case {
        const char* test;
        Verdict verdict;
        const char *excuse, *text;
        bool stale;
        int failures;
    };
    for (const Case& one : {Case{"pin.info", Verdict::Fail, "on purpose", "excused", false, 0},
                            {"pin.info", Verdict::Crash, "on purpose", "excused", false, 0},
                            {"pin.info", Verdict::Hang, "on purpose", "excused", false, 0},
                            {"pin.info", Verdict::Warning, "on purpose", "excused", false, 0},
                            {"pin.info", Verdict::NotApplicable, "on purpose", "n.a.", false, 0},
                            {"pin.direction", Verdict::Ok, "long mended", "OK", true, 1},
                            {"filter.info", Verdict::Fail, "", "FAIL", false, 1},
                            {"filter.info", Verdict::Warning, "", "warning", false, 0},
                            {"filter.info", Verdict::Ok, "", "OK", false, 0}}) {
        SCOPED_TRACE(std::string(one.test) + " " + one.text);
        Result result = resultOf(one.test, one.verdict);
        applyProfile(profile, result);
        EXPECT_EQ(result.excuse, one.excuse);
        EXPECT_EQ(result.excuseUnneeded, one.stale);
        EXPECT_STREQ(verdictText(result), one.text);
        EXPECT_EQ(totalsOf({result}).failures(), one.failures);
        EXPECT_EQ(textOf(result, false).find("excuses a deviation that there is not") != std::string::npos, one.stale);
    }
}

TEST_F(ProfileTest, OfOurOwnFiltersNamesTestsThatThereAre) {
    EXPECT_FALSE(readProfile(KESTRA_PROFILE, {L"Kestra Capture Video", {}, GUID_NULL}).deviations.empty());
    EXPECT_FALSE(readProfile(KESTRA_PROFILE, {L"Kestra Capture Audio", {}, GUID_NULL}).deviations.empty());
}

} // namespace
} // namespace kestra::compliance
