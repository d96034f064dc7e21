// The transposes the column-major copy-outs build on, written once on vectors of any width (one
// or more 16-byte blocks) and built for each instruction set by the file that includes this one.
#if defined(LUMO_KERNELS_TRANSPOSE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_TRANSPOSE_INL_H_
#undef LUMO_KERNELS_TRANSPOSE_INL_H_
#else
#define LUMO_KERNELS_TRANSPOSE_INL_H_
#endif

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "frames/core/transpose.h"

// For the lambdas that hold a kernel's block: called once per block, with vectors in registers.
#ifndef LUMO_ALWAYS_INLINE
#define LUMO_ALWAYS_INLINE __attribute__((always_inline))
#endif

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Bytes = hn::ScalableTag<std::uint8_t>;
using Block = hn::Full128<std::uint8_t>;
using BlockVector = hn::VFromD<Block>;

// 16-byte blocks in a vector of tag D.
template <class D>
constexpr std::size_t blocksOf() {
    return hn::MaxLanes(D()) * sizeof(hn::TFromD<D>) / 16;
}

// Transposes the V x V samples of N bytes held in row vectors v[0..V-1] (V = 16 / N), within each
// 16-byte block: rounds of interleaving row i with row i + V/2, after which v[k] holds column k of
// each block. The blocks of a vector stay apart.
template <int N, class D>
HWY_INLINE void transposeVectors(D d, hn::VFromD<D>* v) {
    constexpr int V = 16 / N;
    const hn::Repartition<hwy::UnsignedFromSize<N>, D> dn;
    for (int step = 0; (1 << step) < V; ++step) {
        hn::VFromD<D> t[V];
        for (int i = 0; i < V / 2; ++i) {
            const auto a = hn::BitCast(dn, v[i]), b = hn::BitCast(dn, v[i + V / 2]);
            t[2 * i] = hn::BitCast(d, hn::InterleaveLower(dn, a, b));
            t[2 * i + 1] = hn::BitCast(d, hn::InterleaveUpper(dn, a, b));
        }
        for (int i = 0; i < V; ++i) v[i] = t[i];
    }
}

// Block q of a vector, q known when the code is built.
template <std::size_t Q, class D>
HWY_INLINE BlockVector blockOf(D d, hn::VFromD<D> v) {
    if constexpr (blocksOf<D>() == 1) {
        (void)d;
        return hn::BitCast(Block(), v);
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    } else if constexpr (blocksOf<D>() == 4) {
        // One instruction (this version of the vector library has no block extraction).
        return BlockVector{_mm512_extracti32x4_epi32(hn::BitCast(Bytes(), v).raw, Q)};
#endif
    } else {
        const hn::Half<D> half;
        if constexpr (Q < blocksOf<D>() / 2)
            return blockOf<Q>(half, hn::LowerHalf(half, v));
        else
            return blockOf<Q - blocksOf<D>() / 2>(half, hn::UpperHalf(half, v));
    }
}

// Calls store(q, block) for each block q of v.
template <class D, class Store, std::size_t... Q>
HWY_INLINE void forEachBlock(D d, hn::VFromD<D> v, Store store, std::index_sequence<Q...>) {
    (store(Q, blockOf<Q>(d, v)), ...);
}
template <class D, class Store>
HWY_INLINE void forEachBlock(D d, hn::VFromD<D> v, Store store) {
    forEachBlock(d, v, store, std::make_index_sequence<blocksOf<D>()>{});
}

// Transposes the B x B blocks of B vectors (B the blocks per vector): block q of w[j] goes to
// block j of w[q].
template <class D>
HWY_INLINE void transposeBlocks(D d, hn::VFromD<D>* w) {
    constexpr std::size_t B = blocksOf<D>();
    auto pairs = [](hn::VFromD<D>& a, hn::VFromD<D>& b) {
        const auto even = hn::OddEvenBlocks(hn::SwapAdjacentBlocks(b), a);
        b = hn::OddEvenBlocks(b, hn::SwapAdjacentBlocks(a));
        a = even;
    };
    if constexpr (B == 2) {
        pairs(w[0], w[1]);
    } else if constexpr (B == 4) {
        // Halves first, then adjacent blocks within them.
        const auto x0 = hn::ConcatLowerLower(d, w[2], w[0]), x2 = hn::ConcatUpperUpper(d, w[2], w[0]);
        const auto x1 = hn::ConcatLowerLower(d, w[3], w[1]), x3 = hn::ConcatUpperUpper(d, w[3], w[1]);
        w[0] = x0, w[1] = x1, w[2] = x2, w[3] = x3;
        pairs(w[0], w[1]);
        pairs(w[2], w[3]);
    } else {
        static_assert(B == 1, "vectors of 1, 2 or 4 blocks");
        (void)d;
    }
}

// Column vectors from B groups of V transposed rows (B the blocks per vector): vector k of group
// g holds, in block q, the piece of column q * V + k from row g * V on. put(j, vector) for each
// column j's vector of B * V rows.
template <std::size_t V, class D, class Put>
HWY_INLINE void columnsOfGroups(D d, const hn::VFromD<D> (*groups)[V], Put put) {
    constexpr std::size_t B = blocksOf<D>();
    for (std::size_t k = 0; k < V; ++k) {
        hn::VFromD<D> w[B];
        for (std::size_t g = 0; g < B; ++g) w[g] = groups[g][k];
        transposeBlocks(d, w);
        for (std::size_t q = 0; q < B; ++q) put(q * V + k, w[q]);
    }
}

template <int N>
inline hwy::UnsignedFromSize<N> swapped(hwy::UnsignedFromSize<N> v) {
    if constexpr (N == 2) return __builtin_bswap16(v);
    if constexpr (N == 4) return __builtin_bswap32(v);
    if constexpr (N == 8) return __builtin_bswap64(v);
    return v;
}

