// The colour tables, the pair conversion, and the line kernels' agreement with them over all samples.
#include "decode/color_tables.h"
#include "protocol/converter.h"
#include "tests/unit/decode_support.h"

#include <algorithm>
#include <chrono>
#include <cpuid.h>
#include <limits>
#include <memory>

namespace kestra::test {
namespace {

const TarnisConverterParams kDefaults = wire::kDefaultConverter;

std::unique_ptr<ColorTables> tablesFor(SampleDepth depth, const TarnisConverterParams& params = kDefaults) {
    auto tables = std::make_unique<ColorTables>();
    buildTables(*tables, depth, params);
    return tables;
}

std::array<uint8_t, 6> pair8(const TarnisConverterParams& params, uint8_t y0, uint8_t cb, uint8_t y1, uint8_t cr) {
    const auto tables = tablesFor(SampleDepth::Bits8, params);
    const uint8_t samples[4] = {y0, cb, y1, cr};
    std::array<uint8_t, 6> bgr{};
    convertPair8(*tables, params, samples, bgr.data());
    return bgr;
}

std::array<uint8_t, 6> pair10(const TarnisConverterParams& params, uint16_t y0, uint16_t cb, uint16_t y1, uint16_t cr) {
    const auto tables = tablesFor(SampleDepth::Bits10, params);
    const uint16_t samples[4] = {y0, cb, y1, cr};
    std::array<uint8_t, 6> bgr{};
    convertPair10(*tables, params, samples, bgr.data());
    return bgr;
}

} // namespace

TEST(ColorTables, StartZeroedForEightBits) {
    static const ColorTables zero{};
    EXPECT_EQ(zero.depth, SampleDepth::Bits8);
    EXPECT_TRUE(std::all_of(std::begin(zero.YR), std::end(zero.YR), [](int32_t entry) { return entry == 0; }));
}

TEST(ColorTables, DefaultEntriesAreTruncatedProducts) {
    const auto eight = tablesFor(SampleDepth::Bits8);
    EXPECT_EQ(eight->YR[16], 0);
    EXPECT_EQ(eight->YG[235], 254);  // 219 * 1.164 = 254.916
    EXPECT_EQ(eight->YB[0], -18);    // -16 * 1.164 = -18.624, toward zero
    EXPECT_EQ(eight->CrR[255], 202); // 127 * 1.596 = 202.69
    EXPECT_EQ(eight->CrR[0], -204);  // -128 * 1.596 = -204.288
    EXPECT_EQ(eight->CrG[0], -104);  // -128 * 0.813 = -104.06
    EXPECT_EQ(eight->CbB[255], 256); // 127 * 2.017 = 256.159
    EXPECT_EQ(eight->CbG[255], 49);  // 127 * 0.392 = 49.784
    const auto ten = tablesFor(SampleDepth::Bits10);
    EXPECT_EQ(ten->YR[940], 1019);  // 876 * 1.164 = 1019.66
    EXPECT_EQ(ten->CbB[0], -1032);  // -512 * 2.017 = -1032.7
    EXPECT_EQ(ten->CrR[1023], 815); // 511 * 1.596 = 815.556
    // Entries that only single precision with rounding at each product produces.
    for (const int i : {12, 262, 762, 1012})
        EXPECT_EQ(ten->CrR[i], static_cast<int32_t>(static_cast<float>(i - 512) * 1.596f)) << i;
    EXPECT_EQ(ten->CrR[12], -798) << "-500 * 1.596";
}

TEST(ColorTables, SampleOffsetsShiftArithmeticallyForEightBits) {
    TarnisConverterParams params = kDefaults;
    params.YOff = -5; // -5 >> 2 is -2
    params.CrOff = 515;
    const auto tables = tablesFor(SampleDepth::Bits8, params);
    EXPECT_EQ(tables->YR[0], 2); // 2 * 1.164
    EXPECT_EQ(tables->CrR[128], 0);
    EXPECT_EQ(tables->CrR[129], 1);
}

TEST(ColorTables, EightBitBuildRewritesTheFirst256EntriesOnly) {
    auto tables = tablesFor(SampleDepth::Bits10);
    const int32_t before = tables->YR[256];
    buildTables(*tables, SampleDepth::Bits8, kDefaults);
    EXPECT_EQ(tables->depth, SampleDepth::Bits8);
    EXPECT_EQ(tables->YR[256], before);
    EXPECT_EQ(tables->YR[235], 254);
}

TEST(ColorTables, AreRebuiltForEveryFieldButTheLimits) {
    using P = TarnisConverterParams;
    void (*const changes[])(P&) = {
        [](P& p) { ++p.YOff; },         [](P& p) { ++p.CrOff; },      [](P& p) { ++p.CbOff; },
        [](P& p) { p.Y1 += 1; },        [](P& p) { p.R1 += 1; },      [](P& p) { p.G1 += 1; },
        [](P& p) { p.G2 += 1; },        [](P& p) { p.B1 += 1; },      [](P& p) { ++p.RedOffset; },
        [](P& p) { ++p.GreenOffset; },  [](P& p) { ++p.BlueOffset; }, [](P& p) { p.RedGain += 1; },
        [](P& p) { p.GreenGain += 1; }, [](P& p) { p.BlueGain += 1; }};
    for (size_t i = 0; i < std::size(changes); ++i) {
        auto tables = tablesFor(SampleDepth::Bits10);
        tables->YR[0] = 12345; // still there: not rebuilt
        buildTables(*tables, SampleDepth::Bits10, kDefaults);
        ASSERT_EQ(tables->YR[0], 12345);
        TarnisConverterParams params = kDefaults;
        changes[i](params);
        buildTables(*tables, SampleDepth::Bits10, params);
        EXPECT_NE(tables->YR[0], 12345) << "change " << i;
    }
    auto tables = tablesFor(SampleDepth::Bits10);
    tables->YR[0] = 12345;
    TarnisConverterParams limits = kDefaults;
    limits.RMin = limits.GMin = limits.BMin = 9;
    limits.RMax = limits.GMax = limits.BMax = 99;
    buildTables(*tables, SampleDepth::Bits10, limits);
    EXPECT_EQ(tables->YR[0], 12345);
    buildTables(*tables, SampleDepth::Bits8, limits);
    EXPECT_NE(tables->YR[0], 12345) << "another depth";
}

TEST(ColorTables, ExtremeParametersAreAbsorbed) {
    TarnisConverterParams params = kDefaults;
    params.Y1 = 3e38f;
    params.RedGain = std::numeric_limits<float>::infinity();
    params.GreenGain = std::numeric_limits<float>::quiet_NaN();
    params.YOff = std::numeric_limits<int32_t>::min();
    params.RedOffset = -128;
    for (const SampleDepth depth : {SampleDepth::Bits8, SampleDepth::Bits10}) {
        const auto tables = tablesFor(depth, params);
        EXPECT_FALSE(tables->arithmeticIsExact);
    }
    pair8(params, 0, 255, 128, 0);
    pair10(params, 1023, 0, 512, 1023);
}

TEST(PairConversion, BlackAndWhite) {
    EXPECT_EQ(pair8(kDefaults, 16, 128, 235, 128), (std::array<uint8_t, 6>{0, 0, 0, 254, 254, 254}));
    EXPECT_EQ(pair10(kDefaults, 64, 512, 940, 512), (std::array<uint8_t, 6>{0, 0, 0, 254, 254, 254}));
}

TEST(PairConversion, OffsetActsInUnitsOfItsDepth) {
    TarnisConverterParams raised = kDefaults;
    raised.RedOffset = 4;
    EXPECT_EQ(pair8(raised, 100, 128, 100, 128)[2], pair8(kDefaults, 100, 128, 100, 128)[2] + 4);
    EXPECT_EQ(pair10(raised, 400, 512, 400, 512)[2], pair10(kDefaults, 400, 512, 400, 512)[2] + 1);
}

TEST(PairConversion, LowerLimitWins) {
    TarnisConverterParams params = kDefaults;
    params.RMin = 200;
    params.RMax = 100;
    for (const uint8_t y : {0, 100, 255})
        for (const uint8_t cr : {0, 128, 255})
            EXPECT_EQ(pair8(params, y, 128, y, cr)[2], 200);
}

TEST(PairConversion, ChangedLimitActsWithoutARebuild) {
    auto tables = tablesFor(SampleDepth::Bits8);
    tables->YB[16] = 50; // a rebuild would put 0 here
    TarnisConverterParams params = kDefaults;
    params.BMax = 40;
    buildTables(*tables, SampleDepth::Bits8, params);
    const uint8_t samples[4] = {16, 128, 16, 128};
    uint8_t bgr[6];
    convertPair8(*tables, params, samples, bgr);
    EXPECT_EQ(bgr[0], 40);
}

TEST(PairConversion, ChannelsTakeTheirOwnTerms) {
    TarnisConverterParams params = kDefaults;
    params.RedGain = 0.5f;
    params.GreenGain = 2.0f;
    params.BlueGain = 0.25f;
    params.BlueOffset = -3;
    const auto bgr = pair8(params, 120, 90, 60, 150);
    const auto product = [](float a, float b, float c) { return static_cast<int>(a * b * c); };
    const float y = 104 * 1.164f;
    EXPECT_EQ(bgr[0], std::max(0, static_cast<int>(0.25f * y) - 3 + product(2.017f, -38, 0.25f)));
    EXPECT_EQ(bgr[1], static_cast<int>(2.0f * y) - product(0.813f, 22, 2.0f) - product(0.392f, -38, 2.0f));
    EXPECT_EQ(bgr[2], static_cast<int>(0.5f * y) + product(1.596f, 22, 0.5f));
}

TEST(LineKernels, OtherThanDefaultParametersAreReadFromTheTables) {
    auto tables = tablesFor(SampleDepth::Bits8);
    EXPECT_TRUE(tables->arithmeticIsExact);
    EXPECT_EQ(convertLineFor({*tables, kDefaults}), kernels().convertLine8Bit);
    TarnisConverterParams limited = kDefaults;
    limited.GMax = 254;
    EXPECT_EQ(convertLineFor({*tables, limited}), kPlainKernels.convertLine8Bit);
    tables = tablesFor(SampleDepth::Bits10);
    EXPECT_TRUE(tables->arithmeticIsExact);
    EXPECT_EQ(convertLineFor({*tables, kDefaults}), kernels().convertLine10Bit);
    TarnisConverterParams tinted = kDefaults;
    tinted.RedGain = 0.999f;
    tables = tablesFor(SampleDepth::Bits10, tinted);
    EXPECT_FALSE(tables->arithmeticIsExact);
    EXPECT_EQ(convertLineFor({*tables, tinted}), kPlainKernels.convertLine10Bit);
}

TEST(LineKernels, EveryEightBitTripleIsExactWithEverySet) {
    const auto tables = tablesFor(SampleDepth::Bits8);
    const LineConversion conversion{*tables, kDefaults};
    std::vector<uint8_t> raw(256 * 2), expected(256 * 3), actual(256 * 3);
    for (uint32_t cb = 0; cb < 256; ++cb)
        for (uint32_t cr = 0; cr < 256; ++cr) {
            for (uint32_t y = 0; y < 256; ++y) {
                raw[2 * y] = static_cast<uint8_t>(y);
                raw[2 * y + 1] = static_cast<uint8_t>(y % 2 == 0 ? cb : cr);
            }
            kPlainKernels.convertLine8Bit(conversion, raw.data(), expected.data(), 128, expected.data());
            for (const KernelSet* set : runningSets()) {
                set->convertLine8Bit(conversion, raw.data(), actual.data(), 128, actual.data());
                ASSERT_EQ(actual, expected) << set->name << " Cb " << cb << " Cr " << cr;
            }
        }
}

// All 2^30 triples with KESTRA_LONG=1, one in 1009 of the chroma pairs without.
TEST(LineKernels, TenBitTriplesAreExactWithEverySet) {
    const auto tables = tablesFor(SampleDepth::Bits10);
    const LineConversion conversion{*tables, kDefaults};
    const uint32_t stride = isLongRun() ? 1 : 1009;
    std::vector<uint8_t> expected(1024 * 3), actual(1024 * 3);
    std::vector<uint16_t> samples(2048);
    const auto begin = std::chrono::steady_clock::now();
    uint64_t triples = 0;
    for (uint32_t chroma = 0; chroma < 1u << 20; chroma += stride, triples += 1024) {
        const auto cb = static_cast<uint16_t>(chroma & 1023), cr = static_cast<uint16_t>(chroma >> 10);
        for (uint32_t y = 0; y < 1024; ++y) {
            samples[2 * y] = static_cast<uint16_t>(y);
            samples[2 * y + 1] = y % 2 == 0 ? cb : cr;
        }
        const std::vector<uint8_t> raw = pack10(samples);
        kPlainKernels.convertLine10Bit(conversion, raw.data(), expected.data(), 512, expected.data());
        for (const KernelSet* set : runningSets()) {
            set->convertLine10Bit(conversion, raw.data(), actual.data(), 512, actual.data());
            ASSERT_EQ(actual, expected) << set->name << " Cb " << cb << " Cr " << cr;
        }
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::printf("%llu triples in %.1f s:", static_cast<unsigned long long>(triples), seconds.count());
    for (const KernelSet* set : kKernelSets)
        std::printf(" %s%s", set->name, set->runsHere() ? "" : " (not run: the processor lacks it)");
    std::printf("\n");
}

TEST(LineKernels, EveryLengthAndAlignmentIsThatOfThePlainSetCachedAndStreamed) {
    for (const SampleDepth depth : {SampleDepth::Bits8, SampleDepth::Bits10}) {
        const ColorTables& tables = defaultTables(depth);
        const LineConversion conversion{tables, tables.builtFrom};
        const bool ten = depth == SampleDepth::Bits10;
        const auto kernel = ten ? &KernelSet::convertLine10Bit : &KernelSet::convertLine8Bit;
        for (uint32_t pairs = 1; pairs <= 420; pairs += pairs < 120 ? 1 : 7) {
            const GuardedBytes raw(ten ? (pairs * 4 + 5) / 6 * size_t{8} : pairs * size_t{4});
            fillRandom(raw.begin(), raw.end(), pairs);
            std::vector<uint8_t> expected(size_t{6} * pairs);
            (kPlainKernels.*kernel)(conversion, raw.data(), expected.data(), pairs, nullptr);
            for (const uint32_t offset : {0u, 1u, 2u, 4u, 12u, 32u, pairs % 64})
                for (const bool streamed : {false, true})
                    for (const KernelSet* set : runningSets()) {
                        std::vector<uint8_t> memory(64 + 64 + expected.size() + 64, 0xA5);
                        uint8_t* rgb = memory.data() + 64 - reinterpret_cast<uintptr_t>(memory.data()) % 64 + offset;
                        (set->*kernel)(conversion, raw.data(), rgb, pairs, streamed ? nullptr : rgb);
                        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), rgb))
                            << set->name << ", " << pairs << " pairs, offset " << offset << ", streamed " << streamed;
                        ASSERT_TRUE(std::all_of(memory.data(), rgb, [](uint8_t byte) { return byte == 0xA5; }));
                        ASSERT_TRUE(std::all_of(rgb + expected.size(), memory.data() + memory.size(),
                                                [](uint8_t byte) { return byte == 0xA5; }));
                    }
        }
    }
}

