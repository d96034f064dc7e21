#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "test_support.h"

using namespace lumoframekit;
using namespace lumotest;

namespace {

struct MacroPixels {
    int ppg, bpg;
    int y[8], u[8], v[8];
};
const MacroPixels packings[7] = {
    {2, 4, {0, 2}, {1, 1}, {3, 3}},
    {2, 4, {1, 3}, {0, 0}, {2, 2}},
    {2, 4, {0, 2}, {3, 3}, {1, 1}},
    {4, 6, {1, 2, 4, 5}, {0, 0, 0, 0}, {3, 3, 3, 3}},
    {1, 3, {1}, {0}, {2}},
    {8, 12, {1, 3, 5, 7, 8, 9, 10, 11}, {0, 0, 0, 0, 4, 4, 4, 4}, {2, 2, 2, 2, 6, 6, 6, 6}},
    {1, 3, {2}, {0}, {1}},
};

// Pixel (px, py) of a packed image whose rows hold `groups` macro-pixels: Y, U, V.
std::array<std::uint8_t, 3> packedPixel(const MacroPixels& p, const std::vector<std::uint8_t>& raw, int groups, int px,
                                        int py) {
    const std::uint8_t* g = &raw[(static_cast<std::size_t>(py) * groups + px / p.ppg) * p.bpg];
    const int k = px % p.ppg;
    return {g[p.y[k]], g[p.u[k]], g[p.v[k]]};
}

}  // namespace

TEST(YUVPackedFrame, EverySubtypeSplitsItsMacroPixels) {
    std::mt19937 rng(14);
    for (int subtype = 0; subtype < 7; ++subtype)
        for (auto [w, h] : {std::pair{5, 3}, {8, 2}, {1, 1}, {13, 4}, {37, 3}, {64, 2}, {40, 17}, {701, 2048}}) {
            const MacroPixels& p = packings[subtype];
            const int groups = (w + p.ppg - 1) / p.ppg;
            FramePtr frame = make(0x03000000u | subtype, w, h);
            ASSERT_EQ(frame->getBufferSize(), static_cast<std::uint64_t>(groups) * p.bpg * h);
            const auto raw = noise(frame->getBufferSize(), rng);
            frame->setBufferData(raw.data());
            const std::size_t n = static_cast<std::size_t>(w) * h;
            const auto out = planesOf(*frame, 3 * n);
            for (int x = 0; x < w; ++x)
                for (int y = 0; y < h; ++y) {
                    const auto yuv = packedPixel(p, raw, groups, x, y);
                    for (int c = 0; c < 3; ++c)
                        ASSERT_EQ(out[c * n + x * h + y], yuv[c]) << subtype << " " << x << "," << y;
                }
        }
}

TEST(YUVPackedFrame, RegionsAtAnyPhaseMatchTheCropWhereTheyDeliver) {
    std::mt19937 rng(15);
    for (int subtype = 0; subtype < 7; ++subtype) {
        const MacroPixels& p = packings[subtype];
        const int sw = 24, sh = 6, srcGroups = (sw + p.ppg - 1) / p.ppg;
        const auto src = noise(static_cast<std::size_t>(srcGroups) * p.bpg * sh, rng);
        for (int x : {0, 1, 2, 3, 5, 8}) {
            for (int w : {3, 4, 5, 7}) {
                FramePtr frame = make(0x03000000u | subtype, w, 3);
                ASSERT_NE(frame->copyRegionToBuffer(src.data(), sw, sh, x, 1), nullptr);
                const std::size_t n = static_cast<std::size_t>(w) * 3;
                const auto out = planesOf(*frame, 3 * n);
                for (int i = 0; i < w; ++i)
                    for (int j = 0; j < 3; ++j) {
                        if (out[i * 3 + j] == 0xA7 && out[n + i * 3 + j] == 0xA7) continue;  // not delivered
                        const auto yuv = packedPixel(p, src, srcGroups, x + i, 1 + j);
                        for (int c = 0; c < 3; ++c)
                            ASSERT_EQ(out[c * n + i * 3 + j], yuv[c])
                                << subtype << " x " << x << " w " << w << " at " << i;
                    }
            }
        }
    }
}

