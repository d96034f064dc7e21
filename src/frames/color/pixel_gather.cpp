#include "frames/color/pixel_gather.h"

#include <algorithm>
#include <array>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

// GCC 12's 512-bit intrinsics pass an undefined vector through their unused mask operand, which
// its own flow analysis then reports as maybe uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

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

#if defined(__SSE2__)

// Blocks of 16 rows by 16 pixels: the block's bytes are transposed as if they were a monochrome
// image, so that each transposed vector holds one byte position of the 16 rows. That position is
// one sample of one pixel, a column piece of its plane ready to store; a shared chroma sample is
// stored to both pixels' columns. Strips of 64 pixels are walked down the whole image, so the
// columns' cache lines fill while they are still cached.
void splitBlocksNarrow(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                       std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3],
                       std::vector<std::size_t>& bands) {
    constexpr std::size_t maxVectors = 4;  // up to 4 bytes per pixel
    const std::size_t vectors = (block.blockBytes + 15) / 16;
    const std::size_t fullRows = height / 16 * 16, fullWidth = width / 16 * 16;
    constexpr std::size_t stripPixels = 64;
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    for (std::size_t s0 = 0; s0 < fullWidth; s0 += stripPixels) {
        const std::size_t s1 = std::min(s0 + stripPixels, fullWidth);
        for (std::size_t r0 = 0; r0 < fullRows; r0 += 16) {
            const std::uint8_t* rows[16];
            const std::uint8_t* furthest = nullptr;
            for (std::size_t i = 0; i < 16; ++i) {
                rows[i] = rowAt(r0 + i);
                furthest = std::max(furthest, rows[i]);
            }
            for (std::size_t x0 = s0; x0 < s1; x0 += 16) {
                const std::size_t at = x0 / 16 * block.blockBytes;
                if (furthest > end || static_cast<std::size_t>(end - furthest) < at + 16 * vectors) break;
                __m128i v[maxVectors][16];
                for (std::size_t k = 0; k < vectors; ++k) {
                    for (std::size_t i = 0; i < 16; ++i)
                        v[k][i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + at + 16 * k));
                    transposeVectors<1>(v[k]);
                }
                for (int c = 0; c < 3; ++c)
                    for (std::size_t i = 0; i < 16; ++i) {
                        const std::uint8_t b = block.byteOf[c][i];
                        _mm_storeu_si128(reinterpret_cast<__m128i*>(planes[c] + (x0 + i) * height + r0), v[b / 16][b % 16]);
                    }
                ++bands[x0 / 16];
            }
        }
    }
}
#endif

#if defined(__x86_64__)

