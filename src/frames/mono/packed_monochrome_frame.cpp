#include "lumoframekit/packed_monochrome_frame.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"
#include "frames/mono/packings.h"

namespace lumoframekit {

namespace {

// The byte of pixel c within a row: c * bytesPerGroup / pixelsPerGroup, rounded down for the
// 4-in-5 packing and up for the 2-in-3 packings (so an odd pixel lands on its group's third byte).
inline std::size_t byteOfPixel(Packing packing, std::size_t c) {
    return packing == Packing::Ten4in5 ? c * 5 / 4 : (c * 3 + 1) / 2;
}

// Pixel c of a row whose byte byteOfPixel(c) is at b.
template <Packing P>
inline std::uint16_t decode(const std::uint8_t* b, std::size_t c) {
    if constexpr (P == Packing::Ten4in5) {
        switch (c & 3) {
            case 0: return static_cast<std::uint16_t>(b[0] | (b[1] & 0x03) << 8);
            case 1: return static_cast<std::uint16_t>(b[0] >> 2 | (b[1] & 0x0F) << 6);
            case 2: return static_cast<std::uint16_t>(b[0] >> 4 | (b[1] & 0x3F) << 4);
            default: return static_cast<std::uint16_t>(b[0] >> 6 | b[1] << 2);
        }
    } else if (c & 1) {
        // Second pixel of a group: b[0] is the group's third byte, b[-1] the shared byte.
        if constexpr (P == Packing::Ten2in3)
            return static_cast<std::uint16_t>(b[0] << 2 | (b[-1] & 0x30) >> 4);
        else
            return static_cast<std::uint16_t>(b[0] << 4 | (b[-1] & 0xF0) >> 4);
    } else {
        if constexpr (P == Packing::Ten2in3)
            return static_cast<std::uint16_t>(b[0] << 2 | (b[1] & 0x03));
        else if constexpr (P == Packing::Twelve2in3)
            return static_cast<std::uint16_t>(b[0] << 4 | (b[1] & 0x0F));
        else
            return static_cast<std::uint16_t>((b[1] & 0x0F) << 8 | b[0]);
    }
}

#if defined(__x86_64__)
// Eight pixels from the 12 (2-in-3) or 10 (4-in-5) bytes at row, in 16-bit lanes.
template <Packing P>
__attribute__((target("ssse3"))) inline __m128i decodeEight(const std::uint8_t* row) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row));
    __m128i pixels;
    if constexpr (P == Packing::Ten4in5) {
        // Lane k holds the two bytes its 10 bits span; shifting left by 6 - (k mod 4) * 2 and
        // then right by 6 keeps exactly those bits.
        const __m128i words = _mm_shuffle_epi8(bytes, _mm_setr_epi8(0, 1, 1, 2, 2, 3, 3, 4, 5, 6, 6, 7, 7, 8, 8, 9));
        pixels = _mm_srli_epi16(_mm_mullo_epi16(words, _mm_setr_epi16(64, 16, 4, 1, 64, 16, 4, 1)), 6);
    } else if constexpr (P == Packing::Twelve2in3LsbFirst) {
        // Even pixels: b0 and the low nibble of b1; odd pixels: b2 and the high nibble of b1.
        const __m128i words = _mm_shuffle_epi8(bytes, _mm_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11));
        const __m128i evenMask = _mm_setr_epi16(0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0);
        const __m128i oddMask = _mm_setr_epi16(0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF);
        pixels = _mm_or_si128(_mm_and_si128(words, evenMask), _mm_and_si128(_mm_srli_epi16(words, 4), oddMask));
    } else {
        // The high bits from b0 (even) or b2 (odd), the low bits from the shared byte b1: its low
        // field for even pixels, its field at bit 4 for odd ones.
        constexpr int low = P == Packing::Ten2in3 ? 2 : 4;
        constexpr short field = (1 << low) - 1;
        const __m128i high =
            _mm_shuffle_epi8(bytes, _mm_setr_epi8(0, -1, 2, -1, 3, -1, 5, -1, 6, -1, 8, -1, 9, -1, 11, -1));
        const __m128i shared =
            _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, -1, 1, -1, 4, -1, 4, -1, 7, -1, 7, -1, 10, -1, 10, -1));
        const __m128i evenField = _mm_setr_epi16(field, 0, field, 0, field, 0, field, 0);
        const __m128i oddField = _mm_setr_epi16(0, field, 0, field, 0, field, 0, field);
        pixels = _mm_or_si128(
            _mm_slli_epi16(high, low),
            _mm_or_si128(_mm_and_si128(shared, evenField), _mm_and_si128(_mm_srli_epi16(shared, 4), oddField)));
    }
    return pixels;
}

