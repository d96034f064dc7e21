// Splitting interleaved 8-bit pixels (RGB with or without a pad byte, packed YUV) into three
// column-major planes.
#if defined(LUMO_KERNELS_GATHER_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_GATHER_INL_H_
#undef LUMO_KERNELS_GATHER_INL_H_
#else
#define LUMO_KERNELS_GATHER_INL_H_
#endif

#include <hwy/highway.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "frames/color/pixel_gather.h"
#include "frames/kernels/transpose-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {

// Blocks of 16 rows by one vector of pixels: the block's bytes are transposed as if they were a
// monochrome image, so that each transposed vector holds one byte position of the 16 rows. Each
// 16-byte piece of it is one sample of one pixel down the 16 rows: a column piece of its plane,
// ready to store (a chroma sample shared by several pixels is stored to each of their columns).
// Strips of at least 64 pixels are walked down the whole image, so the columns' cache lines fill
// while they are still cached; large images go out in bands of whole lines instead.

// The bytes of 16 rows over `vectors` vectors of each row, transposed as a monochrome image's:
// row(i) is row i's first byte, and store(k, e, v) takes the transposed vector e of vector k,
// which holds byte e of each of its 16-byte blocks down the 16 rows.
template <class RowAt, class Store>
HWY_INLINE void transposeByteRows(RowAt row, std::size_t vectors, Store store) {
    const Bytes d;
    const std::size_t lanes = hn::Lanes(d);
    for (std::size_t k = 0; k < vectors; ++k) {
        hn::VFromD<Bytes> v[16];
        for (std::size_t i = 0; i < 16; ++i) v[i] = hn::LoadU(d, row(i) + k * lanes);
        transposeVectors<1>(d, v);
        for (std::size_t e = 0; e < 16; ++e) store(k, e, v[e]);
    }
}

// The transposed block is kept as [vector][element][block]: the 16-byte blocks of a row that one
// vector holds stay apart through the transpose.
inline void transposeBlock(const std::uint8_t* const rows[16], std::size_t at, std::size_t vectors,
                           std::uint8_t* block) {
    const std::size_t lanes = hn::Lanes(Bytes());
    transposeByteRows([&](std::size_t i) { return rows[i] + at; }, vectors,
                      [&](std::size_t k, std::size_t e, hn::VFromD<Bytes> v) {
                          hn::Store(v, Bytes(), block + (16 * k + e) * lanes);
                      });
}

// The byte columns of 16 rows, the first row at `at` and each `stride` bytes on from the one
// above, over `vectors` vectors of each row: byte column j goes to stage + j * bandBytes.
template <std::size_t bandBytes>
HWY_INLINE void stageByteColumns(const std::uint8_t* at, std::size_t stride, std::size_t vectors, std::uint8_t* stage) {
    const std::size_t lanes = hn::Lanes(Bytes());
    transposeByteRows([&](std::size_t i) { return at + i * stride; }, vectors,
                      [&](std::size_t k, std::size_t e, hn::VFromD<Bytes> v) {
                          forEachBlock(Bytes(), v, [&](std::size_t q, BlockVector piece) {
                              hn::Store(piece, Block(), stage + (k * lanes + 16 * q + e) * bandBytes);
                          });
                      });
}

// Layouts made of repeating groups of G bytes holding P pixels are stored straight from the
// registers: every piece's group and byte within the group are known when the code is built, so
// each store needs only the column its byte goes to (columnOf[r * P + j], the j-th pixel reading
// byte r of a group, null when none does) and the group's distance.
template <std::size_t G, std::size_t P, std::size_t K, std::size_t B>
HWY_INLINE void storeGroupPiece(const hn::VFromD<Bytes>* v, std::uint8_t* const* columnOf, std::size_t groupStride) {
    constexpr std::size_t L = hn::MaxLanes(Bytes()), b = L * K + B;  // byte of the block row
    if constexpr (b < L / P * G) {
        constexpr std::size_t group = b / G, r = b % G;
        const BlockVector piece = blockOf<B / 16>(Bytes(), v[B % 16]);
        for (std::size_t j = 0; j < P; ++j)
            if (std::uint8_t* to = columnOf[r * P + j]) hn::StoreU(piece, Block(), to + group * groupStride);
    }
}

