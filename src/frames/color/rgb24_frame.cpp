#include <algorithm>
#include <cstring>

#include "frames/color/pixel_gather.h"
#include "frames/color/tiling.h"
#include "frames/core/format_table.h"
#include "frames/core/planes.h"
#include "frames/kernels/kernels.h"
#include "lumoframekit/color_frames.h"

namespace lumoframekit {

namespace {

struct Rgb24Format {
    std::int32_t bytesPerPixel;
    std::int32_t bitsPerSample;
    std::int32_t bytesPerSample;
    bool isSigned;
    // Per channel R, G, B: the source byte of the host sample's low byte, then of its high byte.
    std::uint8_t offsets[3][2];
};

// clang-format off
constexpr Rgb24Format rgb24Formats[] = {
    {.bytesPerPixel = 3, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{0, 0}, {1, 1}, {2, 2}}},
    {.bytesPerPixel = 3, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{2, 2}, {1, 1}, {0, 0}}},
    {.bytesPerPixel = 4, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{0, 0}, {1, 1}, {2, 2}}},
    {.bytesPerPixel = 4, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{2, 2}, {1, 1}, {0, 0}}},
    {.bytesPerPixel = 4, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{1, 1}, {2, 2}, {3, 3}}},
    {.bytesPerPixel = 4, .bitsPerSample =  8, .bytesPerSample = 1, .isSigned = false, .offsets = {{3, 3}, {2, 2}, {1, 1}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .offsets = {{0, 1}, {2, 3}, {4, 5}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .offsets = {{4, 5}, {2, 3}, {0, 1}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .offsets = {{1, 0}, {3, 2}, {5, 4}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = false, .offsets = {{5, 4}, {3, 2}, {1, 0}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .offsets = {{0, 1}, {2, 3}, {4, 5}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .offsets = {{4, 5}, {2, 3}, {0, 1}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .offsets = {{1, 0}, {3, 2}, {5, 4}}},
    {.bytesPerPixel = 6, .bitsPerSample = 16, .bytesPerSample = 2, .isSigned = true,  .offsets = {{5, 4}, {3, 2}, {1, 0}}},
    {.bytesPerPixel = 6, .bitsPerSample = 10, .bytesPerSample = 2, .isSigned = false, .offsets = {{0, 1}, {2, 3}, {4, 5}}},
    {.bytesPerPixel = 6, .bitsPerSample = 10, .bytesPerSample = 2, .isSigned = false, .offsets = {{4, 5}, {2, 3}, {0, 1}}},
    {.bytesPerPixel = 6, .bitsPerSample = 12, .bytesPerSample = 2, .isSigned = false, .offsets = {{0, 1}, {2, 3}, {4, 5}}},
    {.bytesPerPixel = 6, .bitsPerSample = 12, .bytesPerSample = 2, .isSigned = false, .offsets = {{4, 5}, {2, 3}, {0, 1}}},
};
// clang-format on

// Subtypes outside the table hold no pixels and convert nothing.
constexpr Rgb24Format noFormat = {0, 0, 0, false, {}};

const Rgb24Format& formatOf(std::int32_t subtype) {
    const Rgb24Format* row = rowOf(rgb24Formats, subtype);
    return row != nullptr ? *row : noFormat;
}

}  // namespace

RGB24Frame::RGB24Frame(std::int32_t w, std::int32_t h, std::int32_t sub, bool flip)
    : LUMOFrame(w, h, formatOf(sub).bytesPerPixel, COLORSPACE_RGB),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 3},
      width(w),
      height(h),
      rowStride(static_cast<std::int32_t>(static_cast<std::uint32_t>(formatOf(sub).bytesPerPixel) *
                                          static_cast<std::uint32_t>(w))),
      bottomUp(flip ? 1 : 0),
      planeSize(planeBytes(w, h, formatOf(sub).bytesPerSample)),
      subtype(sub),
      tileColumns(0),
      tileRows(0),
      tiled(false) {
    const Tiling tiling = colorTiling(w, h);
    tiled = tiling.on;
    tileColumns = tiling.columns;
    tileRows = tiling.rows;
}

std::int32_t RGB24Frame::getDataType() const {
    const Rgb24Format& f = formatOf(subtype);
    if (f.bytesPerSample != 2) return DATATYPE_UINT8;
    return f.isSigned ? DATATYPE_INT16 : DATATYPE_UINT16;
}

std::int64_t RGB24Frame::getAlignedSize() const {
    // 32 bits a pixel for subtype 3 only, as hosts expect.
    const std::int64_t bitsPerPixel = subtype == 3 ? 32 : 24;
    return alignedRows(static_cast<std::int32_t>(static_cast<std::uint32_t>(bitsPerPixel * width)) / 8, height);
}

std::uint32_t RGB24Frame::getBitsPerBand() const { return static_cast<std::uint32_t>(formatOf(subtype).bitsPerSample); }
const FrameDims* RGB24Frame::getDimensions() const { return &dims; }

void RGB24Frame::convert(void** dest, const std::uint8_t* src) const {
    const Rgb24Format& f = formatOf(subtype);
    if (f.bytesPerPixel == 0 || width <= 0 || height <= 0 || src == nullptr) return;
    const Planes out = planesOf(dest, static_cast<std::uint64_t>(planeSize));
    if (!out.valid) return;
    const std::int64_t stride = static_cast<std::int64_t>(width) * f.bytesPerPixel;
    if (f.bytesPerSample == 1) {
        // 8-bit layouts repeat every pixel: split a row at a time and transpose, in order.
        PixelBlock block{{}, static_cast<std::size_t>(16 * f.bytesPerPixel)};
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < 16; ++i)
                block.byteOf[c][i] = static_cast<std::uint8_t>(i * f.bytesPerPixel + f.offsets[c][0]);
        splitInterleaved(src, static_cast<std::size_t>(stride), src + stride * height, static_cast<std::size_t>(width),
                         static_cast<std::size_t>(height), bottomUp == 1, block, out.plane);
        return;
    }
    // 16-bit samples: the image transposed as rows of samples, each pixel's samples routed to
    // their planes, big-endian ones swapped into host order.
    std::uint8_t* bySample[3];
    for (int c = 0; c < 3; ++c) bySample[f.offsets[c][0] / 2] = out.plane[c];
    const SampleOp op = f.offsets[0][0] > f.offsets[0][1] ? SampleOp::ByteSwap : SampleOp::Copy;
    const auto w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
    kernels().transposePixels(src, static_cast<std::size_t>(stride), bySample, h, w, bottomUp == 1, op,
                              transposeStoresFor(6 * w * h, h, 2));
}

void RGB24Frame::getData(void** dest) {
    if (!isBufferAllocated()) return;
    const Rgb24Format& f = formatOf(subtype);
    if (allocatedSize < static_cast<std::uint64_t>(std::max(0, width)) *
                            static_cast<std::uint64_t>(std::max(0, height)) * f.bytesPerPixel)
        return;
    convert(dest, buffer);
}

void RGB24Frame::getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) {
    if (rawCopy == 0) {
        convert(dest, src);
        return;
    }
    const Rgb24Format& f = formatOf(subtype);
    if (dest == nullptr || dest[0] == nullptr || src == nullptr || f.bytesPerPixel == 0 || width <= 0 || height <= 0)
        return;
    auto* out = static_cast<std::uint8_t*>(dest[0]);
    const std::int64_t s = f.bitsPerSample / 8;
    const bool padded = f.bytesPerPixel > 3 * s;
    const std::uint8_t* o = &f.offsets[0][0];
    const bool lead = padded && std::find(o, o + 6, 0) == o + 6;
    const bool reversed = !std::is_sorted(o, o + 6);
    const std::int64_t pixels = static_cast<std::int64_t>(width) * height;
    if (!padded && !reversed) {
        std::memmove(out, src, static_cast<std::size_t>(pixels * f.bytesPerSample * 3));
    } else if (f.bitsPerSample == 8 || f.bitsPerSample == 16) {
        // Three samples (bytes, or 16-bit units whose bytes stay as stored) from each pixel.
        const std::int64_t unit = s, perPixel = f.bytesPerPixel / s;
        for (std::int64_t p = 0; p < pixels; ++p) {
            const std::uint8_t* from = src + unit * (p * perPixel + (lead ? 1 : 0));
            std::uint8_t* to = out + p * 3 * unit;
            for (int k = 0; k < 3; ++k)
                std::memcpy(to + k * unit, from + (reversed ? 2 - k : k) * unit, static_cast<std::size_t>(unit));
        }
    }
    if (bottomUp != 1 || height < 2) return;
    const std::size_t rowBytes = static_cast<std::size_t>(s * width * 3);
    for (std::int32_t r = 0; r < height / 2; ++r)
        std::swap_ranges(out + r * rowBytes, out + (r + 1) * rowBytes, out + (height - 1 - r) * rowBytes);
}

std::uint8_t* RGB24Frame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                             std::uint32_t xOffset, std::uint32_t yOffset) {
    const std::int32_t pixelBytes = formatOf(subtype).bytesPerPixel;
    return pixelBytes == 0
               ? nullptr
               : copyRowRegion(src, srcWidth, srcHeight, xOffset, yOffset, width, height, pixelBytes, bottomUp == 1);
}

}  // namespace lumoframekit
