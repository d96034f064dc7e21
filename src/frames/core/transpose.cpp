#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace lumoframekit {

namespace {

// LUMO_VECTOR_BITS in the environment sets the starting limit, so that a whole program (a test
// suite, a host chasing a difference) can run on narrower kernels.
int initialWidthLimit() {
    const char* bits = std::getenv("LUMO_VECTOR_BITS");
    return bits != nullptr && *bits != '\0' ? std::atoi(bits) : 512;
}

std::atomic<int> widthLimit{initialWidthLimit()};

template <int N>
struct Unsigned;
template <>
struct Unsigned<1> {
    using type = std::uint8_t;
};
template <>
struct Unsigned<2> {
    using type = std::uint16_t;
};
template <>
struct Unsigned<4> {
    using type = std::uint32_t;
};
template <>
struct Unsigned<8> {
    using type = std::uint64_t;
};

template <int N>
inline typename Unsigned<N>::type swapped(typename Unsigned<N>::type v) {
    if constexpr (N == 2) return __builtin_bswap16(v);
    if constexpr (N == 4) return __builtin_bswap32(v);
    if constexpr (N == 8) return __builtin_bswap64(v);
    return v;
}

// The portable loop, over a block of the image.
template <int N>
void transposeScalar(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                     std::size_t rows, std::size_t r0, std::size_t r1, std::size_t c0, std::size_t c1, bool flip,
                     SampleOp op) {
    using U = typename Unsigned<N>::type;
    for (std::size_t c = c0; c < c1; ++c)
        for (std::size_t r = r0; r < r1; ++r) {
            U v;
            std::memcpy(&v, src + (flip ? rows - 1 - r : r) * srcRowBytes + c * N, N);
            if (op == SampleOp::ByteSwap) v = swapped<N>(v);
            if (op == SampleOp::Complement) v = static_cast<U>(~v);
            std::memcpy(dst + (c * dstColumn + r) * N, &v, N);
        }
}

#if defined(__SSE2__)

template <int N>
inline __m128i applyOp(__m128i v, SampleOp op) {
    if (op == SampleOp::Complement) return _mm_xor_si128(v, _mm_set1_epi32(-1));
    if (op != SampleOp::ByteSwap) return v;
    if constexpr (N == 1) return v;
    // Bytes reversed within each sample: swap bytes of 16-bit units, then 16-bit units of 32-bit
    // units, then 32-bit halves of 64-bit units.
    v = _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
    if constexpr (N >= 4) v = _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1);
    if constexpr (N == 8) v = _mm_shuffle_epi32(v, 0xB1);
    return v;
}

template <int N>
void transposeVector(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                     std::size_t rows, std::size_t cols, bool flip, SampleOp op) {
    constexpr std::size_t V = 16 / N;             // samples a vector holds
    constexpr std::size_t stripColumns = 64 / N;  // one cache line of each source row
    const std::size_t fullRows = rows / V * V, fullCols = cols / V * V;
    for (std::size_t s0 = 0; s0 < fullCols; s0 += stripColumns) {
        const std::size_t s1 = std::min(s0 + stripColumns, fullCols);
        for (std::size_t r0 = 0; r0 < fullRows; r0 += V)
            for (std::size_t c0 = s0; c0 < s1; c0 += V) {
                __m128i v[V];
                for (std::size_t i = 0; i < V; ++i) {
                    const std::size_t row = flip ? rows - 1 - (r0 + i) : r0 + i;
                    v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + row * srcRowBytes + c0 * N));
                }
                transposeVectors<N>(v);
                for (std::size_t k = 0; k < V; ++k) {
                    auto* at = reinterpret_cast<__m128i*>(dst + ((c0 + k) * dstColumn + r0) * N);
                    // Wide samples fill whole output lines a column at a time: streamed past the
                    // cache, they leave it to the source rows.
                    if (N == 8 && (reinterpret_cast<std::uintptr_t>(at) & 15) == 0)
                        _mm_stream_si128(at, applyOp<N>(v[k], op));
                    else
                        _mm_storeu_si128(at, applyOp<N>(v[k], op));
                }
            }
    }
    _mm_sfence();
    // The rows and columns that do not fill a vector.
    transposeScalar<N>(src, srcRowBytes, dst, dstColumn, rows, fullRows, rows, 0, cols, flip, op);
    transposeScalar<N>(src, srcRowBytes, dst, dstColumn, rows, 0, fullRows, fullCols, cols, flip, op);
}

#endif

#if defined(__x86_64__)

// The same on 512-bit vectors (AVX-512 BW): a vector holds four 16-byte chunks of a row, which
// the transpose keeps apart in its four parts, so a block is V rows by 4V samples (one cache line
// of each row) and each transposed vector gives four column pieces.
// The byte shuffle that reverses each N-byte sample within every 16-byte part.
template <int N>
LUMO_AVX512 __m512i byteSwapOrder() {
    alignas(16) std::int8_t order[16];
    for (int i = 0; i < 16; ++i) order[i] = static_cast<std::int8_t>(i / N * N + (N - 1 - i % N));
    return _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i*>(order)));
}