// The plain loop, over rows [r0, r1) and columns [c0, c1) of the image; column c of the
// destination starts at columnAt(c).
template <int N, class ColumnAt>
void transposeLoop(const std::uint8_t* src, std::size_t srcRowBytes, ColumnAt columnAt, std::size_t rows,
                   std::size_t r0, std::size_t r1, std::size_t c0, std::size_t c1, bool flip, SampleOp op) {
    using U = hwy::UnsignedFromSize<N>;
    for (std::size_t c = c0; c < c1; ++c) {
        std::uint8_t* column = columnAt(c);
        for (std::size_t r = r0; r < r1; ++r) {
            U v;
            std::memcpy(&v, src + (flip ? rows - 1 - r : r) * srcRowBytes + c * N, N);
            if (op == SampleOp::ByteSwap) v = swapped<N>(v);
            if (op == SampleOp::Complement) v = static_cast<U>(~v);
            std::memcpy(column + r * N, &v, N);
        }
    }
}

// Walks that read a block of rows in place down a source larger than this ask for rows before
// loading them (askRows): the loads alone, above all those that straddle two lines, keep too few
// lines in flight once the source comes from memory, and on a 2-core AMD EPYC with 256-bit vectors
// once it comes from the shared cache: asked above 2 MiB rather than 4, 1920 x 1080 mono16 took
// 1.25 -> 0.45 ns a pixel and 1280 x 960 0.31 -> 0.23 there (six alternating runs); asked above
// 1 MiB, 1280 x 960 mono8 and planar RGB8 measured slower (0.075 -> 0.111, 0.34 -> 0.44).
constexpr std::size_t kAskRowsAbove = std::size_t{2} << 20;
// How far below the block they read such walks ask: a block's own rows asked for just before its
// loads arrive too late once every row is a line from memory.
constexpr std::size_t kAskAheadRows = 64;
// The bytes of 4 KiB pages a second-level TLB of 2048 entries (Zen 3's) holds at once.
constexpr std::size_t kTlbReachBytes = std::size_t{8} << 20;

// Asks for `count` rows, the first at `first` and each `step` bytes on from the one above: every
// line of bytes 0 to `last` of each (what a block reads of a row). The lines are
// asked into the second-level cache, not the first: asked into the first, the requests wait on
// its few buffers for lines in flight, and the walks kept too few lines coming. Into the second,
// 5472 x 3648 measured (four alternating runs, best ns a pixel) mono8 0.129 -> 0.080, float
// 0.69 -> 0.44, planar RGB8 0.46 -> 0.26, packed 12-bit 0.26 -> 0.20, 4:2:0 planar
// 0.34 -> 0.27; 3840 x 2160 float 0.55 -> 0.40, planar RGB8 0.38 -> 0.27; asked with the
// third level's hint, the same. The other families measured even.
HWY_INLINE void askRows(const std::uint8_t* first, std::ptrdiff_t step, std::size_t count, std::size_t last) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* at = first + static_cast<std::ptrdiff_t>(i) * step;
        for (std::size_t b = 0; b < last; b += 64) __builtin_prefetch(at + b, 0, 2);
        __builtin_prefetch(at + last, 0, 2);
    }
}

// Large images go out in whole lines. A column-major write of a tall image touches a new page
// for every column, and a line written 16 bytes at a time is read from memory first: so a tile
// of a band of rows by a strip of columns is transposed into staging memory that stays in the
// level-1 cache, and each column's part of the band then goes out as whole aligned 64-byte lines
// with streaming stores. The up to 63 bytes of a column that end a band without finishing a line
// are carried to the next band; a column's first and last partial lines take plain stores.

// A band of source rows copied, one row after another (or `together` at a time), into memory of
// the calling thread: the hardware prefetches rows read in order, which it does not for the many
// rows of a tile, and the tiles then read the copy from the second-level cache. Row i of the
// band (of `bytes` each) is read from first + i * step and lies at at + i * stride; the stride is
// an odd number of lines, so that a tile's rows spread over every set of the first-level cache.
// A vector may be read from anywhere in a row's stride: past the last row lie a line's bytes.
struct BandCopy {
    const std::uint8_t* at;
    std::size_t stride;
};
// Vectors narrower than a line stage every large array (transposeStoresFor, and the pixel split
// below). There the staged transposes, the packed unpack and the 8-bit RGB16 words copy the
// band's rows eight at a time and join carried lines in the registers, as the pixel split does at
// every width: with 256-bit vectors 1.15 to 1.5 times faster (3840 x 2160 mono16 0.32 -> 0.23 ns
// a pixel, double 1.22 -> 0.84, planar RGB8 0.65 -> 0.46, packed 12-bit 0.29 -> 0.21; 20 MP
// mono8 0.20 -> 0.16, packed 10-bit 0.32 -> 0.21, RGB565 0.61 -> 0.52). With 512-bit vectors the
// same change slowed the transposes' in-place loops, which share their code.
constexpr bool kNarrowVectors = hn::MaxLanes(Bytes()) < 64;
constexpr std::size_t kBandRowsTogether = kNarrowVectors ? 8 : 1;
// The staged transposes of wider samples copy their bands eight rows at a time at every width.
// With 512-bit vectors, against a row at a time, on a 2-core Intel Xeon (medians of 30 to 60
// calls alternating in one process, ns a pixel): 5472 x 3648 mono16 0.610 -> 0.570 and 0.626 ->
// 0.592, float 0.816 -> 0.734, double 1.979 -> 1.797, RGB48 1.476 -> 1.346; 3840 x 2160 float
// 0.922 -> 0.880, RGB48 1.715 -> 1.615. In pairs of calls of this build and the one before
// (ab_pair, 30 pairs), 20 MP took 0.90 to 0.94 times the time, 8 MP 0.91 to 0.97, 1080p the same.
constexpr std::size_t kStagedRowsTogether = 8;
template <std::size_t together = 1>
inline BandCopy copyBand(const std::uint8_t* first, std::ptrdiff_t step, std::size_t rows, std::size_t bytes) {
    thread_local std::vector<std::uint8_t> memory;
    const std::size_t stride = ((bytes + 63) / 64 | 1) * 64;
    if (memory.size() < rows * stride + 128) memory.resize(rows * stride + 128);
    std::uint8_t* const at = memory.data() + (64 - reinterpret_cast<std::uintptr_t>(memory.data()) % 64) % 64;
    auto rowAt = [&](std::size_t i) { return first + static_cast<std::ptrdiff_t>(i) * step; };
    if constexpr (together > 1) {
        // `together` rows at a time, a line of each in turn, so that as many streams are in
        // flight at once; the bytes past the rows' whole lines, and the rows past the last
        // group, are copied a row at a time.
        const Bytes d;
        const std::size_t lineBytes = bytes / 64 * 64;
        std::size_t grouped = 0;
        for (; grouped + together <= rows; grouped += together)
            for (std::size_t b = 0; b < lineBytes; b += 64)
                for (std::size_t k = grouped; k < grouped + together; ++k)
                    for (std::size_t l = b; l < b + 64; l += hn::Lanes(d))
                        hn::Store(hn::LoadU(d, rowAt(k) + l), d, at + k * stride + l);
        for (std::size_t i = 0; i < rows; ++i) {
            const std::size_t copied = i < grouped ? lineBytes : 0;
            std::memcpy(at + i * stride + copied, rowAt(i) + copied, bytes - copied);
        }
    } else {
        for (std::size_t i = 0; i < rows; ++i) std::memcpy(at + i * stride, rowAt(i), bytes);
    }
    return {at, stride};
}

