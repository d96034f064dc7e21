#pragma once
#include <cstdint>

#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

// The base of every single-band frame class with one stored sample per pixel. It copies regions
// into the buffer and converts the buffer into a column-major host array through the per-format
// operations that its variants give (positions 38 to 41 of the virtual table).
class LUMOFRAMEKIT_API MonochromeFrame : public LUMOFrame {
public:
    // Copies height rows of width samples from a source image of srcWidth x srcHeight samples of
    // this format, starting at column xOffset and row yOffset counted from the top of the image.
    // A region that does not lie inside the source copies nothing and returns null. Returns the
    // start of the last row written, or the buffer's result when it could not be had.
    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    // One plane of width x height samples of getDataType(), column-major, top row first.
    void getData(void** dest) override;
    // rawCopy 0: as getData, from src. Otherwise the stored bytes, row-major and top-down.
    void getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) override;
    std::int64_t getAlignedSize() const override;
    const FrameDims* getDimensions() const override;

    // Writes width 8-bit preview values of stored row `row` of the buffer, in storage order.
    virtual void getDisplayRow(std::uint8_t* dest, std::int32_t row) const = 0;
    // Writes the height samples of image column `column` of the raw image src, top row first, in
    // the host element type.
    virtual void copyColumn(void* dest, std::int32_t column, const std::uint8_t* src) const = 0;
    // Cache-blocked copy of the strip of tileColumns columns starting at *firstColumn into the
    // whole host array destBase; does nothing for formats that are not blocked.
    virtual void copyColumnBlock(void* destBase, std::int32_t* firstColumn, const std::uint8_t* src) const;
    // Copies the stored bytes unchanged.
    virtual void copyRawData(std::uint8_t* dest, const std::uint8_t* src) const;

    // Sizes the cache-blocked copy-out from the first-level data cache, for frames of at least
    // 1280 x 720; smaller frames are copied column by column.
    void setUpBlocking();

protected:
    // A Bayer frame demosaics straight from its inner frame's rows.
    friend class BayerFrame;

    MonochromeFrame(std::int32_t width, std::int32_t height, std::int32_t orientation, std::int32_t bytesPerPixel);

    // The stored image holds width * height samples and the buffer was allocated that large.
    bool holdsWholeImage() const;
    // width * height * bytesPerPixel when it fits a signed 32-bit value, else 0.
    std::int32_t rawBytes() const;
    void convert(void* out, const std::uint8_t* src) const;

    std::int32_t width;
    std::int32_t height;
    std::int32_t bands;
    std::int32_t orientation;  // 0 rows stored top-down, 1 bottom-up
    std::int32_t bytesPerPixel;
    std::int32_t tileColumns;  // columns per strip of the blocked copy-out; 1 = not blocked
    std::int32_t tileRows;     // rows per tile of the blocked copy-out; 1 = not blocked
    std::uint32_t bitsPerBand;
    FrameDims dims;  // what getDimensions reports: width, height, bands
    // How a stored sample becomes a host sample, for the whole-image copy-out: 0 as stored,
    // 1 bytes reversed, 2 complemented.
    std::uint8_t sampleMapping;
};

// How a variant reads one stored sample.
enum class MonoStorage {
    Unsigned8,     // byte as stored
    Inverted8,     // byte complemented (255 - v)
    Unsigned16LE,  // 9..16 significant bits, little-endian, upper bits passed through unmasked
    Unsigned16BE,
    SignedLE,  // two's complement of the stored type's size
    SignedBE,
    FloatLE,  // IEEE single or double
    FloatBE,
};

// One monochrome format: the stored sample type, how it is read and the row order. The named
// classes below are thin final shells over it that fix the bits per band.
template <typename Stored, MonoStorage Storage, bool BottomUp>
class LUMOFRAMEKIT_API MonochromeVariant : public MonochromeFrame {
public:
    std::int32_t getDataType() const override;
    std::uint32_t getBitsPerBand() const override;
    void getDisplayRow(std::uint8_t* dest, std::int32_t row) const override;
    void copyColumn(void* dest, std::int32_t column, const std::uint8_t* src) const override;
    void copyColumnBlock(void* destBase, std::int32_t* firstColumn, const std::uint8_t* src) const override;
    void copyRawData(std::uint8_t* dest, const std::uint8_t* src) const override;

protected:
    MonochromeVariant(std::int32_t width, std::int32_t height, std::uint32_t bits);
};

// 8-bit unsigned samples; the only classes with a cache-blocked copy-out.
class LUMOFRAMEKIT_API MonochromeFrame8bitTopDown final
    : public MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, false> {
public:
    MonochromeFrame8bitTopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 8) {}
};
class LUMOFRAMEKIT_API MonochromeFrame8bitBottomUp final
    : public MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, true> {
public:
    MonochromeFrame8bitBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 8) {}
};
class LUMOFRAMEKIT_API MonochromeFrame8bitInv final
    : public MonochromeVariant<std::uint8_t, MonoStorage::Inverted8, false> {
public:
    MonochromeFrame8bitInv(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 8) {}
};

