// Any record, stride and raw bytes: a decode reads only the raw frame and writes only its image. Both lie in blocks of
// exactly their size, so that the address sanitizer sees every access beyond.
#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "protocol/raw_frame.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using namespace kestra;

struct Input {
    uint32_t selector, outputParameter, interlaced;
    uint16_t width, height;
    int32_t stride;
    uint8_t flags; ///< 1 no raw frame, 2 no image, 4 bottom-up, 8 least stride; bits 4 and up the kernel set
};

constexpr uint64_t kMostBytes = 1u << 16;

uint64_t rawBytes(const Input& in) {
    return uint64_t{rawLineBytes(in.selector, in.width)} * in.height;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    Input in{};
    if (size < sizeof in) return 0;
    std::memcpy(&in, bytes, sizeof in);
    bytes += sizeof in;
    size -= sizeof in;
    // Mostly the layouts that exist, and sizes that leave room for many executions.
    if (in.selector > 8) in.selector %= 4;
    if (in.outputParameter > 8) in.outputParameter %= 3;
    if (in.interlaced > 8) in.interlaced %= 3;
    in.width %= 300;
    in.height %= 20;
    const int32_t needed = (in.width * 3 + 3) & ~3;
    if (in.flags & 8) in.stride = needed;
    if ((in.flags & 4) && in.stride > 0) in.stride = -in.stride;
    const auto step = static_cast<uint64_t>(std::llabs(int64_t{in.stride}));
    const uint64_t imageBytes = step < static_cast<uint64_t>(needed) ? 0 : step * in.height;
    if (imageBytes > kMostBytes) return 0;

    TarnisCameraData data{};
    data.outputSelector = in.selector;
    data.outputParameter = in.outputParameter;
    data.status.interlaced = in.interlaced;
    data.status.width = in.width;
    data.status.height = in.height;
    const uint64_t rawSize = rawBytes(in);
    const std::unique_ptr<uint8_t[]> raw(new uint8_t[rawSize]);
    for (uint64_t i = 0; i < rawSize; ++i)
        raw[i] = size != 0 ? bytes[i % size] : static_cast<uint8_t>(i);
    const std::unique_ptr<uint8_t[]> image(new uint8_t[imageBytes]);
    uint8_t* top = in.stride < 0 && imageBytes != 0 ? image.get() + imageBytes - step : image.get();

    useKernels(*kKernelSets[(in.flags >> 4) % kKernelSets.size()]); // where it runs
    int32_t stride = in.stride;
    const uint32_t code = TARNIS_Decode(&data, in.flags & 1 ? nullptr : raw.get(), in.flags & 2 ? nullptr : top,
                                        &stride, 2, nullptr, nullptr);
    switch (code) {
    case TARNIS_SUCCESS:
        if (in.selector > 2 || (in.flags & 3) != 0 || stride != in.stride) std::abort();
        break;
    case TARNIS_INVALID_ARGUMENT:
        if (stride != needed) std::abort();
        break;
    case TARNIS_OUT_OF_MEMORY: // no scratch image has no bytes
        if (in.selector != 0 || (in.width != 0 && in.height > 1)) std::abort();
        break;
    case TARNIS_NOT_SUPPORTED:
        if (in.selector < 3) std::abort();
        break;
    default:
        std::abort();
    }
    return 0;
}
