#pragma once
// Subsampled chroma of the YUV frames, widened to one sample per pixel in column-major planes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frames/kernels/kernels.h"

namespace lumoframekit {

// Pixel (x, y) of a width x rows plane takes sample (x / n, y / n) of the subsampled plane, whose
// columns of chromaRows samples lie back to back in `columns`: each column is widened by repeating
// every sample n times, then copied to the other plane columns it covers.
inline void widenChroma(const std::uint8_t* columns, std::size_t chromaRows, std::uint8_t* plane, std::size_t width,
                        std::size_t rows, std::size_t n) {
    const auto interleave = kernels().u8.interleave;
    for (std::size_t k = 0; k * n < width; ++k) {
        const std::uint8_t* column = columns + k * chromaRows;
        std::uint8_t* first = plane + k * n * rows;
        if (n == 2) {
            interleave(column, column, first, rows / 2);
            if (rows % 2 == 1) first[rows - 1] = column[rows / 2];
        } else {
            for (std::size_t y = 0; y < rows; ++y) first[y] = column[y / n];
        }
        for (std::size_t j = 1; j < n && k * n + j < width; ++j) std::memcpy(first + j * rows, first, rows);
    }
}

}  // namespace lumoframekit
