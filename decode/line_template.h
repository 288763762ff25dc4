// The line conversion's loop, written once for every instruction set. Private to decode/.
// A `Kernel` converts blocks of a line in three steps, so that those of neighbouring blocks can be done in turn:
//   Set                   its registers, see yuv_arithmetic.h
//   Lines8Bit, Lines10Bit  the layout of the line is a base
//   kBlockPairs           pairs in a block
//   samples<kPhase>(raw)  reads block kPhase of the kPhases that begin at `raw`
//   terms(samples)        what its pixels' sums are made of
//   finish<Store>(rgb, terms)  sums, limits and writes; Store::put stores a register
#pragma once

#include "decode/plain_lines.h"
#include "decode/yuv_arithmetic.h"

namespace kestra {

struct Lines8Bit {
    /// Blocks after which the next begins at a whole raw word again.
    static constexpr uint32_t kPhases = 1;
    /// The first block of a run may begin at any multiple of this many pairs.
    static constexpr uint32_t kUnitPairs = 1;
    /// Where the raw bytes of a pair, a multiple of kUnitPairs, begin.
    static constexpr size_t rawByte(uint32_t pair) { return size_t{4} * pair; }
    /// For lines shorter than a block and for the remainder of longer ones.
    static constexpr ConvertLine plain = convertLine8BitPlain;
};

struct Lines10Bit {
    static constexpr uint32_t kPhases = 3, kUnitPairs = 6; // four words
    static constexpr size_t rawByte(uint32_t pair) { return size_t{32} * (pair / 6); }
    static constexpr ConvertLine plain = convertLine10BitPlain;
};

template <class Ops>
struct Cached {
    static KESTRA_INLINE void put(uint8_t* p, typename Ops::Vec v) { Ops::store(p, v); }
};
template <class Ops>
struct Streaming {
    static KESTRA_INLINE void put(uint8_t* p, typename Ops::Vec v) { Ops::stream(p, v); }
};

template <class Kernel, class Store, size_t kPhase>
KESTRA_INLINE void convertBlock(const uint8_t* raw, uint8_t* rgb) {
    Kernel::template finish<Store>(rgb + size_t{6} * Kernel::kBlockPairs * kPhase,
                                   Kernel::terms(Kernel::template samples<kPhase>(raw)));
}

/// Finishes one block between reading the next one's samples and computing its terms: a block alone is one long chain
/// of dependent instructions.
/// @param terms  of the block that is finished; then of the next one
/// @param raw    where the next block's run begins
template <class Kernel, class Store, size_t kNextPhase>
KESTRA_INLINE void finishAndBegin(uint8_t* rgb, typename Kernel::Terms& terms, const uint8_t* raw) {
    auto samples = Kernel::template samples<kNextPhase>(raw);
    settle(samples);
    settle(terms);
    Kernel::template finish<Store>(rgb, terms);
    settle(samples);
    terms = Kernel::terms(samples);
}

/// Converts whole blocks from `pair`, a multiple of kUnitPairs, up to `pairs`.
/// @param ahead  called with each run's first pair, to fetch what will be needed
/// @return the first pair that is not converted
template <class Kernel, class Store, class Ahead>
KESTRA_INLINE uint32_t convertBlocks(const uint8_t* raw, uint8_t* rgb, uint32_t pair, uint32_t pairs, Ahead ahead) {
    constexpr uint32_t kBlock = Kernel::kBlockPairs, kRun = kBlock * Kernel::kPhases;
    constexpr size_t kOut = size_t{6} * kBlock;
    if (pairs - pair < kBlock) return pair;
    raw += Kernel::rawByte(pair);
    rgb += size_t{6} * pair;
    auto terms = Kernel::terms(Kernel::template samples<0>(raw));
    for (; pairs - pair >= kRun + kBlock; pair += kRun, rgb += size_t{6} * kRun) {
        ahead(pair);
        if constexpr (Kernel::kPhases == 3) {
            finishAndBegin<Kernel, Store, 1>(rgb, terms, raw);
            finishAndBegin<Kernel, Store, 2>(rgb + kOut, terms, raw);
        }
        raw += Kernel::rawByte(kRun);
        finishAndBegin<Kernel, Store, 0>(rgb + kOut * (Kernel::kPhases - 1), terms, raw);
    }
    Kernel::template finish<Store>(rgb, terms);
    pair += kBlock;
    if constexpr (Kernel::kPhases == 3) {
        if (pairs - pair >= kBlock) convertBlock<Kernel, Store, 1>(raw, rgb), pair += kBlock;
        if (pairs - pair >= kBlock) convertBlock<Kernel, Store, 2>(raw, rgb), pair += kBlock;
    }
    return pair;
}

/// The first pair from which stores are aligned, if there is one: a multiple of kUnitPairs within the first block.
template <class Kernel>
KESTRA_INLINE uint32_t alignedPair(const uint8_t* rgb) {
    uint32_t pair = 0;
    while (pair <= Kernel::kBlockPairs &&
           (reinterpret_cast<uintptr_t>(rgb) + size_t{6} * pair) % Kernel::Set::kBytes != 0)
        pair += Kernel::kUnitPairs;
    return pair;
}

template <class Kernel>
void convertLine(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                 const uint8_t* nextLine) {
    using Ops = typename Kernel::Set;
    constexpr uint32_t kBlock = Kernel::kBlockPairs, kUnit = Kernel::kUnitPairs, kRun = kBlock * Kernel::kPhases;
    if (pairs < kBlock) return Kernel::plain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0;
    if (const uint32_t first = alignedPair<Kernel>(rgb); !nextLine && first <= kBlock) {
        if (first != 0) convertBlock<Kernel, Cached<Ops>, 0>(raw, rgb);
        done = convertBlocks<Kernel, Streaming<Ops>>(raw, rgb, first, pairs, [](uint32_t) {});
    } else {
        done = convertBlocks<Kernel, Cached<Ops>>(raw, rgb, 0, pairs, [&](uint32_t pair) {
            if (nextLine)
                for (uint32_t byte = 0; byte < 6 * kRun; byte += 64)
                    __builtin_prefetch(nextLine + size_t{6} * pair + byte, 1);
        });
    }
    if (done == pairs) return;
    const uint32_t last = (pairs - kBlock) / kUnit * kUnit; // partly once more
    convertBlock<Kernel, Cached<Ops>, 0>(raw + Kernel::rawByte(last), rgb + size_t{6} * last);
    const uint32_t rest = (last + kBlock) / kUnit * kUnit;
    if (last + kBlock < pairs)
        Kernel::plain(conversion, raw + Kernel::rawByte(rest), rgb + size_t{6} * rest, pairs - rest, nullptr);
}

} // namespace kestra
