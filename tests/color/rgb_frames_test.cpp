#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "frames/kernels/kernels.h"
#include "test_support.h"
#include "vector_widths.h"

using namespace lumoframekit;
using namespace lumotest;

namespace {

// RGB24 layouts: bytes per pixel, bits, bytes per sample, signed, and the byte of each channel's
// low and high byte within a pixel.
struct Layout {
    int bpp, bits, bps;
    bool isSigned;
    int off[3][2];
};
const Layout layouts[18] = {
    {3, 8, 1, false, {{0, 0}, {1, 1}, {2, 2}}},  {3, 8, 1, false, {{2, 2}, {1, 1}, {0, 0}}},
    {4, 8, 1, false, {{0, 0}, {1, 1}, {2, 2}}},  {4, 8, 1, false, {{2, 2}, {1, 1}, {0, 0}}},
    {4, 8, 1, false, {{1, 1}, {2, 2}, {3, 3}}},  {4, 8, 1, false, {{3, 3}, {2, 2}, {1, 1}}},
    {6, 16, 2, false, {{0, 1}, {2, 3}, {4, 5}}}, {6, 16, 2, false, {{4, 5}, {2, 3}, {0, 1}}},
    {6, 16, 2, false, {{1, 0}, {3, 2}, {5, 4}}}, {6, 16, 2, false, {{5, 4}, {3, 2}, {1, 0}}},
    {6, 16, 2, true, {{0, 1}, {2, 3}, {4, 5}}},  {6, 16, 2, true, {{4, 5}, {2, 3}, {0, 1}}},
    {6, 16, 2, true, {{1, 0}, {3, 2}, {5, 4}}},  {6, 16, 2, true, {{5, 4}, {3, 2}, {1, 0}}},
    {6, 10, 2, false, {{0, 1}, {2, 3}, {4, 5}}}, {6, 10, 2, false, {{4, 5}, {2, 3}, {0, 1}}},
    {6, 12, 2, false, {{0, 1}, {2, 3}, {4, 5}}}, {6, 12, 2, false, {{4, 5}, {2, 3}, {0, 1}}},
};

std::vector<std::uint8_t> rgb24Reference(const Layout& l, const std::vector<std::uint8_t>& raw, int w, int h,
                                         bool bottomUp) {
    const std::size_t plane = static_cast<std::size_t>(w) * h * l.bps;
    std::vector<std::uint8_t> out(3 * plane);
    for (int x = 0; x < w; ++x)
        for (int y = 0; y < h; ++y) {
            const int row = bottomUp ? h - 1 - y : y;
            for (int c = 0; c < 3; ++c)
                for (int k = 0; k < l.bps; ++k)
                    out[c * plane + (static_cast<std::size_t>(x) * h + y) * l.bps + k] =
                        raw[(row * w + x) * l.bpp + l.off[c][k]];
        }
    return out;
}

}  // namespace

TEST(RGB24Frame, EverySubtypeConvertsLikeTheReference) {
    std::mt19937 rng(4);
    forEachStreamingChoice([&] {
        for (int subtype = 0; subtype < 18; ++subtype)
            for (bool bottomUp : {false, true}) {
                // 1024 rows: columns a multiple of 1 KiB apart, which stream at any size.
                std::vector<std::pair<int, int>> sizes = {{5, 3}, {7, 2}, {1, 1}, {70, 37}, {70, 1024}};
                // Larger frames for some: one that stays cached, one tall enough to stream whole lines.
                if (subtype == 0 || subtype == 3 || subtype == 9 || subtype == 12) {
                    sizes.push_back({1024, 768});
                    sizes.push_back({1100, 2048});
                }
                for (auto [w, h] : sizes) {
                    SCOPED_TRACE(::testing::Message()
                                 << "subtype " << subtype << (bottomUp ? " bottom-up " : " ") << w << "x" << h);
                    const Layout& l = layouts[subtype];
                    FramePtr frame = make(0x01000000u | (bottomUp ? 0x100u : 0u) | subtype, w, h);
                    ASSERT_EQ(frame->getBufferSize(), static_cast<std::uint64_t>(w) * h * l.bpp);
                    EXPECT_EQ(frame->getBitsPerBand(), static_cast<std::uint32_t>(l.bits));
                    EXPECT_EQ(frame->getDataType(), l.bps == 1 ? 0 : l.isSigned ? 3 : 2);
                    const auto raw = noise(frame->getBufferSize(), rng);
                    frame->setBufferData(raw.data());
                    const auto expect = rgb24Reference(l, raw, w, h, bottomUp);
                    EXPECT_EQ(planesOf(*frame, expect.size()), expect);
                    // Three named planes and the conversion of a given source agree.
                    const std::size_t plane = expect.size() / 3;
                    std::vector<std::uint8_t> r(plane), g(plane), b(plane);
                    void* three[] = {r.data(), g.data(), b.data(), nullptr};
                    frame->getDataFromBuffer(three, raw.data(), 0);
                    EXPECT_TRUE(std::equal(g.begin(), g.end(), expect.begin() + plane));
                    EXPECT_TRUE(std::equal(b.begin(), b.end(), expect.begin() + 2 * plane));
                }
            }
    });
}

