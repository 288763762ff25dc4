// Loading and unloading the module again and again.
#include "tests/support/process_counts.h"

#include <gtest/gtest.h>

#include <windows.h>

namespace kestra::test {
namespace {

constexpr int kLoads = 200;
constexpr int kCompared = kLoads * 2 / 3 - kLoads / 3; ///< from the beginning of the second third to that of the last

CountsOverCycles countsOverLoads(const wchar_t* path) {
    CountsOverCycles counts;
    for (int i = 0; i < kLoads; ++i) {
        HMODULE module = LoadLibraryW(path);
        EXPECT_TRUE(module);
        FreeLibrary(module);
        EXPECT_FALSE(GetModuleHandleW(path)) << i;
        counts.note();
    }
    return counts;
}

} // namespace

TEST(ModuleLoad, LeavesNoMemoryAndNoThreadBehind) {
    // Stays loaded: Wine 10's leaves 768 kB and nine objects of the screen behind each time it goes.
    ASSERT_TRUE(LoadLibraryW(L"comctl32.dll"));
    const CountsOverCycles counts = countsOverLoads(KESTRA_MODULE);
    counts.report("loads of the module");
    EXPECT_LT(counts.growth().privateBytes, kCompared * 4096);
    EXPECT_EQ(counts.growth().threads, 0);
    // Of the statically linked libraries of threads and of OpenMP: see docs/reliability.md.
    EXPECT_LE(counts.growth().handles, kCompared * 4);
}

TEST(ModuleLoad, OfTheImageLibraryLeavesNothingBehind) {
    const CountsOverCycles counts = countsOverLoads(KESTRA_IMAGE_LIBRARY);
    counts.report("loads of the image library");
    EXPECT_LT(counts.growth().privateBytes, kCompared * 4096);
    EXPECT_EQ(counts.growth().threads, 0);
    EXPECT_EQ(counts.growth().handles, 0);
}

} // namespace kestra::test
