#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "frames/core/transpose.h"
#include "frames/color/chroma.h"
#include "vector_widths.h"

using namespace lumoframekit;

namespace {

// The column-major copy straight from its definition.
std::vector<std::uint8_t> reference(const std::vector<std::uint8_t>& src, int n, std::size_t rows, std::size_t cols,
                                    bool flip, SampleOp op) {
    std::vector<std::uint8_t> out(src.size());
    for (std::size_t c = 0; c < cols; ++c)
        for (std::size_t r = 0; r < rows; ++r)
            for (int k = 0; k < n; ++k) {
                const std::size_t from = ((flip ? rows - 1 - r : r) * cols + c) * n;
                std::uint8_t b = src[from + (op == SampleOp::ByteSwap ? n - 1 - k : k)];
                if (op == SampleOp::Complement) b = static_cast<std::uint8_t>(~b);
                out[(c * rows + r) * n + k] = b;
            }
    return out;
}

// Every size against the definition, the columns stored in place, streamed in whole lines, or in
// place with the lines of 8-bit columns that share an offset from a line streamed from the
// registers, into a destination at every offset from a cache line that a host array may have
// (192 rows: blocks that start below the top and stop above the bottom). Streaming
// takes bands of several lines of each column, carries the partial line between them, and
// stores the first and last lines of each column plainly: the sizes cover several bands, a last
// band that is partial, and columns that begin and end within lines; the guards around the
// destination catch a store outside it.
template <int N>
void check(int vectorBits) {
    std::mt19937 rng(N);
    constexpr std::size_t guard = 64;
    for (auto [rows, cols] : {std::pair<std::size_t, std::size_t>{1, 1},
                              {17, 33},
                              {16, 16},
                              {40, 7},
                              {3, 130},
                              {37, 140},
                              {64, 64},
                              {613, 131},
                              {300, 70},
                              {192, 130},
                              {208, 130},
                              {40, 4100},
                              {1088, 4100},
                              {2100, 4100}})
        for (ColumnStores stores : {ColumnStores::Cached, ColumnStores::Streamed, ColumnStores::Lines})
            for (std::size_t offset : {0, 16, 5}) {
                // Wide enough for several panels of columns: streamed, at one offset.
                if (cols > 1000 && rows < 1000 && (stores != ColumnStores::Streamed || offset != 5)) continue;
                // Over 8 MiB, where 8-bit columns stream in taller bands: streamed, at one offset.
                const bool large = rows * cols > (std::size_t{8} << 20);
                if (large && (N > 1 || stores != ColumnStores::Streamed || offset != 5)) continue;
                // Over 4 MiB, whose rows are read ahead: 8- and 16-bit samples in place.
                if (!large && rows > 1000 && (N > 2 || stores != ColumnStores::Lines || offset != 0)) continue;
                std::vector<std::uint8_t> src(rows * cols * N);
                for (auto& b : src) b = static_cast<std::uint8_t>(rng());
                for (bool flip : {false, true})
                    for (SampleOp op : {SampleOp::Copy, SampleOp::ByteSwap, SampleOp::Complement}) {
                        std::vector<std::uint8_t> out(src.size() + 2 * guard + 64, 0xEE);
                        std::uint8_t* const at = out.data() + guard + offset;
                        transposeSamples<N>(src.data(), cols * N, at, rows, rows, cols, flip, op, stores);
                        const std::vector<std::uint8_t> got(at, at + src.size()),
                            want = reference(src, N, rows, cols, flip, op);
                        const auto untouched = [](auto first, auto last) {
                            return std::all_of(first, last, [](std::uint8_t b) { return b == 0xEE; });
                        };
                        // The first differing byte: a failing comparison prints only the arrays' first elements.
                        EXPECT_TRUE(got == want)
                            << "first difference at byte "
                            << std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin() << ", " << N
                            << "-byte samples " << rows << "x" << cols << (flip ? " flipped" : "")
                            << (stores == ColumnStores::Streamed ? " streamed"
                                : stores == ColumnStores::Lines  ? " lines streamed"
                                                                 : "")
                            << " at offset " << offset << ", vectors up to " << vectorBits << " bits";
                        EXPECT_TRUE(untouched(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(guard + offset)));
                        EXPECT_TRUE(untouched(out.begin() + static_cast<std::ptrdiff_t>(guard + offset + src.size()),
                                              out.end()));
                    }
            }
}

// Samples split by parity and joined back at every count of pairs up to three 512-bit vectors of
// bytes, against the plain loop. Every array is followed by a guard of its own mark, other than
// the marks of the arrays it is made from, so that a store past it shows whatever it copies.
template <typename T>
void checkPairs(int vectorBits) {
    std::mt19937 rng(sizeof(T));
    constexpr std::size_t guard = 64;
    constexpr T inMark = static_cast<T>(0xEEEE), splitMark = static_cast<T>(0x5555),
                joinedMark = static_cast<T>(0x3333);
    const SampleKernels<T>& k = kernels().of<T>();
    for (std::size_t pairs = 0; pairs <= 200; ++pairs) {
        std::vector<T> in(2 * pairs + guard, inMark), even(pairs + guard, splitMark), odd(pairs + guard, splitMark),
            joined(2 * pairs + guard, joinedMark);
        std::generate(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(2 * pairs),
                      [&] { return static_cast<T>(rng()); });
        k.deinterleave(in.data(), even.data(), odd.data(), pairs);
        k.interleave(even.data(), odd.data(), joined.data(), pairs);
        bool split = true, same = true;
        for (std::size_t i = 0; i < pairs + guard; ++i)
            split = split && even[i] == (i < pairs ? in[2 * i] : splitMark) &&
                    odd[i] == (i < pairs ? in[2 * i + 1] : splitMark);
        for (std::size_t i = 0; i < 2 * pairs + guard; ++i)
            same = same && joined[i] == (i < 2 * pairs ? in[i] : joinedMark);
        EXPECT_TRUE(split) << sizeof(T) << "-byte samples, " << pairs << " pairs split, vectors up to " << vectorBits
                           << " bits";
        EXPECT_TRUE(same) << sizeof(T) << "-byte samples, " << pairs << " pairs joined, vectors up to " << vectorBits
                          << " bits";
    }
}

}  // namespace

