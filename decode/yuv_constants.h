// The 16-bit arithmetic that gives the entries of the default tables (ITU-R BT.601, studio to full range), one entry a
// lane: `high` is the high half of the signed 16-bit product, and subtracting the sign makes it round toward zero as
// the tables do. The constants were found by search over all products; the tables are compared with them when they are
// built, and a kernel uses them only if every entry agrees. Portable.
#pragma once

#include <cstdint>

namespace kestra {

constexpr int highProduct(int x, int c) noexcept {
    return x * c >> 16;
}

/// 8-bit samples: x = 8 * (i - offset), entry = high(x, c) - sign(x).
namespace yuv8 {
constexpr int kYOff = 16, kCOff = 128;
constexpr int16_t kY = 9535, kCrR = 13075, kCbB = 16523, kCbG = 3212, kCrG = 6657;
constexpr int term(int i, int offset, int c) noexcept {
    const int x = 8 * (i - offset);
    return highProduct(x, c) - (x >> 31);
}
} // namespace yuv8

/// 10-bit samples: x = i - offset, entry = whole * x + high(x, c) - sign(x).
namespace yuv10 {
constexpr int kYOff = 64, kCOff = 512;
constexpr int16_t kY = 10748, kCbB = 1114, kCrR = -26476, kCbG = 25691, kCrG = -12255;
constexpr int term(int i, int offset, int whole, int c) noexcept {
    const int x = i - offset;
    return whole * x + highProduct(x, c) - (x >> 31);
}
} // namespace yuv10

} // namespace kestra
