#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumoframekit {

// The three destination planes of a null-terminated plane list: {p, nullptr} puts them back to
// back behind p, {a, b, c, ...} names them. A null list, a null first pointer or a list of two
// names no layout.
struct Planes {
    std::uint8_t* plane[3];
    bool valid;
};

inline Planes planesOf(void** dest, std::uint64_t planeBytes) {
    if (dest == nullptr || dest[0] == nullptr) return {{}, false};
    auto* first = static_cast<std::uint8_t*>(dest[0]);
    if (dest[1] == nullptr) return {{first, first + planeBytes, first + 2 * planeBytes}, true};
    if (dest[2] == nullptr) return {{}, false};
    return {{first, static_cast<std::uint8_t*>(dest[1]), static_cast<std::uint8_t*>(dest[2])}, true};
}

// Rows stored top-down from a region of a larger image: the region must lie inside the source.
inline bool regionInside(std::int64_t width, std::int64_t height, std::uint32_t srcWidth, std::uint32_t srcHeight,
                         std::uint32_t x, std::uint32_t y) {
    return width >= 0 && height >= 0 && x + width <= srcWidth && y + height <= srcHeight;
}

// Sizes defined as signed 32-bit products wrap as such; sign extension makes a negative one huge.
inline std::uint64_t wrappedSize(std::int64_t product) {
    return static_cast<std::uint64_t>(
        static_cast<std::int64_t>(static_cast<std::int32_t>(static_cast<std::uint32_t>(product))));
}

// Bytes of one plane of width x height samples; 0 for an image without pixels.
inline std::int64_t planeBytes(std::int32_t width, std::int32_t height, std::int32_t sampleBytes) {
    if (width <= 0 || height <= 0) return 0;
    return static_cast<std::int64_t>(width) * height * sampleBytes;
}

// Rows padded to a multiple of 4 bytes, as a wrapping signed 32-bit product.
inline std::int64_t alignedRows(std::int64_t rowBytes, std::int64_t rows) {
    const std::uint32_t padded = (static_cast<std::uint32_t>(rowBytes) + 3u) & ~3u;
    return static_cast<std::int32_t>(padded * static_cast<std::uint32_t>(rows));
}

// Rows of three bytes per pixel, padded as above.
inline std::int64_t alignedPixelRows(std::int32_t width, std::int32_t height) {
    return alignedRows(static_cast<std::int32_t>(static_cast<std::uint32_t>(width) * 3u), height);
}

// Scratch memory of the calling thread for one conversion at a time, kept between frames so that
// a stream of them reuses its pages.
inline std::uint8_t* threadScratch(std::size_t bytes) {
    thread_local std::vector<std::uint8_t> scratch;
    if (scratch.size() < bytes) scratch.resize(bytes);
    return scratch.data();
}

}  // namespace lumoframekit
