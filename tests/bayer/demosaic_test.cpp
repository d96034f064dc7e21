#include <gtest/gtest.h>

#include <oneapi/tbb/global_control.h>

#include <cmath>
#include <optional>
#include <random>
#include <vector>

#include "frames/bayer/bayer_util.h"
#include "vector_widths.h"

using namespace lumoframekit;

namespace {

// A plain double-precision demosaic straight from the kernel definitions, reading the image
// through mirror reflection.
template <typename T>
std::vector<T> referenceDemosaic(const std::vector<T>& mosaic, int width, int height, std::uint32_t alignment,
                                 std::uint32_t bits) {
    const int sampleBits = 8 * sizeof(T);
    const double upper = (sampleBits == 8 ? 255.0 : 65535.0) / static_cast<double>(1 << (sampleBits - bits));
    auto at = [&](int y, int x) -> double {
        if (y < 0) y = -y;
        if (y >= height) y = 2 * (height - 1) - y;
        if (x < 0) x = -x;
        if (x >= width) x = 2 * (width - 1) - x;
        return mosaic[static_cast<std::size_t>(x) * height + y];
    };
    // Site kind at (row parity, column parity): 0 green on red row, 1 green on blue row, 2 red, 3 blue.
    int kinds[2][2];
    switch (alignment) {
        case 0: kinds[0][0] = 0, kinds[0][1] = 2, kinds[1][0] = 3, kinds[1][1] = 1; break;
        case 1: kinds[0][0] = 1, kinds[0][1] = 3, kinds[1][0] = 2, kinds[1][1] = 0; break;
        case 2: kinds[0][0] = 3, kinds[0][1] = 1, kinds[1][0] = 0, kinds[1][1] = 2; break;
        default: kinds[0][0] = 2, kinds[0][1] = 0, kinds[1][0] = 1, kinds[1][1] = 3; break;
    }
    const std::size_t n = static_cast<std::size_t>(width) * height;
    std::vector<T> out(3 * n);
    auto store = [&](double v) -> T {
        if (v >= upper)
            v = upper;
        else if (v < 0.0)
            v = 0.0;
        return static_cast<T>(std::trunc(v));
    };
    for (int x = 0; x < width; ++x)
        for (int y = 0; y < height; ++y) {
            const double c = at(y, x);
            const double n1 = at(y - 1, x), s1 = at(y + 1, x), w1 = at(y, x - 1), e1 = at(y, x + 1);
            const double n2 = at(y - 2, x), s2 = at(y + 2, x), w2 = at(y, x - 2), e2 = at(y, x + 2);
            const double diag = at(y - 1, x - 1) + at(y - 1, x + 1) + at(y + 1, x - 1) + at(y + 1, x + 1);
            const double gx = static_cast<int>(4 * c - (n2 + s2 + w2 + e2) + 2 * (n1 + s1 + w1 + e1)) * 0.125;
            const double cx = (6 * c - 1.5 * (n2 + s2 + w2 + e2) + 2 * diag) * 0.125;
            const double cv = (5 * c - diag - (n2 + s2) + 0.5 * (w2 + e2) + 4 * (n1 + s1)) * 0.125;
            const double ch = (5 * c - diag - (w2 + e2) + 0.5 * (n2 + s2) + 4 * (w1 + e1)) * 0.125;
            const std::size_t i = static_cast<std::size_t>(x) * height + y;
            const T raw = mosaic[i];
            T r, g, b;
            switch (kinds[y & 1][x & 1]) {
                case 0: r = store(ch), g = raw, b = store(cv); break;
                case 1: r = store(cv), g = raw, b = store(ch); break;
                case 2: r = raw, g = store(gx), b = store(cx); break;
                default: r = store(cx), g = store(gx), b = raw; break;
            }
            out[i] = r, out[n + i] = g, out[2 * n + i] = b;
        }
    return out;
}

// Demosaics the column-major mosaic, or with fromRows the same mosaic laid out row-major in rows
// three samples longer than the image (their spare samples hold junk).
template <typename T>
std::vector<T> run(const std::vector<T>& mosaic, int width, int height, std::uint32_t alignment, std::uint32_t bits,
                   T fill = 0, bool fromRows = false) {
    const std::size_t n = static_cast<std::size_t>(width) * height;
    std::vector<T> out(3 * n, fill);
    const std::pair<std::uint32_t, std::uint32_t> dims{static_cast<std::uint32_t>(height),
                                                       static_cast<std::uint32_t>(width)};
    if (fromRows) {
        const std::size_t pitch = static_cast<std::size_t>(width) + 3;
        std::vector<T> rows(pitch * height, static_cast<T>(0x5A5A));
        for (int x = 0; x < width; ++x)
            for (int y = 0; y < height; ++y) rows[y * pitch + x] = mosaic[static_cast<std::size_t>(x) * height + y];
        if constexpr (sizeof(T) == 1)
            BayerUtil::demosaicRows8(rows.data(), pitch, out.data(), out.data() + n, out.data() + 2 * n, dims,
                                     alignment, bits);
        else
            BayerUtil::demosaicRows16(rows.data(), pitch, out.data(), out.data() + n, out.data() + 2 * n, dims,
                                      alignment, bits);
    } else if constexpr (sizeof(T) == 1)
        BayerUtil::demosaic8(mosaic.data(), out.data(), out.data() + n, out.data() + 2 * n, n, dims, alignment, bits);
    else
        BayerUtil::demosaic16(mosaic.data(), out.data(), out.data() + n, out.data() + 2 * n, n, dims, alignment, bits);
    return out;
}

}  // namespace