// Staging memory of the calling thread, 64-byte aligned: `stage` bytes, then 64 for each of
// `columns` columns' carried bytes.
struct Staging {
    std::uint8_t* stage;
    std::uint8_t* carry;
};
inline Staging stagingFor(std::size_t stage, std::size_t columns) {
    thread_local std::vector<std::uint8_t> memory;
    const std::size_t bytes = stage + 64 * columns + 64;
    if (memory.size() < bytes) memory.resize(bytes);
    std::uint8_t* base = memory.data() + (64 - reinterpret_cast<std::uintptr_t>(memory.data()) % 64) % 64;
    return {base, base + stage};
}

// Bytes [from, to) of the column starting at `column`, staged at `staged`: whole lines streamed,
// the column's partial first line (first band) and last line (last band) stored plainly, and
// the bytes of an unfinished line kept in `carry` (which holds those the band above left).
// Bands other than the last are at least a line long. With joinCarried, a carried line is joined
// in the registers rather than through memory, and whole lines are carried: the staging then
// needs a line before `staged` and after its end that may be read.
template <bool joinCarried = false>
HWY_INLINE void streamColumnPart(std::uint8_t* column, std::size_t from, std::size_t to, const std::uint8_t* staged,
                                 bool first, bool last, std::uint8_t* carry) {
    const Bytes d;
    auto lineAt = [](const std::uint8_t* at) { return reinterpret_cast<std::uintptr_t>(at) % 64; };
    auto streamLine = [&](std::uint8_t* at, const std::uint8_t* line) {
        for (std::size_t i = 0; i < 64; i += hn::Lanes(d)) hn::Stream(hn::LoadU(d, line + i), d, at + i);
    };
    std::uint8_t* const p = column + from;
    std::uint8_t* const q = column + to;
    std::uint8_t* w = p;
    if (first) {
        const std::size_t head = std::min<std::size_t>((64 - lineAt(p)) % 64, to - from);
        std::memcpy(p, staged, head);
        w = p + head;
    } else if (lineAt(p) != 0) {
        // The line the band above began: its bytes, then this band's.
        const std::size_t carried = lineAt(p);
        w = p - carried;
        if constexpr (joinCarried) {
            const std::size_t own = std::min<std::size_t>(64 - carried, to - from);
            if (own + carried < 64) {  // the column ends within this line
                std::memcpy(w, carry, carried);
                std::memcpy(p, staged, own);
                return;
            }
            // Joined in the registers, reading the staging up to a line before `staged`.
            for (std::size_t i = 0; i < 64; i += hn::Lanes(d)) {
                const std::size_t fromCarry = carried > i ? std::min(carried - i, hn::Lanes(d)) : 0;
                hn::Stream(hn::IfThenElse(hn::FirstN(d, fromCarry), hn::Load(d, carry + i),
                                          hn::LoadU(d, staged - carried + i)),
                           d, w + i);
            }
        } else {
            alignas(64) std::uint8_t line[64];
            std::memcpy(line, carry, carried);
            const std::size_t own = std::min<std::size_t>(64 - carried, to - from);
            std::memcpy(line + carried, staged, own);
            if (own + carried < 64) {  // the column ends within this line
                std::memcpy(w, line, carried + own);
                return;
            }
            streamLine(w, line);
        }
        w += 64;
    }
    for (; w + 64 <= q; w += 64) streamLine(w, staged + (w - p));
    if (last) {
        std::memcpy(w, staged + (w - p), static_cast<std::size_t>(q - w));
    } else if constexpr (joinCarried) {
        // The unfinished line's bytes and what follows them (the carried lines follow the
        // staging's last column).
        for (std::size_t i = 0; i < 64; i += hn::Lanes(d)) hn::Store(hn::LoadU(d, staged + (w - p) + i), d, carry + i);
    } else {
        std::memcpy(carry, staged + (w - p), static_cast<std::size_t>(q - w));
    }
}

// Copies `bytes` from `from` to `to` (apart), the destination's whole lines with streaming stores.
inline void streamCopyKernel(std::uint8_t* to, const std::uint8_t* from, std::size_t bytes) {
    streamColumnPart(to, 0, bytes, from, true, true, nullptr);
}

// Streams the columns of `planes` planes, column x of plane p starting at columnAt(p, x), over
// rows [0, rows) and columns [from, cols): for each band of bandBytes / sampleBytes rows (bands
// outermost) and strip of `strip` columns, tile(b0, b1, s0, s1, stage) stages the tile in
// `staged` columns of bandBytes, column x of plane p in staged column stagedColumn(p, x, s0),
// each row sampleBytes on; then each column's part of the band is streamed (joinCarried: see
// streamColumnPart).
template <std::size_t sampleBytes, std::size_t bandBytes, bool joinCarried = false, class ColumnAt, class Tile,
          class StagedColumn>
