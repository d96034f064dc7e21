#pragma once
// Subsampled chroma of the YUV frames, widened to one sample per pixel in column-major planes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <algorithm>
#include <vector>

#include <hwy/cache_control.h>

#include "frames/kernels/kernels.h"

namespace lumoframekit {

// Pixel (x, y) of a width x rows plane takes sample (x / n, y / n) of the subsampled plane, whose
// columns of chromaRows samples lie back to back in `columns`: each column is widened by repeating
// every sample n times, then copied to the other plane columns it covers. The n plane columns of
// a chroma column lie back to back too: streamed, they are widened in staging memory and go out
// together.
inline void widenChroma(const std::uint8_t* columns, std::size_t chromaRows, std::uint8_t* plane, std::size_t width,
                        std::size_t rows, std::size_t n, ColumnStores stores = ColumnStores::Cached) {
    const Kernels& k = kernels();
    thread_local std::vector<std::uint8_t> staging;
    if (stores == ColumnStores::Streamed) staging.resize(n * rows);
    for (std::size_t c = 0; c * n < width; ++c) {
        const std::uint8_t* column = columns + c * chromaRows;
        std::uint8_t* const target = plane + c * n * rows;
        std::uint8_t* const first = stores == ColumnStores::Streamed ? staging.data() : target;
        if (n == 2) {
            k.u8.interleave(column, column, first, rows / 2);
            if (rows % 2 == 1) first[rows - 1] = column[rows / 2];
        } else {
            for (std::size_t y = 0; y < rows; ++y) first[y] = column[y / n];
        }
        const std::size_t covered = std::min(n, width - c * n);
        for (std::size_t j = 1; j < covered; ++j) std::memcpy(first + j * rows, first, rows);
        if (stores == ColumnStores::Streamed) k.streamCopy(target, first, covered * rows);
    }
    if (stores == ColumnStores::Streamed) hwy::FlushStream();
}

}  // namespace lumoframekit
