#include "frames/color/pixel_gather.h"

#include <algorithm>
#include <utility>
#include <vector>

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

#if defined(__SSE2__)

// Blocks of 16 rows by 16, 32 or 64 pixels (as wide as the vectors): the block's bytes are
// transposed as if they were a monochrome image, so that each transposed vector holds one byte
// position of the 16 rows. Each 16-byte piece of it is one sample of one pixel down the 16 rows: a
// column piece of its plane, ready to store (a chroma sample shared by several pixels is stored to
// each of their columns). Strips of 64 pixels are walked down the whole image, so the columns'
// cache lines fill while they are still cached.

// The transposed block is kept as [vector][element][chunk]: the 16-byte chunks of a row that one
// vector holds stay apart through the transpose, each in its own part of the vector.
using TransposeBlock = void (*)(const std::uint8_t* const rows[16], std::size_t at, std::size_t vectors,
                                std::uint8_t* block);

void transposeBlock128(const std::uint8_t* const rows[16], std::size_t at, std::size_t vectors, std::uint8_t* block) {
    for (std::size_t k = 0; k < vectors; ++k) {
        __m128i v[16];
        for (std::size_t i = 0; i < 16; ++i)
            v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + at + 16 * k));
        transposeVectors<1>(v);
        for (std::size_t e = 0; e < 16; ++e)
            _mm_store_si128(reinterpret_cast<__m128i*>(block + (16 * k + e) * 16), v[e]);
    }
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void transposeBlock256(const std::uint8_t* const rows[16], std::size_t at,
                                                       std::size_t vectors, std::uint8_t* block) {
    for (std::size_t k = 0; k < vectors; ++k) {
        __m256i v[16];
        for (std::size_t i = 0; i < 16; ++i)
            v[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[i] + at + 32 * k));
        transposeVectors256<1>(v);
        for (std::size_t e = 0; e < 16; ++e)
            _mm256_store_si256(reinterpret_cast<__m256i*>(block + (16 * k + e) * 32), v[e]);
    }
}

__attribute__((target("avx512f,avx512bw"))) void transposeBlock512(const std::uint8_t* const rows[16], std::size_t at,
                                                                   std::size_t vectors, std::uint8_t* block) {
    for (std::size_t k = 0; k < vectors; ++k) {
        __m512i v[16];
        for (std::size_t i = 0; i < 16; ++i) v[i] = _mm512_loadu_si512(rows[i] + at + 64 * k);
        transposeVectors512<1>(v);
        for (std::size_t e = 0; e < 16; ++e) _mm512_store_si512(block + (16 * k + e) * 64, v[e]);
    }
}
#endif

// On 512-bit vectors, layouts made of repeating groups of G bytes holding P pixels are stored
// straight from the registers: every piece's group and byte within the group are known when the
// code is built, so each store needs only the column its byte goes to (columnOf[r * P + j], the
// j-th pixel reading byte r of a group, null when none does) and the group's distance.
template <std::size_t G, std::size_t P, std::size_t K, std::size_t B>
LUMO_AVX512 void storeGroupPiece(const __m512i* v, std::uint8_t* const* columnOf, std::size_t groupStride) {
    constexpr std::size_t b = 64 * K + B;  // byte of the block row
    if constexpr (b < 64 / P * G) {
        constexpr std::size_t group = b / G, r = b % G;
        const __m128i piece = _mm512_extracti32x4_epi32(v[B % 16], B / 16);
        for (std::size_t j = 0; j < P; ++j)
            if (std::uint8_t* to = columnOf[r * P + j])
                _mm_storeu_si128(reinterpret_cast<__m128i*>(to + group * groupStride), piece);
    }
}

template <std::size_t G, std::size_t P, std::size_t K, std::size_t... B>
LUMO_AVX512 void storeGroupPieces(const __m512i* v, std::uint8_t* const* columnOf, std::size_t groupStride,
                                  std::index_sequence<B...>) {
    (storeGroupPiece<G, P, K, B>(v, columnOf, groupStride), ...);
}

template <std::size_t G, std::size_t P, std::size_t K>
LUMO_AVX512 void splitGroupVector(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                                  std::size_t groupStride) {
    __m512i v[16];
    for (std::size_t i = 0; i < 16; ++i) v[i] = _mm512_loadu_si512(rows[i] + at + 64 * K);
    transposeVectors512<1>(v);
    storeGroupPieces<G, P, K>(v, columnOf, groupStride, std::make_index_sequence<64>{});
}

template <std::size_t G, std::size_t P, std::size_t... K>
LUMO_AVX512 void splitGroupVectors(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                                   std::size_t groupStride, std::index_sequence<K...>) {
    (splitGroupVector<G, P, K>(rows, at, columnOf, groupStride), ...);
}

// One block of 16 rows by 64 pixels.
using SplitGroups = void (*)(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                             std::size_t groupStride);

template <std::size_t G, std::size_t P>
__attribute__((target("avx512f,avx512bw"))) void splitGroups512(const std::uint8_t* const rows[16], std::size_t at,
                                                                std::uint8_t* const* columnOf,
                                                                std::size_t groupStride) {
    splitGroupVectors<G, P>(rows, at, columnOf, groupStride, std::make_index_sequence<(64 / P * G + 63) / 64>{});
}

