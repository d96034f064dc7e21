#include <algorithm>
#include <cstring>

#include "frames/core/format_table.h"
#include "frames/core/planes.h"
#include "frames/core/transpose.h"
#include "lumoframekit/color_frames.h"

namespace lumoframekit {

namespace {

struct PlanarFormat {
    std::int32_t bitsPerSample;
    std::int32_t bytesPerSample;
    bool isSigned;
    bool bigEndian;
};

// clang-format off
constexpr PlanarFormat planarFormats[] = {
    {.bitsPerSample = 8,  .bytesPerSample = 1, .isSigned = false, .bigEndian = false},
    {.bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .bigEndian = false},
    {.bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .bigEndian = true},
    {.bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .bigEndian = false},
    {.bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .bigEndian = true},
    {.bitsPerSample = 10, .bytesPerSample = 2, .isSigned = false, .bigEndian = false},
    {.bitsPerSample = 12, .bytesPerSample = 2, .isSigned = false, .bigEndian = false},
    {.bitsPerSample = 14, .bytesPerSample = 2, .isSigned = false, .bigEndian = false},
    {.bitsPerSample = 8,  .bytesPerSample = 1, .isSigned = true,  .bigEndian = false},
};
// clang-format on
constexpr PlanarFormat noFormat = {};

const PlanarFormat& formatOf(std::int32_t subtype) {
    const PlanarFormat* row = rowOf(planarFormats, subtype);
    return row != nullptr ? *row : noFormat;
}

}  // namespace

RGB24Planar::RGB24Planar(std::int32_t w, std::int32_t h, std::int32_t sub)
    : LUMOFrame(w, h, 3 * formatOf(sub).bytesPerSample, COLORSPACE_RGB),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 3},
      width(w),
      height(h),
      planeSize(planeBytes(w, h, formatOf(sub).bytesPerSample)),
      subtype(sub) {}

std::int32_t RGB24Planar::getDataType() const {
    const PlanarFormat& f = formatOf(subtype);
    if (f.bytesPerSample == 2) return f.isSigned ? DATATYPE_INT16 : DATATYPE_UINT16;
    return f.isSigned ? DATATYPE_INT8 : DATATYPE_UINT8;
}

std::int64_t RGB24Planar::getAlignedSize() const { return alignedPixelRows(width, height); }

std::uint32_t RGB24Planar::getBitsPerBand() const {
    return static_cast<std::uint32_t>(formatOf(subtype).bitsPerSample);
}
const FrameDims* RGB24Planar::getDimensions() const { return &dims; }

void RGB24Planar::convert(void** dest, const std::uint8_t* src) const {
    const PlanarFormat& f = formatOf(subtype);
    if (f.bytesPerSample == 0 || width <= 0 || height <= 0 || src == nullptr) return;
    const Planes out = planesOf(dest, static_cast<std::uint64_t>(planeSize));
    if (!out.valid) return;
    // Each plane is a monochrome image: transposed, big-endian samples swapped into host order.
    const auto w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
    const SampleOp op = f.bigEndian ? SampleOp::ByteSwap : SampleOp::Copy;
    const auto n = static_cast<std::size_t>(f.bytesPerSample);
    const ColumnStores stores = transposeStoresFor(3 * w * h * n, h, n);
    for (int band = 0; band < 3; ++band) {
        const std::uint8_t* plane = src + band * planeSize;
        if (f.bytesPerSample == 1)
            transposeSamples<1>(plane, w, out.plane[band], h, h, w, false, op, stores);
        else
            transposeSamples<2>(plane, 2 * w, out.plane[band], h, h, w, false, op, stores);
    }
}

void RGB24Planar::getData(void** dest) {
    if (!isBufferAllocated() || planeSize <= 0 || allocatedSize < static_cast<std::uint64_t>(3 * planeSize)) return;
    convert(dest, buffer);
}

void RGB24Planar::getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) {
    if (rawCopy == 0) {
        convert(dest, src);
        return;
    }
    const PlanarFormat& f = formatOf(subtype);
    if (dest == nullptr || dest[0] == nullptr || src == nullptr || width <= 0 || height <= 0) return;
    if (f.bitsPerSample != 8 && f.bitsPerSample != 16) return;
    // Sample i of the R, G and B planes side by side; 16-bit units keep their stored byte order.
    auto* out = static_cast<std::uint8_t*>(dest[0]);
    const std::int64_t unit = f.bytesPerSample, pixels = static_cast<std::int64_t>(width) * height;
    for (std::int64_t i = 0; i < pixels; ++i)
        for (int band = 0; band < 3; ++band)
            std::memcpy(out + (3 * i + band) * unit, src + band * planeSize + i * unit, static_cast<std::size_t>(unit));
}

std::uint8_t* RGB24Planar::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                              std::uint32_t xOffset, std::uint32_t yOffset) {
    const PlanarFormat& f = formatOf(subtype);
    if (src == nullptr || f.bytesPerSample == 0 || !regionInside(width, height, srcWidth, srcHeight, xOffset, yOffset))
        return nullptr;
    std::uint8_t* target = allocateBuffer();
    if (target == nullptr || width <= 0 || height <= 0) return target;
    if (allocatedSize < static_cast<std::uint64_t>(3 * planeSize)) return nullptr;
    const std::int64_t bps = f.bytesPerSample;
    const std::int64_t srcPlane = static_cast<std::int64_t>(srcWidth) * srcHeight;
    const std::size_t rowBytes = static_cast<std::size_t>(width * bps);
    for (int band = 0; band < 3; ++band) {
        std::uint8_t* to = target + band * planeSize;
        // The origin term is in samples of one byte whatever the sample size, as hosts rely on.
        const std::uint8_t* from =
            src + band * srcPlane * bps + (static_cast<std::int64_t>(yOffset) * srcWidth + xOffset);
        for (std::int32_t i = 0; i < height; ++i) std::memcpy(to + i * rowBytes, from + i * srcWidth * bps, rowBytes);
    }
    return target;
}

}  // namespace lumoframekit
