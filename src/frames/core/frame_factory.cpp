#include "frames/mono/monochrome_factory.h"
#include "lumoframekit/frame.h"

namespace lumoframekit {

namespace {

// Monochrome codes: the original formats (0x11010000 + 0x000..0x117), then the odd depths added
// after them in both row orders (0x1101001B..0x11010022 and 0x1101011B..0x11010122).
bool monochromeRange(std::uint32_t code) {
    return code - 0x11010000u <= 0x117u || code - 0x1101001Bu <= 0x7u || code - 0x1101011Bu <= 0x7u;
}

}  // namespace

IFrame* frameFactory(frametypes::FRAMETYPE frameType, std::int32_t width, std::int32_t height) {
    const std::uint32_t code = frameType;
    IFrame* frame = nullptr;
    if (monochromeRange(code)) frame = makeMonochromeFrame(code, width, height);
    if (frame == nullptr) return nullptr;
    frame->setFrameType(code);
    return frame;
}

}  // namespace lumoframekit
