#include "lumoframekit/packed_monochrome_frame.h"

#include <cstring>
#include <stdexcept>

namespace lumoframekit {

namespace {

enum class Packing { Ten2in3, Twelve2in3, Twelve2in3LsbFirst, Ten4in5 };

// The byte of pixel c within a row: c * bytesPerGroup / pixelsPerGroup, rounded down for the
// 4-in-5 packing and up for the 2-in-3 packings (so an odd pixel lands on its group's third byte).
inline std::size_t byteOfPixel(Packing packing, std::size_t c) {
    return packing == Packing::Ten4in5 ? c * 5 / 4 : (c * 3 + 1) / 2;
}

// Pixel c of a row whose byte byteOfPixel(c) is at b.
template <Packing P>
inline std::uint16_t decode(const std::uint8_t* b, std::size_t c) {
    if constexpr (P == Packing::Ten4in5) {
        switch (c & 3) {
            case 0: return static_cast<std::uint16_t>(b[0] | (b[1] & 0x03) << 8);
            case 1: return static_cast<std::uint16_t>(b[0] >> 2 | (b[1] & 0x0F) << 6);
            case 2: return static_cast<std::uint16_t>(b[0] >> 4 | (b[1] & 0x3F) << 4);
            default: return static_cast<std::uint16_t>(b[0] >> 6 | b[1] << 2);
        }
    } else if (c & 1) {
        // Second pixel of a group: b[0] is the group's third byte, b[-1] the shared byte.
        if constexpr (P == Packing::Ten2in3) return static_cast<std::uint16_t>(b[0] << 2 | (b[-1] & 0x30) >> 4);
        else return static_cast<std::uint16_t>(b[0] << 4 | (b[-1] & 0xF0) >> 4);
    } else {
        if constexpr (P == Packing::Ten2in3) return static_cast<std::uint16_t>(b[0] << 2 | (b[1] & 0x03));
        else if constexpr (P == Packing::Twelve2in3) return static_cast<std::uint16_t>(b[0] << 4 | (b[1] & 0x0F));
        else return static_cast<std::uint16_t>((b[1] & 0x0F) << 8 | b[0]);
    }
}

template <Packing P>
void unpack(std::uint16_t* out, const std::uint8_t* buffer, std::size_t rowBytes, std::size_t firstPixel,
            std::size_t width, std::size_t height) {
    for (std::size_t c = firstPixel; c < firstPixel + width; ++c) {
        const std::uint8_t* at = buffer + byteOfPixel(P, c);
        for (std::size_t r = 0; r < height; ++r) *out++ = decode<P>(at + r * rowBytes, c);
    }
}

// Wraps like the signed 32-bit arithmetic the sizes are defined in.
std::int32_t wrap32(std::int64_t value) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(value)); }

}  // namespace

PackedMonochromeFrame::PackedMonochromeFrame(std::int32_t w, std::int32_t h, std::int32_t bits, std::int32_t lsb)
    : LUMOFrame(w, h, 2, COLORSPACE_MONO),
      width(w),
      height(h),
      bands(1),
      bitsPerBand(bits),
      leadPad(0),
      trailPad(0),
      lsbFirst(lsb != 0 ? 1 : 0),
      bytesPerGroup(bits == 10 && lsb != 0 ? 5 : 3),
      pixelsPerGroup(bits == 10 && lsb != 0 ? 4 : 2),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 1} {
    if (bits != 10 && bits != 12)
        throw std::invalid_argument("PackedMonochromeFrame objects can only have 10 or 12 bits per band.");
    // The unpacking reads up to two bytes past a row's last group for some geometries.
    bufferSlack = 4;
}

std::int32_t PackedMonochromeFrame::padUnit() const { return pixelsPerGroup == 4 ? 3 : 1; }

std::int64_t PackedMonochromeFrame::paddedWidth() const {
    return static_cast<std::int64_t>(width) + (leadPad ? padUnit() : 0) + (trailPad ? padUnit() : 0);
}

std::uint64_t PackedMonochromeFrame::getBufferSize() const {
    const std::int32_t product = wrap32(static_cast<std::int64_t>(wrap32(paddedWidth() * height)) * bytesPerGroup);
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(product / pixelsPerGroup));
}

