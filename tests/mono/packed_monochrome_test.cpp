#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "frames/kernels/kernels.h"
#include "lumoframekit/lumoframekit.h"
#include "test_support.h"
#include "vector_widths.h"

using namespace lumoframekit;
using lumotest::FramePtr;
using lumotest::make;

namespace {

std::vector<std::uint16_t> unpacked(IFrame& frame) {
    const FrameDims* dims = frame.getDimensions();
    std::vector<std::uint16_t> out(static_cast<std::size_t>(dims->width) * dims->height, 0xBEEF);
    void* dest[] = {out.data(), nullptr};
    frame.getData(dest);
    return out;
}

// Packs pixel values the way a camera does, a row at a time, rows padded to whole groups.
std::vector<std::uint8_t> pack(std::uint32_t code, const std::vector<std::uint16_t>& pixels, int width, int height) {
    const bool fourInFive = code == 0x11010023;
    const int ppg = fourInFive ? 4 : 2, bpg = fourInFive ? 5 : 3;
    const int groups = (width + ppg - 1) / ppg;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(groups) * bpg * height, 0);
    for (int y = 0; y < height; ++y)
        for (int g = 0; g < groups; ++g) {
            std::uint16_t p[4] = {};
            for (int k = 0; k < ppg && g * ppg + k < width; ++k) p[k] = pixels[y * width + g * ppg + k];
            std::uint8_t* b = &out[(static_cast<std::size_t>(y) * groups + g) * bpg];
            switch (code) {
                case 0x11010018:
                    b[0] = p[0] >> 2, b[2] = p[1] >> 2, b[1] = static_cast<std::uint8_t>((p[0] & 3) | (p[1] & 3) << 4);
                    break;
                case 0x11010019:
                    b[0] = p[0] >> 4, b[2] = p[1] >> 4,
                    b[1] = static_cast<std::uint8_t>((p[0] & 15) | (p[1] & 15) << 4);
                    break;
                case 0x11010024:
                    b[0] = p[0] & 0xFF, b[2] = p[1] >> 4,
                    b[1] = static_cast<std::uint8_t>((p[0] >> 8) | (p[1] & 15) << 4);
                    break;
                default: {
                    std::uint64_t bits =
                        p[0] | std::uint64_t{p[1]} << 10 | std::uint64_t{p[2]} << 20 | std::uint64_t{p[3]} << 30;
                    for (int i = 0; i < 5; ++i) b[i] = static_cast<std::uint8_t>(bits >> (8 * i));
                }
            }
        }
    return out;
}

}  // namespace