// Both the vector kernels and the portable ones, over sizes whose columns hold whole vectors,
// short tails, or both, and widths whose columns are merged in several chunks, the last of one
// or two columns.
TEST(Demosaic, MatchesTheDoubleReferenceEverywhere) {
    std::mt19937 rng(5);
    forEachVectorWidth([&](int kernels) {
        for (std::uint32_t bits : {8u, 10u, 12u, 14u, 16u}) {
            for (auto [w, h] :
                 {std::pair{3, 3}, {4, 4}, {5, 3}, {3, 6}, {8, 7}, {17, 12}, {70, 67}, {37, 130}, {259, 5}}) {
                for (std::uint32_t alignment : {0u, 1u, 2u, 4u}) {
                    SCOPED_TRACE(::testing::Message() << bits << " bits " << w << "x" << h << " alignment " << alignment
                                                      << " vectors up to " << kernels << " bits");
                    if (bits == 8) {
                        std::vector<std::uint8_t> mosaic(static_cast<std::size_t>(w) * h);
                        for (auto& v : mosaic) v = static_cast<std::uint8_t>(rng());
                        // Sentinel 0xA5 shows any element left unwritten.
                        const auto expected = referenceDemosaic(mosaic, w, h, alignment, bits);
                        EXPECT_EQ(run(mosaic, w, h, alignment, bits, std::uint8_t{0xA5}), expected);
                        EXPECT_EQ(run(mosaic, w, h, alignment, bits, std::uint8_t{0xA5}, true), expected);
                    } else {
                        // Samples up to the full 16 bits, so that raw values above 2^bits pass through
                        // unclamped and computed ones clamp.
                        std::vector<std::uint16_t> mosaic(static_cast<std::size_t>(w) * h);
                        for (auto& v : mosaic)
                            v = static_cast<std::uint16_t>(rng() >> (rng() % 2 ? 16 : 16 + 16 - bits));
                        const auto expected = referenceDemosaic(mosaic, w, h, alignment, bits);
                        EXPECT_EQ(run(mosaic, w, h, alignment, bits, std::uint16_t{0xA5A5}), expected);
                        EXPECT_EQ(run(mosaic, w, h, alignment, bits, std::uint16_t{0xA5A5}, true), expected);
                    }
                }
            }
        }
    });
}

