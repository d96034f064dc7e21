#include "lumoframekit/bayer_frame.h"

#include <cstring>
#include <memory>
#include <stdexcept>

#include "frames/bayer/bayer_util.h"
#include "lumoframekit/monochrome_frame.h"
#include "lumoframekit/packed_monochrome_frame.h"

namespace lumoframekit {

namespace {

IFrame* innerFrame(std::int32_t width, std::int32_t height, std::uint32_t bits, bool packed, std::uint32_t variant) {
    switch (bits) {
        case 8: {
            auto* frame = new MonochromeFrame8bitTopDown(width, height);
            frame->setUpBlocking();
            return frame;
        }
        case 10:
            if (packed) return new PackedMonochromeFrame(width, height, 10, static_cast<std::int32_t>(variant != 0));
            return new MonochromeFrame10bitLETopDown(width, height);
        case 12:
            if (packed) return new PackedMonochromeFrame(width, height, 12, static_cast<std::int32_t>(variant != 0));
            return new MonochromeFrame12bitLETopDown(width, height);
        case 14: return new MonochromeFrame14bitLETopDown(width, height);
        case 16: return new MonochromeFrame16bitLETopDown(width, height);
        default: throw std::invalid_argument("BayerFrame objects can only have 8, 10, or 12, 14 or 16 bits per band.");
    }
}

}  // namespace

BayerFrame::BayerFrame(std::uint32_t w, std::uint32_t h, std::uint32_t bits, std::uint32_t pattern, bool packed,
                       std::uint32_t packedVariant)
    : LUMOFrame(static_cast<std::int32_t>(w), static_cast<std::int32_t>(h), bits < 9 ? 1 : 2, COLORSPACE_RGB),
      dims{w, h, 3},
      bitsPerBand(bits),
      bytesPerSample(bits < 9 ? 1 : 2),
      alignment(pattern),
      inner(innerFrame(static_cast<std::int32_t>(w), static_cast<std::int32_t>(h), bits, packed, packedVariant)) {}

BayerFrame::~BayerFrame() { delete inner; }

std::uint64_t BayerFrame::getBufferSize() const { return inner->getBufferSize(); }
std::uint8_t* BayerFrame::allocateBuffer() { return inner->allocateBuffer(); }
void BayerFrame::setBufferData(const std::uint8_t* src) { inner->setBufferData(src); }
bool BayerFrame::isBufferAllocated() const { return inner->isBufferAllocated(); }

std::uint8_t* BayerFrame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                             std::uint32_t xOffset, std::uint32_t yOffset) {
    return inner->copyRegionToBuffer(src, srcWidth, srcHeight, xOffset, yOffset);
}

std::int32_t BayerFrame::getDataType() const { return bytesPerSample == 1 ? DATATYPE_UINT8 : DATATYPE_UINT16; }

std::int64_t BayerFrame::getAlignedSize() const {
    const std::uint32_t padded = (dims.width * dims.bands + 3u) & ~3u;
    return static_cast<std::int32_t>(padded * dims.height);
}

std::uint32_t BayerFrame::getBitsPerBand() const { return bitsPerBand; }
const FrameDims* BayerFrame::getDimensions() const { return &dims; }

void BayerFrame::setMemoryLimiter(IMemoryLimiter* limiter) {
    LUMOFrame::setMemoryLimiter(limiter);
    inner->setMemoryLimiter(getMemoryLimiter());
}

void BayerFrame::getData(void** dest) {
    if (getColorSpace() != COLORSPACE_RGB) {
        inner->getData(dest);
        return;
    }
    if (dest == nullptr || dest[0] == nullptr || !isBufferAllocated()) return;
    const std::uint64_t pixels = static_cast<std::uint64_t>(dims.width) * dims.height;
    if (pixels == 0) return;
    // The mosaic unpacked, top-down and column-major. A packed mosaic whose geometry the inner
    // frame cannot deliver leaves it as it was, so that one is zeroed first: no stale memory is
    // demosaiced.
    std::unique_ptr<std::uint8_t[]> scratch(new std::uint8_t[pixels * bytesPerSample]);
    if (dynamic_cast<const PackedMonochromeFrame*>(inner) != nullptr) std::memset(scratch.get(), 0, pixels * bytesPerSample);
    void* scratchList[] = {scratch.get(), nullptr};
    inner->getData(scratchList);

    const bool onePointer = dest[1] == nullptr;
    if (!onePointer && dest[2] == nullptr) return;  // two planes name no layout
    const std::pair<std::uint32_t, std::uint32_t> size{dims.height, dims.width};
    const std::uint32_t bits = getBitsPerBand() & 0xFFu;
    if (bytesPerSample == 1) {
        auto* first = static_cast<std::uint8_t*>(dest[0]);
        BayerUtil::demosaic8(scratch.get(), first, onePointer ? first + pixels : static_cast<std::uint8_t*>(dest[1]),
                             onePointer ? first + 2 * pixels : static_cast<std::uint8_t*>(dest[2]), pixels, size,
                             alignment, bits);
    } else {
        auto* first = static_cast<std::uint16_t*>(dest[0]);
        BayerUtil::demosaic16(reinterpret_cast<const std::uint16_t*>(scratch.get()), first,
                              onePointer ? first + pixels : static_cast<std::uint16_t*>(dest[1]),
                              onePointer ? first + 2 * pixels : static_cast<std::uint16_t*>(dest[2]), pixels, size,
                              alignment, bits);
    }
}

void BayerFrame::getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t requested,
                                     const std::int32_t* dataType, std::uint32_t pattern, HostAllocator* allocator) {
    // The mosaic is delivered by switching to one band for the duration of the call; the switch is
    // undone however the call ends.
    struct Restore {
        BayerFrame& frame;
        ~Restore() {
            frame.setColorSpace(COLORSPACE_RGB);
            frame.dims.bands = 3;
        }
    } restore{*this};
    if (requested == COLORSPACE_MONO) {
        setColorSpace(COLORSPACE_MONO);
        dims.bands = 1;
    }
    LUMOFrame::getDataInColorSpace(result, outDims, requested, dataType, pattern, allocator);
}

}  // namespace lumoframekit