TEST(YUVPackedFrame, KnownGeometry) {
    FramePtr frame = make(0x03000000, 3, 1);
    EXPECT_EQ(frame->getBufferSize(), 8u);  // 2 groups of 4 bytes
    const std::uint8_t bytes[] = {10, 20, 11, 30, 12, 21, 13, 31};
    frame->setBufferData(bytes);
    const auto out = planesOf(*frame, 9);
    EXPECT_EQ(out[2], 12);  // pixel 2: Y from the second group's byte 0
    EXPECT_EQ(out[5], 21);
    EXPECT_EQ(out[8], 31);
    EXPECT_EQ(frame->getAlignedSize(), 12);
    EXPECT_EQ(make(0x03000000, 5, 2)->getAlignedSize(), 32);

    // Start phase 3 of a 4-pixel macro-pixel with a width of 4: the row ends after two pixels
    // and the last two are left as the destination held them.
    std::vector<std::uint8_t> src(6 * 4, 9);
    FramePtr phased = make(0x03000003, 4, 1);
    ASSERT_NE(phased->copyRegionToBuffer(src.data(), 16, 1, 3, 0), nullptr);
    const auto partial = planesOf(*phased, 12);
    EXPECT_EQ(partial[0], 9);
    EXPECT_EQ(partial[1], 9);
    EXPECT_EQ(partial[2], 0xA7);
    EXPECT_EQ(partial[3], 0xA7);
}

TEST(YUVPlanarFrame, EverySubtypeRepeatsItsChroma) {
    std::mt19937 rng(16);
    const int factors[3] = {4, 2, 2};
    for (int subtype = 0; subtype < 3; ++subtype)
        for (auto [w, h] : {std::pair{5, 5}, {8, 4}, {1, 1}, {9, 7}, {70, 37}, {130, 66}, {701, 2050}, {70, 1024}}) {
            const int f = factors[subtype];
            const int pw = (w + f - 1) / f * f, ph = (h + f - 1) / f * f;
            const std::size_t luma = static_cast<std::size_t>(pw) * ph, chroma = luma / f / f;
            FramePtr frame = make(0x04000000u | subtype, w, h);
            ASSERT_EQ(frame->getBufferSize(), luma + 2 * chroma);
            const auto raw = noise(luma + 2 * chroma, rng);
            frame->setBufferData(raw.data());
            const std::size_t uAt = subtype == 2 ? luma : luma + chroma, vAt = subtype == 2 ? luma + chroma : luma;
            const std::size_t n = static_cast<std::size_t>(w) * h;
            const auto out = planesOf(*frame, 3 * n);
            for (int x = 0; x < w; ++x)
                for (int y = 0; y < h; ++y) {
                    const std::size_t c = static_cast<std::size_t>(pw / f) * (y / f) + x / f;
                    ASSERT_EQ(out[x * h + y], raw[static_cast<std::size_t>(pw) * y + x]);
                    ASSERT_EQ(out[n + x * h + y], raw[uAt + c]);
                    ASSERT_EQ(out[2 * n + x * h + y], raw[vAt + c]);
                }
        }
    EXPECT_EQ(make(0x04000001, 5, 5)->getBufferSize(), 54u);
}

TEST(YUVPlanarFrame, RegionFillMatchesTheCropAtBlockOffsets) {
    std::mt19937 rng(17);
    const int sw = 16, sh = 12;
    for (int subtype = 0; subtype < 3; ++subtype) {
        const int f = subtype == 0 ? 4 : 2;
        const auto src = noise(sw * sh + 2 * (sw * sh / f / f), rng);
        FramePtr whole = make(0x04000000u | subtype, sw, sh);
        whole->setBufferData(src.data());
        const auto all = planesOf(*whole, 3 * sw * sh);
        const int w = 6, h = 5, x = f, y = f;
        FramePtr frame = make(0x04000000u | subtype, w, h);
        ASSERT_NE(frame->copyRegionToBuffer(src.data(), sw, sh, x, y), nullptr);
        const auto out = planesOf(*frame, 3 * w * h);
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < w; ++i)
                for (int j = 0; j < h; ++j)
                    ASSERT_EQ(out[c * w * h + i * h + j], all[c * sw * sh + (x + i) * sh + y + j]) << subtype;
        EXPECT_EQ(frame->copyRegionToBuffer(src.data(), sw, sh, 12, 0), nullptr);  // padded rows leave the source
    }
}

namespace {
// Pixel (x, y) of a 4:2:0 image in either hybrid layout, w x h, even sizes.
std::array<std::uint8_t, 3> hybridPixel(int subtype, const std::vector<std::uint8_t>& raw, int w, int h, int x, int y) {
    if (subtype == 0) {
        const std::size_t group = static_cast<std::size_t>(y / 2) * 3 * w;
        const std::size_t chroma = group + 2 * w + 2 * (x / 2);
        return {raw[group + (y % 2) * w + x], raw[chroma], raw[chroma + 1]};
    }
    const std::size_t chroma = static_cast<std::size_t>(h) * w + (y / 2) * w + 2 * (x / 2);
    return {raw[static_cast<std::size_t>(y) * w + x], raw[chroma], raw[chroma + 1]};
}
}  // namespace