template <std::size_t G, std::size_t P, std::size_t K, std::size_t... B>
HWY_INLINE void splitGroupVector(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                                 std::size_t groupStride, std::index_sequence<B...>) {
    const Bytes d;
    hn::VFromD<Bytes> v[16];
    for (std::size_t i = 0; i < 16; ++i) v[i] = hn::LoadU(d, rows[i] + at + hn::MaxLanes(d) * K);
    transposeVectors<1>(d, v);
    (storeGroupPiece<G, P, K, B>(v, columnOf, groupStride), ...);
}

template <std::size_t G, std::size_t P, std::size_t... K>
HWY_INLINE void splitGroupVectors(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                                  std::size_t groupStride, std::index_sequence<K...>) {
    (splitGroupVector<G, P, K>(rows, at, columnOf, groupStride, std::make_index_sequence<hn::MaxLanes(Bytes())>{}),
     ...);
}

// Stored in place, each column takes a whole vector at a time: the blocks of R = 16 * B rows (B
// the 16-byte blocks a vector holds) are transposed 16 rows at a time, and vector e of each of
// those transposes, their blocks transposed in turn, gives R rows of B columns' pieces. Pieces
// of 16 bytes that miss the caches wait in the store queue four to a line, as in the byte
// transposes.
// How the group kernels store each column's vector: in place, streamed (aligned), or joined
// into streamed lines with the column's vector above (joinLine), which `kept` holds: 64 bytes for
// each group of each byte's readers, in the order of columnOf.
enum class LineStores { InPlace, Streamed, Joined };
struct KeptLines {
    std::uint8_t* kept = nullptr;
    bool first = false;  // the columns' first vectors
};

template <LineStores S, std::size_t G, std::size_t P, std::size_t K, std::size_t B>
HWY_INLINE void storeGroupVector(hn::VFromD<Bytes> w, std::uint8_t* const* columnOf, std::size_t groupStride,
                                 KeptLines kept) {
    constexpr std::size_t L = hn::MaxLanes(Bytes()), b = L * K + B;
    (void)kept;
    if constexpr (b < L / P * G) {
        constexpr std::size_t group = b / G, r = b % G;
        for (std::size_t j = 0; j < P; ++j)
            if (std::uint8_t* to = columnOf[r * P + j]) {
                if constexpr (S == LineStores::Streamed) {
                    hn::Stream(w, Bytes(), to + group * groupStride);
                } else if constexpr (S == LineStores::Joined) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
                    joinLine(w, to + group * groupStride, kept.kept + ((r * P + j) * (L / P) + group) * 64, kept.first);
#endif
                } else {
                    hn::StoreU(w, Bytes(), to + group * groupStride);
                }
            }
    }
}

template <LineStores S, std::size_t G, std::size_t P, std::size_t K, std::size_t E, std::size_t... Q>
HWY_INLINE void storeGroupVectors(const hn::VFromD<Bytes> (*v)[16], std::uint8_t* const* columnOf,
                                  std::size_t groupStride, KeptLines kept, std::index_sequence<Q...>) {
    hn::VFromD<Bytes> w[] = {v[Q][E]...};
    transposeBlocks(Bytes(), w);
    (storeGroupVector<S, G, P, K, 16 * Q + E>(w[Q], columnOf, groupStride, kept), ...);
}

template <LineStores S, std::size_t G, std::size_t P, std::size_t K, std::size_t... E>
HWY_INLINE void splitGroupLines(const std::uint8_t* const* rows, std::size_t at, std::uint8_t* const* columnOf,
                                std::size_t groupStride, KeptLines kept, std::index_sequence<E...>) {
    const Bytes d;
    constexpr std::size_t B = blocksOf<Bytes>();
    hn::VFromD<Bytes> v[B][16];
    for (std::size_t g = 0; g < B; ++g) {
        for (std::size_t i = 0; i < 16; ++i) v[g][i] = hn::LoadU(d, rows[16 * g + i] + at + hn::MaxLanes(d) * K);
        transposeVectors<1>(d, v[g]);
    }
    (storeGroupVectors<S, G, P, K, E>(v, columnOf, groupStride, kept, std::make_index_sequence<B>{}), ...);
}