TEST(RGB24Frame, RawCopyDropsPadsReordersAndKeepsUnitBytes) {
    std::mt19937 rng(8);
    const int w = 3, h = 2;
    for (int subtype = 0; subtype < 18; ++subtype)
        for (bool bottomUp : {false, true}) {
            const Layout& l = layouts[subtype];
            FramePtr frame = make(0x01000000u | (bottomUp ? 0x100u : 0u) | subtype, w, h);
            const auto raw = noise(static_cast<std::size_t>(w) * h * l.bpp, rng);
            std::vector<std::uint8_t> out(w * h * 6, 0x5A), expect(out);
            if (l.bits == 8 || l.bits == 16) {
                // R, G, B units of each pixel; units keep their stored bytes (so a big-endian RGB
                // source comes out B, G, R, each unit still big-endian).
                const int unit = l.bps;
                for (int p = 0; p < w * h; ++p) {
                    int firstUnit[3];
                    for (int c = 0; c < 3; ++c) firstUnit[c] = std::min(l.off[c][0], l.off[c][1]);
                    std::sort(firstUnit, firstUnit + 3);
                    const bool reversed = l.off[0][0] > l.off[2][0] || (l.bps == 2 && l.off[0][0] > l.off[0][1]);
                    for (int k = 0; k < 3; ++k) {
                        const int src = firstUnit[reversed ? 2 - k : k];
                        std::memcpy(&expect[(p * 3 + k) * unit], &raw[p * l.bpp + src], unit);
                    }
                }
            }
            if (bottomUp) {
                const int rowBytes = (l.bits / 8) * w * 3;
                for (int k = 0; k < rowBytes; ++k) std::swap(expect[k], expect[rowBytes + k]);
            }
            void* dest[] = {out.data(), nullptr};
            frame->getDataFromBuffer(dest, raw.data(), 1);
            EXPECT_EQ(out, expect) << "subtype " << subtype << (bottomUp ? " bottom-up" : "");
        }
}