// Blocks of eight rows by eight pixels are decoded into registers, transposed there and stored
// as eight column pieces; pixels and rows that do not fill a block are decoded one at a time.
template <Packing P>
__attribute__((target("ssse3"))) void unpackBlocks(std::uint16_t* out, const std::uint8_t* buffer,
                                                   const std::uint8_t* end, std::size_t rowBytes, std::size_t first,
                                                   std::size_t width, std::size_t height, std::size_t done) {
    constexpr std::size_t groupBytes = P == Packing::Ten4in5 ? 10 : 12;
    const std::size_t decoded = first + width;
    const std::size_t fullRows = height / 8 * 8;
    auto* target = reinterpret_cast<std::uint8_t*>(out);
    for (std::size_t r0 = 0; r0 < fullRows; r0 += 8) {
        const std::uint8_t* rows = buffer + r0 * rowBytes;
        const std::uint8_t* lastRow = rows + 7 * rowBytes;
        std::size_t c0 = done;
        for (; c0 + 8 <= decoded && lastRow + c0 / 8 * groupBytes + 16 <= end; c0 += 8) {
            __m128i v[8];
            for (std::size_t i = 0; i < 8; ++i) v[i] = decodeEight<P>(rows + i * rowBytes + c0 / 8 * groupBytes);
            transposeVectors<2>(v);
            for (std::size_t k = 0; k < 8; ++k)
                if (c0 + k >= first)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(target + ((c0 + k - first) * height + r0) * 2), v[k]);
        }
        for (std::size_t c = std::max(c0, first); c < decoded; ++c)
            for (std::size_t i = 0; i < 8; ++i)
                out[(c - first) * height + r0 + i] = decode<P>(rows + i * rowBytes + byteOfPixel(P, c), c);
    }
    for (std::size_t r = fullRows; r < height; ++r)
        for (std::size_t c = first; c < decoded; ++c)
            out[(c - first) * height + r] = decode<P>(buffer + r * rowBytes + byteOfPixel(P, c), c);
}

// The same on 512-bit vectors (AVX-512 BW): 32 pixels, four groups, one group per 128-bit part,
// each decoded as decodeEight does.
LUMO_AVX512 __m512i everyPart(__m128i v) { return _mm512_broadcast_i32x4(v); }