template <LineStores S, std::size_t G, std::size_t P, std::size_t... K>
HWY_INLINE void splitGroupLinesOf(const std::uint8_t* const* rows, std::size_t at, std::uint8_t* const* columnOf,
                                  std::size_t groupStride, KeptLines kept, std::index_sequence<K...>) {
    (splitGroupLines<S, G, P, K>(rows, at, columnOf, groupStride, kept, std::make_index_sequence<16>{}), ...);
}

// One block of 16 * B rows by one vector of pixels, B the blocks per vector, each column's vector
// stored as S says.
template <std::size_t G, std::size_t P, LineStores S = LineStores::InPlace>
void splitGroupsInLines(const std::uint8_t* const* rows, std::size_t at, std::uint8_t* const* columnOf,
                        std::size_t groupStride, KeptLines kept) {
    constexpr std::size_t L = hn::MaxLanes(Bytes());
    splitGroupLinesOf<S, G, P>(rows, at, columnOf, groupStride, kept,
                               std::make_index_sequence<(L / P * G + L - 1) / L>{});
}

// One block of 16 rows by one vector of pixels.
using SplitGroups = void (*)(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                             std::size_t groupStride, KeptLines kept);

template <std::size_t G, std::size_t P>
void splitGroups(const std::uint8_t* const rows[16], std::size_t at, std::uint8_t* const* columnOf,
                 std::size_t groupStride, KeptLines) {
    constexpr std::size_t L = hn::MaxLanes(Bytes());
    splitGroupVectors<G, P>(rows, at, columnOf, groupStride, std::make_index_sequence<(L / P * G + L - 1) / L>{});
}

// The line kernel of a group that stores as S, where this width takes it: streamed and joined
// lines only with 512-bit vectors (narrower ones stage every large array, below). The split
// streams or joins from the registers only where its layout has the kernel.
template <std::size_t G, std::size_t P, LineStores S>
constexpr SplitGroups lineKernel() {
    if constexpr (kNarrowVectors)
        return nullptr;
    else
        return splitGroupsInLines<G, P, S>;
}

// The group kernel for a block's layout, if it has one: the smallest group the 16 pixels repeat.
struct GroupLayout {
    SplitGroups split = nullptr;
    SplitGroups splitLines = nullptr;   // blocks of 16 rows per 16-byte block of a vector
    SplitGroups streamLines = nullptr;  // the same, streamed
    SplitGroups joinLines = nullptr;    // the same, joined into streamed lines (see below)
    std::size_t pixels = 0;             // P
    std::size_t bytes = 0;              // G
};

inline GroupLayout groupLayout(const PixelBlock& block) {
    constexpr LineStores streamed = LineStores::Streamed, joined = LineStores::Joined;
    constexpr struct {
        std::size_t bytes, pixels;
        SplitGroups split, splitLines, streamLines, joinLines;
    } groupKernels[] = {
        {3, 1, splitGroups<3, 1>, splitGroupsInLines<3, 1>, lineKernel<3, 1, streamed>(), lineKernel<3, 1, joined>()},
        {4, 1, splitGroups<4, 1>, splitGroupsInLines<4, 1>, lineKernel<4, 1, streamed>(), lineKernel<4, 1, joined>()},
        {4, 2, splitGroups<4, 2>, splitGroupsInLines<4, 2>, lineKernel<4, 2, streamed>(), lineKernel<4, 2, joined>()},
        {6, 4, splitGroups<6, 4>, splitGroupsInLines<6, 4>, lineKernel<6, 4, streamed>(), lineKernel<6, 4, joined>()},
        {12, 8, splitGroups<12, 8>, splitGroupsInLines<12, 8>, lineKernel<12, 8, streamed>(),
         lineKernel<12, 8, joined>()}};
    for (const auto& kernel : groupKernels) {
        if (block.blockBytes * kernel.pixels != 16 * kernel.bytes) continue;
        bool repeats = true;
        for (int c = 0; c < 3; ++c)
            for (std::size_t i = 0; i < 16; ++i)
                repeats = repeats && block.byteOf[c][i % kernel.pixels] < kernel.bytes &&
                          block.byteOf[c][i] == i / kernel.pixels * kernel.bytes + block.byteOf[c][i % kernel.pixels];
        if (repeats)
            return {kernel.split, kernel.splitLines, kernel.streamLines, kernel.joinLines, kernel.pixels, kernel.bytes};
    }
    return {};
}