void streamBands(std::size_t planes, ColumnAt columnAt, std::size_t rows, std::size_t from, std::size_t cols,
                 std::size_t strip, const Tile& tile, std::size_t staged, StagedColumn stagedColumn) {
    static_assert(bandBytes % 64 == 0, "bands of whole lines");
    constexpr std::size_t bandRows = bandBytes / sampleBytes;
    const std::size_t columns = cols - from;
    // Joining carried lines reads up to a line before a column's staging: a line of slack.
    constexpr std::size_t slack = joinCarried ? 64 : 0;
    const Staging staging = stagingFor(slack + staged * bandBytes, planes * columns);
    std::uint8_t* const stage = staging.stage + slack;
    for (std::size_t b0 = 0; b0 < rows; b0 += bandRows) {
        const std::size_t b1 = std::min(b0 + bandRows, rows);
        for (std::size_t s0 = from; s0 < cols; s0 += strip) {
            const std::size_t s1 = std::min(s0 + strip, cols);
            tile(b0, b1, s0, s1, stage);
            for (std::size_t p = 0; p < planes; ++p)
                for (std::size_t x = s0; x < s1; ++x)
                    streamColumnPart<joinCarried>(columnAt(p, x), b0 * sampleBytes, b1 * sampleBytes,
                                                  stage + stagedColumn(p, x, s0) * bandBytes, b0 == 0, b1 == rows,
                                                  staging.carry + 64 * (p * columns + x - from));
        }
    }
    hwy::FlushStream();
}
// The same with the planes' columns staged in order: column x of plane p at p * strip + x - s0.
template <std::size_t sampleBytes, std::size_t bandBytes, bool joinCarried = false, class ColumnAt, class Tile>
void streamBands(std::size_t planes, ColumnAt columnAt, std::size_t rows, std::size_t from, std::size_t cols,
                 std::size_t strip, const Tile& tile) {
    streamBands<sampleBytes, bandBytes, joinCarried>(
        planes, columnAt, rows, from, cols, strip, tile, planes * strip,
        [strip](std::size_t p, std::size_t x, std::size_t s0) { return p * strip + x - s0; });
}

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// A column's 64 bytes v at `at`, an offset of whole 8-byte words from a line, when its vectors go
// down the column in order: the line that the vector above (`kept`) began is joined from its
// last bytes and v's first and streamed; v is kept for the next. A column's first vector stores
// the bytes before its first whole line plainly.
HWY_INLINE void joinLine(hn::VFromD<Bytes> v, std::uint8_t* at, std::uint8_t* kept, bool first) {
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(at) % 64;
    if (offset == 0) {
        hn::Stream(v, Bytes(), at);
        return;
    }
    if (first) {
        std::memcpy(at, &v, 64 - offset);
    } else {
        // Lane i of the line is lane i + 8 - offset / 8 of the two vectors.
        const __m512i lanes = _mm512_add_epi64(_mm512_set_epi64(7, 6, 5, 4, 3, 2, 1, 0),
                                               _mm512_set1_epi64(static_cast<long long>(8 - offset / 8)));
        _mm512_stream_si512(reinterpret_cast<__m512i*>(at - offset),
                            _mm512_permutex2var_epi64(_mm512_load_si512(kept), lanes, v.raw));
    }
    hn::Store(v, Bytes(), kept);
}
// After a column's last joined vector, at `at`: its bytes past its last whole line.
inline void finishLines(std::uint8_t* at, const std::uint8_t* kept) {
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(at) % 64;
    if (offset != 0) std::memcpy(at + 64 - offset, kept + 64 - offset, offset);
}
#endif

