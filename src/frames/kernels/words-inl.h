// Packed RGB words unpacked into three samples, each sample an OR of masked and shifted fields.
#if defined(LUMO_KERNELS_WORDS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_WORDS_INL_H_
#undef LUMO_KERNELS_WORDS_INL_H_
#else
#define LUMO_KERNELS_WORDS_INL_H_
#endif

#include <hwy/highway.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "frames/core/planes.h"
#include "frames/kernels/kernels.h"
#include "frames/kernels/transpose-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One field of a word, as a plain expression: masked, then shifted right (left when negative).
template <typename Word>
inline Word fieldOf(Word word, const WordField& f) {
    const auto masked = static_cast<Word>(word & f.mask);
    return static_cast<Word>(f.shift >= 0 ? masked >> f.shift : masked << -f.shift);
}

// The same on a vector of words.
template <class D>
HWY_INLINE hn::VFromD<D> fieldOf(D d, hn::VFromD<D> words, const WordField& f) {
    using Word = hn::TFromD<D>;
    const auto masked = hn::And(words, hn::Set(d, static_cast<Word>(f.mask)));
    return f.shift >= 0 ? hn::ShiftRightSame(masked, f.shift) : hn::ShiftLeftSame(masked, -f.shift);
}

// count words into three runs of samples; a sample keeps the low bits of its channel's value.
template <typename Word, typename Sample>
void unpackWordsKernel(const Word* words, std::size_t count, const WordFields& fields, Sample* const out[3]) {
    const hn::ScalableTag<Word> d;
    const hn::Rebind<Sample, decltype(d)> ds;
    const hn::RebindToSigned<decltype(d)> di;  // the narrowing takes signed lanes: the values fit
    const auto low = hn::Set(d, static_cast<Word>(static_cast<Sample>(~Sample{0})));
    const std::size_t lanes = hn::Lanes(d);
    // Local copies, which the stores through the sample pointers cannot alias: the loop keeps
    // them in registers instead of reading them again after every store.
    WordFields f;
    std::memcpy(&f, &fields, sizeof f);
    Sample* const to[3] = {out[0], out[1], out[2]};
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        const auto v = hn::LoadU(d, words + i);
        for (int c = 0; c < 3; ++c) {
            const auto value = hn::Or(fieldOf(d, v, f[c][0]), fieldOf(d, v, f[c][1]));
            hn::StoreU(hn::DemoteTo(ds, hn::BitCast(di, hn::And(value, low))), ds, to[c] + i);
        }
    }
    for (; i < count; ++i)
        for (int c = 0; c < 3; ++c)
            out[c][i] = static_cast<Sample>(fieldOf(words[i], fields[c][0]) | fieldOf(words[i], fields[c][1]));
}

// Words of two bytes unpacked into byte samples go out like a monochrome byte image, one plane
// at a time: each row's vector of one channel is unpacked in registers (the low byte of each
// field, which is what the plain loop keeps), and blocks of those rows are transposed and stored
// as the byte transposes store theirs. rowAt(r, x) is pixel x of row r; put(c, x, r, v) stores
// the column piece v (of any tag) of plane c, column x, from row r on.

// Channel c of the L pixels at `at` (L the lanes of D).
template <class D>
HWY_INLINE hn::VFromD<D> channelBytes(D d, const std::uint8_t* at, const WordField* f) {
    const hn::Repartition<std::uint16_t, D> dw;
    auto channel = [&](std::size_t i) {
        const auto words = hn::LoadU(dw, reinterpret_cast<const std::uint16_t*>(at) + i);
        return hn::BitCast(d, hn::Or(fieldOf(dw, words, f[0]), fieldOf(dw, words, f[1])));
    };
    return hn::ConcatEven(d, channel(hn::Lanes(dw)), channel(0));
}