// The same on 256-bit vectors (AVX2): a vector holds two 16-byte chunks of a row, which the
// transpose keeps apart in its two halves, so a block is 32 pixels wide and each transposed vector
// gives two column pieces. Vectors is the number of 32-byte vectors a block's row spans.
template <std::size_t Vectors>
__attribute__((target("avx2"))) void splitBlocksWide(const std::uint8_t* src, std::size_t stride,
                                                     const std::uint8_t* end, std::size_t width, std::size_t height,
                                                     bool flipRows, const PixelBlock& block,
                                                     std::uint8_t* const planes[3], std::vector<std::size_t>& bands) {
    const std::size_t fullRows = height / 16 * 16, fullWidth = width / 32 * 32;
    constexpr std::size_t stripPixels = 32;
    // The column pieces each byte position of the block's row becomes: none (a pad byte), one, or
    // up to four (a chroma sample shared by the pixels of a macro-pixel). offset is the pixel's
    // column start in its plane.
    struct Destination {
        int count;
        int plane[4];
        std::size_t offset[4];
    };
    Destination to[32 * Vectors] = {};
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < 32; ++i) {
            Destination& d = to[i / 16 * block.blockBytes + block.byteOf[c][i % 16]];
            if (d.count == 4) continue;  // wider sharing never reaches here (see splitBlocks)
            d.plane[d.count] = c;
            d.offset[d.count++] = i * height;
        }
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    for (std::size_t s0 = 0; s0 < fullWidth; s0 += stripPixels) {
        const std::size_t s1 = std::min(s0 + stripPixels, fullWidth);
        for (std::size_t r0 = 0; r0 < fullRows; r0 += 16) {
            const std::uint8_t* rows[16];
            const std::uint8_t* furthest = nullptr;
            for (std::size_t i = 0; i < 16; ++i) {
                rows[i] = rowAt(r0 + i);
                furthest = std::max(furthest, rows[i]);
            }
            for (std::size_t x0 = s0; x0 < s1; x0 += 32) {
                const std::size_t at = x0 / 16 * block.blockBytes;
                if (furthest > end || static_cast<std::size_t>(end - furthest) < at + 32 * Vectors) break;
                std::uint8_t* const base[3] = {planes[0] + x0 * height + r0, planes[1] + x0 * height + r0,
                                               planes[2] + x0 * height + r0};
                for (std::size_t k = 0; k < Vectors; ++k) {
                    __m256i v[16];
                    for (std::size_t i = 0; i < 16; ++i)
                        v[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[i] + at + 32 * k));
                    // Rounds of interleaving row i with row i + 8, as the 128-bit transpose does.
                    for (int round = 0; round < 4; ++round) {
                        __m256i t[16];
                        for (int i = 0; i < 8; ++i) {
                            t[2 * i] = _mm256_unpacklo_epi8(v[i], v[i + 8]);
                            t[2 * i + 1] = _mm256_unpackhi_epi8(v[i], v[i + 8]);
                        }
                        for (int i = 0; i < 16; ++i) v[i] = t[i];
                    }
                    for (std::size_t e = 0; e < 16; ++e) {
                        const Destination& low = to[32 * k + e];
                        const Destination& high = to[32 * k + 16 + e];
                        for (int j = 0; j < low.count; ++j)
                            _mm_storeu_si128(reinterpret_cast<__m128i*>(base[low.plane[j]] + low.offset[j]),
                                             _mm256_castsi256_si128(v[e]));
                        for (int j = 0; j < high.count; ++j)
                            _mm_storeu_si128(reinterpret_cast<__m128i*>(base[high.plane[j]] + high.offset[j]),
                                             _mm256_extracti128_si256(v[e], 1));
                    }
                }
                bands[x0 / 16] += 1;
                bands[x0 / 16 + 1] += 1;
            }
        }
    }
}

// The same on 256-bit vectors (AVX2): a vector holds two 16-byte chunks of a row, which the
// transpose keeps apart in its two halves, so a block is 32 pixels wide and each transposed vector
// gives two column pieces. Vectors is the number of 32-byte vectors a block's row spans.
template <std::size_t Vectors>
__attribute__((target("avx512f,avx512bw"))) void splitBlocksWidest(const std::uint8_t* src, std::size_t stride,
                                                     const std::uint8_t* end, std::size_t width, std::size_t height,
                                                     bool flipRows, const PixelBlock& block,
                                                     std::uint8_t* const planes[3], std::vector<std::size_t>& bands) {
    const std::size_t fullRows = height / 16 * 16, fullWidth = width / 64 * 64;
    constexpr std::size_t stripPixels = 64;
    // The column pieces each byte position of the block's row becomes: none (a pad byte), one, or
    // up to four (a chroma sample shared by the pixels of a macro-pixel). offset is the pixel's
    // column start in its plane.
    struct Destination {
        int count;
        int plane[4];
        std::size_t offset[4];
    };
    Destination to[64 * Vectors] = {};
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < 64; ++i) {
            Destination& d = to[i / 16 * block.blockBytes + block.byteOf[c][i % 16]];
            if (d.count == 4) continue;  // wider sharing never reaches here (see splitBlocks)
            d.plane[d.count] = c;
            d.offset[d.count++] = i * height;
        }
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    for (std::size_t s0 = 0; s0 < fullWidth; s0 += stripPixels) {
        const std::size_t s1 = std::min(s0 + stripPixels, fullWidth);
        for (std::size_t r0 = 0; r0 < fullRows; r0 += 16) {
            const std::uint8_t* rows[16];
            const std::uint8_t* furthest = nullptr;
            for (std::size_t i = 0; i < 16; ++i) {
                rows[i] = rowAt(r0 + i);
                furthest = std::max(furthest, rows[i]);
            }
            for (std::size_t x0 = s0; x0 < s1; x0 += 64) {
                const std::size_t at = x0 / 16 * block.blockBytes;
                if (furthest > end || static_cast<std::size_t>(end - furthest) < at + 64 * Vectors) break;
                std::uint8_t* const base[3] = {planes[0] + x0 * height + r0, planes[1] + x0 * height + r0,
                                               planes[2] + x0 * height + r0};
                for (std::size_t k = 0; k < Vectors; ++k) {
                    __m512i v[16];
                    for (std::size_t i = 0; i < 16; ++i)
                        v[i] = _mm512_loadu_si512(rows[i] + at + 64 * k);
                    // Rounds of interleaving row i with row i + 8, as the 128-bit transpose does.
                    for (int round = 0; round < 4; ++round) {
                        __m512i t[16];
                        for (int i = 0; i < 8; ++i) {
                            t[2 * i] = _mm512_unpacklo_epi8(v[i], v[i + 8]);
                            t[2 * i + 1] = _mm512_unpackhi_epi8(v[i], v[i + 8]);
                        }
                        for (int i = 0; i < 16; ++i) v[i] = t[i];
                    }
                    for (std::size_t e = 0; e < 16; ++e) {
                        const __m128i pieces[4] = {_mm512_castsi512_si128(v[e]), _mm512_extracti32x4_epi32(v[e], 1),
                                                   _mm512_extracti32x4_epi32(v[e], 2), _mm512_extracti32x4_epi32(v[e], 3)};
                        for (int q = 0; q < 4; ++q) {
                            const Destination& d = to[64 * k + 16 * q + e];
                            for (int j = 0; j < d.count; ++j)
                                _mm_storeu_si128(reinterpret_cast<__m128i*>(base[d.plane[j]] + d.offset[j]), pieces[q]);
                        }
                    }
                }
                for (int q = 0; q < 4; ++q) bands[x0 / 16 + q] += 1;
            }
        }
    }
}