template <Packing P>
LUMO_AVX512 __m512i decodeThirtyTwo(const std::uint8_t* row) {
    constexpr std::size_t groupBytes = P == Packing::Ten4in5 ? 10 : 12;
    __m512i bytes = _mm512_castsi128_si512(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row)));
    bytes = _mm512_inserti32x4(bytes, _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + groupBytes)), 1);
    bytes = _mm512_inserti32x4(bytes, _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + 2 * groupBytes)), 2);
    bytes = _mm512_inserti32x4(bytes, _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + 3 * groupBytes)), 3);
    if constexpr (P == Packing::Ten4in5) {
        const __m512i words =
            _mm512_shuffle_epi8(bytes, everyPart(_mm_setr_epi8(0, 1, 1, 2, 2, 3, 3, 4, 5, 6, 6, 7, 7, 8, 8, 9)));
        return _mm512_srli_epi16(_mm512_mullo_epi16(words, everyPart(_mm_setr_epi16(64, 16, 4, 1, 64, 16, 4, 1))), 6);
    } else if constexpr (P == Packing::Twelve2in3LsbFirst) {
        const __m512i words =
            _mm512_shuffle_epi8(bytes, everyPart(_mm_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11)));
        const __m512i evenMask = everyPart(_mm_setr_epi16(0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0));
        const __m512i oddMask = everyPart(_mm_setr_epi16(0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF, 0, 0x0FFF));
        return _mm512_or_si512(_mm512_and_si512(words, evenMask),
                               _mm512_and_si512(_mm512_srli_epi16(words, 4), oddMask));
    } else {
        constexpr int low = P == Packing::Ten2in3 ? 2 : 4;
        constexpr short field = (1 << low) - 1;
        const __m512i high = _mm512_shuffle_epi8(
            bytes, everyPart(_mm_setr_epi8(0, -1, 2, -1, 3, -1, 5, -1, 6, -1, 8, -1, 9, -1, 11, -1)));
        const __m512i shared = _mm512_shuffle_epi8(
            bytes, everyPart(_mm_setr_epi8(1, -1, 1, -1, 4, -1, 4, -1, 7, -1, 7, -1, 10, -1, 10, -1)));
        const __m512i evenField = everyPart(_mm_setr_epi16(field, 0, field, 0, field, 0, field, 0));
        const __m512i oddField = everyPart(_mm_setr_epi16(0, field, 0, field, 0, field, 0, field));
        return _mm512_or_si512(_mm512_slli_epi16(high, low),
                               _mm512_or_si512(_mm512_and_si512(shared, evenField),
                                               _mm512_and_si512(_mm512_srli_epi16(shared, 4), oddField)));
    }
}

// Blocks of eight rows by 32 pixels; what they leave goes to the 128-bit blocks.
template <Packing P>
__attribute__((target("avx512f,avx512bw"))) std::size_t unpackWidestBlocks(std::uint16_t* out,
                                                                           const std::uint8_t* buffer,
                                                                           const std::uint8_t* end,
                                                                           std::size_t rowBytes, std::size_t first,
                                                                           std::size_t width, std::size_t height) {
    constexpr std::size_t groupBytes = P == Packing::Ten4in5 ? 10 : 12;
    const std::size_t decoded = first + width;
    const std::size_t fullRows = height / 8 * 8;
    // Columns every block row reaches: the reads of the last row of the last band stay before end.
    std::size_t columns = 0;
    if (fullRows > 0) {
        const std::uint8_t* lastRow = buffer + (fullRows - 1) * rowBytes;
        while (columns + 32 <= decoded && lastRow + (columns / 8 + 3) * groupBytes + 16 <= end) columns += 32;
    }
    auto* target = reinterpret_cast<std::uint8_t*>(out);
    for (std::size_t r0 = 0; r0 < fullRows; r0 += 8) {
        const std::uint8_t* rows = buffer + r0 * rowBytes;
        for (std::size_t c0 = 0; c0 < columns; c0 += 32) {
            __m512i v[8];
            for (std::size_t i = 0; i < 8; ++i) v[i] = decodeThirtyTwo<P>(rows + i * rowBytes + c0 / 8 * groupBytes);
            transposeVectors512<2>(v);
            for (std::size_t k = 0; k < 8; ++k) {
                __m128i parts[4];
                splitParts(v[k], parts);
                for (std::size_t q = 0; q < 4; ++q) {
                    const std::size_t c = c0 + 8 * q + k;
                    if (c >= first)
                        _mm_storeu_si128(reinterpret_cast<__m128i*>(target + ((c - first) * height + r0) * 2),
                                         parts[q]);
                }
            }
        }
    }
    return columns;
}
#endif

// Pixels 0..count-1 of a row that starts at a group, into out.
template <Packing P>
void decodeRow(const std::uint8_t* row, std::uint16_t* out, std::size_t count) {
    for (std::size_t c = 0; c < count; ++c) out[c] = decode<P>(row + byteOfPixel(P, c), c);
}

