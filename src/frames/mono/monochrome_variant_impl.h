#pragma once
// Member definitions of MonochromeVariant. Included where the named classes are made, so that
// each format is instantiated there once.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "frames/core/transpose.h"
#include "lumoframekit/monochrome_frame.h"

namespace lumoframekit {

namespace mono_detail {

template <typename T>
T byteSwapped(T value) {
    using Bits =
        std::conditional_t<sizeof(T) == 1, std::uint8_t,
                           std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                              std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    if constexpr (sizeof(T) == 2) bits = __builtin_bswap16(bits);
    if constexpr (sizeof(T) == 4) bits = __builtin_bswap32(bits);
    if constexpr (sizeof(T) == 8) bits = __builtin_bswap64(bits);
    std::memcpy(&value, &bits, sizeof bits);
    return value;
}

constexpr bool bigEndian(MonoStorage s) {
    return s == MonoStorage::Unsigned16BE || s == MonoStorage::SignedBE || s == MonoStorage::FloatBE;
}

// The stored sample at element index i of a raw image, after byte-order correction and, for the
// inverted format, complemented: the value the host array receives.
template <typename Stored, MonoStorage Storage>
inline Stored sampleAt(const std::uint8_t* src, std::size_t i) {
    Stored v;
    std::memcpy(&v, src + i * sizeof(Stored), sizeof(Stored));
    if constexpr (bigEndian(Storage)) v = byteSwapped(v);
    if constexpr (Storage == MonoStorage::Inverted8) v = static_cast<Stored>(255 - v);
    return v;
}

// Truncates toward zero and keeps the low 8 bits. NaN shows as 0; values beyond the integer
// range hold at its ends, so +inf shows as 255 and -inf as 0.
template <typename Int, typename F>
inline std::uint8_t wrappedByte(F scaled) {
    if (std::isnan(scaled)) return 0;
    constexpr F top = static_cast<F>(std::numeric_limits<Int>::max());  // rounds up to 2^(n-1)
    if (scaled >= top) return static_cast<std::uint8_t>(std::numeric_limits<Int>::max());
    if (scaled <= -top) return 0;
    return static_cast<std::uint8_t>(static_cast<Int>(scaled));
}

}  // namespace mono_detail

template <typename Stored, MonoStorage Storage, bool BottomUp>
MonochromeVariant<Stored, Storage, BottomUp>::MonochromeVariant(std::int32_t w, std::int32_t h, std::uint32_t bits)
    : MonochromeFrame(w, h, BottomUp ? 1 : 0, static_cast<std::int32_t>(sizeof(Stored))) {
    bitsPerBand = bits;
    sampleMapping = static_cast<std::uint8_t>(Storage == MonoStorage::Inverted8 ? SampleOp::Complement
                                              : mono_detail::bigEndian(Storage) ? SampleOp::ByteSwap
                                                                                : SampleOp::Copy);
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
std::int32_t MonochromeVariant<Stored, Storage, BottomUp>::getDataType() const {
    switch (Storage) {
        case MonoStorage::Unsigned8:
        case MonoStorage::Inverted8: return DATATYPE_UINT8;
        case MonoStorage::Unsigned16LE:
        case MonoStorage::Unsigned16BE: return DATATYPE_UINT16;
        case MonoStorage::SignedLE:
        case MonoStorage::SignedBE: {
            const std::uint32_t bits = getBitsPerBand();
            return bits == 8 ? DATATYPE_INT8 : bits == 16 ? DATATYPE_INT16 : DATATYPE_INT32;
        }
        default: return getBitsPerBand() == 32 ? DATATYPE_FLOAT : DATATYPE_DOUBLE;
    }
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
std::uint32_t MonochromeVariant<Stored, Storage, BottomUp>::getBitsPerBand() const {
    return bitsPerBand;
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
void MonochromeVariant<Stored, Storage, BottomUp>::getDisplayRow(std::uint8_t* dest, std::int32_t row) const {
    if (dest == nullptr || row < 0 || row >= height || !holdsWholeImage()) return;
    const std::size_t first = static_cast<std::size_t>(row) * static_cast<std::size_t>(width);
    for (std::int32_t i = 0; i < width; ++i) {
        const Stored v = mono_detail::sampleAt<Stored, Storage>(buffer, first + i);
        std::uint8_t shown;
        if constexpr (Storage == MonoStorage::Unsigned8 || Storage == MonoStorage::Inverted8) {
            shown = v;
        } else if constexpr (Storage == MonoStorage::Unsigned16LE || Storage == MonoStorage::Unsigned16BE) {
            shown = static_cast<std::uint8_t>(v >> (bitsPerBand - 8));
        } else if constexpr (Storage == MonoStorage::SignedLE || Storage == MonoStorage::SignedBE) {
            // Offset binary: the most negative value shows as 0, zero in the middle.
            using U = std::make_unsigned_t<Stored>;
            const U offset = static_cast<U>(static_cast<U>(v) + (U{1} << (8 * sizeof(U) - 1)));
            shown = static_cast<std::uint8_t>(offset >> (getBitsPerBand() - 8));
        } else if constexpr (std::is_same_v<Stored, float>) {
            shown = mono_detail::wrappedByte<std::int32_t>(v * 255.0f);
        } else {
            shown = mono_detail::wrappedByte<std::int64_t>(v * 255.0);
        }
        dest[i] = shown;
    }
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
void MonochromeVariant<Stored, Storage, BottomUp>::copyColumn(void* dest, std::int32_t column,
                                                              const std::uint8_t* src) const {
    if (dest == nullptr || src == nullptr || column < 0 || column >= width || height <= 0) return;
    auto* out = static_cast<Stored*>(dest);
    const std::size_t w = static_cast<std::size_t>(width);
    const std::size_t h = static_cast<std::size_t>(height);
    for (std::size_t r = 0; r < h; ++r) {
        const std::size_t row = BottomUp ? h - 1 - r : r;
        out[r] = mono_detail::sampleAt<Stored, Storage>(src, row * w + static_cast<std::size_t>(column));
    }
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
void MonochromeVariant<Stored, Storage, BottomUp>::copyColumnBlock(void* destBase, std::int32_t* firstColumn,
                                                                   const std::uint8_t* src) const {
    if constexpr (sizeof(Stored) == 1 && (Storage == MonoStorage::Unsigned8 || Storage == MonoStorage::Inverted8)) {
        if (destBase == nullptr || firstColumn == nullptr || src == nullptr) return;
        const std::int32_t c0 = *firstColumn;
        if (c0 < 0 || c0 >= width || height <= 0) return;
        const std::size_t w = static_cast<std::size_t>(width);
        const std::size_t h = static_cast<std::size_t>(height);
        const std::size_t columns = std::min<std::size_t>(static_cast<std::size_t>(tileColumns), w - c0);
        auto* out = static_cast<std::uint8_t*>(destBase) + static_cast<std::size_t>(c0) * h;
        const auto op = static_cast<SampleOp>(sampleMapping);
        const ColumnStores stores = transposeStoresFor(w * h, h, 1);
        if (stores != ColumnStores::Cached) {
            // A large image's strip (or one whose columns collide in the cache) in one transpose,
            // which keeps its own tiles of whole lines or walks the strip's columns down the whole
            // image (20 MP 0.105 -> 0.056 ns a pixel against 128-row tiles).
            transposeSamples<1>(src + static_cast<std::size_t>(c0), w, out, h, h, columns, BottomUp, op, stores);
            return;
        }
        // The strip's tiles, transposed a vector block at a time; a tile's source rows stay in the
        // first-level cache while its columns are written.
        for (std::size_t r0 = 0; r0 < h; r0 += static_cast<std::size_t>(tileRows)) {
            const std::size_t rows = std::min<std::size_t>(static_cast<std::size_t>(tileRows), h - r0);
            // Output rows r0.. come from stored rows r0.. (top-down) or h - 1 - r0 downward.
            const std::uint8_t* first = src + (BottomUp ? h - r0 - rows : r0) * w + static_cast<std::size_t>(c0);
            transposeSamples<1>(first, w, out + r0, h, rows, columns, BottomUp, op);
        }
    } else {
        (void)destBase, (void)firstColumn, (void)src;
    }
}

template <typename Stored, MonoStorage Storage, bool BottomUp>
void MonochromeVariant<Stored, Storage, BottomUp>::copyRawData(std::uint8_t* dest, const std::uint8_t* src) const {
    if constexpr (Storage == MonoStorage::Inverted8) {
        const std::int32_t bytes = rawBytes();
        for (std::int32_t i = 0; i < bytes; ++i) dest[i] = static_cast<std::uint8_t>(255 - src[i]);
    } else {
        MonochromeFrame::copyRawData(dest, src);
    }
}

}  // namespace lumoframekit