// Rows [r0, r1) by pixels [x0, x1), the rows a multiple of 16 and the pixels of L: strips one
// line of each plane wide, down the rows, 16 * B rows at a time (B the 16-byte blocks of a vector)
// and each column then stored a whole vector at once, the rows left 16 at a time.
template <class D, class RowAt, class Put>
void unpackByteTiles(D d, RowAt rowAt, std::size_t r0, std::size_t r1, std::size_t x0, std::size_t x1,
                     const WordFields& f, Put put) {
    constexpr std::size_t L = hn::MaxLanes(D()), B = blocksOf<D>(), lineRows = 16 * B;
    constexpr std::size_t strip = std::max<std::size_t>(64, L);
    const std::size_t lines = B > 1 ? r0 + (r1 - r0) / lineRows * lineRows : r0;
    auto rowsOf = [&](std::size_t c, std::size_t r, std::size_t x, hn::VFromD<D>* v) LUMO_ALWAYS_INLINE {
        for (std::size_t i = 0; i < 16; ++i) v[i] = channelBytes(d, rowAt(r + i, x), f[c]);
        transposeVectors<1>(d, v);
    };
    for (std::size_t s0 = x0; s0 < x1; s0 += strip) {
        const std::size_t s1 = std::min(s0 + strip, x1);
        for (std::size_t r = r0; r < lines; r += lineRows)
            for (std::size_t x = s0; x < s1; x += L)
                for (std::size_t c = 0; c < 3; ++c) {
                    // Vector k of group g holds, in block q, the piece of column x + 16 * q + k.
                    hn::VFromD<D> groups[B][16];
                    for (std::size_t g = 0; g < B; ++g) rowsOf(c, r + 16 * g, x, groups[g]);
                    columnsOfGroups<16>(
                        d, groups, [&](std::size_t j, hn::VFromD<D> v) LUMO_ALWAYS_INLINE { put(c, x + j, r, v); });
                }
        for (std::size_t r = lines; r < r1; r += 16)
            for (std::size_t x = s0; x < s1; x += L)
                for (std::size_t c = 0; c < 3; ++c) {
                    hn::VFromD<D> v[16];
                    rowsOf(c, r, x, v);
                    for (std::size_t k = 0; k < 16; ++k)
                        forEachBlock(d, v[k],
                                     [&](std::size_t q, BlockVector piece) { put(c, x + 16 * q + k, r, piece); });
                }
    }
}

// Streamed with 512-bit vectors where every column starts at whole 8-byte words from a line:
// strips of 64 pixels walk down the whole image, reading the rows in place, and each column's
// vector of 64 rows joins the line that the one above began (as the byte transposes do). From a
// source over kAskRowsAbove, each group of 64 rows first asks for the strip's lines of the group
// kAskAheadRows below (askRows): the strip reads two lines of each row, a whole row apart, which
// the hardware does not fetch ahead. On a 2-core Intel Xeon with AVX-512 (medians of 40 to 60
// calls alternating in one process) 5472 x 3648 took 0.76 times the time (0.715 -> 0.543 ns a
// pixel); 3840 x 2160 0.97 (0.493 -> 0.476); asking 32 or 128 rows ahead measured the same.
// Returns the rows done: the whole groups of 64, or none elsewhere.
template <class RowAt>
std::size_t streamJoinedLines(RowAt rowAt, std::size_t height, std::size_t fullCols, const WordFields& f,
                              std::uint8_t* const planes[3]) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    constexpr std::size_t L = hn::MaxLanes(Bytes()), lineRows = 64;
    const bool words = height % 8 == 0 && std::all_of(planes, planes + 3, [](const std::uint8_t* p) {
                           return reinterpret_cast<std::uintptr_t>(p) % 8 == 0;
                       });
    if (!words || height < lineRows) return 0;
    const std::size_t lines = height / lineRows * lineRows;
    const bool ask = height * fullCols * 2 > kAskRowsAbove;
    const auto step = rowAt(1, 0) - rowAt(0, 0);  // negative bottom-up
    alignas(64) std::uint8_t above[3][L][64];
    for (std::size_t s0 = 0; s0 < fullCols; s0 += L) {
        for (std::size_t r0 = 0; r0 < lines; r0 += lineRows) {
            if (ask && r0 + kAskAheadRows + lineRows <= height)
                askRows(rowAt(r0 + kAskAheadRows, s0), step, lineRows, 2 * L - 1);
            unpackByteTiles(Bytes(), rowAt, r0, r0 + lineRows, s0, s0 + L, f,
                            [&](std::size_t c, std::size_t x, std::size_t r, auto v) LUMO_ALWAYS_INLINE {
                                // Only whole vectors: the rows are whole groups of 64.
                                if constexpr (std::is_same_v<decltype(v), hn::VFromD<Bytes>>)
                                    joinLine(v, planes[c] + x * height + r, above[c][x - s0], r == 0);
                            });
        }
        for (std::size_t c = 0; c < 3; ++c)
            for (std::size_t x = s0; x < s0 + L; ++x)
                finishLines(planes[c] + x * height + lines - 64, above[c][x - s0]);
    }
    hwy::FlushStream();
    return lines;
