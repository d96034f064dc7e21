#include "lumoframekit/monochrome_frame.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "frames/core/l1_cache.h"
#include "frames/core/transpose.h"

namespace lumoframekit {

MonochromeFrame::MonochromeFrame(std::int32_t w, std::int32_t h, std::int32_t rowOrder, std::int32_t bpp)
    : LUMOFrame(w, h, bpp, COLORSPACE_MONO),
      width(w),
      height(h),
      bands(1),
      orientation(rowOrder),
      bytesPerPixel(bpp),
      tileColumns(1),
      tileRows(1),
      bitsPerBand(static_cast<std::uint32_t>(8 * bpp)),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 1},
      sampleMapping(0) {}

const FrameDims* MonochromeFrame::getDimensions() const { return &dims; }

std::int64_t MonochromeFrame::getAlignedSize() const {
    // Formed as a wrapping 32-bit product, as the host expects it.
    const std::uint32_t padded = (static_cast<std::uint32_t>(width) + 3u) & ~3u;
    return static_cast<std::int32_t>(padded * static_cast<std::uint32_t>(height));
}

std::int32_t MonochromeFrame::rawBytes() const {
    if (width <= 0 || height <= 0) return 0;
    const std::int64_t bytes = static_cast<std::int64_t>(width) * height * bytesPerPixel;
    return bytes > INT32_MAX ? 0 : static_cast<std::int32_t>(bytes);
}

bool MonochromeFrame::holdsWholeImage() const {
    if (buffer == nullptr || width <= 0 || height <= 0) return false;
    const std::uint64_t needed = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) *
                                 static_cast<std::uint64_t>(bytesPerPixel);
    return allocatedSize >= needed;
}

void MonochromeFrame::setUpBlocking() {
    if (width <= 1279 || height <= 719) return;
    const L1DataCache cache = l1DataCache();
    if (cache.lineSize <= 0 || cache.cacheSize <= 0) return;
    const std::int32_t columns = cache.cacheSize / (2 * cache.lineSize);
    if (columns < 1) return;  // a cache smaller than two lines: column by column
    tileRows = 2 * cache.lineSize;
    tileColumns = columns;
}

void MonochromeFrame::copyColumnBlock(void*, std::int32_t*, const std::uint8_t*) const {}

void MonochromeFrame::copyRawData(std::uint8_t* dest, const std::uint8_t* src) const {
    const std::int32_t bytes = rawBytes();
    if (bytes > 0) std::memmove(dest, src, static_cast<std::size_t>(bytes));
}

void MonochromeFrame::convert(void* out, const std::uint8_t* src) const {
    if (width <= 0 || height <= 0) return;
    if (tileColumns <= 1) {
        // Every column as copyColumn writes it, in one blocked transpose of the whole image.
        const auto op = static_cast<SampleOp>(sampleMapping);
        const std::size_t w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
        auto* target = static_cast<std::uint8_t*>(out);
        const bool flip = orientation == 1;
        const auto n = static_cast<std::size_t>(bytesPerPixel);
        const ColumnStores stores = transposeStoresFor(w * h * n, h, n);
        switch (bytesPerPixel) {
            case 1: transposeSamples<1>(src, w, target, h, h, w, flip, op, stores); break;
            case 2: transposeSamples<2>(src, 2 * w, target, h, h, w, flip, op, stores); break;
            case 4: transposeSamples<4>(src, 4 * w, target, h, h, w, flip, op, stores); break;
            case 8: transposeSamples<8>(src, 8 * w, target, h, h, w, flip, op, stores); break;
            default: break;
        }
        return;
    }
    // Each strip locates its own columns in the whole array.
    std::int32_t first = 0;
    do {
        copyColumnBlock(out, &first, src);
        first += tileColumns;
    } while (first < width);
}

void MonochromeFrame::getData(void** dest) {
    if (!isBufferAllocated() || dest == nullptr || dest[0] == nullptr || !holdsWholeImage()) return;
    convert(dest[0], buffer);
}

void MonochromeFrame::getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) {
    if (dest == nullptr || dest[0] == nullptr || src == nullptr) return;
    if (rawCopy == 0) {
        convert(dest[0], src);
        return;
    }
    auto* out = static_cast<std::uint8_t*>(dest[0]);
    copyRawData(out, src);
    if (orientation != 1 || height < 2 || rawBytes() == 0) return;
    // The stored rows run bottom-up: reverse them so the copy reads top-down.
    const std::size_t rowBytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(bytesPerPixel);
    for (std::int32_t i = 0; i < height / 2; ++i) {
        std::uint8_t* upper = out + static_cast<std::size_t>(i) * rowBytes;
        std::uint8_t* lower = out + static_cast<std::size_t>(height - 1 - i) * rowBytes;
        std::swap_ranges(upper, upper + rowBytes, lower);
    }
}

std::uint8_t* MonochromeFrame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth,
                                                  std::uint32_t srcHeight, std::uint32_t xOffset,
                                                  std::uint32_t yOffset) {
    return copyRowRegion(src, srcWidth, srcHeight, xOffset, yOffset, width, height, bytesPerPixel, orientation == 1);
}

}  // namespace lumoframekit