TEST(Transpose, ParitySplitAndJoinMatchThePlainLoop) {
    forEachVectorWidth([](int bits) {
        checkPairs<std::uint8_t>(bits);
        checkPairs<std::uint16_t>(bits);
    });
}

TEST(Transpose, VectorAndPortableKernelsMatchTheDefinition) {
    forEachVectorWidth([](int bits) {
        check<1>(bits);
        check<2>(bits);
        check<4>(bits);
        check<8>(bits);
    });
}

// Widened chroma streamed to a large plane matches the same stored in place, column groups of
// every alignment included (odd row counts), and nothing lands outside the plane.
TEST(Transpose, StreamedChromaWideningMatchesStoresInPlace) {
    forEachVectorWidth([](int bits) {
        std::mt19937 rng(7);
        for (std::size_t n : {2, 4})
            for (auto [width, rows] : {std::pair<std::size_t, std::size_t>{1, 1}, {7, 5}, {130, 67}, {33, 300}})
                for (std::size_t offset : {0, 5}) {
                    const std::size_t chromaRows = (rows + n - 1) / n, chromaColumns = (width + n - 1) / n;
                    std::vector<std::uint8_t> columns(chromaRows * chromaColumns);
                    for (auto& b : columns) b = static_cast<std::uint8_t>(rng());
                    std::vector<std::uint8_t> inPlace(width * rows), streamed(width * rows + 128 + offset, 0xEE);
                    widenChroma(columns.data(), chromaRows, inPlace.data(), width, rows, n);
                    std::uint8_t* const at = streamed.data() + 64 + offset;
                    widenChroma(columns.data(), chromaRows, at, width, rows, n, ColumnStores::Streamed);
                    EXPECT_EQ(std::vector<std::uint8_t>(at, at + inPlace.size()), inPlace)
                        << width << "x" << rows << " by " << n << " at offset " << offset << ", " << bits << " bits";
                    EXPECT_TRUE(std::all_of(streamed.begin(),
                                            streamed.begin() + 64 + static_cast<std::ptrdiff_t>(offset),
                                            [](std::uint8_t b) { return b == 0xEE; }));
                    EXPECT_TRUE(
                        std::all_of(streamed.end() - 64, streamed.end(), [](std::uint8_t b) { return b == 0xEE; }));
                }
    });
}

