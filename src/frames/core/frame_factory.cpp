#include "frames/mono/monochrome_factory.h"
#include "lumoframekit/bayer_frame.h"
#include "lumoframekit/color_frames.h"
#include "lumoframekit/frame.h"

namespace lumoframekit {

namespace {

// Monochrome codes: the original formats (0x11010000 + 0x000..0x117), then the odd depths added
// after them in both row orders (0x1101001B..0x11010022 and 0x1101011B..0x11010122).
bool monochromeRange(std::uint32_t code) {
    return code - 0x11010000u <= 0x117u || code - 0x1101001Bu <= 0x7u || code - 0x1101011Bu <= 0x7u;
}

// Bayer codes 0x06030000 + 4 * group + pattern index: the group fixes depth and packing, the
// pattern index 0..3 names the alignments 0, 1, 2 and 4.
IFrame* makeBayerFrame(std::uint32_t code, std::int32_t width, std::int32_t height) {
    struct Group {
        std::uint32_t bits;
        bool packed;
        std::uint32_t variant;
    };
    static constexpr Group groups[9] = {{8, false, 0}, {10, false, 0}, {12, false, 0}, {14, false, 0}, {16, false, 0},
                                        {10, true, 0}, {12, true, 0},  {10, true, 1},  {12, true, 1}};
    static constexpr std::uint32_t alignments[4] = {0, 1, 2, 4};
    const std::uint32_t index = code & 0xFFu;
    const Group& group = groups[index / 4];
    return new BayerFrame(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), group.bits,
                          alignments[index % 4], group.packed, group.variant);
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
    if (frame == nullptr && code - 0x06030000u <= 0x23u) frame = makeBayerFrame(code, width, height);
    if (frame == nullptr) return nullptr;
    frame->setFrameType(code);
    return frame;
}

}  // namespace lumoframekit