TEST(PackedMonochrome, KnownGroups) {
    const std::uint8_t group[] = {0xAB, 0xCD, 0xEF};
    FramePtr msb = make(0x11010019, 2, 1), lsb = make(0x11010024, 2, 1);
    msb->copyRegionToBuffer(group, 2, 1, 0, 0);
    lsb->copyRegionToBuffer(group, 2, 1, 0, 0);
    EXPECT_EQ(unpacked(*msb), (std::vector<std::uint16_t>{0xABD, 0xEFC}));
    EXPECT_EQ(unpacked(*lsb), (std::vector<std::uint16_t>{0xDAB, 0xEFC}));

    const std::uint8_t ones[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    FramePtr ten = make(0x11010023, 4, 1);
    ten->copyRegionToBuffer(ones, 4, 1, 0, 0);
    EXPECT_EQ(unpacked(*ten), (std::vector<std::uint16_t>(4, 0x3FF)));
    EXPECT_EQ(ten->getDataType(), 2);
    EXPECT_EQ(ten->getBitsPerBand(), 10u);
}

TEST(PackedMonochrome, WholeImagesRoundTripForEveryPacking) {
    std::mt19937 rng(11);
    for (std::uint32_t code : {0x11010018u, 0x11010019u, 0x11010023u, 0x11010024u}) {
        const std::uint16_t mask = (code == 0x11010019u || code == 0x11010024u) ? 0xFFF : 0x3FF;
        for (auto [w, h] : {std::pair{4, 3},
                            {8, 5},
                            {2, 1},
                            {6, 2},
                            {5, 3},
                            {7, 2},
                            {1, 1},
                            {1920, 4},
                            {16, 9},
                            {40, 17},
                            {136, 512}}) {
            std::vector<std::uint16_t> pixels(static_cast<std::size_t>(w) * h);
            for (auto& p : pixels) p = static_cast<std::uint16_t>(rng() & mask);
            const auto packed = pack(code, pixels, w, h);
            FramePtr frame = make(code, w, h);
            const int ppg = code == 0x11010023u ? 4 : 2;
            const int srcWidth = (w + ppg - 1) / ppg * ppg;  // source rows of whole groups
            ASSERT_NE(frame->copyRegionToBuffer(packed.data(), srcWidth, h, 0, 0), nullptr);
            const auto out = unpacked(*frame);
            // Source rows advance by the frame's packed length rounded down, so only rows of
            // whole groups (or a single row) come back exactly; the rest must merely be safe.
            if (w % ppg != 0 && h != 1) continue;
            std::vector<std::uint16_t> expect(pixels.size());
            for (int x = 0; x < w; ++x)
                for (int y = 0; y < h; ++y) expect[static_cast<std::size_t>(x) * h + y] = pixels[y * w + x];
            EXPECT_EQ(out, expect) << std::hex << code << std::dec << " " << w << "x" << h;
        }
    }
}

namespace {

// The unpacking as defined: pixel c of a row at byte c * bytes / pixels (rounded down for 4-in-5,
// up for 2-in-3), decoded from that byte and its neighbour, rows rowBytes apart.
std::uint16_t definedPixel(std::uint32_t code, const std::vector<std::uint8_t>& buf, std::size_t rowStart,
                           std::size_t c) {
    if (code == 0x11010023) {
        const std::uint8_t* b = &buf[rowStart + c * 5 / 4];
        const int shift = 2 * static_cast<int>(c % 4);
        return static_cast<std::uint16_t>(((b[0] | b[1] << 8) >> shift) & 0x3FF);
    }
    const std::uint8_t* b = &buf[rowStart + (c * 3 + 1) / 2];
    const int shared = c % 2 ? b[-1] >> 4 : b[1] & 0x0F;
    if (code == 0x11010018) return static_cast<std::uint16_t>(b[0] << 2 | (shared & 3));
    if (code == 0x11010024 && c % 2 == 0) return static_cast<std::uint16_t>((b[1] & 0x0F) << 8 | b[0]);
    return static_cast<std::uint16_t>(b[0] << 4 | shared);
}

}  // namespace

TEST(PackedMonochrome, RegionsWithPadsUnpackAsDefined) {
    std::mt19937 rng(31);
    for (std::uint32_t code : {0x11010018u, 0x11010019u, 0x11010023u, 0x11010024u})
        for (auto [w, h, x] : {std::tuple{17, 9, 3}, {24, 16, 1}, {9, 11, 5}, {33, 8, 2}}) {
            const int ppg = code == 0x11010023u ? 4 : 2, bpg = ppg == 4 ? 5 : 3;
            const int srcWidth = 64, srcHeight = 20;
            std::vector<std::uint8_t> src(srcWidth * bpg / ppg * srcHeight);
            for (auto& b : src) b = static_cast<std::uint8_t>(rng());
            FramePtr frame = make(code, w, h);
            if (frame->copyRegionToBuffer(src.data(), srcWidth, srcHeight, x, 1) == nullptr) continue;
            // The buffer as the region copy fills it: whole groups, rows at the frame's packed length.
            const int start = x - x % ppg, lead = start != x ? 1 : 0;
            const int rowLength = (w + ppg - 1) / ppg * ppg, pad = ppg == 4 ? 3 : 1;
            const std::size_t copyRow = rowLength * bpg / ppg, stride = w * bpg / ppg;
            std::vector<std::uint8_t> buf(frame->getBufferSize() + 8, 0);
            for (int r = 0; r < h; ++r)
                std::copy_n(&src[start * bpg / ppg + srcWidth * bpg / ppg + r * stride], copyRow, &buf[r * copyRow]);
            const std::size_t rowBytes = (w + lead * pad + (w % ppg ? pad : 0)) * bpg / ppg;
            const auto out = unpacked(*frame);
            for (int c = 0; c < w; ++c)
                for (int r = 0; r < h; ++r)
                    ASSERT_EQ(out[static_cast<std::size_t>(c) * h + r], definedPixel(code, buf, r * rowBytes, c + lead))
                        << std::hex << code << std::dec << " " << w << "x" << h << " at " << x << ": " << c << "," << r;
        }
}

TEST(PackedMonochrome, LeadAndTrailPadsFollowTheRegion) {
    // A 2-in-3 frame of width 3 taken at column 5 starts at column 4 and counts width 5.
    std::vector<std::uint8_t> src(3 * 12, 0x11);
    FramePtr frame = make(0x11010019, 3, 2);
    EXPECT_EQ(frame->getBufferSize(), 9u);  // 3 * 2 * 3 / 2 before any region
    ASSERT_NE(frame->copyRegionToBuffer(src.data(), 8, 4, 5, 1), nullptr);
    EXPECT_EQ(frame->getBufferSize(), 15u);  // (3 + 1 + 1) * 2 * 3 / 2
    for (std::uint16_t v : unpacked(*frame)) {
        EXPECT_NE(v, 0xBEEF);
    }

    FramePtr fourInFive = make(0x11010023, 6, 2);
    ASSERT_NE(fourInFive->copyRegionToBuffer(src.data(), 8, 4, 2, 0), nullptr);
    EXPECT_EQ(fourInFive->getBufferSize(), 30u);  // (6 + 3 + 3) * 2 * 5 / 4
}

TEST(PackedMonochrome, InconsistentGeometriesStayInsideTheirBuffers) {
    // Geometries where the unpacking's row length disagrees with the copied rows: the values are
    // of no use but every read stays in the buffer and unwritten bytes read as zero.
    std::vector<std::uint8_t> src(64, 0xFF);
    for (auto [code, w, h, x] : {std::tuple{0x11010023u, 6, 3, 0u},
                                 {0x11010023u, 7, 2, 0u},
                                 {0x11010019u, 4, 1, 1u},
                                 {0x11010018u, 2, 1, 3u},
                                 {0x11010024u, 4, 3, 1u}}) {
        FramePtr frame = make(code, w, h);
        frame->copyRegionToBuffer(src.data(), 8, 4, x, 0);
        const auto out = unpacked(*frame);
        for (std::uint16_t v : out) {
            EXPECT_LE(v, 0xFFF);
        }
    }
    // A buffer allocated before any region copy is too small for a padded region: it is replaced,
    // so a fill of getBufferSize() bytes always fits what allocateBuffer() returns.
    FramePtr early = make(0x11010019, 3, 2);
    ASSERT_NE(early->allocateBuffer(), nullptr);
    EXPECT_EQ(early->getBufferSize(), 9u);
    ASSERT_NE(early->copyRegionToBuffer(src.data(), 8, 4, 5, 1), nullptr);
    ASSERT_EQ(early->getBufferSize(), 15u);  // (3 + 1 + 1) * 2 * 3 / 2
    auto exact = std::make_unique<std::uint8_t[]>(early->getBufferSize());
    std::memcpy(early->allocateBuffer(), exact.get(), early->getBufferSize());
    EXPECT_EQ(unpacked(*early).size(), 6u);
}

TEST(PackedMonochrome, WholeFramesOfPartialGroupsCopyEveryRow) {
    // Odd widths (2-in-3) and widths not a multiple of 4 (4-in-5): the last row of a whole-frame
    // copy reaches past the source's packed bytes, read as zeros; ASan sees every read.
    for (auto [code, w, h] : {std::tuple{0x11010019u, 3, 2},
                              {0x11010018u, 5, 3},
                              {0x11010023u, 6, 2},
                              {0x11010023u, 7, 3},
                              {0x11010024u, 1, 4}}) {
        FramePtr frame = make(code, w, h);
        const bool fourInFive = code == 0x11010023u;
        const std::size_t rowBytes = static_cast<std::size_t>(w) * (fourInFive ? 5 : 3) / (fourInFive ? 4 : 2);
        auto src = std::make_unique<std::uint8_t[]>(rowBytes * h);
        std::memset(src.get(), 0xFF, rowBytes * h);
        ASSERT_NE(frame->copyRegionToBuffer(src.get(), w, h, 0, 0), nullptr) << std::hex << code << " " << w;
        const auto out = unpacked(*frame);
        ASSERT_EQ(out.size(), static_cast<std::size_t>(w * h));
        // Rows before the last are read whole from the source: their first pixel is all ones.
        for (int y = 0; y + 1 < h; ++y) EXPECT_EQ(out[y], fourInFive ? 0x3FF : (code == 0x11010018u ? 0x3FF : 0xFFF));
    }
}

TEST(PackedMonochrome, RegionsOutsideTheSourceAreRefused) {
    std::vector<std::uint8_t> src(3 * 4, 0);  // 4 x 2 pixels packed 2-in-3: 6 bytes a row
    FramePtr frame = make(0x11010018, 4, 2);
    EXPECT_EQ(frame->copyRegionToBuffer(src.data(), 4, 2, 0, 1), nullptr);
    EXPECT_EQ(frame->copyRegionToBuffer(src.data(), 4, 2, 2, 0), nullptr);
    EXPECT_EQ(frame->copyRegionToBuffer(nullptr, 4, 2, 0, 0), nullptr);
    EXPECT_FALSE(frame->isBufferAllocated());
    EXPECT_NE(frame->copyRegionToBuffer(src.data(), 4, 2, 0, 0), nullptr);
    FramePtr empty = make(0x11010018, 0, 2);
    EXPECT_NE(empty->copyRegionToBuffer(src.data(), 4, 2, 0, 0), nullptr);
    EXPECT_TRUE(unpacked(*empty).empty());
    EXPECT_THROW(PackedMonochromeFrame(4, 4, 11, 0), std::invalid_argument);
    // A negative height makes a size no allocation satisfies, including the zeroed slack.
    FramePtr negative = make(0x11010024, 1, -1);
    EXPECT_THROW(negative->allocateBuffer(), std::bad_alloc);
    MemoryLimiter limiter(0, ~0ull);
    negative->setMemoryLimiter(&limiter);
    EXPECT_EQ(negative->allocateBuffer(), nullptr);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

// The column-major unpack of every packing at every vector width against the definition, its
// columns stored in place or streamed in whole lines (several bands of rows, several panels of
// columns, columns that begin and end within lines, a source large enough to be read ahead), with
// guards around the destination.
TEST(PackedMonochrome, EveryUnpackKernelMatchesTheDefinition) {
    constexpr std::uint32_t codes[] = {0x11010018u, 0x11010019u, 0x11010024u, 0x11010023u};  // by kPackings row
    static_assert(std::size(codes) == std::size(kPackings));
    std::mt19937 rng(41);
    forEachVectorWidth([&](int bits) {
        for (std::size_t packing = 0; packing < std::size(kPackings); ++packing)
            for (auto [w, h] :
                 {std::pair<std::size_t, std::size_t>{37, 9}, {64, 16}, {150, 300}, {3300, 20}, {1024, 3300}}) {
                const auto ppg = static_cast<std::size_t>(kPackings[packing].pixelsPerGroup);
                const std::size_t rowBytes =
                    (w + ppg - 1) / ppg * static_cast<std::size_t>(kPackings[packing].bytesPerGroup);
                std::vector<std::uint8_t> buf(rowBytes * h + 4);
                for (auto& b : buf) b = static_cast<std::uint8_t>(rng());
                for (ColumnStores stores : {ColumnStores::Cached, ColumnStores::Streamed})
                    for (std::size_t offset : {0, 3}) {
                        // Over 4 MiB of source, whose rows the joined lines ask for ahead: streamed,
                        // with the vectors that join.
                        if (h > 2048 && (bits != 512 || stores != ColumnStores::Streamed || offset != 0)) continue;
                        std::vector<std::uint16_t> out(w * h + 64, 0xBEEF);
                        std::uint16_t* const at = out.data() + 32 + offset;
                        kernels().unpack[packing](at, buf.data(), buf.data() + buf.size(), rowBytes, 0, w, h, stores);
                        for (std::size_t c = 0; c < w; ++c)
                            for (std::size_t r = 0; r < h; ++r)
                                ASSERT_EQ(at[c * h + r], definedPixel(codes[packing], buf, r * rowBytes, c))
                                    << std::hex << codes[packing] << std::dec << " " << w << "x" << h
                                    << (stores == ColumnStores::Streamed ? " streamed" : "") << " at offset " << offset
                                    << ", vectors up to " << bits << " bits: " << c << "," << r;
                        EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 32 + static_cast<std::ptrdiff_t>(offset),
                                                [](std::uint16_t v) { return v == 0xBEEF; }));
                        EXPECT_TRUE(std::all_of(at + w * h, out.data() + out.size(),
                                                [](std::uint16_t v) { return v == 0xBEEF; }));
                    }
            }
    });
}
