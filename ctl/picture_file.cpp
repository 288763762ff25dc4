// PNG through stb; its writer makes 8-bit files only, so that for 16 bits the chunks are made here around its
// compressor.
#include "ctl/picture_file.h"

#include "ctl/raw_samples.h"
#include "protocol/converter.h"
#include "protocol/raw_frame.h"

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace kestra::ctl {

namespace {

struct Freer {
    void operator()(unsigned char* memory) const noexcept { std::free(memory); }
};
using StbMemory = std::unique_ptr<unsigned char, Freer>;

constexpr std::array<uint32_t, 256> kCrcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit)
            c = c & 1 ? 0xEDB88320u ^ c >> 1 : c >> 1;
        table[i] = c;
    }
    return table;
}();

void appendBigEndian(std::vector<uint8_t>& file, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        file.push_back(static_cast<uint8_t>(value >> shift));
}

void appendChunk(std::vector<uint8_t>& file, std::string_view type, std::span<const uint8_t> data) {
    appendBigEndian(file, static_cast<uint32_t>(data.size()));
    const size_t begin = file.size();
    file.insert(file.end(), type.begin(), type.end());
    file.insert(file.end(), data.begin(), data.end());
    uint32_t crc = ~0u;
    for (size_t i = begin; i < file.size(); ++i)
        crc = kCrcTable[(crc ^ file[i]) & 0xFF] ^ crc >> 8;
    appendBigEndian(file, ~crc);
}

} // namespace

std::vector<uint8_t> pngOfBgr(std::span<uint8_t> bgr, uint32_t width, uint32_t height) {
    const uint32_t stride = rgbLineBytes(width);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            uint8_t* pixel = &bgr[size_t{y} * stride + size_t{x} * 3];
            std::swap(pixel[0], pixel[2]);
        }
    int bytes = 0;
    const StbMemory png(stbi_write_png_to_mem(bgr.data(), static_cast<int>(stride), static_cast<int>(width),
                                              static_cast<int>(height), 3, &bytes));
    if (!png) throw std::bad_alloc();
    return {png.get(), png.get() + bytes};
}

std::vector<uint16_t> rgb16OfRaw10(const TarnisCameraStatus& status, std::span<const uint8_t> raw) {
    constexpr const TarnisConverterParams& p = wire::kDefaultConverter;
    static constexpr double kWhite = 1020; // 255 in units of the 10-bit levels
    const auto component = [](double level) {
        return static_cast<uint16_t>(std::lround(std::clamp(level, 0.0, kWhite) * 65535 / kWhite));
    };
    const uint32_t width = status.width, height = status.height, pairs = (width + 1) / 2;
    const uint32_t line = rawLineBytes(TARNIS_OUTPUT_YUV422_10, width);
    std::vector<uint16_t> rgb(size_t{width} * height * 3), luma(size_t{pairs} * 2), cb(pairs), cr(pairs);
    for (uint32_t y = 0; y < height; ++y) {
        const uint32_t from = status.interlaced ? rawLineOf(y, firstFieldLines(height)) : y;
        splitLine10(raw.data() + size_t{from} * line, width, luma.data(), cb.data(), cr.data());
        uint16_t* out = &rgb[size_t{y} * width * 3];
        for (uint32_t x = 0; x < width; ++x) {
            const double grey = double{p.Y1} * (luma[x] - p.YOff), blue = cb[x / 2] - p.CbOff,
                         red = cr[x / 2] - p.CrOff;
            *out++ = component(grey + double{p.R1} * red);
            *out++ = component(grey - double{p.G1} * red - double{p.G2} * blue);
            *out++ = component(grey + double{p.B1} * blue);
        }
    }
    return rgb;
}

std::vector<uint8_t> pngOfRgb16(std::span<const uint16_t> rgb, uint32_t width, uint32_t height) {
    // Each line's bytes less those of the pixel before (filter 1), which compresses well.
    const size_t line = size_t{width} * 6;
    std::vector<uint8_t> filtered(size_t{height} * (line + 1));
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* out = &filtered[y * (line + 1)];
        *out++ = 1;
        const uint16_t* in = &rgb[size_t{y} * width * 3];
        for (uint32_t i = 0; i < width * 3; ++i) {
            const uint32_t before = i < 3 ? 0 : in[i - 3];
            *out++ = static_cast<uint8_t>((in[i] >> 8) - (before >> 8));
            *out++ = static_cast<uint8_t>(in[i] - before);
        }
    }
    int bytes = 0;
    const StbMemory packed(stbi_zlib_compress(filtered.data(), static_cast<int>(filtered.size()), &bytes, 5));
    if (!packed) throw std::bad_alloc();
    std::vector<uint8_t> head;
    appendBigEndian(head, width);
    appendBigEndian(head, height);
    head.insert(head.end(), {16, 2, 0, 0, 0}); // bits, true colour, the only compression and filters, not interlaced
    constexpr uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> file(std::begin(kSignature), std::end(kSignature));
    appendChunk(file, "IHDR", head);
    appendChunk(file, "IDAT", {packed.get(), static_cast<size_t>(bytes)});
    appendChunk(file, "IEND", {});
    return file;
}

} // namespace kestra::ctl
