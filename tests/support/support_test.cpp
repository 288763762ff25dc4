// The test helpers themselves: a helper that misses things is worse than none.
#include "tests/support/debug_output_capture.h"
#include "tests/support/process_counts.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scoped_import_hook.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace kestra::test;

namespace {

HANDLE WINAPI refuseEvent(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) {
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

// Not inlined: within one function the compiler may read the import table once for several calls.
[[gnu::noinline]] HANDLE createEvent() {
    return CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

} // namespace

TEST(ScopedImportHook, ReplacesTheFunctionAndPutsItBack) {
    {
        ScopedImportHook<decltype(&CreateEventW)> hook("kernel32.dll", "CreateEventW", refuseEvent);
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(createEvent(), nullptr);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
        const HANDLE real = hook.original()(nullptr, TRUE, FALSE, nullptr);
        EXPECT_NE(real, nullptr);
        CloseHandle(real);
    }
    const HANDLE event = createEvent();
    EXPECT_NE(event, nullptr);
    CloseHandle(event);
}

TEST(ScopedImportHook, SaysSoWhenTheProgramDoesNotImportTheFunction) {
    ScopedImportHook<decltype(&CreateEventW)> hook("kernel32.dll", "NoSuchFunction", refuseEvent);
    EXPECT_FALSE(hook.installed());
}

TEST(DebugOutputCapture, CollectsLinesOfAllThreadsInOrder) {
    DebugOutputCapture capture;
    OutputDebugStringW(L"first\r\n");
    std::thread([] { OutputDebugStringW(L"second\r\n"); }).join();
    OutputDebugStringA("third");
    EXPECT_EQ(capture.lines(), (std::vector<std::wstring>{L"first\r\n", L"second\r\n", L"third"}));
    EXPECT_EQ(capture.count(L"second\r\n"), 1);
    EXPECT_FALSE(capture.contains(L"fourth"));
}

TEST(RegistrySandbox, HidesTheUsersKeysAndRemovesItsOwn) {
    constexpr auto kKey = L"Software\\Quorvane\\SandboxTest";
    {
        RegistrySandbox sandbox;
        sandbox.setDword(kKey, L"Number", 7);
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyW(HKEY_CURRENT_USER, kKey, &key), ERROR_SUCCESS);
        DWORD value = 0, bytes = sizeof value;
        EXPECT_EQ(RegQueryValueExW(key, L"Number", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &bytes),
                  ERROR_SUCCESS);
        EXPECT_EQ(value, 7u);
        RegCloseKey(key);
        EXPECT_EQ(sandbox.dword(kKey, L"Missing", 99), 99u);
    }
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyW(HKEY_CURRENT_USER, kKey, &key), ERROR_FILE_NOT_FOUND);
}

TEST(ProcessCounts, SeesAHandleAndAThreadComeAndGo) {
    const HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const ProcessCounts before = processCounts();
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(processCounts().handles, before.handles + 1);
    CloseHandle(event);
    EXPECT_EQ(processCounts().handles, before.handles);

    std::thread thread([stop] { WaitForSingleObject(stop, INFINITE); });
    EXPECT_EQ(processCounts().threads, before.threads + 1);
    SetEvent(stop);
    thread.join();
    EXPECT_TRUE(waitUntil([&] { return processCounts().threads == before.threads; }));
    CloseHandle(stop);
}

TEST(WaitUntil, GivesUpAtTheDeadlineAndStopsAtTheCondition) {
    EXPECT_FALSE(waitUntil([] { return false; }, std::chrono::milliseconds(20)));
    std::atomic<int> asked{0};
    EXPECT_TRUE(waitUntil([&] { return ++asked == 3; }));
}

TEST(CountsOverCycles, SeeWhatEachCycleLeavesBehindAndNotWhatOneHoldsForAMoment) {
    CountsOverCycles flat, leaking;
    for (int i = 0; i < 30; ++i) {
        const int settling = i < 5 ? i : 5, moment = i % 4 == 1 ? 9 : 0;
        flat.note({50 + settling + moment, 4 + moment, static_cast<size_t>(1000000 * (1 + moment)), 0, 3});
        leaking.note({50 + i + moment, 4 + i / 10, static_cast<size_t>(1000000 + 4096 * i), i, 3});
    }
    EXPECT_EQ(flat.growth().handles, 0);
    EXPECT_EQ(flat.growth().threads, 0);
    EXPECT_EQ(flat.growth().privateBytes, 0);
    EXPECT_EQ(leaking.growth().handles, 10);
    EXPECT_EQ(leaking.growth().threads, 1);
    EXPECT_EQ(leaking.growth().privateBytes, 40960);
    EXPECT_EQ(leaking.growth().gdiObjects, 10);
    EXPECT_EQ(leaking.growth().userObjects, 0);
    EXPECT_EQ(flat.describe("rounds"), "30 rounds: handles 55 to 55, threads 4 to 4, private memory 976 to 976 kB, "
                                       "GDI 0 to 0, USER 3 to 3");
}

TEST(CountsOverCycles, RefuseToJudgeTooFewCycles) {
    CountsOverCycles counts;
    for (int i = 0; i < 5; ++i)
        counts.note();
    EXPECT_THROW(counts.growth(), std::logic_error);
}
