// A module that decodes on several threads may be released at any time without harming the process.
#include "tests/support/process_counts.h"
#include "tests/unit/decode_support.h"

#include <atomic>
#include <thread>

namespace kestra::test {
namespace {

using DecodeOnce = uint32_t (*)(const TarnisCameraData*, const void*, void*, int32_t*);

} // namespace

TEST(DecodeUnload, ThreadThatDecodedEndsAndTheModuleIsReleasedAHundredTimesWithTheCoresBusy) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (unsigned i = 0; i < std::thread::hardware_concurrency(); ++i)
        busy.emplace_back([&] {
            while (!stop)
                std::this_thread::yield();
        });
    const TarnisCameraData data = cameraData(TARNIS_OUTPUT_YUV422_8, 1920, 1080);
    std::vector<uint8_t> raw(rawStride(1, 1920) * 1080, 128), rgb(size_t{5760} * 1080);
    int threadsAtFirst = 0;
    for (int round = 0; round < 100; ++round) {
        const HMODULE module = LoadLibraryW(DECODE_UNLOAD_MODULE);
        ASSERT_NE(module, nullptr) << GetLastError();
        const auto decodeOnce =
            reinterpret_cast<DecodeOnce>(reinterpret_cast<void*>(GetProcAddress(module, "decodeOnce")));
        ASSERT_NE(decodeOnce, nullptr);
        rgb.back() = 0;
        uint32_t code = 99;
        std::thread([&] {
            int32_t stride = 5760;
            code = decodeOnce(&data, raw.data(), rgb.data(), &stride);
        }).join();
        FreeLibrary(module);
        ASSERT_EQ(code, 0u) << "round " << round;
        ASSERT_EQ(rgb.back(), 130) << "112 * 1.164";
        if (round == 10) threadsAtFirst = processCounts().threads;
    }
    EXPECT_LE(processCounts().threads, threadsAtFirst + static_cast<int>(std::thread::hardware_concurrency()))
        << "helpers do not pile up with every thread that decoded";
    stop = true;
    for (std::thread& thread : busy)
        thread.join();
}

} // namespace kestra::test