std::int32_t PackedMonochromeFrame::getDataType() const { return DATATYPE_UINT16; }
std::uint32_t PackedMonochromeFrame::getBitsPerBand() const { return static_cast<std::uint32_t>(bitsPerBand); }
const FrameDims* PackedMonochromeFrame::getDimensions() const { return &dims; }

std::int64_t PackedMonochromeFrame::getAlignedSize() const {
    const std::uint32_t padded = (static_cast<std::uint32_t>(width) + 3u) & ~3u;
    return static_cast<std::int32_t>(padded * static_cast<std::uint32_t>(height));
}

std::uint8_t* PackedMonochromeFrame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth,
                                                        std::uint32_t srcHeight, std::uint32_t xOffset,
                                                        std::uint32_t yOffset) {
    const std::int64_t bpg = bytesPerGroup, ppg = pixelsPerGroup;
    const std::uint32_t startColumn = xOffset - xOffset % static_cast<std::uint32_t>(ppg);
    const std::uint8_t lead = startColumn != xOffset ? 1 : 0;
    const std::int64_t rowLength = width <= 0 ? 0 : (static_cast<std::int64_t>(width) + ppg - 1) / ppg * ppg;
    const std::uint8_t trail = width % pixelsPerGroup != 0 ? 1 : 0;
    const std::int64_t rowCopy = rowLength * bpg / ppg;
    const std::int64_t stride = static_cast<std::int64_t>(width) * bpg / ppg;
    const std::int64_t srcRowBytes = static_cast<std::int64_t>(srcWidth) * bpg / ppg;
    const std::int64_t start = static_cast<std::int64_t>(startColumn) * bpg / ppg + srcRowBytes * yOffset;
    const bool copies = width > 0 && height > 0;
    if (copies && (src == nullptr || stride < 0 ||
                   start + (height - 1) * stride + rowCopy > srcRowBytes * static_cast<std::int64_t>(srcHeight)))
        return nullptr;

    leadPad = lead;
    trailPad = trail;
    std::uint8_t* target = allocateBuffer();
    if (target == nullptr || !copies) return target;
    const std::uint64_t copied = static_cast<std::uint64_t>(rowCopy) * static_cast<std::uint64_t>(height);
    if (allocatedSize < copied) return nullptr;
    const std::uint8_t* from = src + start;
    for (std::int32_t i = 0; i < height; ++i)
        std::memcpy(target + i * rowCopy, from + i * stride, static_cast<std::size_t>(rowCopy));
    // Pads may make the buffer longer than the rows copied; its tail is zeroed so that no byte
    // the camera never wrote reaches the host.
    std::memset(target + copied, 0, static_cast<std::size_t>(allocatedSize - copied));
    return target;
}

void PackedMonochromeFrame::getData(void** dest) {
    if (!isBufferAllocated() || dest == nullptr || dest[0] == nullptr || width < 1 || height < 1) return;
    const Packing packing = pixelsPerGroup == 4 ? Packing::Ten4in5
                            : bitsPerBand == 10 ? Packing::Ten2in3
                            : lsbFirst          ? Packing::Twelve2in3LsbFirst
                                                : Packing::Twelve2in3;
    const std::size_t rowBytes = static_cast<std::size_t>(paddedWidth() * bytesPerGroup / pixelsPerGroup);
    const std::size_t first = leadPad;
    const std::size_t w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
    // Every byte the unpacking reads must lie in the buffer or its zeroed slack.
    const std::size_t lastRead = (h - 1) * rowBytes + byteOfPixel(packing, first + w - 1) + 1;
    if (lastRead >= allocatedSize + bufferSlack) return;
    auto* out = static_cast<std::uint16_t*>(dest[0]);
    switch (packing) {
        case Packing::Ten2in3: unpack<Packing::Ten2in3>(out, buffer, rowBytes, first, w, h); break;
        case Packing::Twelve2in3: unpack<Packing::Twelve2in3>(out, buffer, rowBytes, first, w, h); break;
        case Packing::Twelve2in3LsbFirst: unpack<Packing::Twelve2in3LsbFirst>(out, buffer, rowBytes, first, w, h); break;
        case Packing::Ten4in5: unpack<Packing::Ten4in5>(out, buffer, rowBytes, first, w, h); break;
    }
}

}  // namespace lumoframekit