// The group kernel for a block's layout, if it has one: the smallest group the 16 pixels repeat.
struct GroupLayout {
    SplitGroups split = nullptr;
    std::size_t pixels = 0;  // P
    std::size_t bytes = 0;   // G
};

GroupLayout groupLayout(const PixelBlock& block) {
    constexpr struct {
        std::size_t bytes, pixels;
        SplitGroups split;
    } kernels[] = {{3, 1, splitGroups512<3, 1>},
                   {4, 1, splitGroups512<4, 1>},
                   {4, 2, splitGroups512<4, 2>},
                   {6, 4, splitGroups512<6, 4>},
                   {12, 8, splitGroups512<12, 8>}};
    for (const auto& kernel : kernels) {
        if (block.blockBytes * kernel.pixels != 16 * kernel.bytes) continue;
        bool repeats = true;
        for (int c = 0; c < 3; ++c)
            for (std::size_t i = 0; i < 16; ++i)
                repeats = repeats && block.byteOf[c][i % kernel.pixels] < kernel.bytes &&
                          block.byteOf[c][i] == i / kernel.pixels * kernel.bytes + block.byteOf[c][i % kernel.pixels];
        if (repeats) return {kernel.split, kernel.pixels, kernel.bytes};
    }
    return {};
}

// One column piece of a block: where it lies in the transposed block, its plane, and the column
// start of its pixel within that plane's part of the block.
struct PieceStore {
    std::uint32_t from;
    std::uint32_t plane;
    std::size_t offset;
};

void splitBlocks(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                 std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]) {
    TransposeBlock transpose = transposeBlock128;
    std::size_t chunks = 1;  // 16-byte chunks per vector
#if defined(__x86_64__)
    if (widestKernelsAvailable())
        transpose = transposeBlock512, chunks = 4;
    else if (wideKernelsAvailable())
        transpose = transposeBlock256, chunks = 2;
#endif
    const std::size_t blockPixels = 16 * chunks, vectors = (block.blockBytes + 15) / 16;
    const std::size_t rowBytes = blockPixels / 16 * block.blockBytes;  // one block row's bytes
    std::vector<PieceStore> stores;
    for (std::uint32_t c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < blockPixels; ++i) {
            const std::size_t b = i / 16 * block.blockBytes + block.byteOf[c][i % 16];
            const std::size_t vector = b / (16 * chunks), chunk = b / 16 % chunks, element = b % 16;
            stores.push_back(
                {static_cast<std::uint32_t>(((16 * vector + element) * chunks + chunk) * 16), c, i * height});
        }
    alignas(64) std::uint8_t transposed[4 * 16 * 64];
#if defined(__x86_64__)
    // Where the group kernel stores each byte of a group: plane and pixel, or none.
    const GroupLayout groups = chunks == 4 ? groupLayout(block) : GroupLayout{};
    struct Slot {
        int plane = -1;
        std::size_t pixel = 0;
    };
    std::vector<Slot> slots(groups.bytes * groups.pixels);
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < groups.pixels; ++i) {
            const std::size_t r = block.byteOf[c][i];
            std::size_t j = 0;
            while (slots[r * groups.pixels + j].plane >= 0) ++j;  // at most pixels readers of a byte
            slots[r * groups.pixels + j] = {c, i};
        }
    std::vector<std::uint8_t*> columnOf(slots.size());
#endif

    const std::size_t fullRows = height / 16 * 16, fullWidth = width / blockPixels * blockPixels;
    const std::size_t stripPixels = std::max<std::size_t>(64, blockPixels);
    // Bands of 16 rows each column of 16-pixel groups has written: reads past end, and whatever
    // the blocks do not cover, are left to the loop at the end.
    std::vector<std::size_t> bands(width / 16 + 1, 0);
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
            for (std::size_t x0 = s0; x0 < s1; x0 += blockPixels) {
                const std::size_t at = x0 / 16 * block.blockBytes;
                if (furthest > end ||
                    static_cast<std::size_t>(end - furthest) < at + std::max(rowBytes, 16 * chunks * vectors))
                    break;
#if defined(__x86_64__)
                if (groups.split != nullptr) {
                    for (std::size_t k = 0; k < slots.size(); ++k)
                        columnOf[k] =
                            slots[k].plane < 0 ? nullptr : planes[slots[k].plane] + (x0 + slots[k].pixel) * height + r0;
                    groups.split(rows, at, columnOf.data(), groups.pixels * height);
                    for (std::size_t g = 0; g < chunks; ++g) ++bands[x0 / 16 + g];
                    continue;
                }
#endif
                transpose(rows, at, vectors, transposed);
                std::uint8_t* const base[3] = {planes[0] + x0 * height + r0, planes[1] + x0 * height + r0,
                                               planes[2] + x0 * height + r0};
                for (const PieceStore& piece : stores)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(base[piece.plane] + piece.offset),
                                     _mm_load_si128(reinterpret_cast<const __m128i*>(transposed + piece.from)));
                for (std::size_t g = 0; g < chunks; ++g) ++bands[x0 / 16 + g];
            }
        }
    }
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
            transposeSamples<1>(&band[c * bandRows * width], width, planes[c] + r0, height, rows, width, false,
                                SampleOp::Copy);
    }
}

}  // namespace lumoframekit
