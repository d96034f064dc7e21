#pragma once
// The in-register transposes that the blocked copy-outs build on, on 128-bit vectors and, chosen
// at run time, on 256-bit (AVX2) and 512-bit (AVX-512 BW) ones.
#if defined(__SSE2__)
#include <emmintrin.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

// GCC 12's 512-bit intrinsics pass an undefined vector through their unused mask operand, which
// its own flow analysis then reports as (maybe) uninitialised.
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

// Helpers of the 256-bit and 512-bit kernels: always inlined into functions built for them.
#define LUMO_AVX2 __attribute__((target("avx2"), always_inline)) inline
#define LUMO_AVX512 __attribute__((target("avx512f,avx512bw"), always_inline)) inline

namespace lumoframekit {

// Transposes the V x V samples held in row vectors v[0..V-1] (V = 16 / N) in place, by rounds of
// interleaving pairs of vectors at doubling widths.
template <int N>
inline void transposeVectors(__m128i* v) {
    constexpr int V = 16 / N;
    __m128i t[V];
    auto round = [&](auto lo, auto hi) {
        for (int i = 0; i < V / 2; ++i) {
            t[2 * i] = lo(v[i], v[i + V / 2]);
            t[2 * i + 1] = hi(v[i], v[i + V / 2]);
        }
        for (int i = 0; i < V; ++i) v[i] = t[i];
    };
    // Each round interleaves row i with row i + V/2; after log2(V) rounds of the sample width the
    // vectors hold columns.
    for (int step = 0; (1 << step) < V; ++step) {
        if constexpr (N == 1)
            round(_mm_unpacklo_epi8, _mm_unpackhi_epi8);
        else if constexpr (N == 2)
            round(_mm_unpacklo_epi16, _mm_unpackhi_epi16);
        else if constexpr (N == 4)
            round(_mm_unpacklo_epi32, _mm_unpackhi_epi32);
        else
            round(_mm_unpacklo_epi64, _mm_unpackhi_epi64);
    }
}

#if defined(__x86_64__)
// The same within each 128-bit part of wider vectors: the parts of a row vector are transposed
// side by side and stay apart, so v[k] ends up holding column k of each part.
template <int N>
LUMO_AVX2 void transposeVectors256(__m256i* v) {
    constexpr int V = 16 / N;
    for (int step = 0; (1 << step) < V; ++step) {
        __m256i t[V];
        for (int i = 0; i < V / 2; ++i) {
            const __m256i a = v[i], b = v[i + V / 2];
            if constexpr (N == 1)
                t[2 * i] = _mm256_unpacklo_epi8(a, b), t[2 * i + 1] = _mm256_unpackhi_epi8(a, b);
            else if constexpr (N == 2)
                t[2 * i] = _mm256_unpacklo_epi16(a, b), t[2 * i + 1] = _mm256_unpackhi_epi16(a, b);
            else if constexpr (N == 4)
                t[2 * i] = _mm256_unpacklo_epi32(a, b), t[2 * i + 1] = _mm256_unpackhi_epi32(a, b);
            else
                t[2 * i] = _mm256_unpacklo_epi64(a, b), t[2 * i + 1] = _mm256_unpackhi_epi64(a, b);
        }
        for (int i = 0; i < V; ++i) v[i] = t[i];
    }
}

template <int N>
LUMO_AVX512 void transposeVectors512(__m512i* v) {
    constexpr int V = 16 / N;
    for (int step = 0; (1 << step) < V; ++step) {
        __m512i t[V];
        for (int i = 0; i < V / 2; ++i) {
            const __m512i a = v[i], b = v[i + V / 2];
            if constexpr (N == 1)
                t[2 * i] = _mm512_unpacklo_epi8(a, b), t[2 * i + 1] = _mm512_unpackhi_epi8(a, b);
            else if constexpr (N == 2)
                t[2 * i] = _mm512_unpacklo_epi16(a, b), t[2 * i + 1] = _mm512_unpackhi_epi16(a, b);
            else if constexpr (N == 4)
                t[2 * i] = _mm512_unpacklo_epi32(a, b), t[2 * i + 1] = _mm512_unpackhi_epi32(a, b);
            else
                t[2 * i] = _mm512_unpacklo_epi64(a, b), t[2 * i + 1] = _mm512_unpackhi_epi64(a, b);
        }
        for (int i = 0; i < V; ++i) v[i] = t[i];
    }
}

// The four 128-bit parts of a 512-bit vector.
LUMO_AVX512 void splitParts(__m512i v, __m128i parts[4]) {
    parts[0] = _mm512_castsi512_si128(v);
    parts[1] = _mm512_extracti32x4_epi32(v, 1);
    parts[2] = _mm512_extracti32x4_epi32(v, 2);
    parts[3] = _mm512_extracti32x4_epi32(v, 3);
}
#endif

}  // namespace lumoframekit
#endif
