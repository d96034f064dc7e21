#pragma once
#include <cstddef>
#include <cstdint>

namespace lumoframekit {

// Where each of the three samples of 16 consecutive pixels lies within their blockBytes bytes,
// for interleaved 8-bit layouts whose pixel pattern repeats every 16 pixels (RGB with or without
// a pad byte, packed YUV macro-pixels).
struct PixelBlock {
    std::uint8_t byteOf[3][16];
    std::size_t blockBytes;
};

// Splits an interleaved image of 8-bit samples into three column-major planes of height x width
// bytes each (planes[c][x * height + y]), row y read from src + row * stride where row is y, or
// height - 1 - y with flipRows. Reads stay before end.
void splitInterleaved(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                      std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]);

}  // namespace lumoframekit