TEST(RGB24Frame, KnownValuesAndOddities) {
    FramePtr bgr = make(0x01000001, 1, 1);
    const std::uint8_t pixel[] = {1, 2, 3};
    bgr->setBufferData(pixel);
    EXPECT_EQ(planesOf(*bgr, 3), (std::vector<std::uint8_t>{3, 2, 1}));

    FramePtr bigEndian = make(0x01000008, 1, 1);
    const std::uint8_t wide[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
    bigEndian->setBufferData(wide);
    const auto samples = planesOf(*bigEndian, 6);
    std::uint16_t host[3];
    std::memcpy(host, samples.data(), 6);
    EXPECT_EQ(host[0], 0x1234);
    EXPECT_EQ(host[1], 0x5678);
    EXPECT_EQ(host[2], 0x9ABC);

    EXPECT_EQ(make(0x01000003, 5, 2)->getAlignedSize(), 40);  // 32 bits a pixel for subtype 3 only
    EXPECT_EQ(make(0x01000002, 5, 2)->getAlignedSize(), 32);
    EXPECT_EQ(make(0x01000000, 5, 2)->getAlignedSize(), 32);
    EXPECT_EQ(make(0x01000006, 5, 2)->getAlignedSize(), 32);
}

TEST(RGB24Frame, TenAndTwelveBitRawCopyOfABottomUpFrameOnlyFlipsTheDestination) {
    for (std::uint32_t subtype : {14u, 17u}) {
        FramePtr frame = make(0x01000100u | subtype, 2, 2);
        const std::vector<std::uint8_t> raw(24, 0xEE);
        // Rows of 3 * width bytes: 1 1 1 1 1 1 then 2 2 2 2 2 2; the rest untouched.
        std::vector<std::uint8_t> dest = {1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 7, 7};
        void* list[] = {dest.data(), nullptr};
        frame->getDataFromBuffer(list, raw.data(), 1);
        EXPECT_EQ(dest, (std::vector<std::uint8_t>{2, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1, 1, 7, 7}));
    }
}

TEST(RGB24Frame, RegionFillsCountRowsFromTheTop) {
    std::mt19937 rng(12);
    const int sw = 9, sh = 7, w = 4, h = 3;
    for (bool bottomUp : {false, true}) {
        const auto src = noise(sw * sh * 3, rng);
        FramePtr frame = make(0x01000000u | (bottomUp ? 0x100u : 0u), w, h);
        ASSERT_NE(frame->copyRegionToBuffer(src.data(), sw, sh, 3, 2), nullptr);
        const auto out = planesOf(*frame, w * h * 3);
        for (int x = 0; x < w; ++x)
            for (int y = 0; y < h; ++y) {
                // Image row 2 + y is stored row 2 + y top-down, sh - 1 - (2 + y) bottom-up.
                const int stored = bottomUp ? sh - 1 - (2 + y) : 2 + y;
                ASSERT_EQ(out[x * h + y], src[(stored * sw + 3 + x) * 3]) << x << "," << y;
            }
        EXPECT_EQ(frame->copyRegionToBuffer(src.data(), sw, sh, 6, 0), nullptr);  // leaves the source
    }
}

namespace {
// RGB16 unpacking, from the format table.
void rgb16Expected(int subtype, std::uint32_t p, std::uint32_t& r, std::uint32_t& g, std::uint32_t& b) {
    switch (subtype) {
        case 0: r = (p & 0x7C00) >> 7, g = (p & 0x03E0) >> 2, b = (p & 0x001F) << 3; break;
        case 1: r = (p & 0xF800) >> 8, g = (p & 0x07E0) >> 3, b = (p & 0x001F) << 3; break;
        case 2: r = (p & 0x0F00) >> 4, g = (p & 0x00F0), b = (p & 0x000F) << 4; break;
        case 3: r = (p & 0x3FF00000) >> 20, g = (p & 0x000FFC00) >> 10, b = (p & 0x000003FF); break;
        case 4: r = (p & 0x000003FF), g = (p & 0x000FFC00) >> 10, b = (p & 0x3FF00000) >> 20; break;
        case 5: r = (p & 0xFFC00000) >> 22, g = (p & 0x003FF000) >> 12, b = (p & 0x00000FFC) >> 2; break;
        case 6: r = (p & 0x00000FFC) >> 2, g = (p & 0x003FF000) >> 12, b = (p & 0xFFC00000) >> 22; break;
        case 7:
            r = ((p & 0x000000FF) << 2) | ((p & 0xC0000000) >> 30),
            g = ((p & 0x0000FF00) >> 6) | ((p & 0x30000000) >> 28);
            b = ((p & 0x00FF0000) >> 14) | ((p & 0x0C000000) >> 26);
            break;
        default:
            r = ((p & 0xFF000000) >> 22) | (p & 0x00000003), g = ((p & 0x00FF0000) >> 14) | ((p & 0x0000000C) >> 2);
            b = ((p & 0x0000FF00) >> 6) | ((p & 0x00000030) >> 4);
    }
}
}  // namespace

TEST(RGB16Frame, EverySubtypeUnpacksLikeTheTable) {
    std::mt19937 rng(6);
    for (int subtype = 0; subtype < 9; ++subtype)
        for (bool bottomUp : {false, true})
            for (auto [w, h] : {std::pair{5, 3}, {2, 7}, {1024, 768}, {700, 2048}}) {  // the last one streamed
                const int word = subtype < 3 ? 2 : 4, sample = subtype < 3 ? 1 : 2;
                FramePtr frame = make(0x05000000u | (bottomUp ? 0x100u : 0u) | subtype, w, h);
                EXPECT_EQ(frame->getDataType(), sample == 1 ? 0 : 2);
                EXPECT_EQ(frame->getBitsPerBand(), subtype < 3 ? 8u : 10u);
                const auto raw = noise(static_cast<std::size_t>(w) * h * word, rng);
                frame->setBufferData(raw.data());
                const std::size_t n = static_cast<std::size_t>(w) * h;
                const auto out = planesOf(*frame, 3 * n * sample);
                bool same = true;
                for (int x = 0; x < w && same; ++x)
                    for (int y = 0; y < h && same; ++y) {
                        std::uint32_t p = 0;
                        std::memcpy(&p, &raw[((bottomUp ? h - 1 - y : y) * w + x) * word], word);
                        std::uint32_t rgb[3];
                        rgb16Expected(subtype, p, rgb[0], rgb[1], rgb[2]);
                        for (int c = 0; c < 3; ++c) {
                            std::uint32_t got = 0;
                            std::memcpy(&got, &out[(c * n + x * h + y) * sample], sample);
                            same = same && got == (sample == 1 ? (rgb[c] & 0xFF) : rgb[c]);
                        }
                    }
                EXPECT_TRUE(same) << "subtype " << subtype << " " << w << "x" << h;
            }
}

TEST(RGB16Frame, AlignedSizesCountTwoBytesForEightBitPackings) {
    EXPECT_EQ(make(0x05000000, 3, 2)->getAlignedSize(), 16);
    EXPECT_EQ(make(0x05000003, 3, 2)->getAlignedSize(), 24);
}

namespace {
struct PlanarLayout {
    int bits, bps;
    bool isSigned, bigEndian;
};
const PlanarLayout planar[9] = {{8, 1, false, false},  {16, 2, false, false}, {16, 2, false, true},
                                {16, 2, true, false},  {16, 2, true, true},   {10, 2, false, false},
                                {12, 2, false, false}, {14, 2, false, false}, {8, 1, true, false}};
}  // namespace

TEST(RGB24Planar, EverySubtypeConvertsAndInterleaves) {
    std::mt19937 rng(10);
    for (int subtype = 0; subtype < 9; ++subtype)
        // The last two streamed: by size, and for columns a multiple of 1 KiB apart.
        for (auto [w, h] : {std::pair{5, 3}, {1, 1}, {1025, 769}, {700, 2048}, {70, 1024}}) {
            const PlanarLayout& l = planar[subtype];
            FramePtr frame = make(0x02000000u | subtype, w, h);
            EXPECT_EQ(frame->getDataType(), l.bps == 1 ? (l.isSigned ? 1 : 0) : (l.isSigned ? 3 : 2));
            const std::size_t n = static_cast<std::size_t>(w) * h, plane = n * l.bps;
            const auto raw = noise(3 * plane, rng);
            frame->setBufferData(raw.data());
            std::vector<std::uint8_t> expect(3 * plane);
            for (int c = 0; c < 3; ++c)
                for (int x = 0; x < w; ++x)
                    for (int y = 0; y < h; ++y)
                        for (int k = 0; k < l.bps; ++k)
                            expect[c * plane + (static_cast<std::size_t>(x) * h + y) * l.bps + k] =
                                raw[c * plane + (static_cast<std::size_t>(y) * w + x) * l.bps +
                                    (l.bigEndian ? l.bps - 1 - k : k)];
            EXPECT_EQ(planesOf(*frame, expect.size()), expect) << subtype;

            std::vector<std::uint8_t> interleaved(3 * plane, 0x33), expectRaw(3 * plane, 0x33);
            if (l.bits == 8 || l.bits == 16)
                for (std::size_t i = 0; i < n; ++i)
                    for (int c = 0; c < 3; ++c)
                        std::memcpy(&expectRaw[(3 * i + c) * l.bps], &raw[c * plane + i * l.bps], l.bps);
            void* dest[] = {interleaved.data(), nullptr};
            frame->getDataFromBuffer(dest, raw.data(), 1);
            EXPECT_EQ(interleaved, expectRaw) << subtype;
        }
}

TEST(RGB24Planar, RegionOriginIsNotScaledBySampleSize) {
    // A 16-bit planar source of 4 x 3: sample (x, y) of plane c holds 100 * c + 10 * y + x.
    const int sw = 4, sh = 3;
    std::vector<std::uint16_t> src(3 * sw * sh);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < sh; ++y)
            for (int x = 0; x < sw; ++x)
                src[c * sw * sh + y * sw + x] = static_cast<std::uint16_t>(100 * c + 10 * y + x);
    FramePtr frame = make(0x02000001, 2, 1);
    ASSERT_NE(frame->copyRegionToBuffer(reinterpret_cast<const std::uint8_t*>(src.data()), sw, sh, 0, 2), nullptr);
    // The origin moved by y * srcWidth = 8 bytes, that is 4 samples: row 1, not row 2.
    const auto out = planesOf(*frame, 12);
    std::uint16_t r[2];
    std::memcpy(r, out.data(), 4);
    EXPECT_EQ(r[0], 10);
    EXPECT_EQ(r[1], 11);
}

