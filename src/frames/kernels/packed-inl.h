// Unpacking of packed 10- and 12-bit rows into column-major 16-bit arrays: eight pixels per
// 16-byte block decoded by byte shuffles, eight rows transposed in registers.
#if defined(LUMO_KERNELS_PACKED_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_PACKED_INL_H_
#undef LUMO_KERNELS_PACKED_INL_H_
#else
#define LUMO_KERNELS_PACKED_INL_H_
#endif

#include <hwy/highway.h>

#include "frames/kernels/transpose-inl.h"
#include "frames/mono/packings.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {

// Bytes of the eight pixels one block decodes.
template <Packing P>
constexpr std::size_t eightPixelBytes = 8 / factsOf(P).pixelsPerGroup* factsOf(P).bytesPerGroup;

// Block q of the vector holds the 16 bytes from row + q * G on.
template <std::size_t G, class D>
HWY_INLINE hn::VFromD<D> loadGroups(D d, const std::uint8_t* row) {
    if constexpr (blocksOf<D>() == 1) {
        return hn::LoadU(d, row);
    } else {
        const hn::Half<D> half;
        return hn::Combine(d, loadGroups<G>(half, row + blocksOf<D>() / 2 * G), loadGroups<G>(half, row));
    }
}

// Eight pixels per block, in 16-bit lanes, from the bytes at row. Table bytes of 0x80 read as 0.
template <Packing P, class D16>
HWY_INLINE hn::VFromD<D16> decodeBlocks(D16 d16, const std::uint8_t* row) {
    const hn::Repartition<std::uint8_t, D16> d8;
    const auto bytes = loadGroups<eightPixelBytes<P>>(d8, row);
    auto pick = [&](const std::uint8_t* order) {
        return hn::BitCast(d16, hn::TableLookupBytesOr0(bytes, hn::LoadDup128(d8, order)));
    };
    if constexpr (P == Packing::Ten4in5) {
        // Lane k holds the two bytes its 10 bits span; shifting left by 6 - (k mod 4) * 2 and
        // then right by 6 keeps exactly those bits.
        alignas(16) static constexpr std::uint8_t spans[16] = {0, 1, 1, 2, 2, 3, 3, 4, 5, 6, 6, 7, 7, 8, 8, 9};
        alignas(16) static constexpr std::uint16_t scales[8] = {64, 16, 4, 1, 64, 16, 4, 1};
        return hn::ShiftRight<6>(hn::Mul(pick(spans), hn::LoadDup128(d16, scales)));
    } else if constexpr (P == Packing::Twelve2in3LsbFirst) {
        // Even pixels: b0 and the low nibble of b1; odd pixels: b2 and the high nibble of b1.
        alignas(16) static constexpr std::uint8_t spans[16] = {0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11};
        alignas(16) static constexpr std::uint16_t even[8] = {0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0};
        const auto words = pick(spans), evenMask = hn::LoadDup128(d16, even);
        return hn::Or(hn::And(words, evenMask), hn::AndNot(evenMask, hn::ShiftRight<4>(words)));
    } else {
        // The high bits from b0 (even) or b2 (odd), the low bits from the shared byte b1: its low
        // field for even pixels, its field at bit 4 for odd ones.
        constexpr int low = P == Packing::Ten2in3 ? 2 : 4;
        constexpr std::uint16_t f = (1 << low) - 1;
        alignas(16) static constexpr std::uint8_t highs[16] = {0, 0x80, 2, 0x80, 3, 0x80, 5,  0x80,
                                                               6, 0x80, 8, 0x80, 9, 0x80, 11, 0x80};
        alignas(16) static constexpr std::uint8_t shares[16] = {1, 0x80, 1, 0x80, 4,  0x80, 4,  0x80,
                                                                7, 0x80, 7, 0x80, 10, 0x80, 10, 0x80};
        alignas(16) static constexpr std::uint16_t evenField[8] = {f, 0, f, 0, f, 0, f, 0};
        alignas(16) static constexpr std::uint16_t oddField[8] = {0, f, 0, f, 0, f, 0, f};
        const auto shared = pick(shares);
        return hn::Or(hn::ShiftLeft<low>(pick(highs)),
                      hn::Or(hn::And(shared, hn::LoadDup128(d16, evenField)),
                             hn::And(hn::ShiftRight<4>(shared), hn::LoadDup128(d16, oddField))));
    }
}

