#pragma once
#include <cstdint>

#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

// A raw Bayer mosaic of 8 to 16 bits, plain or packed, delivered as it is (one band) or
// demosaiced into red, green and blue planes. The mosaic lives in an inner monochrome frame of the
// matching depth and packing, which holds the buffer.
class LUMOFRAMEKIT_API BayerFrame final : public LUMOFrame {
public:
    // bitsPerBand 8, 10, 12, 14 or 16 (std::invalid_argument otherwise); alignment is the sensor
    // pattern code (0 grbg, 1 gbrg, 2 bggr, 4 rggb); packed selects a packed inner frame for 10
    // and 12 bits, with packedVariant as its packing variant.
    BayerFrame(std::uint32_t width, std::uint32_t height, std::uint32_t bitsPerBand, std::uint32_t alignment,
               bool packed, std::uint32_t packedVariant);
    ~BayerFrame() override;

    std::uint64_t getBufferSize() const override;
    std::uint8_t* allocateBuffer() override;
    void setBufferData(const std::uint8_t* src) override;
    std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                     std::uint32_t xOffset, std::uint32_t yOffset) override;
    bool isBufferAllocated() const override;
    // In color space 2 (as made): three demosaiced planes, either named {r, g, b, nullptr} or back
    // to back behind {p, nullptr}. In any other color space the host sets: the mosaic.
    void getData(void** dest) override;
    // Color space 1 gives the raw mosaic (one band), anything else works on the demosaiced
    // planes. The frame is only read, so several threads may call it at once.
    void getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t requested, const std::int32_t* dataType,
                             std::uint32_t alignment, HostAllocator* allocator) override;
    std::int32_t getDataType() const override;
    std::int64_t getAlignedSize() const override;
    std::uint32_t getBitsPerBand() const override;
    const FrameDims* getDimensions() const override;
    void setMemoryLimiter(IMemoryLimiter* limiter) override;

    std::uint32_t getAlignment() const { return alignment; }

private:
    FrameDims dims;  // bands 3
    std::uint32_t bitsPerBand;
    std::uint32_t bytesPerSample;
    std::uint32_t alignment;
    LUMOFrame* inner;
};

}  // namespace lumoframekit