TEST(ColorFrames, SubtypesOutsideTheTablesConvertNothing) {
    for (std::uint32_t family : {0x01000000u, 0x02000000u, 0x05000000u, 0x03000000u, 0x04000000u})
        for (std::uint32_t subtype : {0x12u, 0x09u, 0x07u, 0x03u, 0xFFu}) {
            const std::uint32_t code = family | subtype;
            FramePtr frame = make(code, 4, 4);
            ASSERT_NE(frame, nullptr);
            std::vector<std::uint8_t> src(4 * 4 * 8, 1);
            frame->setBufferData(src.data());
            frame->copyRegionToBuffer(src.data(), 4, 4, 0, 0);
            std::vector<std::uint8_t> out(4 * 4 * 3 * 2, 0x77);
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
            frame->getDataFromBuffer(dest, src.data(), 0);
            frame->getDataFromBuffer(dest, src.data(), 1);
            void* result = nullptr;
            FrameDims dims{};
            frame->getDataInColorSpace(&result, &dims, COLORSPACE_MONO, nullptr, 0, nullptr);
            delete[] static_cast<std::uint8_t*>(result);
            // In-table subtypes of these families do convert; outside the tables nothing is written.
            const bool inTable = (family == 0x01000000u && subtype < 18) || (family == 0x02000000u && subtype < 9) ||
                                 (family == 0x05000000u && subtype < 9) || (family == 0x03000000u && subtype < 7) ||
                                 (family == 0x04000000u && subtype < 3);
            if (!inTable) {
                EXPECT_EQ(out, std::vector<std::uint8_t>(out.size(), 0x77)) << std::hex << code;
            }
        }
}

