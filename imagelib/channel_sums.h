// Exact sums over the channels of lines of three bytes a pixel. Portable; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestra {

/// Adds every byte of a line of `pixels` pixels to its channel's sum.
using AddLine = void (*)(const uint8_t* line, size_t pixels, uint64_t (&sums)[3]) noexcept;

void addLinePlain(const uint8_t* line, size_t pixels, uint64_t (&sums)[3]) noexcept;
#ifdef __SSE2__
void addLineSse2(const uint8_t* line, size_t pixels, uint64_t (&sums)[3]) noexcept;
#endif

struct AddLineVariant {
    const char* name;
    AddLine add;
};
/// Every kernel of this build, plain first; the last one is used.
std::span<const AddLineVariant> addLineVariants() noexcept;

} // namespace kestra
