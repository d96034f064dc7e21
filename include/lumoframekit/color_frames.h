#pragma once
#include <cstdint>

#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

// Three-band frames: RGB in interleaved, packed-word and planar layouts, and YUV in packed,
// planar and hybrid layouts. Each class covers its formats by a subtype index into constant
// tables; a subtype outside its class's table converts nothing and holds no pixels.
//
// Every conversion writes three column-major planes (R, G, B or Y, U, V): {p, nullptr} puts them
// back to back behind p, {r, g, b, nullptr} names each one.

// Interleaved RGB, 8 bits or a 16-bit container per sample, with or without a pad byte, RGB or
// BGR order, little- or big-endian, rows top-down or bottom-up. Subtypes 0..17.
class LUMOFRAMEKIT_API RGB24Frame final : public LUMOFrame {
public:
    RGB24Frame(std::int32_t width, std::int32_t height, std::int32_t subtype, bool bottomUp);

    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    void getData(void** dest) override;
    // rawCopy != 0: an interleaved row-major copy, three samples a pixel, rows top-down; the pad
    // byte dropped, BGR reordered to RGB, big-endian units kept as they are, nothing for 10- and
    // 12-bit subtypes (whose destination rows are still flipped for a bottom-up frame).
    void getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    void convert(void** dest, const std::uint8_t* src) const;

    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int32_t rowStride;  // bytes per stored row
    std::int32_t bottomUp;
    std::int64_t planeSize;  // bytes of one host plane
    std::int32_t subtype;
    std::int32_t tileColumns;
    std::int32_t tileRows;
    bool tiled;
};

// RGB packed into one little-endian 16- or 32-bit word per pixel: 5-5-5, 5-6-5, 4-4-4 into 8-bit
// planes, 10 bits a channel into 16-bit planes. Subtypes 0..8.
class LUMOFRAMEKIT_API RGB16Frame final : public LUMOFrame {
public:
    RGB16Frame(std::int32_t width, std::int32_t height, std::int32_t subtype, bool bottomUp);

    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    void getData(void** dest) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int32_t bottomUp;
    std::int32_t subtype;
};

// Three consecutive row-major planes R, G, B of 8-bit or 16-bit-container samples. Subtypes 0..8.
class LUMOFRAMEKIT_API RGB24Planar final : public LUMOFrame {
public:
    RGB24Planar(std::int32_t width, std::int32_t height, std::int32_t subtype);

    // Each source plane's origin is offset by y * srcWidth + x bytes, not scaled by the sample
    // size: a 16-bit region away from the origin reads from half the expected offset.
    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    void getData(void** dest) override;
    // rawCopy != 0: samples interleaved R, G, B per pixel (16-bit units not swapped); nothing for
    // the 10-, 12- and 14-bit subtypes.
    void getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    void convert(void** dest, const std::uint8_t* src) const;

    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int64_t planeSize;
    std::int32_t subtype;
};

// Packed YUV macro-pixels (4:2:2, 4:1:1, 4:4:4), subtypes 0..6. Chroma repeats over the pixels
// that share it. A region fill that starts inside a macro-pixel keeps the phase and re-sizes the
// buffer.
class LUMOFRAMEKIT_API YUVPackedFrame final : public LUMOFrame {
public:
    YUVPackedFrame(std::int32_t width, std::int32_t height, std::int32_t subtype);

    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    void getData(void** dest) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    // Rows of `groups` macro-pixels: stride, tail pad and buffer size follow from it.
    void layOutRows(std::int32_t groups);

    std::int32_t subtype;
    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int32_t groupsPerRow = 0;
    std::int32_t rowStride = 0;
    std::int32_t startPhase = 0;  // position within the first group of each row's first pixel
    std::int32_t tailPad = 0;     // pixels of the last group past the width
};

// Planar YUV with 2 x 2 or 4 x 4 chroma subsampling, planes Y, V, U or Y, U, V; planes padded to
// whole subsampling blocks. Subtypes 0..2.
class LUMOFRAMEKIT_API YUVPlanarFrame final : public LUMOFrame {
public:
    YUVPlanarFrame(std::int32_t width, std::int32_t height, std::int32_t subtype);

    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    void getData(void** dest) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    std::int32_t subtype;
    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int32_t paddedWidth = 0;
    std::int32_t paddedHeight = 0;
    std::int64_t lumaSize = 0;
    std::int64_t chromaSize = 0;
};

// YUV 4:2:0 with U and V interleaved: subtype 0 line-interleaved (two luma rows, then a row of
// U,V pairs), any other subtype semi-planar (a luma plane, then a plane of U,V pairs). A region
// fill at odd coordinates keeps column and row phases and re-sizes the buffer.
class LUMOFRAMEKIT_API YUVHybridFrame final : public LUMOFrame {
public:
    YUVHybridFrame(std::int32_t width, std::int32_t height, std::int32_t subtype);

    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    // Nothing is converted when the layout would read past the buffer (odd widths or heights
    // whose chroma the buffer does not hold).
    void getData(void** dest) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;

private:
    // (height * width * 3) / 2: the bytes of the image in its own layout.
    std::uint64_t naturalSize() const;

    std::int32_t subtype;
    FrameDims dims;
    std::int32_t width;
    std::int32_t height;
    std::int32_t rowStride;
    std::int32_t storedRows;
    std::int32_t columnPhase = 0;
    std::int32_t rowPhase = 0;
};

}  // namespace lumoframekit