TEST(LineKernels, TableReadsOfEveryParameterRecordMatchThePairConversion) {
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        TarnisConverterParams params = kDefaults;
        params.YOff = static_cast<int32_t>(random() % 200);
        params.CrOff = static_cast<int32_t>(random() % 1024);
        params.RedGain = static_cast<float>(random() % 4000) / 1000;
        params.BlueOffset = static_cast<int8_t>(random());
        params.GMin = static_cast<uint8_t>(random());
        params.GMax = static_cast<uint8_t>(random());
        const auto tables = tablesFor(SampleDepth::Bits8, params);
        uint8_t raw[4 * 9], rgb[6 * 9], expected[6 * 9];
        fillRandom(raw, raw + sizeof raw, random());
        convertLineFor({*tables, params})({*tables, params}, raw, rgb, 9, rgb);
        for (int n = 0; n < 9; ++n)
            convertPair8(*tables, params, raw + 4 * n, expected + 6 * n);
        ASSERT_EQ(std::memcmp(rgb, expected, sizeof rgb), 0) << "round " << round;
    }
}

TEST(KernelSets, PlainOneComesFirstAndRunsEverywhere) {
    EXPECT_EQ(kKernelSets.front(), &kPlainKernels);
    EXPECT_TRUE(kPlainKernels.runsHere());
}

