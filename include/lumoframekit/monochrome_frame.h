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
};

// How a variant reads one stored sample.
enum class MonoStorage {
    Unsigned8,     // byte as stored
    Inverted8,     // byte complemented (255 - v)
    Unsigned16LE,  // 9..16 significant bits, little-endian, upper bits passed through unmasked
    Unsigned16BE,
    SignedLE,      // two's complement of the stored type's size
    SignedBE,
    FloatLE,       // IEEE single or double
    FloatBE,
};

// One monochrome format: the stored sample type, how it is read, the row order and the bits per
// band. The named classes below are thin final shells over it.
template <typename Stored, MonoStorage Storage, bool BottomUp, std::uint32_t Bits>
class LUMOFRAMEKIT_API MonochromeVariant : public MonochromeFrame {
public:
    MonochromeVariant(std::int32_t width, std::int32_t height);

    std::int32_t getDataType() const override;
    std::uint32_t getBitsPerBand() const override;
    void getDisplayRow(std::uint8_t* dest, std::int32_t row) const override;
    void copyColumn(void* dest, std::int32_t column, const std::uint8_t* src) const override;
    void copyColumnBlock(void* destBase, std::int32_t* firstColumn, const std::uint8_t* src) const override;
    void copyRawData(std::uint8_t* dest, const std::uint8_t* src) const override;
};

// 8-bit unsigned samples; the only classes with a cache-blocked copy-out.
class LUMOFRAMEKIT_API MonochromeFrame8bitTopDown final : public MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, false, 8> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame8bitBottomUp final : public MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, true, 8> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame8bitInv final : public MonochromeVariant<std::uint8_t, MonoStorage::Inverted8, false, 8> { public: using MonochromeVariant::MonochromeVariant; };

// Unsigned 9- to 16-bit samples in 16-bit containers, depth as in the name.
class LUMOFRAMEKIT_API MonochromeFrame9bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 9> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame10bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 10> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame11bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 11> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame12bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 12> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame13bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 13> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame14bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 14> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame15bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 15> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame16bitLETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false, 16> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame9bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 9> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame10bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 10> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame11bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 11> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame12bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 12> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame13bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 13> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame14bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 14> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame15bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 15> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame16bitLEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true, 16> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame9bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 9> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame10bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 10> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame11bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 11> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame12bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 12> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame13bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 13> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame14bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 14> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame15bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 15> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame16bitBETopDown final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false, 16> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame9bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 9> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame10bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 10> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame11bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 11> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame12bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 12> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame13bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 13> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame14bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 14> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame15bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 15> { public: using MonochromeVariant::MonochromeVariant; };
class LUMOFRAMEKIT_API MonochromeFrame16bitBEBottomUp final : public MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true, 16> { public: using MonochromeVariant::MonochromeVariant; };

// Signed integer samples; U is the unsigned type of the same size.
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTLETopDown final : public MonochromeVariant<S, MonoStorage::SignedLE, false, 8 * sizeof(S)> {
public:
    using MonochromeFrameINTLETopDown::MonochromeVariant::MonochromeVariant;
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTLEBottomUp final : public MonochromeVariant<S, MonoStorage::SignedLE, true, 8 * sizeof(S)> {
public:
    using MonochromeFrameINTLEBottomUp::MonochromeVariant::MonochromeVariant;
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTBETopDown final : public MonochromeVariant<S, MonoStorage::SignedBE, false, 8 * sizeof(S)> {
public:
    using MonochromeFrameINTBETopDown::MonochromeVariant::MonochromeVariant;
};
template <typename S, typename U>
class LUMOFRAMEKIT_API MonochromeFrameINTBEBottomUp final : public MonochromeVariant<S, MonoStorage::SignedBE, true, 8 * sizeof(S)> {
public:
    using MonochromeFrameINTBEBottomUp::MonochromeVariant::MonochromeVariant;
};

// Floating-point samples, float or double.
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatLETopDown final : public MonochromeVariant<F, MonoStorage::FloatLE, false, 8 * sizeof(F)> {
public:
    using MonochromeFrameFloatLETopDown::MonochromeVariant::MonochromeVariant;
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatLEBottomUp final : public MonochromeVariant<F, MonoStorage::FloatLE, true, 8 * sizeof(F)> {
public:
    using MonochromeFrameFloatLEBottomUp::MonochromeVariant::MonochromeVariant;
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatBETopDown final : public MonochromeVariant<F, MonoStorage::FloatBE, false, 8 * sizeof(F)> {
public:
    using MonochromeFrameFloatBETopDown::MonochromeVariant::MonochromeVariant;
};
template <typename F>
class LUMOFRAMEKIT_API MonochromeFrameFloatBEBottomUp final : public MonochromeVariant<F, MonoStorage::FloatBE, true, 8 * sizeof(F)> {
public:
    using MonochromeFrameFloatBEBottomUp::MonochromeVariant::MonochromeVariant;
};

}  // namespace lumoframekit
