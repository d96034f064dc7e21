#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include "frames/color/pixel_gather.h"
#include "frames/kernels/kernels.h"
#include "vector_widths.h"

using namespace lumoframekit;

namespace {

// Interleaved layouts: bytes per 16 pixels and, per plane, the byte of pixel i.
struct Layout {
    const char* name;
    std::size_t blockBytes;
    std::size_t (*byteOf)(int plane, std::size_t pixel);
};

const Layout layouts[] = {
    {"RGB", 48, [](int c, std::size_t i) { return 3 * i + static_cast<std::size_t>(c); }},
    {"BGR", 48, [](int c, std::size_t i) { return 3 * i + static_cast<std::size_t>(2 - c); }},
    {"BGRX", 64, [](int c, std::size_t i) { return 4 * i + static_cast<std::size_t>(2 - c); }},
    // U Y V Y: Y per pixel, U and V per pair.
    {"UYVY", 32, [](int c, std::size_t i) { return i / 2 * 4 + (c == 0   ? 1 + 2 * (i % 2)
                                                                : c == 1 ? 0
                                                                         : 2); }},
    // U Y Y V Y Y: chroma per four pixels.
    {"UYYVYY", 24,
     [](int c, std::size_t i) {
         return i / 4 * 6 + (c == 0 ? std::array<std::size_t, 4>{1, 2, 4, 5}[i % 4] : c == 1 ? 0 : 3);
     }},
    // Eight pixels in twelve bytes, chroma per four.
    {"8 in 12", 24,
     [](int c, std::size_t i) {
         constexpr std::array<std::size_t, 8> y{1, 3, 5, 7, 8, 9, 10, 11}, u{0, 0, 0, 0, 4, 4, 4, 4},
             v{2, 2, 2, 2, 6, 6, 6, 6};
         return i / 8 * 12 + (c == 0 ? y : c == 1 ? u : v)[i % 8];
     }},
};

PixelBlock blockOf(const Layout& layout) {
    PixelBlock block{{}, layout.blockBytes};
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < 16; ++i) block.byteOf[c][i] = static_cast<std::uint8_t>(layout.byteOf(c, i));
    return block;
}

}  // namespace

// Every kernel width against a plain loop, over sizes with whole blocks, partial ones, or both,
// the planes stored in place or streamed in bands of whole lines (several bands, the last one
// partial; several panels of columns), at an offset from a cache line or not; the source ends
// right after the last sample it holds, so blocks reading further are split sample by sample.
TEST(SplitInterleaved, EveryKernelMatchesThePlainLoop) {
    std::mt19937 rng(3);
    forEachVectorWidth([&](int bits) {
        for (const Layout& layout : layouts)
            for (auto [width, height] : {std::pair<std::size_t, std::size_t>{64, 48},
                                         {70, 37},
                                         {33, 16},
                                         {5, 3},
                                         {96, 17},
                                         {70, 100},
                                         {130, 1100},
                                         {400, 300},
                                         {100, 192},
                                         {100, 200}})
                for (bool flip : {false, true}) {
                    const std::size_t groups = (width + 15) / 16;
                    const std::size_t stride = groups * layout.blockBytes + 5;
                    std::size_t used = 0;  // bytes of the last row up to its last sample
                    for (int c = 0; c < 3; ++c)
                        used = std::max(used,
                                        (width - 1) / 16 * layout.blockBytes + layout.byteOf(c, (width - 1) % 16) + 1);
                    std::vector<std::uint8_t> src((height - 1) * stride + used);
                    for (auto& b : src) b = static_cast<std::uint8_t>(rng());
                    std::vector<std::uint8_t> expected(3 * width * height);
                    for (std::size_t x = 0; x < width; ++x)
                        for (std::size_t y = 0; y < height; ++y) {
                            const std::uint8_t* row = src.data() + (flip ? height - 1 - y : y) * stride;
                            for (int c = 0; c < 3; ++c)
                                expected[c * width * height + x * height + y] =
                                    row[x / 16 * layout.blockBytes + layout.byteOf(c, x % 16)];
                        }
                    for (ColumnStores stores : {ColumnStores::Cached, ColumnStores::Streamed})
                        for (std::size_t offset : {0, 7}) {
                            std::vector<std::uint8_t> out(expected.size() + 128, 0xEE);
                            std::uint8_t* const at = out.data() + 64 + offset;
                            std::uint8_t* const planes[3] = {at, at + width * height, at + 2 * width * height};
                            kernels().splitInterleaved(src.data(), stride, src.data() + src.size(), width, height, flip,
                                                       blockOf(layout), planes, stores);
                            EXPECT_EQ(std::vector<std::uint8_t>(at, at + expected.size()), expected)
                                << layout.name << " " << width << "x" << height << (flip ? " flipped" : "")
                                << (stores == ColumnStores::Streamed ? " streamed" : "") << " at offset " << offset
                                << ", vectors up to " << bits << " bits";
                            const auto guard = [](auto first, auto last) {
                                return std::all_of(first, last, [](std::uint8_t b) { return b == 0xEE; });
                            };
                            EXPECT_TRUE(guard(out.begin(), out.begin() + 64 + static_cast<std::ptrdiff_t>(offset)));
                            EXPECT_TRUE(guard(out.end() - 64 + static_cast<std::ptrdiff_t>(offset), out.end()));
                        }
                }
    });
}
