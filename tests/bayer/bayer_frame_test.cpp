#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "frames/bayer/bayer_util.h"
#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using namespace lumotest;

TEST(BayerFactory, EveryCodeBuildsItsDepthPackingAndPattern) {
    const std::uint32_t bits[9] = {8, 10, 12, 14, 16, 10, 12, 10, 12};
    const std::uint32_t patterns[4] = {0, 1, 2, 4};
    for (std::uint32_t index = 0; index <= 0x23; ++index) {
        FramePtr frame = make(0x06030000u + index, 6, 4);
        ASSERT_NE(frame, nullptr) << index;
        auto* bayer = dynamic_cast<BayerFrame*>(frame.get());
        ASSERT_NE(bayer, nullptr);
        EXPECT_EQ(bayer->getBitsPerBand(), bits[index / 4]);
        EXPECT_EQ(bayer->getAlignment(), patterns[index % 4]);
        EXPECT_EQ(bayer->getColorSpace(), 2u);
        EXPECT_EQ(bayer->getDimensions()->bands, 3u);
        EXPECT_EQ(bayer->getDataType(), index < 4 ? 0 : 2);
        EXPECT_EQ(bayer->getFrameType(), 0x06030000u + index);
        const bool packed = index >= 0x14;
        // Packed frames hold 1.5 bytes a pixel (4-in-5: 1.25), plain ones 1 or 2.
        const std::uint64_t expect = !packed ? 24u * (index < 4 ? 1 : 2) : (index >= 0x1C && index < 0x20) ? 30u : 36u;
        EXPECT_EQ(bayer->getBufferSize(), expect) << index;
    }
    for (std::uint32_t code : {0x06030024u, 0x06040000u, 0x06000000u, 0x06030100u})
        EXPECT_EQ(make(code, 4, 4), nullptr);
}

TEST(BayerFrame, UnsupportedDepthsAreRefusedWithTheirMessage) {
    for (std::uint32_t bits : {9u, 11u, 13u, 15u, 7u, 17u, 0u}) {
        try {
            BayerFrame frame(4, 4, bits, 0, false, 0);
            FAIL() << bits;
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "BayerFrame objects can only have 8, 10, or 12, 14 or 16 bits per band.");
        }
    }
}

TEST(BayerFrame, GetDataDemosaicsIntoOneOrThreePointers) {
    std::mt19937 rng(9);
    const int w = 6, h = 5;
    std::vector<std::uint16_t> stored(w * h);
    for (auto& v : stored) v = static_cast<std::uint16_t>(rng() & 0xFFF);
    FramePtr frame = make(0x0603000B, w, h);  // 12-bit rggb
    frame->setBufferData(reinterpret_cast<const std::uint8_t*>(stored.data()));

    // The expected planes: the column-major mosaic through the driver.
    std::vector<std::uint16_t> mosaic(w * h), expect(3 * w * h);
    for (int x = 0; x < w; ++x)
        for (int y = 0; y < h; ++y) mosaic[x * h + y] = stored[y * w + x];
    BayerUtil::demosaic16(mosaic.data(), expect.data(), expect.data() + w * h, expect.data() + 2 * w * h, w * h, {h, w},
                          4, 12);

    std::vector<std::uint16_t> block(3 * w * h);
    void* one[] = {block.data(), nullptr};
    frame->getData(one);
    EXPECT_EQ(block, expect);

    std::vector<std::uint16_t> r(w * h), g(w * h), b(w * h);
    void* three[] = {r.data(), g.data(), b.data(), nullptr};
    frame->getData(three);
    EXPECT_EQ(std::vector<std::uint16_t>(expect.begin(), expect.begin() + w * h), r);
    EXPECT_EQ(std::vector<std::uint16_t>(expect.begin() + 2 * w * h, expect.end()), b);
}

TEST(BayerFrame, PackedMosaicsDemosaicLikeTheirUnpackedValues) {
    // 4 x 2 pixels of a 12-bit lsb-first packing: 0xDAB and 0xEFC repeated.
    const std::uint8_t packed[] = {0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF};
    FramePtr frame = make(0x06030020, 4, 2);
    ASSERT_NE(frame->copyRegionToBuffer(packed, 4, 2, 0, 0), nullptr);
    FrameDims dims{};
    void* raw = nullptr;
    frame->getDataInColorSpace(&raw, &dims, 1, nullptr, 0, nullptr);
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(dims.bands, 1u);
    const auto* mosaic = static_cast<std::uint16_t*>(raw);
    EXPECT_EQ(mosaic[0], 0xDAB);
    EXPECT_EQ(mosaic[2], 0xEFC);  // column 1, row 0
    delete[] static_cast<std::uint8_t*>(raw);
}

// Packed mosaics of every packing, whole and from regions that start inside a packing group,
// demosaic as their unpacked values do: the mosaic as the host reads it, demosaiced directly.
// Their rows are unpacked a parity at a time from 3 rows on, all at once below.
TEST(BayerFrame, PackedMosaicsOfEveryPackingDemosaicAsTheirValues) {
    std::mt19937 rng(21);
    for (std::uint32_t code : {0x06030017u, 0x0603001Bu, 0x0603001Fu, 0x06030023u})  // RGGB: 10, 12, 10 and 12 lsb
        for (auto [w, h, x] :
             {std::tuple{70, 37, 0u}, {130, 66, 0u}, {41, 9, 1u}, {66, 20, 3u}, {20, 3, 0u}, {20, 2, 1u}}) {
            SCOPED_TRACE(::testing::Message() << std::hex << code << std::dec << " " << w << "x" << h << " at " << x);
            const std::uint32_t sw = static_cast<std::uint32_t>(w) + 8;
            FramePtr source = make(code, static_cast<int>(sw), h);
            const auto bytes = noise(source->getBufferSize(), rng);
            FramePtr frame = make(code, w, h);
            ASSERT_NE(frame->copyRegionToBuffer(bytes.data(), sw, static_cast<std::uint32_t>(h), x, 0), nullptr);
            FrameDims dims{};
            void* raw = nullptr;
            frame->getDataInColorSpace(&raw, &dims, 1, nullptr, 0, nullptr);
            ASSERT_NE(raw, nullptr);
            const std::size_t n = static_cast<std::size_t>(w) * h;
            std::vector<std::uint16_t> expect(3 * n), out(3 * n);
            BayerUtil::demosaic16(
                static_cast<std::uint16_t*>(raw), expect.data(), expect.data() + n, expect.data() + 2 * n, n,
                {static_cast<std::uint32_t>(h), static_cast<std::uint32_t>(w)}, 4, frame->getBitsPerBand() & 0xFFu);
            delete[] static_cast<std::uint8_t*>(raw);
            void* one[] = {out.data(), nullptr};
            frame->getData(one);
            EXPECT_EQ(out, expect);
        }
}

TEST(BayerFrame, LimiterReachesTheInnerFrame) {
    MemoryLimiter limiter(0, 100);
    FramePtr frame = make(0x06030004, 6, 5);  // 60 bytes
    frame->setMemoryLimiter(&limiter);
    ASSERT_NE(frame->allocateBuffer(), nullptr);
    EXPECT_EQ(limiter.getMemoryUsed(), 60u);
    FramePtr second = make(0x06030004, 6, 5);
    second->setMemoryLimiter(&limiter);
    EXPECT_EQ(second->allocateBuffer(), nullptr);
    frame.reset();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}
