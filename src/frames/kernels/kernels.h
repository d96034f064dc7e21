#pragma once
// The vector kernels of every copy-out and of the demosaic, each written once and built for every
// instruction set the processor may have. One table of them is chosen when the library loads (and
// again whenever the width limit changes); frames call through it.
#include <cstddef>
#include <cstdint>

#include "frames/core/transpose.h"
#include "frames/mono/packings.h"

namespace lumoframekit {

struct PixelBlock;

namespace BayerUtil {
template <typename T>
struct BayerTBBTask;
}

// A field of a packed word: the bits under mask, shifted right by shift (left when negative).
struct WordField {
    std::uint32_t mask;
    std::int32_t shift;
};
// The two fields whose OR is each of the three channels.
using WordFields = WordField[3][2];

template <typename T>
struct SampleKernels {
    // Every site of the task's kind.
    void (*sites)(const BayerUtil::BayerTBBTask<T>& task);
    // Splits 2 * pairs samples into the even-indexed and the odd-indexed ones, and back; the
    // arrays must not overlap.
    void (*deinterleave)(const T* in, T* even, T* odd, std::uint64_t pairs);
    void (*interleave)(const T* even, const T* odd, T* out, std::uint64_t pairs);
    // Transposes rows x cols samples of a row-major image (rows srcRowBytes apart) into columns
    // stride samples apart, in whole cache lines where the columns start on them: streamed past
    // the caches, or stored into them.
    void (*transposeIntoLines)(const std::uint8_t* src, std::size_t srcRowBytes, T* dst, std::uint64_t stride,
                               std::uint64_t rows, std::uint64_t cols, ColumnStores stores);
};

struct Kernels {
    const char* name;  // the instruction set
    int vectorBits;    // 0 for the portable build
    // transposeSamples, by log2 of the sample bytes.
    void (*transpose[4])(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                         std::size_t rows, std::size_t cols, bool flipRows, SampleOp op, ColumnStores stores);
    // Pixels of three 16-bit samples (rows srcRowBytes apart): sample s of each pixel goes to
    // column-major plane s, with the row order and sample operation of transposeSamples.
    void (*transposePixels)(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* const planes[3],
                            std::size_t rows, std::size_t pixels, bool flipRows, SampleOp op, ColumnStores stores);
    // Copies bytes to memory (the two apart) in whole lines where it can, past the caches: for
    // parts of large host arrays no step reads back. The caller orders the stores
    // (hwy::FlushStream) before the array is handed over.
    void (*streamCopy)(std::uint8_t* to, const std::uint8_t* from, std::size_t bytes);
    // Unpacks an image of packed words (rows width words apart, stored bottom-up with flipRows)
    // into three column-major planes of 8-bit (16-bit words) or 16-bit samples (32-bit words).
    void (*unpackWordImage16)(const std::uint8_t* src, std::size_t width, std::size_t height, bool flipRows,
                              const WordFields& fields, std::uint8_t* const planes[3], ColumnStores stores);
    void (*unpackWordImage32)(const std::uint8_t* src, std::size_t width, std::size_t height, bool flipRows,
                              const WordFields& fields, std::uint8_t* const planes[3], ColumnStores stores);
    // splitInterleaved.
    void (*splitInterleaved)(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                             std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3],
                             ColumnStores stores);
    // Unpacks pixels [first, first + width) of every row of a packed image into a column-major
    // array, by the packing's row in kPackings. Reads stay before end.
    void (*unpack[std::size(kPackings)])(std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end,
                                         std::size_t rowBytes, std::size_t first, std::size_t width, std::size_t height,
                                         ColumnStores stores);
    // The same into a row-major array, rows width samples apart.
    void (*unpackRows[std::size(kPackings)])(std::uint16_t* out, const std::uint8_t* buffer, const std::uint8_t* end,
                                             std::size_t rowBytes, std::size_t first, std::size_t width,
                                             std::size_t height);
    SampleKernels<std::uint8_t> u8;
    SampleKernels<std::uint16_t> u16;

    template <typename T>
    const SampleKernels<T>& of() const {
        if constexpr (sizeof(T) == 1)
            return u8;
        else
            return u16;
    }
};

// The table in use: the widest kernels the processor has within the width limit.
const Kernels& kernels();

}  // namespace lumoframekit