// Blocks of V rows by one vector of each row, from column `from` on: each transposed vector gives
// one column piece per 16-byte block. Small images are walked in strips one cache line of each
// source row wide, down the whole image; large ones in bands of whole lines. Returns the columns
// done.
template <int N, class D, class ColumnAt>
std::size_t transposeBlocksOf(D d, const std::uint8_t* src, std::size_t srcRowBytes, ColumnAt columnAt,
                              std::size_t rows, std::size_t from, std::size_t cols, bool flip, SampleOp op,
                              ColumnStores stores) {
    constexpr std::size_t V = 16 / N, blockColumns = blocksOf<D>() * V;
    constexpr std::size_t stripColumns = std::max<std::size_t>(64 / N, blockColumns);
    const std::size_t fullRows = rows / V * V, fullCols = from + (cols - from) / blockColumns * blockColumns;
    alignas(16) std::uint8_t order[16];  // reverses the bytes of each sample
    for (std::size_t i = 0; i < 16; ++i) order[i] = static_cast<std::uint8_t>(i / N * N + (N - 1 - i % N));
    const auto swapOrder = hn::LoadDup128(d, order);
    // The block of V rows whose first is at `at`, each row `step` bytes on from the one above,
    // transposed into v: vector k holds, in block q, the piece of the block's column q * V + k.
    auto block = [&](const std::uint8_t* at, std::ptrdiff_t step, hn::VFromD<D>* v) LUMO_ALWAYS_INLINE {
        for (std::size_t i = 0; i < V; ++i) v[i] = hn::LoadU(d, at + static_cast<std::ptrdiff_t>(i) * step);
        transposeVectors<N>(d, v);
        for (std::size_t k = 0; k < V; ++k) {
            if (op == SampleOp::Complement) v[k] = hn::Not(v[k]);
            if (N > 1 && op == SampleOp::ByteSwap) v[k] = hn::TableLookupBytes(v[k], swapOrder);
        }
    };
    // The same block stored: store(c, piece) for the piece of each column c, the block's first
    // column being c0. Each vector goes from its operation straight to its stores: with the
    // operation applied to the whole block first, the block was kept in memory between the two,
    // and 16-bit samples measured up to 1.5 times slower (1080p, stored in place, 0.15 -> 0.10 ns
    // a pixel; 8 MP staged at 256 bits 0.22 -> 0.18). `block`, which the column vectors take
    // whole, keeps its own copy of these lines: both built on one helper measured 8-bit frames
    // at 1080p 1.4 times slower (0.12 -> 0.17 ms).
    auto storeBlock = [&](const std::uint8_t* at, std::ptrdiff_t step, std::size_t c0, auto store) LUMO_ALWAYS_INLINE {
        hn::VFromD<D> v[V];
        for (std::size_t i = 0; i < V; ++i) v[i] = hn::LoadU(d, at + static_cast<std::ptrdiff_t>(i) * step);
        transposeVectors<N>(d, v);
        for (std::size_t k = 0; k < V; ++k) {
            if (op == SampleOp::Complement) v[k] = hn::Not(v[k]);
            if (N > 1 && op == SampleOp::ByteSwap) v[k] = hn::TableLookupBytes(v[k], swapOrder);
            forEachBlock(d, v[k], [&](std::size_t q, BlockVector piece) { store(c0 + q * V + k, piece); });
        }
    };
    const auto step = static_cast<std::ptrdiff_t>(srcRowBytes);
    auto rowAt = [&](std::size_t r) { return src + (flip ? rows - 1 - r : r) * srcRowBytes; };
    // The pieces of V rows from r0 of columns [s0, s1), read in place: store(c, piece) for the
    // piece of each column c. With `ask`, the rows kAskAheadRows below are asked for first.
    auto pieceRows = [&](std::size_t r0, std::size_t s0, std::size_t s1, bool ask, auto store) LUMO_ALWAYS_INLINE {
        if (ask && r0 + kAskAheadRows + V <= rows)
            askRows(rowAt(r0 + kAskAheadRows) + s0 * N, flip ? -step : step, V, (s1 - s0) * N - 1);
        for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns)
            storeBlock(rowAt(r0) + c0 * N, flip ? -step : step, c0, store);
    };
    if (stores == ColumnStores::Streamed) {
        // Bands of bandBytes of each column, in strips of `strip` columns. Panels of columns
        // narrow enough that a band's copy of them stays in the second-level cache. Byte samples
        // take the panels inline: out of line, as the compiler had placed them for every sample
        // size, their copy-outs took 1.1 to 1.35 times the time with vectors narrower than 512
        // bits on a 2-core Intel Xeon (against it, inline, medians of 12 pairs of calls of the
        // two builds: 256-bit mono8 0.73 to 0.82, planar RGB8 0.77 to 0.89, the 4:2:0 planes 0.89
        // to 0.96; 128-bit mono8 0.80 to 0.83, planar RGB8 0.81 to 0.90; 512-bit 0.87 to 0.99).
        // Wider samples inline measured 1.05 to 1.15 times slower at 128 bits (float, double) and
        // 1.04 at 512 (RGB48 at 20 MP, double at 1080p), and keep one copy out of line.
        auto streamPanels = [&]<std::size_t bandBytes, std::size_t strip>() LUMO_ALWAYS_INLINE {
            constexpr std::size_t panelColumns = std::max<std::size_t>(2048 / N / blockColumns, 1) * blockColumns;
            for (std::size_t p0 = from; p0 < fullCols; p0 += panelColumns) {
                const std::size_t p1 = std::min(p0 + panelColumns, fullCols);
                BandCopy band{};
                streamBands<N, bandBytes, kNarrowVectors>(
                    1, [&](std::size_t, std::size_t c) { return columnAt(c); }, fullRows, p0, p1, strip,
                    [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                        if constexpr (N == 1) {
                            // Byte samples read their tiles in place, each block of rows asking for the
                            // strip's line of the rows kAskAheadRows below. Against the band copy, on a
                            // 2-core AMD EPYC with 256-bit vectors (medians of 100 calls alternating with
                            // the copy in one process, three runs): 3840 x 2160 0.73 to 0.90 times
                            // the time, 5472 x 3648 0.77 to 0.99, 1024 x 1024 0.87 to 0.90; planar
                            // RGB8 0.83, the 4:2:0 planes 0.81 to 0.93. Wider samples measured 0.87 to
                            // 1.18 times so, and keep the copy.
                            for (std::size_t r0 = b0; r0 < b1; r0 += V)
                                pieceRows(r0, s0, s1, true, [&](std::size_t c, BlockVector piece) {
                                    hn::Store(piece, Block(), stage + (c - s0) * bandBytes + (r0 - b0));
                                });
                            return;
                        }
                        if (s0 == p0)
                            band = copyBand<kStagedRowsTogether>(rowAt(b0) + p0 * N, flip ? -step : step, b1 - b0,
                                                                 (p1 - p0) * N);
                        for (std::size_t r0 = b0; r0 < b1; r0 += V)
                            for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns)
                                storeBlock(band.at + (r0 - b0) * band.stride + (c0 - p0) * N,
                                           static_cast<std::ptrdiff_t>(band.stride), c0,
                                           [&](std::size_t c, BlockVector piece) {
                                               hn::Store(piece, Block(), stage + (c - s0) * bandBytes + (r0 - b0) * N);
                                           });
                    });
            }
        };
        // Each band stores to every page of the array. With vectors narrower than 512 bits,
        // byte arrays larger than a second-level TLB of 2048 pages of 4 KiB reaches take bands of
        // eight lines, in strips of one vector's columns (a staged tile of 16 KiB with 256-bit
        // vectors), and so visit each page half as often: on a 2-core AMD EPYC with 256-bit
        // vectors (medians of 40 to 60 calls alternating in one process) 5472 x 3648 planar RGB8
        // took 0.84 to 0.86 times the time in three runs of two sittings (1.206 -> 1.010 ns a
        // pixel); mono8 0.87 to 0.93 in three runs of one sitting (0.340 -> 0.294) and the same
        // time in three of the other. At 3840 x 2160, whose arrays stay within that reach, they
        // measured 1.0 to 1.07 times slower (mono8 first quartiles 0.156 -> 0.167). Wider vectors
        // stream 8-bit arrays from the registers (Lines) unless their columns collide, and keep
        // four lines there. Four lines of each column otherwise, 16 for samples of four bytes or
        // more, whose strips are narrower (16 or 8 columns). The second shape adds about 160 KiB
        // of code.
        if constexpr (N == 1 && kNarrowVectors) {
            if (rows * cols > kTlbReachBytes) {
                streamPanels.template operator()<512, blockColumns>();
                return fullCols;
            }
        }
        if constexpr (N == 1) {
            streamPanels.template operator()<256, stripColumns>();
        } else {
            auto outOfLine = [&]() __attribute__((noinline)) {
                streamPanels.template operator()<N <= 2 ? 256 : 1024, stripColumns>();
            };
            outOfLine();
        }
        return fullCols;
    }
    // Read in place from a source over kAskRowsAbove, the column vectors ask for the rows of the
    // block kAskAheadRows below theirs, both lines of each row's vector, before their own loads.
    // Asking for a block's own rows took 5472 x 3648 8-bit from 0.31 to 0.14 ns a pixel; asking
    // 64 rows ahead instead, from frame buffers on huge pages, measured 8 MP mono16 0.32 -> 0.18,
    // 20 MP 0.34 -> 0.21, RGB48 8 MP 1.09 -> 0.60, 1080p 0.74 -> 0.48, 8 MP planar RGB8
    // 0.50 -> 0.35, 20 MP mono8 0.13 -> 0.11 (four alternating runs). The alignment test decides
    // nothing now (only the column vectors, of 8- and 16-bit samples, read `prefetch`), but
    // without it the compiler allocated the wider samples' in-place loops' registers otherwise,
    // with a reload in the 64-bit loop, and mono double measured 1.13 times slower at every size.
    const std::size_t sourceBytes = rows * srcRowBytes;
    const bool prefetch = sourceBytes > kAskRowsAbove &&
                          (N <= 2 || (reinterpret_cast<std::uintptr_t>(src + from * N) | srcRowBytes) % 64 != 0);
    // In place, byte samples give each column a whole vector at once where the vector holds
    // more than one block: the 64 columns of a strip then take a quarter of the stores, and
    // 16-byte pieces measured up to twice as slow at every frame size (8 MP 0.12 -> 0.045 ns a
    // pixel). Blocks of B * V rows, B the blocks per vector, are transposed together, and their
    // blocks transposed give a vector of each column. Wider samples, with fewer columns to a
    // strip, measured slower so above 1080p (8 MP 16-bit 0.10 -> 0.21 ns) and keep the pieces.
    constexpr std::size_t B = blocksOf<D>(), vectorRows = B * V;
    const std::size_t lineRows = B > 1 && N == 1 ? rows / vectorRows * vectorRows : 0;
    // The block of B * V rows from r0 by the block columns from c0: store(c, at, vector) for each
    // column c's vector, at its place in the column.
    auto columnVectors = [&](std::size_t r0, std::size_t c0, auto store) LUMO_ALWAYS_INLINE {
        // Vector k of group g holds, in block q, the piece of column c0 + q * V + k.
        hn::VFromD<D> groups[B][V];
        if (prefetch && r0 + kAskAheadRows + B * V <= rows)
            askRows(rowAt(r0 + kAskAheadRows) + c0 * N, flip ? -step : step, B * V, hn::Lanes(d) - 1);
        for (std::size_t g = 0; g < B; ++g) block(rowAt(r0 + g * V) + c0 * N, flip ? -step : step, groups[g]);
        columnsOfGroups<V>(d, groups, [&](std::size_t j, hn::VFromD<D> v) LUMO_ALWAYS_INLINE {
            store(c0 + j, columnAt(c0 + j) + r0 * N, v);
        });
    };
    // In place, samples of two bytes or more ask for the rows kAskAheadRows below theirs as the
    // column vectors do: 1080p float 0.47 -> 0.20 ns a pixel, 8 MP 0.64 -> 0.54; asked into the
    // second-level cache, 1080p double 0.89 -> 0.63, 20 MP 0.91 -> 0.73, and the 16-bit chroma
    // pairs of 20 MP 4:2:0 semi-planar 0.28 -> 0.21 (four alternating runs each). The size is
    // computed here, not read from sourceBytes: that moved the registers of the other sample
    // sizes' loops.
    const bool askPieces = N > 1 && rows * srcRowBytes > kAskRowsAbove;
    auto inPlace = [&](std::size_t r0, std::size_t s0, std::size_t s1) LUMO_ALWAYS_INLINE {
        pieceRows(r0, s0, s1, askPieces,
                  [&](std::size_t c, BlockVector piece) { hn::StoreU(piece, Block(), columnAt(c) + r0 * N); });
    };
    // With `Lines`, a strip whose columns all start at the same offset from a line (a multiple of
    // 16 bytes) begins its blocks at the row that puts them on whole lines and streams them
    // straight from the registers; the rows above that row and below the last block take pieces.
    // 16-bit samples take the joined lines below where they can, and pieces in place elsewhere.
    // Narrower vectors, which stage the arrays that would take Lines, store them in place.
    if (!kNarrowVectors && (lineRows > 0 || (N == 2 && rows >= vectorRows)) && stores == ColumnStores::Lines) {
        for (std::size_t s0 = from; s0 < fullCols; s0 += stripColumns) {
            const std::size_t s1 = std::min(s0 + stripColumns, fullCols);
            const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(columnAt(s0)) % 64;
            bool together = offset % 16 == 0;
            for (std::size_t c = s0 + 1; c < s1 && together; ++c)
                together = reinterpret_cast<std::uintptr_t>(columnAt(c)) % 64 == offset;
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
            if constexpr (vectorRows * N == 64 && blockColumns == stripColumns) {
                // Columns at different offsets from a line (a multiple of 8 bytes each), as a
                // height of a multiple of 16 rows but not of 64 gives (of 4 rows, for 16-bit
                // samples, which take every strip this way): each column's vector of 64 bytes
                // ends a line with its first bytes, which the vector above began, and the
                // rest begin the next. The vector above is kept for each column, and each line
                // joined from the two goes out with a streaming store; a column's first and last
                // partial lines take plain stores.
                bool eights = (N > 1 || !together) && s1 - s0 == stripColumns;
                for (std::size_t c = s0; c < s1 && eights; ++c)
                    eights = reinterpret_cast<std::uintptr_t>(columnAt(c)) % 8 == 0;
                if (eights) {
                    alignas(64) std::uint8_t above[stripColumns][64];
                    const std::size_t lines = rows / vectorRows * vectorRows;
                    for (std::size_t r0 = 0; r0 < lines; r0 += vectorRows)
                        columnVectors(r0, s0, [&](std::size_t c, std::uint8_t* at, hn::VFromD<D> v) {
                            joinLine(v, at, above[c - s0], r0 == 0);
                        });
                    for (std::size_t c = s0; c < s1; ++c)
                        finishLines(columnAt(c) + (lines - vectorRows) * N, above[c - s0]);
                    for (std::size_t r0 = lines; r0 < fullRows; r0 += V) inPlace(r0, s0, s1);
                    continue;
                }
            }
#endif
            if constexpr (N > 1) {
                for (std::size_t r0 = 0; r0 < fullRows; r0 += V) inPlace(r0, s0, s1);
                continue;
            }
            const std::size_t first = together ? (64 - offset) % 64 : 0;
            const std::size_t lines = first < rows ? first + (rows - first) / vectorRows * vectorRows : first;
            for (std::size_t r0 = 0; r0 < std::min(first, fullRows); r0 += V) inPlace(r0, s0, s1);
            for (std::size_t r0 = first; r0 < lines; r0 += vectorRows)
                for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns) {
                    if (together)
                        columnVectors(r0, c0,
                                      [&](std::size_t, std::uint8_t* at, hn::VFromD<D> v) { hn::Stream(v, d, at); });
                    else
                        columnVectors(r0, c0,
                                      [&](std::size_t, std::uint8_t* at, hn::VFromD<D> v) { hn::StoreU(v, d, at); });
                }
            for (std::size_t r0 = lines; r0 < fullRows; r0 += V) inPlace(r0, s0, s1);
        }
        hwy::FlushStream();
        return fullCols;
    }
    for (std::size_t s0 = from; s0 < fullCols; s0 += stripColumns) {
        const std::size_t s1 = std::min(s0 + stripColumns, fullCols);
        for (std::size_t r0 = 0; r0 < lineRows; r0 += vectorRows)
            for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns)
                columnVectors(r0, c0, [&](std::size_t, std::uint8_t* at, hn::VFromD<D> v) { hn::StoreU(v, d, at); });
        for (std::size_t r0 = lineRows; r0 < fullRows; r0 += V) inPlace(r0, s0, s1);
    }
    return fullCols;
}

