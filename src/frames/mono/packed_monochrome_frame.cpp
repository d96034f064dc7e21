#include "lumoframekit/packed_monochrome_frame.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "frames/kernels/kernels.h"
#include "frames/mono/packings.h"

namespace lumoframekit {

namespace {

// The packing table's row for a frame's depth and variant; a depth with no packing throws.
const PackingFacts& packingOf(std::int32_t bits, std::int32_t lsb) {
    const PackingFacts* facts = findPacking(bits, lsb != 0);
    if (facts == nullptr)
        throw std::invalid_argument("PackedMonochromeFrame objects can only have 10 or 12 bits per band.");
    return *facts;
}

// Wraps like the signed 32-bit arithmetic the sizes are defined in.
std::int32_t wrap32(std::int64_t value) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(value)); }

}  // namespace

PackedMonochromeFrame::PackedMonochromeFrame(std::int32_t w, std::int32_t h, std::int32_t bits, std::int32_t lsb)
    : LUMOFrame(w, h, 2, COLORSPACE_MONO),
      width(w),
      height(h),
      bitsPerBand(bits),
      leadPad(0),
      trailPad(0),
      lsbFirst(lsb != 0 ? 1 : 0),
      bytesPerGroup(packingOf(bits, lsb).bytesPerGroup),
      pixelsPerGroup(packingOf(bits, lsb).pixelsPerGroup),
      dims{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 1} {
    // The unpacking reads up to two bytes past a row's last group for some geometries.
    bufferSlack = 4;
}

std::int32_t PackedMonochromeFrame::padUnit() const { return packingOf(bitsPerBand, lsbFirst).padUnit; }

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
    const std::int64_t srcBytes = srcRowBytes * static_cast<std::int64_t>(srcHeight);
    const std::int64_t start = static_cast<std::int64_t>(startColumn) * bpg / ppg + srcRowBytes * yOffset;
    const bool copies = width > 0 && height > 0;
    // The region must lie in the source, save the partial group that the last row of a frame whose
    // width is not a whole number of groups reaches past the source's packed bytes: that part
    // reads as zeros.
    if (copies && (src == nullptr || stride < 0 || start + (height - 1) * stride + rowCopy - srcBytes >= bpg))
        return nullptr;

    leadPad = lead;
    trailPad = trail;
    std::uint8_t* target = allocateBuffer();
    if (target == nullptr || !copies) return target;
    const std::uint64_t copied = static_cast<std::uint64_t>(rowCopy) * static_cast<std::uint64_t>(height);
    if (allocatedSize < copied) return nullptr;
    for (std::int32_t i = 0; i < height; ++i) {
        const std::int64_t from = start + i * stride;
        const std::int64_t inside = std::clamp<std::int64_t>(srcBytes - from, 0, rowCopy);
        std::uint8_t* row = target + i * rowCopy;
        if (inside > 0) std::memcpy(row, src + from, static_cast<std::size_t>(inside));
        std::memset(row + inside, 0, static_cast<std::size_t>(rowCopy - inside));
    }
    // Pads may make the buffer longer than the rows copied; its tail is zeroed so that no byte
    // the camera never wrote reaches the host.
    std::memset(target + copied, 0, static_cast<std::size_t>(allocatedSize - copied));
    return target;
}

// Every pixel of the frame as 16-bit values, column-major or row-major; false (and nothing
// written) when the frame holds no image or its buffer does not hold every byte the unpacking of
// the whole frame reads. Row-major, a rowParity of 0 or 1 writes only the even or the odd rows,
// one after another (-1 writes every row).
bool unpackPacked(const PackedMonochromeFrame& frame, std::uint16_t* out, bool rowMajor, int rowParity) {
    if (!frame.isBufferAllocated() || out == nullptr || frame.width < 1 || frame.height < 1) return false;
    const PackingFacts& facts = packingOf(frame.bitsPerBand, frame.lsbFirst);
    const auto rowBytes = static_cast<std::size_t>(frame.paddedWidth() * frame.bytesPerGroup / frame.pixelsPerGroup);
    const std::size_t first = frame.leadPad;
    const auto w = static_cast<std::size_t>(frame.width), h = static_cast<std::size_t>(frame.height);
    // Every byte the unpacking reads must lie in the buffer or its zeroed slack.
    const std::size_t lastRead = (h - 1) * rowBytes + byteOfPixel(facts.packing, first + w - 1) + 1;
    const std::uint64_t readable = frame.allocatedSize + frame.bufferSlack;
    if (lastRead >= readable) return false;
    const std::uint8_t* end = frame.buffer + readable;
    const Kernels& k = kernels();
    const std::size_t packing = static_cast<std::size_t>(&facts - kPackings);
    if (rowMajor) {
        // Every row, or every other one from the parity's first.
        const std::size_t from = rowParity >= 0 ? static_cast<std::size_t>(rowParity & 1) : 0;
        const std::size_t apart = rowParity >= 0 ? 2 : 1;
        if (from < h)
            k.unpackRows[packing](out, frame.buffer + from * rowBytes, end, apart * rowBytes, first, w,
                                  (h - from + apart - 1) / apart);
    } else {
        // In place the unpack writes eight rows across the whole width, which the second-level
        // cache holds; strides that crowd 64 columns into too few sets of the first-level cache
        // (512, 1024 or 1536 rows) measured 4 to 10 times slower in place than streamed.
        k.unpack[packing](out, frame.buffer, end, rowBytes, first, w, h,
                          unlessColumnsCollide(columnStoresFor(2 * w * h, h), 2 * h, 64));
    }
    return true;
}

void PackedMonochromeFrame::getData(void** dest) {
    if (dest != nullptr) unpackPacked(*this, static_cast<std::uint16_t*>(dest[0]), false, -1);
}

}  // namespace lumoframekit