#else
    (void)rowAt, (void)height, (void)fullCols, (void)f, (void)planes;
    return 0;
#endif
}

template <class RowAt>
void unpackBytesPlain(RowAt rowAt, std::size_t height, std::size_t r0, std::size_t r1, std::size_t x0, std::size_t x1,
                      const WordFields& f, std::uint8_t* const planes[3]) {
    for (std::size_t x = x0; x < x1; ++x)
        for (std::size_t r = r0; r < r1; ++r) {
            std::uint16_t word;
            std::memcpy(&word, rowAt(r, x), 2);
            for (int c = 0; c < 3; ++c)
                planes[c][x * height + r] = static_cast<std::uint8_t>(fieldOf(word, f[c][0]) | fieldOf(word, f[c][1]));
        }
}

// The whole image: tiles of whole vectors, the columns right of them a block at a time in place,
// and the plain loop for the rest. Streamed, the tiles read each band of rows from a copy of a
// panel of 256 pixels (128 KiB of rows, which stays in the second-level cache and was read in
// order): reading the rows in place measured 1.3 to 1.6 times slower at 8 and 20 MP, and panels
// of 512 or 1024 pixels about 10 % slower. Joined lines need no staging and measured faster
// still (8 MP 0.54 -> 0.52 ns a pixel, 20 MP 0.56 -> 0.51, in a slow spell of the machine).
inline void unpackByteImage(const std::uint8_t* src, std::size_t width, std::size_t height, bool flip,
                            const WordFields& f, std::uint8_t* const planes[3], ColumnStores stores) {
    const Bytes d;
    constexpr std::size_t L = hn::MaxLanes(Bytes());
    const std::size_t fullRows = height / 16 * 16, fullCols = width / L * L, blockCols = width / 16 * 16;
    auto rowAt = [&](std::size_t r, std::size_t x) { return src + ((flip ? height - 1 - r : r) * width + x) * 2; };
    auto inPlace = [&](std::size_t c, std::size_t x, std::size_t r, auto v)
                       LUMO_ALWAYS_INLINE { hn::StoreU(v, hn::DFromV<decltype(v)>(), planes[c] + x * height + r); };
    // Rows the joined lines leave, like every row of a small image, are stored in place.
    const std::size_t joined =
        stores == ColumnStores::Streamed ? streamJoinedLines(rowAt, height, fullCols, f, planes) : 0;
    if (joined == 0 && stores == ColumnStores::Streamed && fullRows > 0) {
        constexpr std::size_t bandBytes = 256, strip = std::max<std::size_t>(64, L), panel = 256;
        for (std::size_t p0 = 0; p0 < fullCols; p0 += panel) {
            const std::size_t p1 = std::min(p0 + panel, fullCols);
            BandCopy band{};
            std::size_t first = 0;
            auto bandRow = [&](std::size_t r, std::size_t x) {
                return band.at + (r - first) * band.stride + (x - p0) * 2;
            };
            streamBands<1, bandBytes, kNarrowVectors>(
                3, [&](std::size_t c, std::size_t x) { return planes[c] + x * height; }, fullRows, p0, p1, strip,
                [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                    if (s0 == p0) {
                        const auto step = static_cast<std::ptrdiff_t>(width * 2);
                        band = copyBand<kBandRowsTogether>(rowAt(b0, p0), flip ? -step : step, b1 - b0, (p1 - p0) * 2);
                        first = b0;
                    }
                    unpackByteTiles(d, bandRow, b0, b1, s0, s1, f,
                                    [&](std::size_t c, std::size_t x, std::size_t r, auto v) LUMO_ALWAYS_INLINE {
                                        hn::Store(v, hn::DFromV<decltype(v)>(),
                                                  stage + (c * strip + x - s0) * bandBytes + (r - b0));
                                    });
                });
        }
    } else {
        unpackByteTiles(d, rowAt, joined, fullRows, 0, fullCols, f, inPlace);
    }
    if constexpr (L > 16) unpackByteTiles(Block(), rowAt, 0, fullRows, fullCols, blockCols, f, inPlace);
    unpackBytesPlain(rowAt, height, 0, fullRows, blockCols, width, f, planes);
    unpackBytesPlain(rowAt, height, fullRows, height, 0, width, f, planes);
}

