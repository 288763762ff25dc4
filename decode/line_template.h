// The line kernels' loop, written once for every instruction set. Private to decode/.
//
// A `Kernel` converts blocks of a line:
//   kBlockPairs             pairs in a block
//   kUnitPairs              a block may start at every multiple of so many pairs
//   kAlignment              of streaming stores, in bytes
//   begin(raw, pair)        reads the block that starts at that pair of the line; returns what `finish` needs
//   finish<Store>(rgb, pair, begun)  writes that block; Store::put stores a register
//   kInterleaved            whether to begin each block before the previous one is finished: gains where the processor
//                           computes longer than the memory takes, loses elsewhere
//   settle(begun, next)     if so: keeps the compiler from moving what uses `begun` before what makes `next`
//   Cached, Streaming       the two kinds of Store
//   plain                   the kernel for lines shorter than a block
//   lastPair                converts the pair that is over when the units are two pairs
#pragma once

#include "decode/plain_lines.h"
#include "decode/yuv_arithmetic.h"

namespace kestra {

/// How many steps of `stepBytes` (6 or 12) bytes lead from an address to a multiple of `alignment`, a power of two.
/// @return false if none do
KESTRA_INLINE bool stepsToAligned(const uint8_t* address, uint32_t stepBytes, uint32_t alignment, uint32_t& steps) {
    const auto a = reinterpret_cast<uintptr_t>(address);
    const uint32_t unit = stepBytes / 3;
    if (a % unit != 0) return false;
    constexpr uint32_t kInverseOf3 = 0xAAAAAAAB; // modulo 2^32, so modulo every smaller power of two
    steps = (0 - static_cast<uint32_t>(a / unit)) * kInverseOf3 & (alignment / unit - 1);
    return true;
}

template <class Kernel, class Store>
KESTRA_INLINE void convertBlock(const uint8_t* raw, uint8_t* rgb, uint32_t pair) {
    Kernel::template finish<Store>(rgb, pair, Kernel::begin(raw, pair));
}

/// Converts the whole blocks from `pair` up to `pairs`.
/// @param ahead  called with each block's first pair, to fetch what will be needed
/// @return the first pair that is not converted
template <class Kernel, class Store, class Ahead>
KESTRA_INLINE uint32_t convertBlocks(const uint8_t* raw, uint8_t* rgb, uint32_t pair, uint32_t pairs, Ahead ahead) {
    constexpr uint32_t kBlock = Kernel::kBlockPairs;
    if constexpr (Kernel::kInterleaved) {
        if (pair + kBlock > pairs) return pair;
        auto begun = Kernel::begin(raw, pair);
        for (; pairs - pair >= 2 * kBlock; pair += kBlock) {
            ahead(pair);
            auto next = Kernel::begin(raw, pair + kBlock);
            Kernel::settle(begun, next);
            Kernel::template finish<Store>(rgb, pair, begun);
            begun = next;
        }
        Kernel::template finish<Store>(rgb, pair, begun);
        return pair + kBlock;
    }
    for (; pair + kBlock <= pairs; pair += kBlock) {
        ahead(pair);
        convertBlock<Kernel, Store>(raw, rgb, pair);
    }
    return pair;
}

template <class Kernel>
void convertLine(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                 const uint8_t* nextLine) {
    constexpr uint32_t kBlock = Kernel::kBlockPairs, kUnit = Kernel::kUnitPairs;
    const uint32_t whole = pairs / kUnit * kUnit;
    if (whole < kBlock) return Kernel::plain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0, steps = 0;
    if (!nextLine && stepsToAligned(rgb, 6 * kUnit, Kernel::kAlignment, steps)) {
        if (steps != 0) convertBlock<Kernel, typename Kernel::Cached>(raw, rgb, 0);
        done = convertBlocks<Kernel, typename Kernel::Streaming>(raw, rgb, steps * kUnit, whole, [](uint32_t) {});
    } else {
        done = convertBlocks<Kernel, typename Kernel::Cached>(raw, rgb, 0, whole, [&](uint32_t pair) {
            if (nextLine)
                for (uint32_t byte = 0; byte < 6 * kBlock; byte += 64)
                    __builtin_prefetch(nextLine + size_t{6} * pair + byte, 1);
        });
    }
    if (done < whole) convertBlock<Kernel, typename Kernel::Cached>(raw, rgb, whole - kBlock); // partly once more
    if (whole < pairs) Kernel::lastPair(conversion, raw, rgb, pairs);
}

} // namespace kestra