TEST(KernelSets, OnlyWhatRunsCanBeUsed) {
    const ForcedKernels before(kernels());
    for (const KernelSet* set : kKernelSets) {
        const KernelSet* used = &kernels();
        EXPECT_EQ(useKernels(*set), set->runsHere()) << set->name;
        EXPECT_EQ(&kernels(), set->runsHere() ? set : used) << set->name;
    }
    KernelSet absent = kPlainKernels;
    absent.runsHere = []() noexcept { return false; };
    const KernelSet* used = &kernels();
    EXPECT_FALSE(useKernels(absent));
    EXPECT_EQ(&kernels(), used);
}

TEST(KernelSets, RunWhereTheProcessorAndTheSystemSaySo) {
    unsigned a = 0, b = 0, basic = 0, d = 0, extendedB = 0, extendedC = 0;
    ASSERT_TRUE(__get_cpuid(1, &a, &b, &basic, &d));
    __get_cpuid_count(7, 0, &a, &extendedB, &extendedC, &d);
    unsigned saved = 0; // registers saved by the system
    if (basic & bit_OSXSAVE) asm volatile("xgetbv" : "=a"(saved), "=d"(d) : "c"(0));
    const bool avx = (saved & 6) == 6, avx512 = (saved & 0xE6) == 0xE6;
    constexpr unsigned kAvx512Bits = bit_AVX512F | bit_AVX512BW | bit_AVX512VL;
    EXPECT_TRUE(kSse2Kernels.runsHere()) << "every 64-bit processor has it";
    EXPECT_EQ(kSse41Kernels.runsHere(), (basic & bit_SSSE3) != 0 && (basic & bit_SSE4_1) != 0);
    EXPECT_EQ(kAvx2Kernels.runsHere(), avx && (extendedB & bit_AVX2) != 0);
    EXPECT_EQ(kAvx512Kernels.runsHere(),
              avx512 && (extendedB & kAvx512Bits) == kAvx512Bits && (extendedC & bit_AVX512VBMI) != 0);
}

TEST(KernelSets, BestThatRunsIsChosenByItself) {
    EXPECT_EQ(&kernels(), runningSets().back());
}

} // namespace kestra::test
