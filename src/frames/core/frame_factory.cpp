#include "frames/bayer/bayer_formats.h"
#include "frames/mono/monochrome_factory.h"
#include "lumoframekit/bayer_frame.h"
#include "lumoframekit/color_frames.h"
#include "lumoframekit/frame.h"

#include <iterator>

namespace lumoframekit {

namespace {

// Monochrome codes: the original formats (0x11010000 + 0x000..0x117), then the odd depths added
// after them in both row orders (0x1101001B..0x11010022 and 0x1101011B..0x11010122).
bool monochromeRange(std::uint32_t code) {
    return code - 0x11010000u <= 0x117u || code - 0x1101001Bu <= 0x7u || code - 0x1101011Bu <= 0x7u;
}

// A Bayer code: its row of the group table fixes depth and packing, the pattern index the sensor
// pattern.
IFrame* makeBayerFrame(std::uint32_t code, std::int32_t width, std::int32_t height) {
    const std::uint32_t index = code - kFirstBayerCode;
    const BayerGroup& group = kBayerGroups[index / std::size(kBayerPatterns)];
    return new BayerFrame(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), group.bits,
                          kBayerPatterns[index % std::size(kBayerPatterns)], group.packed, group.lsbFirst ? 1 : 0);
}

// The RGB and YUV families by family byte: subtype from bits 7..0, the bottom-up flag from bit 8
// for RGB24 and RGB16; every code of the family is accepted.
IFrame* makeColorFrame(std::uint32_t code, std::int32_t width, std::int32_t height) {
    const std::int32_t subtype = static_cast<std::int32_t>(code & 0xFFu);
    const bool flag = (code & 0x100u) != 0;
    switch (code >> 24) {
        case 0x01: return new RGB24Frame(width, height, subtype, flag);
        case 0x02: return new RGB24Planar(width, height, subtype);
        case 0x03: return new YUVPackedFrame(width, height, subtype);
        case 0x04: return new YUVPlanarFrame(width, height, subtype);
        case 0x05: return new RGB16Frame(width, height, subtype, flag);
        case 0x07: return new YUVHybridFrame(width, height, subtype);
        default: return nullptr;
    }
}

}  // namespace

IFrame* frameFactory(frametypes::FRAMETYPE frameType, std::int32_t width, std::int32_t height) {
    const std::uint32_t code = frameType;
    // In dispatch order: the original monochrome range, the RGB and YUV families, the Bayer codes,
    // then the odd monochrome depths.
    IFrame* frame = nullptr;
    if (monochromeRange(code)) frame = makeMonochromeFrame(code, width, height);
    if (frame == nullptr) frame = makeColorFrame(code, width, height);
    if (frame == nullptr && code - kFirstBayerCode < kBayerCodeCount) frame = makeBayerFrame(code, width, height);
    if (frame == nullptr) return nullptr;
    frame->setFrameType(code);
    return frame;
}

}  // namespace lumoframekit
