#pragma once
#include <cstddef>
#include <cstdint>

namespace lumoframekit {

// What happens to each sample on its way from a row-major image to a column-major array.
enum class SampleOp { Copy, ByteSwap, Complement };

// Transposes rows x cols samples of SampleBytes bytes (1, 2, 4 or 8): the sample at row r,
// column c of src (rows srcRowBytes apart) goes to dst[(c * dstColumn + r) * SampleBytes]. With
// flipRows the source rows are read from the last upward, so a bottom-up image comes out top-down.
// Neither pointer needs any alignment.
template <int SampleBytes>
void transposeSamples(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                      std::size_t rows, std::size_t cols, bool flipRows, SampleOp op);

// Whether the vector kernels run (the default where the processor has them) or the portable
// loops; tests switch them off to check the portable loops against the same references.
bool vectorKernelsEnabled();
void setVectorKernelsEnabled(bool enabled);

// Whether the byte-shuffle kernels may run: enabled, and the processor has SSSE3.
bool shuffleKernelsAvailable();
// Whether the 256-bit kernels may run: enabled, and the processor has AVX2.
bool wideKernelsAvailable();
// Whether the 512-bit kernels may run: enabled both here and as vector kernels, and the processor
// has AVX-512 BW. Tests switch them off to check the 256-bit kernels where both exist.
bool widestKernelsAvailable();
void setWidestKernelsEnabled(bool enabled);

}  // namespace lumoframekit
