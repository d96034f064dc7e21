#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "frames/core/transpose.h"
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

template <int N>
void check(int vectorBits) {
    std::mt19937 rng(N);
    for (auto [rows, cols] :
         {std::pair<std::size_t, std::size_t>{1, 1}, {17, 33}, {16, 16}, {40, 7}, {3, 130}, {37, 140}, {64, 64}}) {
        std::vector<std::uint8_t> src(rows * cols * N);
        for (auto& b : src) b = static_cast<std::uint8_t>(rng());
        for (bool flip : {false, true})
            for (SampleOp op : {SampleOp::Copy, SampleOp::ByteSwap, SampleOp::Complement}) {
                std::vector<std::uint8_t> out(src.size(), 0);
                transposeSamples<N>(src.data(), cols * N, out.data(), rows, rows, cols, flip, op);
                EXPECT_EQ(out, reference(src, N, rows, cols, flip, op))
                    << N << " bytes " << rows << "x" << cols << (flip ? " flipped" : "") << " vectors up to "
                    << vectorBits << " bits";
            }
    }
}

}  // namespace

TEST(Transpose, VectorAndPortableKernelsMatchTheDefinition) {
    forEachVectorWidth([](int bits) {
        check<1>(bits);
        check<2>(bits);
        check<4>(bits);
        check<8>(bits);
    });
}
