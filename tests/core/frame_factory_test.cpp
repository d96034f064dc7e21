#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <typeinfo>
#include <vector>

#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using lumotest::FramePtr;

namespace {
FramePtr make(std::uint32_t code, int w = 4, int h = 2) { return lumotest::make(code, w, h); }
}  // namespace

TEST(FrameFactory, FamiliesByTheirFamilyByte) {
    for (std::uint32_t family = 0; family < 256; ++family)
        for (std::uint32_t rest : {0x000000u, 0x030000u, 0x010000u, 0xFFFF07u, 0x000100u, 0x000023u}) {
            const std::uint32_t code = family << 24 | rest;
            FramePtr frame = make(code);
            const bool colorFamily = family == 0x01 || family == 0x02 || family == 0x03 || family == 0x04 ||
                                     family == 0x05 || family == 0x07;
            if (colorFamily) {
                ASSERT_NE(frame, nullptr) << std::hex << code;
            } else if (family != 0x11 && family != 0x06) {
                EXPECT_EQ(frame, nullptr) << std::hex << code;
            }
            if (!frame) continue;
            // Every frame starts bare and carries its full code.
            EXPECT_EQ(frame->getFrameType(), code);
            EXPECT_FALSE(frame->isBufferAllocated());
            EXPECT_EQ(frame->getFramePool(), nullptr);
            EXPECT_EQ(frame->getMemoryLimiter(), nullptr);
            EXPECT_EQ(frame->getMetaDataCount(), 0u);
            EXPECT_EQ(frame->getColorSpace(), getFrameTypeColorSpace(static_cast<frametypes::FRAMETYPE>(code)));
        }
}

TEST(FrameFactory, Edges) {
    for (std::uint32_t code :
         {0x1101000Au, 0x1101000Fu, 0x11010025u, 0x11010118u, 0x11010119u, 0x1101011Au, 0x11010123u, 0x11010124u,
          0x06030024u, 0x06040000u, 0x00000000u, 0x06000000u, 0x08000000u, 0x06030100u})
        EXPECT_EQ(make(code), nullptr) << std::hex << code;
    EXPECT_NE(dynamic_cast<MonochromeFrame15bitBETopDown*>(make(0x11010022).get()), nullptr);
    EXPECT_NE(dynamic_cast<MonochromeFrame15bitBEBottomUp*>(make(0x11010122).get()), nullptr);
    auto bayer = make(0x06030000);
    ASSERT_NE(dynamic_cast<BayerFrame*>(bayer.get()), nullptr);
    EXPECT_EQ(dynamic_cast<BayerFrame*>(bayer.get())->getAlignment(), 0u);
    EXPECT_EQ(bayer->getBitsPerBand(), 8u);

    // 0x01FFFF07: RGB24 subtype 7 (16-bit BGR) with rows stored bottom-up.
    FramePtr rgb = make(0x01FFFF07, 1, 2);
    ASSERT_NE(dynamic_cast<RGB24Frame*>(rgb.get()), nullptr);
    EXPECT_EQ(rgb->getBitsPerBand(), 16u);
    std::uint16_t pixels[6] = {1, 2, 3, 4, 5, 6};  // stored row 0: B G R = 1 2 3
    rgb->setBufferData(reinterpret_cast<const std::uint8_t*>(pixels));
    std::uint16_t planes[6] = {};
    void* dest[] = {planes, nullptr};
    rgb->getData(dest);
    EXPECT_EQ(planes[0], 6);  // host row 0 comes from the last stored row: its R
    EXPECT_NE(dynamic_cast<RGB24Planar*>(make(0x02000100).get()), nullptr);
    EXPECT_EQ(make(0x11010000, 0, 5)->getBufferSize(), 0u);
}
