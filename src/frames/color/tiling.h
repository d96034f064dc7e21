#pragma once
#include <algorithm>
#include <cstdint>

#include "frames/core/l1_cache.h"

namespace lumoframekit {

// Cache blocking of the RGB copy-outs: images of at least 1024 x 768 are walked in tiles of
// (cache size / 2 lines) columns by one line of rows, so a tile's source rows stay in the
// first-level cache while its columns are written.
struct Tiling {
    bool on;
    std::int32_t columns;
    std::int32_t rows;
};

inline Tiling colorTiling(std::int32_t width, std::int32_t height) {
    if (width < 1024 || height < 768) return {false, 0, 0};
    const L1DataCache cache = l1DataCache();
    if (cache.lineSize <= 0 || cache.cacheSize <= 0) return {false, 0, 0};
    const std::int32_t columns = cache.cacheSize / (2 * cache.lineSize);
    if (columns < 1) return {false, 0, 0};
    return {true, columns, cache.lineSize};
}

// Calls visit(x0, x1, y0, y1) for each tile of a width x height image, columns outermost; the
// whole image is one tile when tiling is off. The result of a per-pixel copy does not depend on
// the order.
template <typename Visit>
void forEachTile(std::int64_t width, std::int64_t height, const Tiling& tiling, Visit visit) {
    const std::int64_t tileWidth = tiling.on ? tiling.columns : width;
    const std::int64_t tileHeight = tiling.on ? tiling.rows : height;
    for (std::int64_t x0 = 0; x0 < width; x0 += tileWidth)
        for (std::int64_t y0 = 0; y0 < height; y0 += tileHeight)
            visit(x0, std::min(x0 + tileWidth, width), y0, std::min(y0 + tileHeight, height));
}

}  // namespace lumoframekit
