#include <gtest/gtest.h>

#include "lumoframekit/frame_types.h"

using lumoframekit::getFrameTypeColorSpace;
using lumoframekit::frametypes::FRAMETYPE;

TEST(FrameTypeColorSpace, ClassifiesByFamilyByteAlone) {
    const struct {
        std::uint32_t code;
        std::uint32_t space;
    } cases[] = {
        {0x11010000, 1}, {0x1101000A, 1}, {0x11FFFFFF, 1},  // any 0x11 code, accepted or not
        {0x01000000, 2}, {0x02000100, 2}, {0x05000000, 2}, {0x06030017, 2}, {0x06FF0000, 2},
        {0x03000000, 4}, {0x04000000, 4}, {0x07000003, 4}, {0x00000000, 0}, {0x08000000, 0},
        {0xFF000000, 0}, {0x10000000, 0}, {0x09000000, 0}, {0x0B000000, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(getFrameTypeColorSpace(static_cast<FRAMETYPE>(c.code)), c.space) << std::hex << c.code;
}