// The demosaic's copy into padded columns, stored into the caches or streamed: columns on cache
// lines take whole lines (rows past the image zero), the columns right of the whole vectors and
// an unaligned destination the plain transpose; nothing lands past a column's lines.
template <typename T>
void checkIntoLines(int vectorBits) {
    std::mt19937 rng(sizeof(T));
    constexpr std::uint64_t perLine = 64 / sizeof(T);
    for (auto [rows, cols] : {std::pair<std::uint64_t, std::uint64_t>{1, 1}, {37, 70}, {64, 130}, {129, 77}})
        for (ColumnStores stores : {ColumnStores::Cached, ColumnStores::Streamed})
            for (std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{1}}) {
                std::vector<T> src(rows * cols);
                for (auto& v : src) v = static_cast<T>(rng());
                const std::uint64_t stride = (rows + perLine - 1) / perLine * perLine + perLine;
                std::vector<T> memory(stride * cols + 2 * perLine, T{0x5A});
                T* const at = memory.data() +
                              (perLine - reinterpret_cast<std::uintptr_t>(memory.data()) % 64 / sizeof(T)) % perLine +
                              offset;
                kernels().of<T>().transposeIntoLines(reinterpret_cast<const std::uint8_t*>(src.data()),
                                                     cols * sizeof(T), at, stride, rows, cols, stores);
                bool ok = true;
                for (std::uint64_t c = 0; c < cols; ++c) {
                    for (std::uint64_t r = 0; r < rows; ++r) ok = ok && at[c * stride + r] == src[r * cols + c];
                    // Past the image: zeros to the end of a whole line written, else untouched.
                    const std::uint64_t lineEnd = offset == 0 ? (rows + perLine - 1) / perLine * perLine : rows;
                    for (std::uint64_t r = rows; r < stride; ++r) {
                        const T v = at[c * stride + r];
                        ok = ok && (v == T{0x5A} || (r < lineEnd && v == T{0}));
                    }
                }
                EXPECT_TRUE(ok) << sizeof(T) << "-byte samples " << rows << "x" << cols << " offset " << offset
                                << (stores == ColumnStores::Streamed ? " streamed" : "") << ", vectors up to "
                                << vectorBits << " bits";
            }
}

TEST(Transpose, PaddedColumnsMatchTheDefinition) {
    forEachVectorWidth([](int bits) {
        checkIntoLines<std::uint8_t>(bits);
        checkIntoLines<std::uint16_t>(bits);
    });
}

// The threshold from the environment's value, else 16 MiB where wider samples stage, else from the
// shared cache's size.
TEST(Transpose, StreamingThresholdComesFromTheEnvironmentOrTheProcessor) {
    constexpr std::uint64_t MiB = std::uint64_t{1} << 20;
    const struct {
        const char* value;
        long cache;
        bool wideStaged;
        std::uint64_t threshold;
    } cases[] = {{nullptr, 32 << 20, false, 8 * MiB},
                 {nullptr, 0, false, 8 * MiB},
                 {nullptr, -1, false, 8 * MiB},
                 {nullptr, 300 << 20, true, 16 * MiB},
                 {"64", 32 << 20, false, 64 * MiB},
                 {"0", 32 << 20, true, 0},
                 {"", 4 << 20, false, MiB},
                 {"12x", 4 << 20, true, 16 * MiB},
                 {"-5", 4 << 20, false, MiB},
                 {" 7", 4 << 20, false, MiB},
                 {"1099511627776", 0, false, MiB << 40},
                 {"1099511627777", 0, false, 8 * MiB}};
    for (const auto& c : cases)
        EXPECT_EQ(streamingThresholdFrom(c.value, c.cache, c.wideStaged), c.threshold)
            << (c.value != nullptr ? c.value : "unset") << " with a shared cache of " << c.cache
            << (c.wideStaged ? ", wider samples staged" : "");
}

// Columns written down together collide where their stride leaves too few sets of the cache for
// them: a 48 KiB 12-way cache and a 32 KiB 8-way one, both of 64 sets of 64-byte lines.
TEST(Transpose, ColumnsCollideWhereTheirStrideCrowdsTheCacheSets) {
    const struct {
        std::uint64_t columnBytes, columns, ways;
        bool collide;
    } cases[] = {
        {1024, 64, 12, true},     {1024, 48, 12, false},     {1024, 64, 8, true},      {1000, 64, 12, false},
        {1080, 192, 12, false},   {1536, 64, 12, false},     {1536, 64, 8, false},     {1536, 192, 12, true},
        {2048, 32, 12, true},     {2048, 16, 12, false},     {4096, 16, 12, true},     {8192, 8, 12, false},
        {3 * 4096, 13, 12, true}, {65 * 64, 768, 12, false}, {65 * 64, 769, 12, true}, {7296, 192, 12, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(columnsCollide(c.columnBytes, c.columns, 64, 64, c.ways), c.collide)
            << c.columns << " columns " << c.columnBytes << " bytes apart, " << c.ways << " ways";
    // A cache whose shape is unknown never asks for streaming.
    EXPECT_FALSE(columnsCollide(1024, 1000, 0, 64, 12));
    EXPECT_FALSE(columnsCollide(1024, 1000, 64, 0, 12));
    EXPECT_FALSE(columnsCollide(1024, 1000, 64, 64, 0));
}
