// The decoder's entry: checks, geometry, and the line loops.
#include "decode/decode.h"

#include "decode/kernel_set.h"
#include "decode/parallel.h"
#include "decode/region_copy.h"
#include "decode/scratch_image.h"
#include "log/log.h"
#include "protocol/raw_frame.h"

#include <cstddef>
#include <cstdlib>

#include <xmmintrin.h>

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"\"Unpack Functions\"", L".\\TARNIS_unpack.cpp"};
constexpr char kFunction[] = "TARNIS_Decode";

/// Lines of an image: the first one and the distance to the next.
template <class Byte>
struct Lines {
    Byte* first;
    ptrdiff_t stepBytes;
    Byte* operator[](uint32_t line) const noexcept { return first + stepBytes * static_cast<ptrdiff_t>(line); }
};

struct Frame {
    uint32_t width, height; ///< of the image that is decoded
    bool interlaced;        ///< the second field follows the first
    Lines<const uint8_t> raw;
    Lines<uint8_t> rgb;
    bool streamed() const noexcept { return uint64_t{3} * width * height >= kStreamedBytes; }
};

/// 4:2:2 of either depth, fields woven.
void convertFrame(const Frame& frame, SampleDepth depth) {
    const ColorTables& tables = defaultTables(depth);
    const LineConversion conversion{tables, tables.builtFrom};
    const ConvertLine convert = convertLineFor(conversion);
    const uint32_t pairs = frame.width / 2, secondField = firstFieldLines(frame.height);
    const ptrdiff_t toNext = frame.rgb.stepBytes * (frame.interlaced ? 2 : 1);
    const bool streamed = frame.streamed();
    const uint64_t picosecondsPerPixel =
        depth == SampleDepth::Bits10 ? kernels().picosecondsPerPixel10Bit : kernels().picosecondsPerPixel8Bit;
    forEachBlock(frame.height, picosecondsPerPixel * frame.width * frame.height / 1000,
                 [&](uint32_t first, uint32_t count) {
                     for (uint32_t r = first; r < first + count; ++r) {
                         uint8_t* out = frame.rgb[frame.interlaced ? wovenLine(r, secondField) : r];
                         const auto next = reinterpret_cast<uintptr_t>(out) + static_cast<uintptr_t>(toNext);
                         convert(conversion, frame.raw[r], out, pairs,
                                 streamed ? nullptr : reinterpret_cast<const uint8_t*>(next)); // a hint only
                     }
                     if (streamed) _mm_sfence(); // stores become visible before the loop's end does
                 });
}

/// Copies 24-bit RGB, fields woven; on this thread only, since it is memory-bound.
void copyFrame(const Frame& frame) {
    const auto copy = [&](uint32_t from, uint32_t to, ptrdiff_t step, uint32_t lines) {
        copyRegionC3(frame.raw[from], frame.raw.stepBytes, frame.rgb[to], step,
                     {static_cast<int32_t>(frame.width), static_cast<int32_t>(lines)}, frame.streamed());
    };
    if (!frame.interlaced) return copy(0, 0, frame.rgb.stepBytes, frame.height);
    // Both fields have the same height here: the last raw line of an odd height is not copied.
    const uint32_t fieldLines = equalFieldLines(frame.height);
    copy(0, 0, 2 * frame.rgb.stepBytes, fieldLines);
    copy(fieldLines, 1, 2 * frame.rgb.stepBytes, fieldLines);
}

uint32_t refused(int line, const wchar_t* text) noexcept {
    KESTRA_LOG_AT(line, kUnit, kFunction, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"%ls", text);
    return TARNIS_INVALID_ARGUMENT;
}

} // namespace

uint32_t TARNIS_Decode(const TarnisCameraData* cameraData, const void* pRawPixels, void* pDst, int32_t* pStrideSize,
                       uint32_t /*outputFormat*/, const void* /*reserved1*/, const void* /*reserved2*/) {
    // The line numbers are fixed: see docs/compatibility.md.
    if (!cameraData) return refused(610, L"cameraData is NULL");
    if (!pStrideSize) return refused(611, L"pStrideSize is NULL");
    const uint32_t width = cameraData->status.width;
    const auto needed = static_cast<int32_t>(rgbLineBytes(width));
    if (!pRawPixels) *pStrideSize = 0;
    if (std::llabs(int64_t{*pStrideSize}) < needed || !pDst) {
        *pStrideSize = needed;
        return TARNIS_INVALID_ARGUMENT;
    }
    if (!pRawPixels) return refused(624, L"pRawPixels is NULL"); // only if the width is 0

    Frame frame{width,
                cameraData->status.height,
                cameraData->status.interlaced == 1,
                {static_cast<const uint8_t*>(pRawPixels), rawLineBytes(cameraData->outputSelector, width)},
                {static_cast<uint8_t*>(pDst), *pStrideSize}};
    if (cameraData->outputParameter == 1 && frame.interlaced) {
        frame.interlaced = false; // the first field alone
        frame.height = equalFieldLines(frame.height);
    }
    switch (cameraData->outputSelector) {
    case TARNIS_OUTPUT_YUV422_10: {
        const ScratchImage scratch(width, frame.height);
        if (!scratch) return TARNIS_OUT_OF_MEMORY;
        convertFrame(frame, SampleDepth::Bits10);
        return TARNIS_SUCCESS;
    }
    case TARNIS_OUTPUT_YUV422_8:
        convertFrame(frame, SampleDepth::Bits8);
        return TARNIS_SUCCESS;
    case TARNIS_OUTPUT_RGB24:
        copyFrame(frame);
        return TARNIS_SUCCESS;
    default:
        return TARNIS_NOT_SUPPORTED;
    }
}
