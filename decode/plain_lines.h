// The plain kernels that other sets fall back to: for lines shorter than a register and the remainders of longer ones.
// Private to decode/.
#pragma once

#include "decode/kernel_set.h"

namespace kestra {

void convertLine8BitPlain(const LineConversion&, const uint8_t* raw, uint8_t* rgb, uint32_t pairs, const uint8_t*);
void convertLine10BitPlain(const LineConversion&, const uint8_t* raw, uint8_t* rgb, uint32_t pairs, const uint8_t*);

void copyLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed);
void swapLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed);
void expandLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed);

} // namespace kestra