// Memory of the calling thread for the blocks of an image's last rows, 16 bytes a column: apart
// from the staging, which the 32-bit RGB words hold while they transpose a band of rows.
inline std::uint8_t* lastRowsStaging(std::size_t bytes) {
    thread_local std::vector<std::uint8_t> memory;
    if (memory.size() < bytes) memory.resize(bytes);
    return memory.data();
}

// The blocks at the widest width, the columns right of them on single blocks, the rows below the
// last whole block, then the plain loop for what no block fills.
template <int N, class ColumnAt>
void transposeColumns(const std::uint8_t* src, std::size_t srcRowBytes, ColumnAt columnAt, std::size_t rows,
                      std::size_t cols, bool flip, SampleOp op, ColumnStores stores) {
    std::size_t done = transposeBlocksOf<N>(Bytes(), src, srcRowBytes, columnAt, rows, 0, cols, flip, op, stores);
    // The few columns left are stored in place.
    if constexpr (blocksOf<Bytes>() > 1)
        done =
            transposeBlocksOf<N>(Block(), src, srcRowBytes, columnAt, rows, done, cols, flip, op, ColumnStores::Cached);
    constexpr std::size_t V = 16 / N;
    const std::size_t fullRows = rows / V * V;
    // The rows below the last whole block (8 of 1080 byte rows), from blocks of the image's last V
    // rows staged in the calling thread's memory: only those rows are copied out, so that the
    // lines above, which may have been streamed past the caches, are not read back. Against the
    // plain loop, 1080p mono8 took 2.12 -> 2.06 million instructions a call (callgrind) and its
    // share of the kernel's samples went from 12% to 7%; stored in place over the rows above,
    // 9%.
    std::size_t lastDone = 0;
    if (fullRows < rows && rows >= V) {
        std::uint8_t* const stage = lastRowsStaging(done * 16);
        lastDone = transposeBlocksOf<N>(
            Block(), flip ? src : src + (rows - V) * srcRowBytes, srcRowBytes,
            [&](std::size_t c) { return stage + c * 16; }, V, 0, done, flip, op, ColumnStores::Cached);
        const std::size_t skip = (fullRows + V - rows) * N, bytes = (rows - fullRows) * N;
        for (std::size_t c = 0; c < lastDone; ++c)
            std::memcpy(columnAt(c) + fullRows * N, stage + c * 16 + skip, bytes);
    }
    transposeLoop<N>(src, srcRowBytes, columnAt, rows, fullRows, rows, lastDone, cols, flip, op);
    transposeLoop<N>(src, srcRowBytes, columnAt, rows, 0, fullRows, done, cols, flip, op);
}