// A whole image of packed words (rows width words apart, stored bottom-up with flip) into three
// column-major planes: bands of rows are transposed into column-major words, and each column's
// words then unpacked into its three planes, in order. Large images go out in whole lines: each
// tile of a band of rows by a strip of columns is unpacked into staging memory and streamed.
template <typename Word, typename Sample>
void unpackWordImageKernel(const std::uint8_t* src, std::size_t width, std::size_t height, bool flip,
                           const WordFields& fields, std::uint8_t* const planes[3], ColumnStores stores) {
    constexpr std::size_t N = sizeof(Word);
    // Rows r0 .. r0 + rows - 1 of the image, transposed into `to`, a column of rows words for
    // each of the columns from c0 on; the band's first stored row is its last with flip.
    auto transposeBand = [&](std::size_t r0, std::size_t rows, std::size_t c0, std::size_t cols, Word* to) {
        const std::uint8_t* first = src + (flip ? height - r0 - rows : r0) * width * N + c0 * N;
        transposeColumns<N>(
            first, width * N, [&](std::size_t c) { return reinterpret_cast<std::uint8_t*>(to + c * rows); }, rows, cols,
            flip, SampleOp::Copy, ColumnStores::Cached);
    };
    if (stores == ColumnStores::Streamed) {
        // Panels of columns whose band copies (1 KiB of each row) stay in the second-level cache.
        constexpr std::size_t bandBytes = 512, bandRows = bandBytes / sizeof(Sample), strip = 32;
        constexpr std::size_t panelColumns = 1024 / N / strip * strip;
        thread_local std::vector<Word> words;
        words.resize(strip * bandRows);
        for (std::size_t p0 = 0; p0 < width; p0 += panelColumns) {
            const std::size_t p1 = std::min(p0 + panelColumns, width);
            BandCopy band{};
            streamBands<sizeof(Sample), bandBytes>(
                3, [&](std::size_t c, std::size_t x) { return planes[c] + x * height * sizeof(Sample); }, height, p0,
                p1, strip,
                [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                    const std::size_t rows = b1 - b0;
                    if (s0 == p0)
                        band = copyBand(
                            src + (flip ? height - 1 - b0 : b0) * width * N + p0 * N,
                            flip ? -static_cast<std::ptrdiff_t>(width * N) : static_cast<std::ptrdiff_t>(width * N),
                            rows, (p1 - p0) * N);
                    transposeColumns<N>(
                        band.at + (s0 - p0) * N, band.stride,
                        [&](std::size_t c) { return reinterpret_cast<std::uint8_t*>(words.data() + c * rows); }, rows,
                        s1 - s0, false, SampleOp::Copy, ColumnStores::Cached);
                    for (std::size_t x = s0; x < s1; ++x) {
                        Sample* const out[3] = {reinterpret_cast<Sample*>(stage + (x - s0) * bandBytes),
                                                reinterpret_cast<Sample*>(stage + (strip + x - s0) * bandBytes),
                                                reinterpret_cast<Sample*>(stage + (2 * strip + x - s0) * bandBytes)};
                        unpackWordsKernel<Word, Sample>(words.data() + (x - s0) * rows, rows, fields, out);
                    }
                });
        }
        return;
    }
    constexpr std::size_t bandRows = 256;
    auto* band = reinterpret_cast<Word*>(threadScratch(bandRows * width * N));
    for (std::size_t r0 = 0; r0 < height; r0 += bandRows) {
        const std::size_t rows = std::min(bandRows, height - r0);
        transposeBand(r0, rows, 0, width, band);
        for (std::size_t x = 0; x < width; ++x) {
            Sample* const out[3] = {reinterpret_cast<Sample*>(planes[0]) + x * height + r0,
                                    reinterpret_cast<Sample*>(planes[1]) + x * height + r0,
                                    reinterpret_cast<Sample*>(planes[2]) + x * height + r0};
            unpackWordsKernel<Word, Sample>(band + x * rows, rows, fields, out);
        }
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