#endif

#if defined(__SSE2__)
// Splits with the widest kernels the processor has, then a sample at a time whatever the blocks
// did not cover.
void splitBlocks(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                 std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]) {
    // Bands of 16 rows each column of 16-pixel blocks has written: reads past end, and whatever
    // the blocks do not cover, are left to the loop at the end.
    std::vector<std::size_t> bands(width / 16 + 1, 0);
#if defined(__x86_64__)
    // A sample shared by more than four pixels is beyond the 256-bit kernel's store lists.
    int reuse[64] = {};
    int widest = 0;
    for (int c = 0; c < 3; ++c)
        for (int i = 0; i < 16; ++i) widest = std::max(widest, ++reuse[block.byteOf[c][i] % 64]);
    const auto widestKernel = widestKernelsAvailable() && widest <= 4 ? std::array{&splitBlocksWidest<1>, &splitBlocksWidest<2>, &splitBlocksWidest<3>,
                                                         &splitBlocksWidest<4>}[(block.blockBytes + 15) / 16 - 1]
                                             : nullptr;
    if (widestKernel != nullptr) widestKernel(src, stride, end, width, height, flipRows, block, planes, bands);
    const auto wide = wideKernelsAvailable() && widest <= 4 ? std::array{&splitBlocksWide<1>, &splitBlocksWide<2>, &splitBlocksWide<3>,
                                                         &splitBlocksWide<4>}[(block.blockBytes + 15) / 16 - 1]
                                             : nullptr;
    if (widestKernel != nullptr) {}
    else if (wide != nullptr) wide(src, stride, end, width, height, flipRows, block, planes, bands);
    else
#endif
        splitBlocksNarrow(src, stride, end, width, height, flipRows, block, planes, bands);
    const std::size_t fullRows = height / 16 * 16;
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    for (std::size_t x = 0; x < width; ++x) {
        const std::size_t y0 = bands[x / 16] == fullRows / 16 ? fullRows : 0;
        for (std::size_t y = y0; y < height; ++y) {
            const std::uint8_t* group = rowAt(y) + x / 16 * block.blockBytes;
            for (int c = 0; c < 3; ++c) planes[c][x * height + y] = group[block.byteOf[c][x % 16]];
        }
    }
}
#endif

}  // namespace

void splitInterleaved(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                      std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]) {
#if defined(__SSE2__)
    if (vectorKernelsEnabled() && block.blockBytes <= 64) {
        splitBlocks(src, stride, end, width, height, flipRows, block, planes);
        return;
    }
#else
    (void)end;
#endif
    // Without vector kernels, rows go through a row-major band of each plane, then the band is
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