// Without the byte shuffles, rows are decoded in bands into a row-major scratch band, which is
// then transposed into the column-major host array: both passes walk memory in order.
template <Packing P>
void unpack(std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end, std::size_t rowBytes,
            std::size_t firstPixel, std::size_t width, std::size_t height) {
#if defined(__x86_64__)
    if (shuffleKernelsAvailable()) {
        // Columns [0, done) of the whole bands are decoded on 512-bit vectors where available.
        const std::size_t done =
            widestKernelsAvailable() ? unpackWidestBlocks<P>(out, buffer, end, rowBytes, firstPixel, width, height) : 0;
        unpackBlocks<P>(out, buffer, end, rowBytes, firstPixel, width, height, done);
        return;
    }
#else
    (void)end;
#endif
    constexpr std::size_t bandRows = 64;
    const std::size_t decoded = firstPixel + width;
    std::vector<std::uint16_t> band(bandRows * decoded);
    for (std::size_t r0 = 0; r0 < height; r0 += bandRows) {
        const std::size_t rows = std::min(bandRows, height - r0);
        for (std::size_t i = 0; i < rows; ++i)
            decodeRow<P>(buffer + (r0 + i) * rowBytes, band.data() + i * decoded, decoded);
        transposeSamples<2>(reinterpret_cast<const std::uint8_t*>(band.data() + firstPixel), decoded * 2,
                            reinterpret_cast<std::uint8_t*>(out + r0), height, rows, width, false, SampleOp::Copy);
    }
}

// The packing table's row for a frame's depth and variant; a depth with no packing throws.
const PackingFacts& packingOf(std::int32_t bits, std::int32_t lsb) {
    const PackingFacts* facts = findPacking(bits, lsb != 0);
    if (facts == nullptr)
        throw std::invalid_argument("PackedMonochromeFrame objects can only have 10 or 12 bits per band.");
    return *facts;
}

// Wraps like the signed 32-bit arithmetic the sizes are defined in.
std::int32_t wrap32(std::int64_t value) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(value)); }

}  // namespace

PackedMonochromeFrame::PackedMonochromeFrame(std::int32_t w, std::int32_t h, std::int32_t bits, std::int32_t lsb)
    : LUMOFrame(w, h, 2, COLORSPACE_MONO),
      width(w),
      height(h),
      bitsPerBand(bits),
      leadPad(0),
      trailPad(0),
      lsbFirst(lsb != 0 ? 1 : 0),
      bytesPerGroup(packingOf(bits, lsb).bytesPerGroup),
      pixelsPerGroup(packingOf(bits, lsb).pixelsPerGroup),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 1} {
    // The unpacking reads up to two bytes past a row's last group for some geometries.
    bufferSlack = 4;
}

std::int32_t PackedMonochromeFrame::padUnit() const { return packingOf(bitsPerBand, lsbFirst).padUnit; }

std::int64_t PackedMonochromeFrame::paddedWidth() const {
    return static_cast<std::int64_t>(width) + (leadPad ? padUnit() : 0) + (trailPad ? padUnit() : 0);
}

std::uint64_t PackedMonochromeFrame::getBufferSize() const {
    const std::int32_t product = wrap32(static_cast<std::int64_t>(wrap32(paddedWidth() * height)) * bytesPerGroup);
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(product / pixelsPerGroup));
}

std::int32_t PackedMonochromeFrame::getDataType() const { return DATATYPE_UINT16; }
std::uint32_t PackedMonochromeFrame::getBitsPerBand() const { return static_cast<std::uint32_t>(bitsPerBand); }
const FrameDims* PackedMonochromeFrame::getDimensions() const { return &dims; }

std::int64_t PackedMonochromeFrame::getAlignedSize() const {
    const std::uint32_t padded = (static_cast<std::uint32_t>(width) + 3u) & ~3u;
    return static_cast<std::int32_t>(padded * static_cast<std::uint32_t>(height));
}

