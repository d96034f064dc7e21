#pragma once
#include <cstddef>
#include <cstdint>

namespace lumoframekit {

// What happens to each sample on its way from a row-major image to a column-major array.
enum class SampleOp { Copy, ByteSwap, Complement };

// Where a transpose's columns go. Cached: stored in place, for scratch the next step reads and
// for images small enough to stay in the caches for the host. Streamed: in whole cache lines
// straight to memory, for large images, whose columns would otherwise each cost a page and a
// read of every line before it is written.
enum class ColumnStores { Cached, Streamed };

// The stores for a host array of `bytes` in columns of `rows`: streamed for arrays that no longer
// stay in the caches between frames, above 8 MiB, and for tall ones (2048 rows or more) above
// 4 MiB, whose columns each span a page or more. A 1920 x 1080 array of up to four bytes a pixel
// stays cached.
constexpr ColumnStores columnStoresFor(std::uint64_t bytes, std::uint64_t rows) {
    constexpr std::uint64_t MiB = std::uint64_t{1} << 20;
    return bytes > 8 * MiB || (rows >= 2048 && bytes > 4 * MiB) ? ColumnStores::Streamed : ColumnStores::Cached;
}

// Transposes rows x cols samples of SampleBytes bytes (1, 2, 4 or 8): the sample at row r,
// column c of src (rows srcRowBytes apart) goes to dst[(c * dstColumn + r) * SampleBytes]. With
// flipRows the source rows are read from the last upward, so a bottom-up image comes out top-down.
// Neither pointer needs any alignment.
template <int SampleBytes>
void transposeSamples(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                      std::size_t rows, std::size_t cols, bool flipRows, SampleOp op,
                      ColumnStores stores = ColumnStores::Cached);

// The widest vectors the kernels may use, in bits: 512 (the default, or LUMO_VECTOR_BITS from the
// environment) lets the kernels use the widest the processor has; tests lower it to check the
// narrower kernels, and 0 the portable build, against the same references. Returns the width of
// the kernels now in use, which is lower where the processor lacks the width asked for.
int limitVectorWidth(int bits);

}  // namespace lumoframekit
