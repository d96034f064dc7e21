#include "lumoframekit/frame_types.h"

namespace lumoframekit {

std::uint32_t getFrameTypeColorSpace(frametypes::FRAMETYPE code) {
    const std::uint32_t family = static_cast<std::uint32_t>(code) >> 24;
    if (family == 0x11) return COLORSPACE_MONO;
    // Clearing bit 26 folds family 0x05 onto 0x01 and 0x06 onto 0x02, and 0x07 onto 0x03.
    const std::uint32_t folded = static_cast<std::uint32_t>(code) & 0xFB000000u;
    if (folded == 0x01000000u || folded == 0x02000000u) return COLORSPACE_RGB;
    if (family == 0x04 || folded == 0x03000000u) return COLORSPACE_YUV;
    return COLORSPACE_UNKNOWN;
}

}  // namespace lumoframekit
