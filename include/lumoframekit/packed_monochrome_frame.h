#pragma once
#include <cstdint>

#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

// 10- or 12-bit monochrome samples packed without unused bits, stored top-down, unpacked into a
// column-major uint16 host array.
//
// Packings (b0.. the bytes of a group, p0.. its pixels left to right):
//   10 bits, lsbFirst 0: 2 pixels in 3 bytes, p0 = b0 << 2 | (b1 & 0x03), p1 = b2 << 2 | (b1 & 0x30) >> 4
//   12 bits, lsbFirst 0: 2 pixels in 3 bytes, p0 = b0 << 4 | (b1 & 0x0F), p1 = b2 << 4 | (b1 & 0xF0) >> 4
//   12 bits, lsbFirst 1: 2 pixels in 3 bytes, p0 = (b1 & 0x0F) << 8 | b0, p1 = b2 << 4 | (b1 & 0xF0) >> 4
//   10 bits, lsbFirst 1: 4 pixels in 5 bytes, little-endian bit stream
class LUMOFRAMEKIT_API PackedMonochromeFrame final : public LUMOFrame {
public:
    // bitsPerBand must be 10 or 12 (std::invalid_argument otherwise).
    PackedMonochromeFrame(std::int32_t width, std::int32_t height, std::int32_t bitsPerBand, std::int32_t lsbFirst);

    // Bytes of the packed rows, pads included.
    std::uint64_t getBufferSize() const override;
    // Copies whole packing groups: a region starting inside a group starts at the group (a lead
    // pad) and rows are rounded up to whole groups (a trail pad). Source rows are taken to have the
    // frame's packed length. The part of the last group that a frame of a width that is not a
    // whole number of groups reaches past the source's packed bytes reads as zeros; a region
    // lying further outside the source copies nothing and gives null. Pads that make the size
    // grow make the buffer be replaced.
    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    // Unpacks into dest[0]: width x height uint16 values, column-major.
    void getData(void** dest) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    friend bool unpackPacked(const PackedMonochromeFrame& frame, std::uint16_t* out, bool rowMajor, int rowParity);
    std::int32_t padUnit() const;
    std::int64_t paddedWidth() const;

    std::int32_t width;
    std::int32_t height;
    std::int32_t bitsPerBand;
    std::uint8_t leadPad;   // 1 when the last region started inside a packing group
    std::uint8_t trailPad;  // 1 when the width is not a whole number of groups (set by region copies)
    std::uint8_t lsbFirst;
    std::int32_t bytesPerGroup;
    std::int32_t pixelsPerGroup;
    FrameDims dims;
};

}  // namespace lumoframekit