// The word unpacking kernels at every vector width, their planes stored in place or streamed in
// whole lines (bands of rows, columns that begin and end within lines, guards around the
// planes), for a layout of one field per channel and one of two.
TEST(RGB16Frame, WordImageKernelsMatchTheTable) {
    struct Case {
        int subtype;
        WordFields fields;
    };
    const Case cases[] = {
        {1, {{{0xF800, 8}, {}}, {{0x07E0, 3}, {}}, {{0x001F, -3}, {}}}},
        {7,
         {{{0x000000FF, -2}, {0xC0000000, 30}},
          {{0x0000FF00, 6}, {0x30000000, 28}},
          {{0x00FF0000, 14}, {0x0C000000, 26}}}},
    };
    std::mt19937 rng(16);
    forEachVectorWidth([&](int bits) {
        for (const Case& c : cases)
            for (auto [w, h] :
                 {std::pair<std::size_t, std::size_t>{70, 9}, {37, 1100}, {600, 20}, {130, 150}, {130, 216}})
                for (bool bottomUp : {false, true})
                    for (ColumnStores stores : {ColumnStores::Cached, ColumnStores::Streamed})
                        for (std::size_t offset : {0, 5}) {
                            const std::size_t word = c.subtype < 3 ? 2 : 4, sample = word / 2, n = w * h;
                            const auto raw = noise(n * word, rng);
                            std::vector<std::uint8_t> out((3 * n + 128) * sample, 0xEE);
                            std::uint8_t* const at = out.data() + (64 + offset) * sample;
                            std::uint8_t* const planes[3] = {at, at + n * sample, at + 2 * n * sample};
                            (word == 2 ? kernels().unpackWordImage16 : kernels().unpackWordImage32)(
                                raw.data(), w, h, bottomUp, c.fields, planes, stores);
                            bool same = true;
                            for (std::size_t x = 0; x < w; ++x)
                                for (std::size_t y = 0; y < h; ++y) {
                                    std::uint32_t p = 0, rgb[3], got = 0;
                                    std::memcpy(&p, &raw[((bottomUp ? h - 1 - y : y) * w + x) * word], word);
                                    rgb16Expected(c.subtype, p, rgb[0], rgb[1], rgb[2]);
                                    for (int k = 0; k < 3; ++k) {
                                        std::memcpy(&got, planes[k] + (x * h + y) * sample, sample);
                                        same = same && got == (sample == 1 ? (rgb[k] & 0xFF) : rgb[k]);
                                    }
                                }
                            const auto untouched = [](auto first, auto last) {
                                return std::all_of(first, last, [](std::uint8_t b) { return b == 0xEE; });
                            };
                            EXPECT_TRUE(same && untouched(out.data(), at) &&
                                        untouched(at + 3 * n * sample, out.data() + out.size()))
                                << "subtype " << c.subtype << " " << w << "x" << h << (bottomUp ? " bottom-up" : "")
                                << (stores == ColumnStores::Streamed ? " streamed" : "") << " at offset " << offset
                                << ", vectors up to " << bits << " bits";
                        }
    });
}