// The padded copy's second half is written by whichever thread takes it, and each chunk of a pair
// of tasks' columns merged by whichever of the two finishes it last: the planes are the same
// whichever threads run the tasks, with every task on the calling thread (one thread allowed) or
// spread over the pool. The image is large enough that the merges stream the host planes, in
// columns of an odd height that start at every offset from a cache line.
TEST(Demosaic, PlanesAreTheSameWhicheverThreadsRunTheTasks) {
    constexpr int width = 1201, height = 2049;
    std::mt19937 rng(11);
    std::vector<std::uint8_t> mosaic(static_cast<std::size_t>(width) * height);
    for (auto& v : mosaic) v = static_cast<std::uint8_t>(rng());
    std::vector<std::uint16_t> mosaic16(mosaic.size());
    for (auto& v : mosaic16) v = static_cast<std::uint16_t>(rng() >> 20);
    const auto expected = referenceDemosaic(mosaic, width, height, 2, 8);
    const auto expected16 = referenceDemosaic(mosaic16, width, height, 1, 12);
    for (std::size_t threads : {std::size_t{1}, std::size_t{0}}) {
        std::optional<oneapi::tbb::global_control> limit;
        if (threads != 0) limit.emplace(oneapi::tbb::global_control::max_allowed_parallelism, threads);
        for (int round = 0; round < 6; ++round) {
            EXPECT_EQ(run(mosaic, width, height, 2, 8, std::uint8_t{0xA5}, round % 2 == 1), expected)
                << threads << " " << round;
            EXPECT_EQ(run(mosaic16, width, height, 1, 12, std::uint16_t{0xA5A5}, round % 2 == 1), expected16)
                << threads << " " << round;
        }
    }
}

TEST(Demosaic, UniformMosaicGivesItsValueEverywhere) {
    for (std::uint32_t alignment : {0u, 1u, 2u, 4u}) {
        const std::vector<std::uint16_t> mosaic(7 * 5, 1234);
        EXPECT_EQ(run(mosaic, 7, 5, alignment, 12), std::vector<std::uint16_t>(3 * 35, 1234));
    }
}

TEST(Demosaic, UnknownPatternsLeaveThePlanesAlone) {
    const std::vector<std::uint8_t> mosaic(16, 9);
    for (std::uint32_t alignment : {3u, 5u, 0xFFFFFFFFu})
        EXPECT_EQ(run(mosaic, 4, 4, alignment, 8, std::uint8_t{77}), std::vector<std::uint8_t>(48, 77));
}

TEST(Demosaic, ClampsComputedValuesButNotRawOnes) {
    // A lone bright green among zeros: neighbouring red and blue sites get negative sums.
    std::vector<std::uint16_t> mosaic(25, 0);
    mosaic[2 * 5 + 2] = 4000;  // centre of a 5 x 5 grbg mosaic: a green site
    const auto out = run(mosaic, 5, 5, 0, 12);
    for (std::uint16_t v : out) EXPECT_LE(v, 4000);
    // Raw 12-bit samples above 4095 pass through; computed values stop at 4095.
    std::vector<std::uint16_t> hot(25, 60000);
    const auto hotOut = run(hot, 5, 5, 4, 12);
    EXPECT_EQ(hotOut[0], 60000);      // red plane at a red site: the raw sample
    EXPECT_EQ(hotOut[25 + 0], 4095);  // green computed there
}

TEST(Demosaic, TinyImagesStayInsideTheirPlanes) {
    for (auto [w, h] : {std::pair{1, 1}, {2, 2}, {1, 5}, {6, 2}, {2, 1}}) {
        const std::vector<std::uint8_t> mosaic(static_cast<std::size_t>(w) * h, 50);
        for (bool fromRows : {false, true})
            EXPECT_EQ(run(mosaic, w, h, 4, 8, std::uint8_t{0}, fromRows),
                      std::vector<std::uint8_t>(3 * mosaic.size(), 50))
                << w << "x" << h;
    }
    EXPECT_TRUE(run(std::vector<std::uint8_t>{}, 0, 4, 0, 8).empty());
}
