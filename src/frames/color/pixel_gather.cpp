#include "frames/color/pixel_gather.h"

#include <algorithm>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

namespace lumoframekit {

namespace {

// One row of pixels into three row-major rows, a pixel at a time.
void splitRowPortable(const std::uint8_t* row, std::size_t first, std::size_t width, const PixelBlock& block,
                      std::uint8_t* const out[3]) {
    for (std::size_t x = first; x < width; ++x) {
        const std::uint8_t* group = row + x / 16 * block.blockBytes;
        for (int c = 0; c < 3; ++c) out[c][x] = group[block.byteOf[c][x % 16]];
    }
}

#if defined(__x86_64__)

// Byte shuffles that pick plane c's 16 samples out of the k-th 16 bytes of a block.
struct Shuffles {
    __m128i pick[3][4];
    int vectors;
};

__attribute__((target("ssse3"))) Shuffles shufflesFor(const PixelBlock& block) {
    Shuffles s{};
    s.vectors = static_cast<int>((block.blockBytes + 15) / 16);
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < s.vectors; ++k) {
            alignas(16) std::int8_t lanes[16];
            for (int i = 0; i < 16; ++i) {
                const int at = block.byteOf[c][i] - 16 * k;
                lanes[i] = at >= 0 && at < 16 ? static_cast<std::int8_t>(at) : static_cast<std::int8_t>(-128);
            }
            s.pick[c][k] = _mm_load_si128(reinterpret_cast<const __m128i*>(lanes));
        }
    return s;
}

// Blocks of 16 rows by 16 pixels: each plane's samples are gathered into 16 row vectors,
// transposed in registers and stored as 16 column pieces. Pixels and rows that do not fill a block
// are split one at a time.
__attribute__((target("ssse3"))) void splitBlocks(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end,
                                                  std::size_t width, std::size_t height, bool flipRows,
                                                  const PixelBlock& block, std::uint8_t* const planes[3]) {
    const Shuffles s = shufflesFor(block);
    const std::size_t fullRows = height / 16 * 16;
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    for (std::size_t r0 = 0; r0 < fullRows; r0 += 16) {
        const std::uint8_t* rows[16];
        const std::uint8_t* furthest = nullptr;
        for (std::size_t i = 0; i < 16; ++i) {
            rows[i] = rowAt(r0 + i);
            furthest = std::max(furthest, rows[i]);
        }
        std::size_t x0 = 0;
        for (; x0 + 16 <= width && furthest + x0 / 16 * block.blockBytes + 16 * s.vectors <= end; x0 += 16) {
            const std::size_t at = x0 / 16 * block.blockBytes;
            for (int c = 0; c < 3; ++c) {
                __m128i v[16];
                for (std::size_t i = 0; i < 16; ++i) {
                    __m128i plane = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + at)), s.pick[c][0]);
                    for (int k = 1; k < s.vectors; ++k)
                        plane = _mm_or_si128(plane, _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + at + 16 * k)), s.pick[c][k]));
                    v[i] = plane;
                }
                transposeVectors<1>(v);
                for (std::size_t k = 0; k < 16; ++k)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(planes[c] + (x0 + k) * height + r0), v[k]);
            }
        }
        for (std::size_t x = x0; x < width; ++x)
            for (std::size_t i = 0; i < 16; ++i) {
                const std::uint8_t* group = rows[i] + x / 16 * block.blockBytes;
                for (int c = 0; c < 3; ++c) planes[c][x * height + r0 + i] = group[block.byteOf[c][x % 16]];
            }
    }
    for (std::size_t y = fullRows; y < height; ++y)
        for (std::size_t x = 0; x < width; ++x) {
            const std::uint8_t* group = rowAt(y) + x / 16 * block.blockBytes;
            for (int c = 0; c < 3; ++c) planes[c][x * height + y] = group[block.byteOf[c][x % 16]];
        }
}
#endif

}  // namespace

void splitInterleaved(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                      std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]) {
#if defined(__x86_64__)
    if (shuffleKernelsAvailable()) {
        splitBlocks(src, stride, end, width, height, flipRows, block, planes);
        return;
    }
#else
    (void)end;
#endif
    // Without the byte shuffles, rows go through a row-major band of each plane, then the band is
    // transposed into the column-major planes: every pass walks memory in order.
    constexpr std::size_t bandRows = 64;
    std::vector<std::uint8_t> band(3 * bandRows * width);
    for (std::size_t r0 = 0; r0 < height; r0 += bandRows) {
        const std::size_t rows = std::min(bandRows, height - r0);
        for (std::size_t i = 0; i < rows; ++i) {
            const std::size_t y = r0 + i;
            const std::uint8_t* row = src + (flipRows ? height - 1 - y : y) * stride;
            std::uint8_t* out[3] = {&band[(0 * bandRows + i) * width], &band[(1 * bandRows + i) * width],
                                    &band[(2 * bandRows + i) * width]};
            splitRowPortable(row, 0, width, block, out);
        }
        for (int c = 0; c < 3; ++c)
            transposeSamples<1>(&band[c * bandRows * width], width, planes[c] + r0, height, rows, width, false, SampleOp::Copy);
    }
}

}  // namespace lumoframekit
