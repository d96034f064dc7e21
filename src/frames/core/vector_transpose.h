#pragma once
// The in-register transpose that the blocked copy-outs build on.
#if defined(__SSE2__)
#include <emmintrin.h>

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
        if constexpr (N == 1) round(_mm_unpacklo_epi8, _mm_unpackhi_epi8);
        else if constexpr (N == 2) round(_mm_unpacklo_epi16, _mm_unpackhi_epi16);
        else if constexpr (N == 4) round(_mm_unpacklo_epi32, _mm_unpackhi_epi32);
        else round(_mm_unpacklo_epi64, _mm_unpackhi_epi64);
    }
}

}  // namespace lumoframekit
#endif
