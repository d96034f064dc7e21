#include <algorithm>
#include <cstring>

#include "frames/color/tiling.h"
#include "frames/core/format_table.h"
#include "frames/core/planes.h"
#include "lumoframekit/color_frames.h"

namespace lumoframekit {

namespace {

// How a packed word becomes three samples.
enum class Unpacker {
    MaskShift16,      // a 16-bit word, each channel masked and shifted
    MaskShift32,      // a 32-bit word, each channel masked and shifted
    LowBitsOnTop,     // 8 high bits of each channel in a byte each, the 2 low bits of all three in the fourth
    LowBitsAtBottom,  // the same with the low bits in the first byte
};

// Each channel masked and shifted right; blue shifts left for a non-negative shift and right by
// the magnitude of a negative one.
struct MaskShift {
    std::uint32_t mask[3];
    std::int32_t shift[3];
};

struct Rgb16Format {
    std::int32_t bytesPerPixel;
    std::int32_t bitsPerSample;
    Unpacker unpacker;
    MaskShift maskShift;
};

// clang-format off
constexpr Rgb16Format rgb16Formats[] = {
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .unpacker = Unpacker::MaskShift16, .maskShift = {{0x7C00, 0x03E0, 0x001F}, {7, 2, 3}}},
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .unpacker = Unpacker::MaskShift16, .maskShift = {{0xF800, 0x07E0, 0x001F}, {8, 3, 3}}},
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .unpacker = Unpacker::MaskShift16, .maskShift = {{0x0F00, 0x00F0, 0x000F}, {4, 0, 4}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::MaskShift32, .maskShift = {{0x3FF00000, 0x000FFC00, 0x000003FF}, {20, 10, 0}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::MaskShift32, .maskShift = {{0x000003FF, 0x000FFC00, 0x3FF00000}, {0, 10, -20}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::MaskShift32, .maskShift = {{0xFFC00000, 0x003FF000, 0x00000FFC}, {22, 12, -2}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::MaskShift32, .maskShift = {{0x00000FFC, 0x003FF000, 0xFFC00000}, {2, 12, -22}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::LowBitsOnTop, .maskShift = {}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .unpacker = Unpacker::LowBitsAtBottom, .maskShift = {}},
};
// clang-format on
constexpr Rgb16Format noFormat = {};

const Rgb16Format& formatOf(std::int32_t subtype) {
    const Rgb16Format* row = rowOf(rgb16Formats, subtype);
    return row != nullptr ? *row : noFormat;
}

struct Unpacked {
    std::uint32_t r, g, b;
};

inline Unpacked byMaskShift(const MaskShift& m, std::uint32_t p) {
    const std::uint32_t blue = p & m.mask[2];
    return {(p & m.mask[0]) >> m.shift[0], (p & m.mask[1]) >> m.shift[1],
            m.shift[2] >= 0 ? blue << m.shift[2] : blue >> -m.shift[2]};
}

// 8 high bits of each channel in a byte each, the 2 low bits of all three gathered in the fourth.
inline Unpacked lowBitsOnTop(std::uint32_t p) {
    return {((p & 0x000000FF) << 2) | ((p & 0xC0000000) >> 30), ((p & 0x0000FF00) >> 6) | ((p & 0x30000000) >> 28),
            ((p & 0x00FF0000) >> 14) | ((p & 0x0C000000) >> 26)};
}

inline Unpacked lowBitsAtBottom(std::uint32_t p) {
    return {((p & 0xFF000000) >> 22) | (p & 0x00000003), ((p & 0x00FF0000) >> 14) | ((p & 0x0000000C) >> 2),
            ((p & 0x0000FF00) >> 6) | ((p & 0x00000030) >> 4)};
}

// One routine per packing group: the word size and the host sample size are fixed per instance,
// the unpacking is chosen once per frame.
template <typename Word, typename Sample, typename Unpack>
void unpackImage(const std::uint8_t* src, std::uint8_t* const planes[3], std::int64_t width, std::int64_t height,
                 bool bottomUp, const Tiling& tiling, Unpack unpack) {
    Sample* out[3] = {reinterpret_cast<Sample*>(planes[0]), reinterpret_cast<Sample*>(planes[1]),
                      reinterpret_cast<Sample*>(planes[2])};
    forEachTile(width, height, tiling, [&](std::int64_t x0, std::int64_t x1, std::int64_t y0, std::int64_t y1) {
        for (std::int64_t x = x0; x < x1; ++x)
            for (std::int64_t y = y0; y < y1; ++y) {
                Word p;
                std::memcpy(&p, src + ((bottomUp ? height - 1 - y : y) * width + x) * sizeof(Word), sizeof(Word));
                const Unpacked v = unpack(p);
                const std::int64_t i = x * height + y;
                out[0][i] = static_cast<Sample>(v.r);
                out[1][i] = static_cast<Sample>(v.g);
                out[2][i] = static_cast<Sample>(v.b);
            }
    });
}

}  // namespace

RGB16Frame::RGB16Frame(std::int32_t w, std::int32_t h, std::int32_t sub, bool flip)
    : LUMOFrame(w, h, formatOf(sub).bytesPerPixel, COLORSPACE_RGB),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 3},
      width(w),
      height(h),
      bottomUp(flip ? 1 : 0),
      subtype(sub) {}

std::int32_t RGB16Frame::getDataType() const {
    return formatOf(subtype).bytesPerPixel == 4 ? DATATYPE_UINT16 : DATATYPE_UINT8;
}

std::int64_t RGB16Frame::getAlignedSize() const {
    // 2 bytes a pixel for the 8-bit packings, 3 for the others, as hosts expect.
    const std::int64_t b = formatOf(subtype).bitsPerSample < 9 ? 2 : 3;
    return alignedRows(static_cast<std::int32_t>(static_cast<std::uint32_t>(b * width)), height);
}

std::uint32_t RGB16Frame::getBitsPerBand() const { return static_cast<std::uint32_t>(formatOf(subtype).bitsPerSample); }
const FrameDims* RGB16Frame::getDimensions() const { return &dims; }

void RGB16Frame::getData(void** dest) {
    const Rgb16Format& f = formatOf(subtype);
    if (!isBufferAllocated() || f.bytesPerPixel == 0 || width <= 0 || height <= 0) return;
    const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    if (allocatedSize < pixels * f.bytesPerPixel) return;
    const std::uint64_t sampleBytes = f.bytesPerPixel == 4 ? 2 : 1;
    const Planes out = planesOf(dest, pixels * sampleBytes);
    if (!out.valid) return;
    const Tiling tiling = colorTiling(width, height);
    const bool flip = bottomUp == 1;
    const MaskShift& m = f.maskShift;
    switch (f.unpacker) {
        case Unpacker::MaskShift16:
            unpackImage<std::uint16_t, std::uint8_t>(buffer, out.plane, width, height, flip, tiling,
                                                     [&m](std::uint16_t p) { return byMaskShift(m, p); });
            break;
        case Unpacker::MaskShift32:
            unpackImage<std::uint32_t, std::uint16_t>(buffer, out.plane, width, height, flip, tiling,
                                                      [&m](std::uint32_t p) { return byMaskShift(m, p); });
            break;
        case Unpacker::LowBitsOnTop:
            unpackImage<std::uint32_t, std::uint16_t>(buffer, out.plane, width, height, flip, tiling, lowBitsOnTop);
            break;
        case Unpacker::LowBitsAtBottom:
            unpackImage<std::uint32_t, std::uint16_t>(buffer, out.plane, width, height, flip, tiling, lowBitsAtBottom);
            break;
    }
}

std::uint8_t* RGB16Frame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                             std::uint32_t xOffset, std::uint32_t yOffset) {
    const std::int32_t pixelBytes = formatOf(subtype).bytesPerPixel;
    return pixelBytes == 0
               ? nullptr
               : copyRowRegion(src, srcWidth, srcHeight, xOffset, yOffset, width, height, pixelBytes, bottomUp == 1);
}

}  // namespace lumoframekit
