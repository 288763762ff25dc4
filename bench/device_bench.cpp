// Time per frame of the device library beside the bare request pair (lock and unlock by a raw client), in one run:
// rounds of both alternate on the same card, which fills buffers as fast as they are given back. And the same with a
// trace (docs/trace.md), which is to cost next to nothing.
#include "bench/report.h"
#include "device/tarnis.h"
#include "device/tracing.h"
#include "protocol/user_settings.h"
#include "simcard/client/raw_client.h"
#include "simcard/ctl/control.h"

#include <windows.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <vector>

namespace {

using namespace kestra;
using namespace kestra::bench;
using namespace kestra::simcard;

const int kRounds = fullOrShort(15, 1);
const uint32_t kFrames = fullOrShort(1500u, 50u);
constexpr Signal kSmall = {1, 0, 0, 9, 0, 0, 64, 16, 0, 60, 1, 0}; // so that requests are what costs

double microsecondsNow() {
    LARGE_INTEGER ticks, frequency;
    QueryPerformanceCounter(&ticks);
    QueryPerformanceFrequency(&frequency);
    return 1e6 * static_cast<double>(ticks.QuadPart) / static_cast<double>(frequency.QuadPart);
}

/// Microseconds per frame of lock and unlock without the library.
double bareRound(const std::wstring& path) {
    RawClient client(path);
    client.openSession();
    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    if (stream.start() != 0) throw std::runtime_error("the raw stream does not start");
    RawClient::Pending lock, unlock; // made once: the bare pair costs no more than its two requests
    const wire::Header header = client.header();
    wire::LockBufferReply buffer{};
    wire::Reply reply{};
    const auto ask = [&](RawClient::Pending& pending, uint32_t code, const void* in, DWORD inSize, void* out,
                         DWORD outSize) {
        const DWORD error = client.begin(pending, code, in, inSize, out, outSize);
        if ((error != ERROR_SUCCESS && error != ERROR_IO_PENDING) || client.end(pending) != ERROR_SUCCESS)
            throw std::runtime_error("the raw stream ends");
    };
    double begin = 0;
    for (uint32_t i = 0; i < kFrames + 100; ++i) {
        if (i == 100) begin = microsecondsNow();
        ask(lock, wire::kLockBuffer, &header, sizeof header, &buffer, sizeof buffer);
        const wire::UnlockBufferRequest request{header, buffer.bufferId};
        ask(unlock, wire::kUnlockBuffer, &request, sizeof request, &reply, sizeof reply);
    }
    return (microsecondsNow() - begin) / kFrames;
}

struct Timed {
    uint32_t frames = 0;
    double begin = 0, end = 0;
    HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ~Timed() { CloseHandle(done); }
    static void onFrame(uint64_t context, const TarnisFrameInfo*) {
        auto& self = *reinterpret_cast<Timed*>(context);
        ++self.frames;
        if (self.frames == 100) self.begin = microsecondsNow();
        if (self.frames == kFrames + 100) {
            self.end = microsecondsNow();
            SetEvent(self.done);
        }
    }
};

double libraryRound() {
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    DeviceEnumData data{};
    data.size = sizeof data;
    if (TARNIS_EnumNext(enumerator, &data) != 0) throw std::runtime_error("no card");
    TARNIS_HANDLE grabber = TARNIS_InitByHandle(data.interfaceDetail);
    TARNIS_EnumClose(enumerator);
    Timed timed;
    TarnisCameraData camera{};
    camera.outputSelector = TARNIS_OUTPUT_YUV422_8;
    if (TARNIS_GetDMAAccess(grabber, 0) != 0 ||
        TARNIS_StartGrab(grabber, 0, 0, &camera, Timed::onFrame, reinterpret_cast<uint64_t>(&timed)) != 0)
        throw std::runtime_error("the library does not start");
    WaitForSingleObject(timed.done, 60000);
    TARNIS_StopGrab(grabber, 0);
    TARNIS_ReleaseDMAAccess(grabber, 0);
    TARNIS_Done(grabber);
    return (timed.end - timed.begin) / kFrames;
}

/// The same while everything is recorded.
double tracedRound(const std::filesystem::path& folder) {
    SetEnvironmentVariableW(kTraceVariable, folder.wstring().c_str());
    const double time = libraryRound();
    SetEnvironmentVariableW(kTraceVariable, nullptr);
    return time;
}

/// Nanoseconds that a request takes to see that it is not recorded.
double lookNs() {
    constexpr int kLooks = 20'000'000;
    TracedRequest request;
    const double begin = microsecondsNow();
    for (int i = 0; i < kLooks; ++i) {
        request.begin({wire::kUnlockBuffer, 0, 1, nullptr, 0, nullptr, 0});
        request.end(0, 0);
    }
    return (microsecondsNow() - begin) * 1e3 / kLooks;
}

} // namespace

int main() {
    try {
        Report report("device library");
        const CardControl card;
        card.reset();
        card.setSignal(kSmall);
        Options fast = kDefaultOptions;
        fast.pace = Pace::AsTaken;
        card.setOptions(fast);
        std::vector<double> bare, library, traced;
        double bareProcessor = 0, libraryProcessor = 0, tracedProcessor = 0; // of all rounds, in milliseconds
        const std::filesystem::path folder =
            std::filesystem::temp_directory_path() / ("kestra-bench-" + std::to_string(GetCurrentProcessId()));
        std::filesystem::create_directories(folder);
        for (int round = 0; round < kRounds; ++round) {
            const double before = processorMs();
            bare.push_back(bareRound(card.devicePath()));
            const double between = processorMs();
            library.push_back(libraryRound());
            bareProcessor += between - before;
            const double after = processorMs();
            libraryProcessor += after - between;
            traced.push_back(tracedRound(folder));
            tracedProcessor += processorMs() - after;
        }
        card.reset();
        std::printf("%d rounds of %u frames each, microseconds per frame: median, and processor time\n", kRounds,
                    kFrames);
        const auto tell = [&](const char* name, Role role, const std::vector<double>& rounds, double processor) {
            const double perFrame = processor * 1e3 / kRounds / kFrames;
            std::printf("  %-32s %8.1f %8.1f\n", name, median(rounds), perFrame);
            report.add({"one frame, tiny picture", name, role, median(rounds), "us", perFrame});
        };
        tell("lock and unlock by a raw client", Role::Limit, bare, bareProcessor);
        tell("device library, to the callback", Role::Ours, library, libraryProcessor);
        tell("the same, recorded in a trace", Role::Ours, traced, tracedProcessor);
        std::printf("  library / raw                    %8.3f\n", median(library) / median(bare));
        std::printf("  recorded / not recorded          %8.3f\n", median(traced) / median(library));
        std::printf("  not recorded: %.2f ns a request, %.6f of the pair\n", lookNs(),
                    2 * lookNs() * 1e-3 / median(bare));
        std::error_code stays; // this process's trace is open until it ends
        std::filesystem::remove_all(folder, stays);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "device_bench: %s\n", error.what());
        return 1;
    }
}
