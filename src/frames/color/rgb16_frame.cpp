#include "frames/core/format_table.h"
#include "frames/core/planes.h"
#include "frames/core/transpose.h"
#include "frames/kernels/kernels.h"
#include "lumoframekit/color_frames.h"

namespace lumoframekit {

namespace {

// Each channel is the OR of two fields of the pixel's word (masked, shifted right, or left for a
// negative shift); a field of mask 0 adds nothing.
struct Rgb16Format {
    std::int32_t bytesPerPixel;
    std::int32_t bitsPerSample;
    WordFields fields;
};

// clang-format off
constexpr Rgb16Format rgb16Formats[] = {
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .fields = {{{0x7C00, 7}, {}}, {{0x03E0, 2}, {}}, {{0x001F, -3}, {}}}},
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .fields = {{{0xF800, 8}, {}}, {{0x07E0, 3}, {}}, {{0x001F, -3}, {}}}},
    {.bytesPerPixel = 2, .bitsPerSample = 8,  .fields = {{{0x0F00, 4}, {}}, {{0x00F0, 0}, {}}, {{0x000F, -4}, {}}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0x3FF00000, 20}, {}}, {{0x000FFC00, 10}, {}}, {{0x000003FF, 0}, {}}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0x000003FF, 0}, {}}, {{0x000FFC00, 10}, {}}, {{0x3FF00000, 20}, {}}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0xFFC00000, 22}, {}}, {{0x003FF000, 12}, {}}, {{0x00000FFC, 2}, {}}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0x00000FFC, 2}, {}}, {{0x003FF000, 12}, {}}, {{0xFFC00000, 22}, {}}}},
    // 8 high bits of each channel in a byte each, the 2 low bits of all three in the fourth byte
    // (on top), or in the first (at the bottom).
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0x000000FF, -2}, {0xC0000000, 30}}, {{0x0000FF00, 6}, {0x30000000, 28}}, {{0x00FF0000, 14}, {0x0C000000, 26}}}},
    {.bytesPerPixel = 4, .bitsPerSample = 10, .fields = {{{0xFF000000, 22}, {0x00000003, 0}}, {{0x00FF0000, 14}, {0x0000000C, 2}}, {{0x0000FF00, 6}, {0x00000030, 4}}}},
};
// clang-format on
constexpr Rgb16Format noFormat = {};

const Rgb16Format& formatOf(std::int32_t subtype) {
    const Rgb16Format* row = rowOf(rgb16Formats, subtype);
    return row != nullptr ? *row : noFormat;
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
    const auto w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
    const ColumnStores stores = columnStoresFor(3 * pixels * sampleBytes, h);
    const Kernels& k = kernels();
    (f.bytesPerPixel == 2 ? k.unpackWordImage16 : k.unpackWordImage32)(buffer, w, h, bottomUp == 1, f.fields, out.plane,
                                                                       stores);
}

std::uint8_t* RGB16Frame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                             std::uint32_t xOffset, std::uint32_t yOffset) {
    const std::int32_t pixelBytes = formatOf(subtype).bytesPerPixel;
    return pixelBytes == 0
               ? nullptr
               : copyRowRegion(src, srcWidth, srcHeight, xOffset, yOffset, width, height, pixelBytes, bottomUp == 1);
}

}  // namespace lumoframekit
