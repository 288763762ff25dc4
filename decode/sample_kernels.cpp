// The plain sample kernels.
#include "decode/sample_kernels.h"

#include "decode/region_template.h"

namespace kestra {

void copyLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    copyBytes(src, dst, bytes);
}

void swapLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    for (size_t i = 0; i + 2 <= bytes; i += 2) {
        dst[i] = src[i + 1];
        dst[i + 1] = src[i];
    }
}

void expandLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    for (; bytes >= 3; bytes -= 3, src += 3, dst += 4) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
        dst[3] = 0;
    }
}

} // namespace kestra