// Unsigned 9- to 16-bit samples in 16-bit containers, depth as in the name.
class LUMOFRAMEKIT_API MonochromeFrame9bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame9bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 9) {}
};
class LUMOFRAMEKIT_API MonochromeFrame10bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame10bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 10) {}
};
class LUMOFRAMEKIT_API MonochromeFrame11bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame11bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 11) {}
};
class LUMOFRAMEKIT_API MonochromeFrame12bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame12bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 12) {}
};
class LUMOFRAMEKIT_API MonochromeFrame13bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame13bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 13) {}
};
class LUMOFRAMEKIT_API MonochromeFrame14bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame14bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 14) {}
};
class LUMOFRAMEKIT_API MonochromeFrame15bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame15bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 15) {}
};
class LUMOFRAMEKIT_API MonochromeFrame16bitLETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false> {
public:
    MonochromeFrame16bitLETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 16) {}
};
class LUMOFRAMEKIT_API MonochromeFrame9bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame9bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 9) {}
};
class LUMOFRAMEKIT_API MonochromeFrame10bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame10bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 10) {}
};
class LUMOFRAMEKIT_API MonochromeFrame11bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame11bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 11) {}
};
class LUMOFRAMEKIT_API MonochromeFrame12bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame12bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 12) {}
};
class LUMOFRAMEKIT_API MonochromeFrame13bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame13bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 13) {}
};
class LUMOFRAMEKIT_API MonochromeFrame14bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame14bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 14) {}
};
class LUMOFRAMEKIT_API MonochromeFrame15bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame15bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 15) {}
};
class LUMOFRAMEKIT_API MonochromeFrame16bitLEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true> {
public:
    MonochromeFrame16bitLEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 16) {}
};
class LUMOFRAMEKIT_API MonochromeFrame9bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame9bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 9) {}
};
class LUMOFRAMEKIT_API MonochromeFrame10bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame10bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 10) {}
};
class LUMOFRAMEKIT_API MonochromeFrame11bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame11bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 11) {}
};
class LUMOFRAMEKIT_API MonochromeFrame12bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame12bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 12) {}
};
class LUMOFRAMEKIT_API MonochromeFrame13bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame13bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 13) {}
};
class LUMOFRAMEKIT_API MonochromeFrame14bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame14bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 14) {}
};
class LUMOFRAMEKIT_API MonochromeFrame15bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame15bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 15) {}
};
class LUMOFRAMEKIT_API MonochromeFrame16bitBETopDown final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false> {
public:
    MonochromeFrame16bitBETopDown(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 16) {}
};
class LUMOFRAMEKIT_API MonochromeFrame9bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame9bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 9) {}
};
class LUMOFRAMEKIT_API MonochromeFrame10bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame10bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 10) {}
};
class LUMOFRAMEKIT_API MonochromeFrame11bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame11bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 11) {}
};
class LUMOFRAMEKIT_API MonochromeFrame12bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame12bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 12) {}
};
class LUMOFRAMEKIT_API MonochromeFrame13bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame13bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 13) {}
};
class LUMOFRAMEKIT_API MonochromeFrame14bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame14bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 14) {}
};
class LUMOFRAMEKIT_API MonochromeFrame15bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame15bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 15) {}
};
class LUMOFRAMEKIT_API MonochromeFrame16bitBEBottomUp final
    : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true> {
public:
    MonochromeFrame16bitBEBottomUp(std::int32_t w, std::int32_t h) : MonochromeVariant(w, h, 16) {}
};

// Signed integer samples; U is the unsigned type of the same size.
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTLETopDown final : public MonochromeVariant<S, MonoStorage::SignedLE, false> {
public:
    MonochromeFrameINTLETopDown(std::int32_t w, std::int32_t h)
        : MonochromeFrameINTLETopDown::MonochromeVariant(w, h, 8 * sizeof(S)) {}
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTLEBottomUp final : public MonochromeVariant<S, MonoStorage::SignedLE, true> {
public:
    MonochromeFrameINTLEBottomUp(std::int32_t w, std::int32_t h)
        : MonochromeFrameINTLEBottomUp::MonochromeVariant(w, h, 8 * sizeof(S)) {}
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTBETopDown final : public MonochromeVariant<S, MonoStorage::SignedBE, false> {
public:
    MonochromeFrameINTBETopDown(std::int32_t w, std::int32_t h)
        : MonochromeFrameINTBETopDown::MonochromeVariant(w, h, 8 * sizeof(S)) {}
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTBEBottomUp final : public MonochromeVariant<S, MonoStorage::SignedBE, true> {
public:
    MonochromeFrameINTBEBottomUp(std::int32_t w, std::int32_t h)
        : MonochromeFrameINTBEBottomUp::MonochromeVariant(w, h, 8 * sizeof(S)) {}
};

// Floating-point samples, float or double.
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatLETopDown final : public MonochromeVariant<F, MonoStorage::FloatLE, false> {
public:
    MonochromeFrameFloatLETopDown(std::int32_t w, std::int32_t h)
        : MonochromeFrameFloatLETopDown::MonochromeVariant(w, h, 8 * sizeof(F)) {}
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatLEBottomUp final : public MonochromeVariant<F, MonoStorage::FloatLE, true> {
public:
    MonochromeFrameFloatLEBottomUp(std::int32_t w, std::int32_t h)
        : MonochromeFrameFloatLEBottomUp::MonochromeVariant(w, h, 8 * sizeof(F)) {}
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatBETopDown final : public MonochromeVariant<F, MonoStorage::FloatBE, false> {
public:
    MonochromeFrameFloatBETopDown(std::int32_t w, std::int32_t h)
        : MonochromeFrameFloatBETopDown::MonochromeVariant(w, h, 8 * sizeof(F)) {}
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatBEBottomUp final : public MonochromeVariant<F, MonoStorage::FloatBE, true> {
public:
    MonochromeFrameFloatBEBottomUp(std::int32_t w, std::int32_t h)
        : MonochromeFrameFloatBEBottomUp::MonochromeVariant(w, h, 8 * sizeof(F)) {}
};

}  // namespace lumoframekit