// One column piece of a block: where it lies in the transposed block, its plane, and its pixel
// within the block.
struct PieceStore {
    std::uint32_t from;
    std::uint32_t plane;
    std::size_t pixel;
};

inline void splitInterleavedKernel(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end,
                                   std::size_t width, std::size_t height, bool flipRows, const PixelBlock& block,
                                   std::uint8_t* const planes[3], ColumnStores columnStores) {
    constexpr std::size_t chunks = blocksOf<Bytes>();  // 16-byte blocks per vector
    constexpr std::size_t blockPixels = 16 * chunks;
    const std::size_t vectors = (block.blockBytes + 15) / 16;
    const std::size_t rowBytes = blockPixels / 16 * block.blockBytes;  // one block row's bytes
    // Blocks of more than 64 bytes (no layout has them) are left to the plain loop at the end.
    const bool blocks = block.blockBytes <= 64;
    std::vector<PieceStore> stores;
    for (std::uint32_t c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < blockPixels; ++i) {
            const std::size_t b = i / 16 * block.blockBytes + block.byteOf[c][i % 16];
            const std::size_t vector = b / (16 * chunks), chunk = b / 16 % chunks, element = b % 16;
            stores.push_back({static_cast<std::uint32_t>(((16 * vector + element) * chunks + chunk) * 16), c, i});
        }
    alignas(64) std::uint8_t transposed[4 * 16 * 64];
    // Where the group kernel stores each byte of a group: plane and pixel, or none.
    const GroupLayout groups = groupLayout(block);
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

    const std::size_t fullRows = blocks ? height / 16 * 16 : 0, fullWidth = width / blockPixels * blockPixels;
    const std::size_t stripPixels = std::max<std::size_t>(64, blockPixels);
    // Bands of 16 rows each column of 16-pixel groups has written: reads past end, and whatever
    // the blocks do not cover, are left to the loop at the end.
    std::vector<std::size_t> bands(width / 16 + 1, 0);
    auto rowAt = [&](std::size_t y) { return src + (flipRows ? height - 1 - y : y) * stride; };
    // The 16 rows from r0 on (or `count`, up to 16 per block of a vector) as pointers to their
    // pixel `first`, the furthest of them in memory, and the end of what may be read.
    struct Rows {
        const std::uint8_t* at[16 * chunks];
        const std::uint8_t* furthest = nullptr;
        const std::uint8_t* end = nullptr;
        std::size_t first = 0;
    };
    auto rowsFrom = [&](std::size_t r0, std::size_t count = 16) {
        Rows rows;
        rows.end = end;
        for (std::size_t i = 0; i < count; ++i) {
            rows.at[i] = rowAt(r0 + i);
            rows.furthest = std::max(rows.furthest, rows.at[i]);
        }
        return rows;
    };
    // The block of those rows and pixels x0..: the column piece of pixel x0 + i of plane c goes to
    // base[c] + i * columnBytes. With `lines`, the block is 16 * chunks rows high and stored a
    // whole vector to each column by that kernel. False where the block would read past the
    // rows' end.
    auto splitBlock = [&](const Rows& rows, std::size_t x0, std::uint8_t* const base[3], std::size_t columnBytes,
                          SplitGroups lines = nullptr, KeptLines kept = {}) LUMO_ALWAYS_INLINE {
        const std::size_t at = (x0 - rows.first) / 16 * block.blockBytes;
        if (rows.furthest > rows.end ||
            static_cast<std::size_t>(rows.end - rows.furthest) < at + std::max(rowBytes, 16 * chunks * vectors))
            return false;
        if (groups.split != nullptr) {
            for (std::size_t k = 0; k < slots.size(); ++k)
                columnOf[k] = slots[k].plane < 0 ? nullptr : base[slots[k].plane] + slots[k].pixel * columnBytes;
            (lines != nullptr ? lines : groups.split)(rows.at, at, columnOf.data(), groups.pixels * columnBytes, kept);
        } else {
            transposeBlock(rows.at, at, vectors, transposed);
            for (const PieceStore& piece : stores)
                hn::StoreU(hn::Load(Block(), transposed + piece.from), Block(),
                           base[piece.plane] + piece.pixel * columnBytes);
        }
        for (std::size_t g = 0; g < chunks; ++g) bands[x0 / 16 + g] += lines != nullptr ? chunks : 1;
        return true;
    };
    // Planes whose columns all start at the same offset from a line (a multiple of 16 bytes), as
    // a height of whole lines gives, need no staging to stream: their blocks of whole vectors
    // start at the row that puts them on lines, and go out straight from the registers. Only
    // vectors of a whole line do: 256-bit vectors leave each line half written while the other
    // columns of the strip are stored, and measured three times slower so than staged (5472 x
    // 3648 RGB24 1.22 -> 0.43 ns a pixel, packed 4:2:2 1.18 -> 0.36).
    constexpr std::size_t lineRows = 16 * chunks;
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(planes[0]) % 64;
    const bool streamLines = columnStores == ColumnStores::Streamed && groups.streamLines != nullptr &&
                             height % 64 == 0 && offset % 16 == 0 && fullRows >= 64 &&
                             reinterpret_cast<std::uintptr_t>(planes[1]) % 64 == offset &&
                             reinterpret_cast<std::uintptr_t>(planes[2]) % 64 == offset;
    // With 512-bit vectors, planes whose columns start at offsets of whole 8-byte words from a
    // line (a height of a multiple of 8 rows, as 2160 is) join each column's lines from its two
    // vectors around them (joinLine) instead of staging (packed 4:2:2 at 3840 x 2160: 0.27 -> 0.22
    // ns a pixel). Three- and four-byte pixels measured 1.1 to 1.2 times slower so while this walk
    // read its rows in place without asking for them ahead; asking, 3840 x 2160 RGB24 measured
    // 0.44 -> 0.27 and BGRX32 0.53 -> 0.38 against staging, 5000 x 3000 0.45 -> 0.41 and
    // 0.54 -> 0.51 (four alternating runs), for 160 KiB more of code.
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    const bool joinLines = columnStores == ColumnStores::Streamed && groups.joinLines != nullptr && !streamLines &&
                           fullRows >= 64 && height % 8 == 0 &&
                           std::all_of(planes, planes + 3, [](const std::uint8_t* plane) {
                               return reinterpret_cast<std::uintptr_t>(plane) % 8 == 0;
                           });
#else
    constexpr bool joinLines = false;
#endif
    if (columnStores == ColumnStores::Streamed && fullRows > 0 && !streamLines && !joinLines) {
        // Three lines of each column. The tiles transpose the band's bytes as a monochrome image's,
        // a staged column for each byte of the strip's pixels, and each plane's column then streams
        // from the staged column of its sample's byte: stored straight to their staged columns, the
        // pieces need no look-up of their plane and column. Strips of at most 128 bytes of pixels
        // (at least a vector's block of pixels). Against the group kernels' stores into each
        // plane's staging, 64 pixels at a time, on a 2-core AMD EPYC with 256-bit vectors (medians
        // of 80 calls alternating with that library in one process, 3840 x 2160 and 5472 x 3648):
        // packed 4:2:2 0.86 to 0.88 times the time, 4:1:1 0.70 to 0.71, RGB24 0.95 to 0.99, BGRX32
        // 0.97 to 1.01, with a fifth to two fifths fewer instructions a pixel (4:2:2 3.8 -> 2.6,
        // 4:1:1 4.1 -> 2.4, RGB24 3.7 -> 3.0, BGRX32 4.2 -> 3.3); strips of 64 pixels of four
        // bytes, staged in 48 KiB, measured 1.05 to 1.12 times slower than 32. With each plane
        // staged apart, four lines measured 1.1 to 1.15 times slower than three, two and five
        // slightly slower. The tiles read each band from a copy of a panel of 256 pixels of its
        // rows, read in order: that measured 1.15 to 1.2 times faster at 8 and 20 MP than reading
        // the rows in place, which no prefetcher follows, and than panels of 128 or 1024 pixels.
        // Copying eight rows at a time, and joining each column's carried line in the registers,
        // measured 1.2 times faster at 3840 x 2160 (BGRX32 0.72 -> 0.60 ns a pixel, RGB24 0.62 ->
        // 0.51). RGB565 measured the same so; it, the packed unpack and the transposes keep the
        // plain copy and carry: the same change to the code they inline measured up to 1.2 times
        // slower for the transposes' in-place loops (mono double), which wait on memory and slow
        // down when the compiler lays them out otherwise.
        constexpr std::size_t bandBytes = 192, panel = 256, stripBytes = 128;
        const std::size_t lanes = hn::Lanes(Bytes());
        const std::size_t strip =
            std::max(std::min(stripPixels, stripBytes * 16 / block.blockBytes) / blockPixels, std::size_t{1}) *
            blockPixels;
        // Whole vectors of each strip's bytes, which may read past them.
        const std::size_t staged = (strip / 16 * block.blockBytes + lanes - 1) / lanes * lanes;
        const auto step = static_cast<std::ptrdiff_t>(stride);
        for (std::size_t p0 = 0; p0 < fullWidth; p0 += panel) {
            const std::size_t p1 = std::min(p0 + panel, fullWidth);
            const std::size_t panelBytes = (p1 - p0) / 16 * block.blockBytes;
            BandCopy band{};
            streamBands<1, bandBytes, true>(
                3, [&](std::size_t c, std::size_t x) { return planes[c] + x * height; }, fullRows, p0, p1, strip,
                [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                    if (s0 == p0) {
                        // A band whose rows would be read past end is left to the plain loop.
                        const std::uint8_t* last = std::max(rowAt(b0), rowAt(b1 - 1));
                        const std::size_t from = p0 / 16 * block.blockBytes;
                        band = last <= end && static_cast<std::size_t>(end - last) >= from + panelBytes
                                   ? copyBand<8>(rowAt(b0) + from, flipRows ? -step : step, b1 - b0, panelBytes)
                                   : BandCopy{};
                    }
                    if (band.at == nullptr) return;
                    // The last vector of a strip may read past its row, into the next or the
                    // copy's slack: its staged columns are never streamed.
                    const std::uint8_t* const at = band.at + (s0 - p0) / 16 * block.blockBytes;
                    const std::size_t tileVectors = ((s1 - s0) / 16 * block.blockBytes + lanes - 1) / lanes;
                    for (std::size_t r0 = b0; r0 < b1; r0 += 16)
                        stageByteColumns<bandBytes>(at + (r0 - b0) * band.stride, band.stride, tileVectors,
                                                    stage + (r0 - b0));
                    for (std::size_t g = s0 / 16; g < s1 / 16; ++g) bands[g] += (b1 - b0) / 16;
                },
                staged,
                [&](std::size_t c, std::size_t x, std::size_t s0) {
                    return (x - s0) / 16 * block.blockBytes + block.byteOf[c][x % 16];
                });
        }
    } else {
        // Rows [0, first) and [lines, fullRows) in blocks of 16 rows, the rows between in blocks
        // of lineRows with whole vectors.
        const std::size_t first = streamLines ? (64 - offset) % 64 : 0;
        const std::size_t lines =
            chunks > 1 && groups.split != nullptr ? first + (fullRows - first) / lineRows * lineRows : 0;
        // Joined lines keep the vector above of every column of a block: 64 bytes for each group
        // of each of its bytes' readers. A block that is not split (it would read past end)
        // leaves its columns to the loop at the end, which rewrites them whole.
        const std::size_t groupsPerBlock = groups.pixels > 0 ? blockPixels / groups.pixels : 0;
        std::vector<std::uint8_t> keptMemory(joinLines ? slots.size() * groupsPerBlock * 64 + 64 : 0);
        std::uint8_t* const kept =
            keptMemory.data() + (64 - reinterpret_cast<std::uintptr_t>(keptMemory.data()) % 64) % 64;
        // Read in place from a source over kAskRowsAbove, each block asks for the strip's lines of
        // the rows kAskAheadRows below its own, as the transposes do: 5472 x 3648 RGB24
        // 0.57 -> 0.32 ns a pixel, BGRX32 0.55 -> 0.40, packed 4:2:2 0.35 -> 0.18, and 3840 x
        // 2160 packed 4:2:2 (joined lines) 0.35 -> 0.21 (four alternating runs).
        const bool ask = height * stride > kAskRowsAbove;
        auto blocksOfRows = [&](std::size_t s0, std::size_t s1, std::size_t r0, std::size_t r1, std::size_t step,
                                SplitGroups kernel) LUMO_ALWAYS_INLINE {
            for (; r0 < r1; r0 += step) {
                if (ask && r0 + kAskAheadRows + step <= fullRows) {
                    const std::size_t from = s0 / 16 * block.blockBytes, to = s1 / 16 * block.blockBytes;
                    askRows(rowAt(r0 + kAskAheadRows) + from,
                            flipRows ? -static_cast<std::ptrdiff_t>(stride) : static_cast<std::ptrdiff_t>(stride), step,
                            to - from - 1);
                }
                const Rows rows = rowsFrom(r0, step);
                for (std::size_t x0 = s0; x0 < s1; x0 += blockPixels) {
                    std::uint8_t* const base[3] = {planes[0] + x0 * height + r0, planes[1] + x0 * height + r0,
                                                   planes[2] + x0 * height + r0};
                    if (!splitBlock(rows, x0, base, height, kernel, {kept, r0 == 0})) break;
                }
            }
        };
        SplitGroups lineKernel = streamLines ? groups.streamLines : joinLines ? groups.joinLines : groups.splitLines;
        for (std::size_t s0 = 0; s0 < fullWidth; s0 += stripPixels) {
            const std::size_t s1 = std::min(s0 + stripPixels, fullWidth);
            blocksOfRows(s0, s1, 0, first, 16, nullptr);
            blocksOfRows(s0, s1, first, lines, lineRows, lineKernel);
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
            if (joinLines)
                for (std::size_t k = 0; k < slots.size(); ++k)
                    for (std::size_t g = 0; k < slots.size() && slots[k].plane >= 0 && g < groupsPerBlock; ++g)
                        finishLines(planes[slots[k].plane] + (s0 + g * groups.pixels + slots[k].pixel) * height +
                                        (lines - lineRows),
                                    kept + (k * groupsPerBlock + g) * 64);
#endif
            blocksOfRows(s0, s1, std::max(first, lines), fullRows, 16, nullptr);
        }
        if (streamLines || joinLines) hwy::FlushStream();
    }
    // The rows below the last whole block, where the blocks above stored every row: blocks of the
    // last 16 rows are staged in the calling thread's memory, and only the rows below the last
    // whole block copied out, so that the lines above, which may have been streamed past the
    // caches, are not read back (as the transposes do). Against the plain loop, which took 6% of
    // the kernel's samples at 1080p, RGB24 took 6.45 -> 6.29 million instructions a call and
    // packed 4:2:2 5.78 -> 5.63 (callgrind). Such a block adds a band to its columns.
    if (fullRows < height && fullRows > 0) {
        const Rows rows = rowsFrom(height - 16);
        std::uint8_t* const stage = lastRowsStaging(3 * fullWidth * 16);
        const std::size_t skip = fullRows + 16 - height;
        for (std::size_t x0 = 0; x0 < fullWidth; x0 += blockPixels) {
            bool above = true;
            for (std::size_t g = 0; g < chunks; ++g) above = above && bands[x0 / 16 + g] == fullRows / 16;
            std::uint8_t* const base[3] = {stage + x0 * 16, stage + (fullWidth + x0) * 16,
                                           stage + (2 * fullWidth + x0) * 16};
            if (!above) continue;
            if (!splitBlock(rows, x0, base, 16)) break;
            for (int c = 0; c < 3; ++c)
                for (std::size_t x = x0; x < x0 + blockPixels; ++x)
                    std::memcpy(planes[c] + x * height + fullRows, base[c] + (x - x0) * 16 + skip, height - fullRows);
        }
    }
    // A column whose bands stop short of the last whole block is written again from row 0.
    for (std::size_t x = 0; x < width; ++x) {
        const std::size_t covered = bands[x / 16] * 16;
        const std::size_t y0 = covered < fullRows ? 0 : std::min(covered, height);
        for (std::size_t y = y0; y < height; ++y) {
            const std::uint8_t* group = rowAt(y) + x / 16 * block.blockBytes;
            for (int c = 0; c < 3; ++c) planes[c][x * height + y] = group[block.byteOf[c][x % 16]];
        }
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