// Blocks of eight rows by eight pixels per 16-byte block, from column `from` up to the columns
// whose reads in the last whole band stay before end, streamed in whole lines where asked and the
// rows have no lead pad. Returns the columns done.
template <Packing P, class D16>
std::size_t unpackBlocksOf(D16 d16, std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end,
                           std::size_t rowBytes, std::size_t first, std::size_t width, std::size_t height,
                           std::size_t from, ColumnStores stores) {
    constexpr std::size_t G = eightPixelBytes<P>, B = blocksOf<D16>(), blockColumns = 8 * B;
    const std::size_t decoded = first + width, fullRows = height / 8 * 8;
    std::size_t columns = from;
    if (fullRows > 0) {
        const auto readable = static_cast<std::size_t>(end - (buffer + (fullRows - 1) * rowBytes));
        while (columns + blockColumns <= decoded && (columns / 8 + B - 1) * G + 16 <= readable) columns += blockColumns;
    }
    const hn::Repartition<std::uint8_t, D16> d8;
    // The block of eight rows, each `step` bytes on from the one above, whose first holds column
    // c0's bytes at `at`, decoded and transposed: bytes[k] holds, in block q, the piece of column
    // c0 + 8 * q + k.
    auto decodeRows = [&](const std::uint8_t* at, std::size_t step, hn::VFromD<decltype(d8)>* bytes)
                          LUMO_ALWAYS_INLINE {
                              for (std::size_t i = 0; i < 8; ++i)
                                  bytes[i] = hn::BitCast(d8, decodeBlocks<P>(d16, at + i * step));
                              transposeVectors<2>(d8, bytes);
                          };
    // The same block stored: store(c, piece) for each column piece.
    auto block = [&](const std::uint8_t* at, std::size_t step, std::size_t c0, auto store) LUMO_ALWAYS_INLINE {
        hn::VFromD<decltype(d8)> bytes[8];
        decodeRows(at, step, bytes);
        for (std::size_t k = 0; k < 8; ++k)
            forEachBlock(d8, bytes[k], [&](std::size_t q, BlockVector piece) { store(c0 + 8 * q + k, piece); });
    };
    std::size_t joined = 0;  // rows the joined lines below have done
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    // Streamed with 512-bit vectors where every column starts at whole 8-byte words from a line:
    // strips of 128 columns walk down the whole image reading the rows in place, four blocks of
    // eight rows give each column a vector of 32 rows, and each vector joins the line that the one
    // above began (as the byte transposes do). From a source over kAskRowsAbove, the rows
    // kAskAheadRows below each block are asked for before it is decoded (askRows), as the
    // transposes ask for theirs: without asking, 5472 x 3648 measured slower joined than staging
    // bands (10-bit 0.38 -> 0.44 ns a pixel); asking for each block's own rows put the joined walk
    // at a median of 2.3 times memcpy where the bands took 2.8 (10-bit 3840 x 2160), 3.0 against
    // 3.4 (12-bit); asking ahead, from frame buffers on huge pages, measured 0.27 -> 0.19 (10-bit)
    // and 0.30 -> 0.20 (12-bit) at 3840 x 2160 and 0.34 -> 0.21 and 0.37 -> 0.29 at 5472 x 3648
    // (four alternating runs). Strips of 64 or 256 columns measured no faster. The rows below the
    // last 32 are stored in place.
    if constexpr (B == 4) {
        constexpr std::size_t strip = 4 * blockColumns, lineRows = 32;
        if (stores == ColumnStores::Streamed && first == 0 && height % 4 == 0 && fullRows >= lineRows &&
            reinterpret_cast<std::uintptr_t>(out) % 8 == 0) {
            const std::size_t lines = height / lineRows * lineRows;
            const bool ask = height * rowBytes > kAskRowsAbove;
            alignas(64) std::uint8_t above[strip][64];
            auto columnAt = [&](std::size_t c) { return reinterpret_cast<std::uint8_t*>(out + c * height); };
            for (std::size_t s0 = from; s0 < columns; s0 += strip) {
                const std::size_t s1 = std::min(s0 + strip, columns);
                for (std::size_t r0 = 0; r0 < lines; r0 += lineRows)
                    for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns) {
                        hn::VFromD<decltype(d8)> groups[4][8];
                        if (ask && r0 + kAskAheadRows + lineRows <= height)
                            askRows(buffer + (r0 + kAskAheadRows) * rowBytes + c0 / 8 * G,
                                    static_cast<std::ptrdiff_t>(rowBytes), lineRows, (B - 1) * G + 15);
                        for (std::size_t g = 0; g < 4; ++g)
                            decodeRows(buffer + (r0 + 8 * g) * rowBytes + c0 / 8 * G, rowBytes, groups[g]);
                        columnsOfGroups<8>(d8, groups,
                                           [&](std::size_t j, hn::VFromD<decltype(d8)> v) LUMO_ALWAYS_INLINE {
                                               joinLine(v, columnAt(c0 + j) + r0 * 2, above[c0 + j - s0], r0 == 0);
                                           });
                    }
                for (std::size_t c = s0; c < s1; ++c) finishLines(columnAt(c) + (lines - lineRows) * 2, above[c - s0]);
            }
            hwy::FlushStream();
            joined = lines;
        }
    }