TEST(YUVHybridFrame, BothLayoutsAndRegionsAtOddOffsets) {
    std::mt19937 rng(18);
    for (int subtype : {0, 1}) {
        const int sw = 12, sh = 10;
        const auto src = noise(sw * sh * 3 / 2, rng);
        FramePtr whole = make(0x07000000u | subtype, sw, sh);
        ASSERT_EQ(whole->getBufferSize(), static_cast<std::uint64_t>(sw * sh * 3 / 2));
        whole->setBufferData(src.data());
        const std::size_t n = sw * sh;
        const auto all = planesOf(*whole, 3 * n);
        for (int x = 0; x < sw; ++x)
            for (int y = 0; y < sh; ++y) {
                const auto yuv = hybridPixel(subtype, src, sw, sh, x, y);
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(all[c * n + x * sh + y], yuv[c]) << subtype << " " << x << "," << y;
            }
        int compared = 0;
        for (auto [x, y] : {std::pair{1, 1}, {2, 2}, {3, 0}, {0, 3}, {5, 4}}) {
            for (auto [w, h] : {std::pair{4, 4}, {5, 3}, {6, 5}}) {
                FramePtr frame = make(0x07000000u | subtype, w, h);
                if (frame->copyRegionToBuffer(src.data(), sw, sh, x, y) == nullptr) continue;
                const std::size_t m = static_cast<std::size_t>(w) * h;
                const auto out = planesOf(*frame, 3 * m);
                if (out[0] == 0xA7 && out[m] == 0xA7) continue;  // a layout the buffer does not hold
                ++compared;
                for (int i = 0; i < w; ++i)
                    for (int j = 0; j < h; ++j)
                        for (int c = 0; c < 3; ++c)
                            ASSERT_EQ(out[c * m + i * h + j], all[c * n + (x + i) * sh + y + j])
                                << "subtype " << subtype << " region " << x << "," << y << " " << w << "x" << h
                                << " at " << i << "," << j << " band " << c;
            }
        }
        EXPECT_GE(compared, 8) << "subtype " << subtype;
    }
}

// Frames wide and tall enough for every vector width, whole blocks and tails.
TEST(YUVHybridFrame, WholeFramesOfEverySizeFollowTheLayout) {
    std::mt19937 rng(19);
    for (int subtype : {0, 1})
        for (auto [w, h] : {std::pair{70, 37}, {130, 66}, {64, 48}, {33, 2}, {71, 38}, {700, 2048}, {70, 1024}}) {
            FramePtr frame = make(0x07000000u | subtype, w, h);
            const auto raw = noise(frame->getBufferSize(), rng);
            frame->setBufferData(raw.data());
            const std::size_t n = static_cast<std::size_t>(w) * h;
            const auto out = planesOf(*frame, 3 * n);
            // Buffers of odd sizes may not hold the last chroma: then nothing is converted.
            if ((w % 2 == 1 || h % 2 == 1) && out[0] == 0xA7) continue;
            for (int x = 0; x < w; ++x)
                for (int y = 0; y < h; ++y) {
                    const auto yuv = hybridPixel(subtype, raw, w, h, x, y);
                    for (int c = 0; c < 3; ++c)
                        ASSERT_EQ(out[c * n + x * h + y], yuv[c])
                            << subtype << " " << w << "x" << h << " " << x << "," << y;
                }
        }
}

TEST(YUVHybridFrame, KnownBytesAndOddSizesStayInside) {
    FramePtr frame = make(0x07000000, 4, 4);
    EXPECT_EQ(frame->getBufferSize(), 24u);
    std::vector<std::uint8_t> raw(24);
    for (int i = 0; i < 24; ++i) raw[i] = static_cast<std::uint8_t>(i);
    frame->setBufferData(raw.data());
    const auto out = planesOf(*frame, 48);
    EXPECT_EQ(out[2], 12);       // pixel (0, 2): Y at byte 12
    EXPECT_EQ(out[16 + 2], 20);  // U at 20
    EXPECT_EQ(out[32 + 2], 21);  // V at 21

    for (int subtype : {0, 1})
        for (auto [w, h] : {std::pair{3, 3}, {5, 1}, {1, 5}, {1, 1}}) {
            FramePtr odd = make(0x07000000u | subtype, w, h);
            std::vector<std::uint8_t> bytes(odd->getBufferSize(), 3);
            odd->setBufferData(bytes.data());
            planesOf(*odd, 3 * w * h);  // converts or refuses, never reads past the buffer
        }
}