template <int N>
LUMO_AVX512 __m512i applyWidest(__m512i v, SampleOp op, __m512i swapOrder) {
    if (op == SampleOp::Complement) return _mm512_ternarylogic_epi32(v, v, v, 0x55);
    if (N == 1 || op != SampleOp::ByteSwap) return v;
    return _mm512_shuffle_epi8(v, swapOrder);
}

template <int N>
__attribute__((target("avx512f,avx512bw"))) void transposeWidestBlocks(const std::uint8_t* src, std::size_t srcRowBytes,
                                                                       std::uint8_t* dst, std::size_t dstColumn,
                                                                       std::size_t rows, std::size_t fullRows,
                                                                       std::size_t fullCols, bool flip, SampleOp op) {
    constexpr std::size_t V = 16 / N;
    const __m512i swapOrder = byteSwapOrder<N>();
    for (std::size_t c0 = 0; c0 < fullCols; c0 += 4 * V)
        for (std::size_t r0 = 0; r0 < fullRows; r0 += V) {
            __m512i v[V];
            for (std::size_t i = 0; i < V; ++i) {
                const std::size_t row = flip ? rows - 1 - (r0 + i) : r0 + i;
                v[i] = _mm512_loadu_si512(src + row * srcRowBytes + c0 * N);
            }
            transposeVectors512<N>(v);
            for (std::size_t k = 0; k < V; ++k) {
                __m128i parts[4];
                splitParts(applyWidest<N>(v[k], op, swapOrder), parts);
                for (std::size_t q = 0; q < 4; ++q) {
                    auto* at = reinterpret_cast<__m128i*>(dst + ((c0 + q * V + k) * dstColumn + r0) * N);
                    if (N == 8 && (reinterpret_cast<std::uintptr_t>(at) & 15) == 0)
                        _mm_stream_si128(at, parts[q]);
                    else
                        _mm_storeu_si128(at, parts[q]);
                }
            }
        }
    _mm_sfence();
}

// Whole blocks on 512-bit vectors; the columns right of them and the rows below on 128-bit ones
// and the portable loop.
template <int N>
void transposeWidest(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                     std::size_t rows, std::size_t cols, bool flip, SampleOp op) {
    constexpr std::size_t V = 16 / N;
    const std::size_t fullRows = rows / V * V, fullCols = cols / (4 * V) * (4 * V);
    transposeWidestBlocks<N>(src, srcRowBytes, dst, dstColumn, rows, fullRows, fullCols, flip, op);
    if (cols > fullCols)
        transposeVector<N>(src + fullCols * N, srcRowBytes, dst + fullCols * dstColumn * N, dstColumn, rows,
                           cols - fullCols, flip, op);
    transposeScalar<N>(src, srcRowBytes, dst, dstColumn, rows, fullRows, rows, 0, fullCols, flip, op);
}

#endif

}  // namespace

void limitVectorWidth(int bits) { widthLimit.store(bits, std::memory_order_relaxed); }

bool vectorKernelsEnabled() { return widthLimit.load(std::memory_order_relaxed) >= 128; }

bool shuffleKernelsAvailable() {
#if defined(__x86_64__)
    static const bool present = __builtin_cpu_supports("ssse3");
    return present && vectorKernelsEnabled();
#else
    return false;
#endif
}

bool wideKernelsAvailable() {
#if defined(__x86_64__)
    static const bool present = __builtin_cpu_supports("avx2");
    return present && widthLimit.load(std::memory_order_relaxed) >= 256;
#else
    return false;
#endif
}

bool widestKernelsAvailable() {
#if defined(__x86_64__)
    static const bool present = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
    return present && widthLimit.load(std::memory_order_relaxed) >= 512;
#else
    return false;
#endif
}

template <int N>
void transposeSamples(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                      std::size_t rows, std::size_t cols, bool flipRows, SampleOp op) {
#if defined(__x86_64__)
    if (widestKernelsAvailable()) {
        transposeWidest<N>(src, srcRowBytes, dst, dstColumn, rows, cols, flipRows, op);
        return;
    }
#endif
#if defined(__SSE2__)
    if (vectorKernelsEnabled()) {
        transposeVector<N>(src, srcRowBytes, dst, dstColumn, rows, cols, flipRows, op);
        return;
    }
#endif
    transposeScalar<N>(src, srcRowBytes, dst, dstColumn, rows, 0, rows, 0, cols, flipRows, op);
}

template void transposeSamples<1>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp);
template void transposeSamples<2>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp);
template void transposeSamples<4>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp);
template void transposeSamples<8>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp);

}  // namespace lumoframekit