#endif
    if (joined == 0 && stores == ColumnStores::Streamed && first == 0) {
        // Panels of columns whose band copies (2 KiB of each row) stay in the second-level cache.
        constexpr std::size_t bandBytes = 256, strip = std::max<std::size_t>(64, blockColumns);
        constexpr std::size_t panelColumns = std::max<std::size_t>(2048 / G * 8 / strip, 1) * strip;
        for (std::size_t p0 = from; p0 < columns; p0 += panelColumns) {
            const std::size_t p1 = std::min(p0 + panelColumns, columns);
            // What the panel's blocks read of each row: up to 16 bytes from their last block's.
            const std::size_t skipped = p0 / 8 * G, reach = (p1 / 8 - 1) * G + 16 - skipped;
            BandCopy band{};
            streamBands<2, bandBytes, kNarrowVectors>(
                1, [&](std::size_t, std::size_t c) { return reinterpret_cast<std::uint8_t*>(out + c * height); },
                fullRows, p0, p1, strip,
                [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                    if (s0 == p0)
                        band = copyBand<kBandRowsTogether>(buffer + b0 * rowBytes + skipped,
                                                           static_cast<std::ptrdiff_t>(rowBytes), b1 - b0, reach);
                    for (std::size_t r0 = b0; r0 < b1; r0 += 8)
                        for (std::size_t c0 = s0; c0 < s1; c0 += blockColumns)
                            block(band.at + (r0 - b0) * band.stride + c0 / 8 * G - skipped, band.stride, c0,
                                  [&](std::size_t c, BlockVector piece) {
                                      hn::Store(piece, Block(), stage + (c - s0) * bandBytes + (r0 - b0) * 2);
                                  });
                });
        }
        return columns;
    }
    for (std::size_t r0 = joined; r0 < fullRows; r0 += 8)
        for (std::size_t c0 = from; c0 < columns; c0 += blockColumns)
            block(buffer + r0 * rowBytes + c0 / 8 * G, rowBytes, c0, [&](std::size_t c, BlockVector piece) {
                if (c >= first)
                    hn::StoreU(piece, Block(), reinterpret_cast<std::uint8_t*>(out + (c - first) * height + r0));
            });
    return columns;
}

template <Packing P>
void unpackKernel(std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end, std::size_t rowBytes,
                  std::size_t first, std::size_t width, std::size_t height, ColumnStores stores) {
    const hn::ScalableTag<std::uint16_t> d16;
    std::size_t done = unpackBlocksOf<P>(d16, out, buffer, end, rowBytes, first, width, height, 0, stores);
    if constexpr (blocksOf<decltype(d16)>() > 1)
        done = unpackBlocksOf<P>(hn::Full128<std::uint16_t>(), out, buffer, end, rowBytes, first, width, height, done,
                                 ColumnStores::Cached);
    // What no block covers, a pixel at a time.
    const std::size_t decoded = first + width, fullRows = height / 8 * 8;
    for (std::size_t c = std::max(done, first); c < decoded; ++c)
        for (std::size_t r = 0; r < fullRows; ++r)
            out[(c - first) * height + r] = decode<P>(buffer + r * rowBytes + byteOfPixel(P, c), c);
    for (std::size_t r = fullRows; r < height; ++r)
        for (std::size_t c = first; c < decoded; ++c)
            out[(c - first) * height + r] = decode<P>(buffer + r * rowBytes + byteOfPixel(P, c), c);
}

// The same into a row-major array: row r's pixels [first, first + width) at out + r * width.
template <Packing P>
void unpackRowsKernel(std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end, std::size_t rowBytes,
                      std::size_t first, std::size_t width, std::size_t height) {
    const hn::ScalableTag<std::uint16_t> d16;
    constexpr std::size_t G = eightPixelBytes<P>, B = blocksOf<decltype(d16)>(), blockColumns = 8 * B;
    const std::size_t decoded = first + width;
    // A lead pad shifts the row: its first block is decoded a pixel at a time.
    const std::size_t start = first == 0 ? 0 : blockColumns;
    for (std::size_t r = 0; r < height; ++r) {
        const std::uint8_t* row = buffer + r * rowBytes;
        std::uint16_t* to = out + r * width - first;  // to + c is pixel c's place, c >= first
        const auto readable = static_cast<std::size_t>(end - row);
        std::size_t c = start;
        for (; c + blockColumns <= decoded && (c / 8 + B - 1) * G + 16 <= readable; c += blockColumns)
            hn::StoreU(decodeBlocks<P>(d16, row + c / 8 * G), d16, to + c);
        for (std::size_t p = first; p < std::min(start, decoded); ++p) to[p] = decode<P>(row + byteOfPixel(P, p), p);
        for (; c < decoded; ++c) to[c] = decode<P>(row + byteOfPixel(P, c), c);
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