std::uint8_t* PackedMonochromeFrame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth,
                                                        std::uint32_t srcHeight, std::uint32_t xOffset,
                                                        std::uint32_t yOffset) {
    const std::int64_t bpg = bytesPerGroup, ppg = pixelsPerGroup;
    const std::uint32_t startColumn = xOffset - xOffset % static_cast<std::uint32_t>(ppg);
    const std::uint8_t lead = startColumn != xOffset ? 1 : 0;
    const std::int64_t rowLength = width <= 0 ? 0 : (static_cast<std::int64_t>(width) + ppg - 1) / ppg * ppg;
    const std::uint8_t trail = width % pixelsPerGroup != 0 ? 1 : 0;
    const std::int64_t rowCopy = rowLength * bpg / ppg;
    const std::int64_t stride = static_cast<std::int64_t>(width) * bpg / ppg;
    const std::int64_t srcRowBytes = static_cast<std::int64_t>(srcWidth) * bpg / ppg;
    const std::int64_t srcBytes = srcRowBytes * static_cast<std::int64_t>(srcHeight);
    const std::int64_t start = static_cast<std::int64_t>(startColumn) * bpg / ppg + srcRowBytes * yOffset;
    const bool copies = width > 0 && height > 0;
    // The region must lie in the source, save the partial group that the last row of a frame whose
    // width is not a whole number of groups reaches past the source's packed bytes: that part
    // reads as zeros.
    if (copies && (src == nullptr || stride < 0 || start + (height - 1) * stride + rowCopy - srcBytes >= bpg))
        return nullptr;

    leadPad = lead;
    trailPad = trail;
    std::uint8_t* target = allocateBuffer();
    if (target == nullptr || !copies) return target;
    const std::uint64_t copied = static_cast<std::uint64_t>(rowCopy) * static_cast<std::uint64_t>(height);
    if (allocatedSize < copied) return nullptr;
    for (std::int32_t i = 0; i < height; ++i) {
        const std::int64_t from = start + i * stride;
        const std::int64_t inside = std::clamp<std::int64_t>(srcBytes - from, 0, rowCopy);
        std::uint8_t* row = target + i * rowCopy;
        if (inside > 0) std::memcpy(row, src + from, static_cast<std::size_t>(inside));
        std::memset(row + inside, 0, static_cast<std::size_t>(rowCopy - inside));
    }
    // Pads may make the buffer longer than the rows copied; its tail is zeroed so that no byte
    // the camera never wrote reaches the host.
    std::memset(target + copied, 0, static_cast<std::size_t>(allocatedSize - copied));
    return target;
}

void PackedMonochromeFrame::getData(void** dest) {
    if (!isBufferAllocated() || dest == nullptr || dest[0] == nullptr || width < 1 || height < 1) return;
    const Packing packing = packingOf(bitsPerBand, lsbFirst).packing;
    const std::size_t rowBytes = static_cast<std::size_t>(paddedWidth() * bytesPerGroup / pixelsPerGroup);
    const std::size_t first = leadPad;
    const std::size_t w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
    // Every byte the unpacking reads must lie in the buffer or its zeroed slack.
    const std::size_t lastRead = (h - 1) * rowBytes + byteOfPixel(packing, first + w - 1) + 1;
    if (lastRead >= allocatedSize + bufferSlack) return;
    auto* out = static_cast<std::uint16_t*>(dest[0]);
    const std::uint8_t* end = buffer + allocatedSize + bufferSlack;
    switch (packing) {
        case Packing::Ten2in3: unpack<Packing::Ten2in3>(out, buffer, end, rowBytes, first, w, h); break;
        case Packing::Twelve2in3: unpack<Packing::Twelve2in3>(out, buffer, end, rowBytes, first, w, h); break;
        case Packing::Twelve2in3LsbFirst:
            unpack<Packing::Twelve2in3LsbFirst>(out, buffer, end, rowBytes, first, w, h);
            break;
        case Packing::Ten4in5: unpack<Packing::Ten4in5>(out, buffer, end, rowBytes, first, w, h); break;
    }
}

}  // namespace lumoframekit