template <int N>
void transposeSamplesKernel(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                            std::size_t rows, std::size_t cols, bool flip, SampleOp op, ColumnStores stores) {
    transposeColumns<N>(
        src, srcRowBytes, [=](std::size_t c) { return dst + c * dstColumn * N; }, rows, cols, flip, op, stores);
}

// Pixels of three 16-bit samples: sample s of each pixel goes to plane s, one column per pixel.
inline void transposePixelsKernel(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* const planes[3],
                                  std::size_t rows, std::size_t pixels, bool flip, SampleOp op, ColumnStores stores) {
    std::uint8_t* const to[3] = {planes[0], planes[1], planes[2]};
    transposeColumns<2>(
        src, srcRowBytes, [=](std::size_t c) { return to[c % 3] + c / 3 * rows * 2; }, rows, 3 * pixels, flip, op,
        stores);
}

// Whole output lines (64 bytes) of each column from columns `from` on: each line gathers the
// column's pieces of four groups of V rows, each group transposed in registers; rows past the
// image read as zeros. Returns the columns done.
template <bool streamed, typename T, class D>
std::uint64_t intoLinesOf(D d, const std::uint8_t* src, std::size_t srcRowBytes, T* dst, std::uint64_t stride,
                          std::uint64_t rows, std::uint64_t from, std::uint64_t cols) {
    constexpr std::uint64_t N = sizeof(T), V = 16 / N, L = 64 / N, B = blocksOf<D>();
    constexpr std::uint64_t blockColumns = B * V;
    const std::uint64_t fullCols = from + (cols - from) / blockColumns * blockColumns;
    for (std::uint64_t r0 = 0; r0 < rows; r0 += L)
        for (std::uint64_t c0 = from; c0 < fullCols; c0 += blockColumns) {
            hn::VFromD<D> groups[4][V];
            for (std::uint64_t g = 0; g < 4; ++g) {
                for (std::uint64_t i = 0; i < V; ++i) {
                    const std::uint64_t r = r0 + g * V + i;
                    groups[g][i] = r < rows ? hn::LoadU(d, src + r * srcRowBytes + c0 * N) : hn::Zero(d);
                }
                transposeVectors<static_cast<int>(N)>(d, groups[g]);
            }
            // Vector k of group g holds, in block q, the piece of column c0 + q * V + k: B groups'
            // vectors with their blocks transposed make B line segments.
            for (std::uint64_t k = 0; k < V; ++k)
                for (std::uint64_t s = 0; s < 4 / B; ++s) {
                    hn::VFromD<D> w[B];
                    for (std::uint64_t j = 0; j < B; ++j) w[j] = groups[s * B + j][k];
                    transposeBlocks(d, w);
                    for (std::uint64_t q = 0; q < B; ++q) {
                        auto* line = reinterpret_cast<std::uint8_t*>(dst + (c0 + q * V + k) * stride + r0 + s * B * V);
                        if constexpr (streamed)
                            hn::Stream(w[q], d, line);
                        else
                            hn::Store(w[q], d, line);
                    }
                }
        }
    if constexpr (streamed) hwy::FlushStream();
    return fullCols;
}

