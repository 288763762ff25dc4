// The choice of the kernel set, once per process.
#include "decode/kernel_set.h"

#include <cstddef>

namespace kestra {

namespace {

const KernelSet* best() noexcept {
    __builtin_cpu_init(); // runs before main
    size_t last = kKernelSets.size() - 1;
    while (!kKernelSets[last]->runsHere()) // the plain ones, which come first, run everywhere
        --last;
    return kKernelSets[last];
}

} // namespace

std::atomic<const KernelSet*> g_kernels{best()};

bool useKernels(const KernelSet& set) noexcept {
    if (!set.runsHere()) return false;
    g_kernels = &set;
    return true;
}

ConvertLine convertLineFor(const LineConversion& conversion) noexcept {
    const TarnisConverterParams& p = conversion.params;
    const bool fullRange = p.RMin == 0 && p.GMin == 0 && p.BMin == 0 && p.RMax == 255 && p.GMax == 255 && p.BMax == 255;
    const KernelSet& set = conversion.tables.arithmeticIsExact && fullRange ? kernels() : kPlainKernels;
    return conversion.tables.depth == SampleDepth::Bits10 ? set.convertLine10Bit : set.convertLine8Bit;
}

} // namespace kestra
