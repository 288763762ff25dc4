// The pixel kernels of one instruction set, and which set this process uses. Portable; any thread.
// A set is one file, the only one built with its instructions, that exports one `const KernelSet`. A new set is such a
// file and its name in kKernelSets.
#pragma once

#include "decode/color_tables.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestra {

/// Images of at least this many bytes are stored past the caches. Storing into cached lines would read them first, and
/// whoever reads so large an image next finds little of it cached anyway.
constexpr uint64_t kStreamedBytes = 3u << 20;

/// What converting a line needs besides the line.
struct LineConversion {
    const ColorTables& tables;
    const TarnisConverterParams& params; ///< only the limits are read; the tables were built from the rest
};

/// Makes 24-bit RGB of a raw 4:2:2 line: `pairs` pairs of pixels.
/// @param raw       8-bit: bytes Y0, Cb, Y1, Cr; 10-bit: little-endian words of six samples. No byte beyond the last
///                  sample's group is read (8-bit: 4 bytes a pair; 10-bit: whole words).
/// @param rgb       6 bytes a pair are written
/// @param nextLine  where the next call will write, to be prefetched; a hint, may be any address. Null: the image has
/// kStreamedBytes, stores go past the caches where alignment allows it, and the caller issues a fence after the last
/// line.
using ConvertLine = void (*)(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                             const uint8_t* nextLine);

/// Copies a raw line into an image.
/// @param bytes     bytes of the raw line to copy
/// @param streamed  the image has kStreamedBytes: stores go past the caches, and the caller issues a fence after the
/// last line Source and destination must not overlap; nothing beyond `bytes` is read, nothing beyond its image is
/// written.
using SampleLine = void (*)(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed);

struct KernelSet {
    const char* name;
    /// The processor has the instructions and the system saves their registers.
    bool (*runsHere)() noexcept;
    /// The plain set reads the tables. All others compute the entries of the default tables and need tables whose
    /// arithmeticIsExact and limits of 0..255: use convertLineFor.
    ConvertLine convertLine8Bit, convertLine10Bit;
    /// Cost on one thread with uncached frames; decides whether the work is shared.
    uint32_t picosecondsPerPixel8Bit, picosecondsPerPixel10Bit;
    SampleLine copyLine; ///< as it is
    SampleLine swapLine; ///< the two bytes of every 16-bit word swapped (Y Cb Y Cr becomes Cb Y Cr Y); no odd last byte
    SampleLine expandLine; ///< three bytes a pixel become four, the fourth 0; `bytes` counts whole pixels
};

extern const KernelSet kPlainKernels, kSse2Kernels, kSse41Kernels, kAvx2Kernels, kAvx512Kernels;

/// All sets, whether they run here or not: first the plain one, which defines the results, last the best.
inline constexpr std::array kKernelSets = {&kPlainKernels, &kSse2Kernels, &kSse41Kernels, &kAvx2Kernels,
                                           &kAvx512Kernels};

extern std::atomic<const KernelSet*> g_kernels; ///< use kernels()

/// The set that this process uses: the best that runs here, unless another was chosen.
inline const KernelSet& kernels() noexcept {
    return *g_kernels.load(std::memory_order_relaxed);
}

/// Makes all later kernel calls of the process use this set: for tests, benchmarks, and processors on which a better
/// one misbehaves. Results never differ, only speed.
/// @return false, with nothing changed, if it does not run here
bool useKernels(const KernelSet& set) noexcept;

/// The kernel for these tables and limits: the process's own, or the plain one if only that is exact.
ConvertLine convertLineFor(const LineConversion& conversion) noexcept;

} // namespace kestra