template <bool streamed, typename T>
std::uint64_t intoLines(const std::uint8_t* src, std::size_t srcRowBytes, T* dst, std::uint64_t stride,
                        std::uint64_t rows, std::uint64_t cols) {
    std::uint64_t done = intoLinesOf<streamed>(Bytes(), src, srcRowBytes, dst, stride, rows, 0, cols);
    if constexpr (blocksOf<Bytes>() > 1)
        done = intoLinesOf<streamed>(Block(), src, srcRowBytes, dst, stride, rows, done, cols);
    return done;
}

template <typename T>
void transposeIntoLinesKernel(const std::uint8_t* src, std::size_t srcRowBytes, T* dst, std::uint64_t stride,
                              std::uint64_t rows, std::uint64_t cols, ColumnStores stores) {
    std::uint64_t done = 0;
    if (reinterpret_cast<std::uintptr_t>(dst) % 64 == 0 && stride % (64 / sizeof(T)) == 0)
        done = stores == ColumnStores::Streamed ? intoLines<true>(src, srcRowBytes, dst, stride, rows, cols)
                                                : intoLines<false>(src, srcRowBytes, dst, stride, rows, cols);
    // The columns right of the whole vectors.
    constexpr int N = sizeof(T);
    if (cols > done)
        transposeSamplesKernel<N>(src + done * N, srcRowBytes, reinterpret_cast<std::uint8_t*>(dst + done * stride),
                                  stride, rows, cols - done, false, SampleOp::Copy, ColumnStores::Cached);
}

// vector(i) for each whole vector's worth of pairs from pair i, pair(i) for each pair of a count
// below one vector. The pairs past the last whole vector are done by the last vector's worth of
// pairs again, stored over the values they already hold (the arrays never overlap). Done a pair
// at a time, that tail took half the samples of the demosaic's interleave at 1080p (540 pairs a
// column, 28 past the last 512-bit vector); done so, 8-bit Bayer took 0.90 to 0.91 times the time
// at 1080p and 0.93 to 0.94 at 3840 x 2160 on a 2-core Intel Xeon with AVX-512 (medians of 60 to
// 300 calls alternating in one process, two runs), 0.97 at 1080p with 256-bit vectors.
template <class Vector, class Pair>
HWY_INLINE void overPairs(std::uint64_t pairs, std::uint64_t lanes, Vector vector, Pair pair) {
    if (pairs < lanes) {
        for (std::uint64_t i = 0; i < pairs; ++i) pair(i);
        return;
    }
    for (std::uint64_t i = 0; i + lanes <= pairs; i += lanes) vector(i);
    if (pairs % lanes != 0) vector(pairs - lanes);
}

template <typename T>
void deinterleaveKernel(const T* in, T* even, T* odd, std::uint64_t pairs) {
    const hn::ScalableTag<T> d;
    overPairs(
        pairs, hn::Lanes(d),
        [&](std::uint64_t i) {
            hn::VFromD<decltype(d)> e, o;
            hn::LoadInterleaved2(d, in + 2 * i, e, o);
            hn::StoreU(e, d, even + i);
            hn::StoreU(o, d, odd + i);
        },
        [&](std::uint64_t i) {
            even[i] = in[2 * i];
            odd[i] = in[2 * i + 1];
        });
}

template <typename T>
void interleaveKernel(const T* even, const T* odd, T* out, std::uint64_t pairs) {
    const hn::ScalableTag<T> d;
    overPairs(
        pairs, hn::Lanes(d),
        [&](std::uint64_t i) { hn::StoreInterleaved2(hn::LoadU(d, even + i), hn::LoadU(d, odd + i), d, out + 2 * i); },
        [&](std::uint64_t i) {
            out[2 * i] = even[i];
            out[2 * i + 1] = odd[i];
        });
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
