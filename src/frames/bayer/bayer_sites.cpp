#include "frames/bayer/bayer_sites.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <type_traits>

#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

// The vector helpers pass 32-byte vectors by value; they are always inlined, so no call ever does.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace lumoframekit {
namespace BayerUtil {

namespace {

// The kernels, each as an integer multiple of the exact value (Gx in eighths, the chroma kernels in
// sixteenths) so that no rounding happens before the clamp; clamping the exact value at the
// fractional bound and truncating equals flooring it and capping the floor at the bound's integer
// part, negatives becoming 0. Written on vectors of lanes wide enough for the sums (16-bit lanes
// for 8-bit samples, 32-bit lanes for 16-bit ones), one lane per site.
#define LUMO_VECTOR_KERNEL __attribute__((always_inline))

template <typename T>
struct Lanes {
    using Wide = std::conditional_t<sizeof(T) == 1, std::int16_t, std::int32_t>;
    static constexpr int count = sizeof(T) == 1 ? 16 : 8;
    typedef Wide Vector __attribute__((vector_size(count * sizeof(Wide))));
    typedef T Narrow __attribute__((vector_size(count * sizeof(T))));

    LUMO_VECTOR_KERNEL static Vector load(const T* at) {
        Narrow narrow;
        std::memcpy(&narrow, at, sizeof narrow);
        return __builtin_convertvector(narrow, Vector);
    }
    LUMO_VECTOR_KERNEL static Vector clamp(Vector scaled, int fractionBits, Wide upper) {
        Vector v = scaled >> fractionBits;
        v = v < 0 ? Vector{} : v;
        return v > upper ? Vector{} + upper : v;
    }
};

// All sites of one kind in padded column p. `same` is the parity half holding the sites (site i
// at index 1 + i), `other` the other half; `above` is 1 when the other half's row above a site
// shares its index (odd sites) and 0 when it is one lower (even sites).
template <typename T, BayerSiteKind Kind>
inline void siteColumn(const BayerTBBTask<T>& task, const T* same, const T* other, std::uint64_t above,
                       std::uint64_t sites, std::uint64_t outIndex) {
    using L = Lanes<T>;
    using V = typename L::Vector;
    const std::uint64_t stride = task.padded.stride;
    const auto wide = static_cast<typename L::Wide>(task.upper);
    for (std::uint64_t i = 0; i < sites; i += L::count) {
        const T* s = same + 1 + i;
        const T* o = other + i + above;  // the other parity's row above
        const V c = L::load(s), n2 = L::load(s - 1), s2 = L::load(s + 1);
        const V n1 = L::load(o), s1 = L::load(o + 1);
        const V w1 = L::load(s - stride), e1 = L::load(s + stride);
        const V w2 = L::load(s - 2 * stride), e2 = L::load(s + 2 * stride);
        const V diagonals =
            L::load(o - stride) + L::load(o - stride + 1) + L::load(o + stride) + L::load(o + stride + 1);
        V first, second;
        if constexpr (Kind == GreenOnRedRow || Kind == GreenOnBlueRow) {
            first = L::clamp(10 * c - 2 * diagonals - 2 * (w2 + e2) + (n2 + s2) + 8 * (w1 + e1), 4, wide);
            second = L::clamp(10 * c - 2 * diagonals - 2 * (n2 + s2) + (w2 + e2) + 8 * (n1 + s1), 4, wide);
        } else {
            first = L::clamp(4 * c - (n2 + s2 + w2 + e2) + 2 * (n1 + s1 + w1 + e1), 3, wide);
            second = L::clamp(12 * c - 3 * (n2 + s2 + w2 + e2) + 4 * diagonals, 4, wide);
        }
        // The last vector of a column may be short.
        const std::size_t bytes = std::min<std::uint64_t>(sites - i, L::count) * sizeof(T);
        const auto firsts = __builtin_convertvector(first, typename L::Narrow);
        const auto seconds = __builtin_convertvector(second, typename L::Narrow);
        std::memcpy(task.planes[planeOfFirst(Kind)] + outIndex + i, &firsts, bytes);
        std::memcpy(task.planes[planeOfSecond(Kind)] + outIndex + i, &seconds, bytes);
    }
}

template <typename T, BayerSiteKind Kind>
void portableColumns(const BayerTBBTask<T>& task) {
    const std::uint64_t h = task.columnLength, w = task.columnCount, stride = task.padded.stride;
    const bool evenSites = task.firstRow == 2;
    const T* same = evenSites ? task.padded.even : task.padded.odd;
    const T* other = evenSites ? task.padded.odd : task.padded.even;
    const std::uint64_t sites = evenSites ? (h + 1) / 2 : h / 2;
    std::uint64_t out = 0;
    for (std::uint64_t p = task.firstColumn; p < w + 2; p += 2, out += task.planeColumn)
        siteColumn<T, Kind>(task, same + p * stride, other + p * stride, evenSites ? 0 : 1, sites, out);
}

#if defined(__x86_64__)

// The same kernels on 256-bit vectors, for processors with AVX2 (chosen at run time). Each step
// covers two vectors of wide lanes, packed back into one vector of samples.
template <typename T>
struct Wide;

template <>
struct Wide<std::uint8_t> {
    static constexpr std::uint64_t lanes = 16;
    LUMO_AVX2 static __m256i load(const std::uint8_t* at) {
        return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)));
    }
    LUMO_AVX2 static __m256i add(__m256i a, __m256i b) { return _mm256_add_epi16(a, b); }
    LUMO_AVX2 static __m256i sub(__m256i a, __m256i b) { return _mm256_sub_epi16(a, b); }
    LUMO_AVX2 static __m256i times(__m256i a, int k) {
        return _mm256_mullo_epi16(a, _mm256_set1_epi16(static_cast<short>(k)));
    }
    template <int Bits>
    LUMO_AVX2 static __m256i shr(__m256i a) {
        return _mm256_srai_epi16(a, Bits);
    }
    LUMO_AVX2 static __m256i bound(std::int32_t upper) { return _mm256_set1_epi8(static_cast<char>(upper)); }
    // Saturating to [0, 255] and then capping at the bound is the clamp.
    LUMO_AVX2 static __m256i narrow(__m256i a, __m256i b, __m256i upper) {
        return _mm256_min_epu8(_mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8), upper);
    }
};

template <>
struct Wide<std::uint16_t> {
    static constexpr std::uint64_t lanes = 8;
    LUMO_AVX2 static __m256i load(const std::uint16_t* at) {
        return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)));
    }
    LUMO_AVX2 static __m256i add(__m256i a, __m256i b) { return _mm256_add_epi32(a, b); }
    LUMO_AVX2 static __m256i sub(__m256i a, __m256i b) { return _mm256_sub_epi32(a, b); }
    LUMO_AVX2 static __m256i times(__m256i a, int k) { return _mm256_mullo_epi32(a, _mm256_set1_epi32(k)); }
    template <int Bits>
    LUMO_AVX2 static __m256i shr(__m256i a) {
        return _mm256_srai_epi32(a, Bits);
    }
    LUMO_AVX2 static __m256i bound(std::int32_t upper) { return _mm256_set1_epi16(static_cast<short>(upper)); }
    LUMO_AVX2 static __m256i narrow(__m256i a, __m256i b, __m256i upper) {
        return _mm256_min_epu16(_mm256_permute4x64_epi64(_mm256_packus_epi32(a, b), 0xD8), upper);
    }
};

// The two computed values of one vector of sites: horizontal and vertical chroma at green sites,
// green and the diagonal chroma at red and blue ones, before the clamp. s points at the sites,
// o at the other parity's row above them.
template <typename T, bool GreenSite>
LUMO_AVX2 void wideSites(const T* s, const T* o, std::uint64_t stride, __m256i& first, __m256i& second) {
    using W = Wide<T>;
    const __m256i c = W::load(s);
    const __m256i vertical2 = W::add(W::load(s - 1), W::load(s + 1));                      // n2 + s2
    const __m256i horizontal2 = W::add(W::load(s - 2 * stride), W::load(s + 2 * stride));  // w2 + e2
    const __m256i vertical1 = W::add(W::load(o), W::load(o + 1));                          // n1 + s1
    const __m256i horizontal1 = W::add(W::load(s - stride), W::load(s + stride));          // w1 + e1
    const __m256i diagonals = W::add(W::add(W::load(o - stride), W::load(o - stride + 1)),
                                     W::add(W::load(o + stride), W::load(o + stride + 1)));
    if constexpr (GreenSite) {
        const __m256i common = W::sub(W::times(c, 10), W::add(diagonals, diagonals));
        const __m256i v =
            W::add(W::sub(common, W::add(vertical2, vertical2)), W::add(horizontal2, W::times(vertical1, 8)));
        const __m256i h =
            W::add(W::sub(common, W::add(horizontal2, horizontal2)), W::add(vertical2, W::times(horizontal1, 8)));
        first = W::template shr<4>(h);
        second = W::template shr<4>(v);
    } else {
        const __m256i far = W::add(vertical2, horizontal2);
        const __m256i near = W::add(vertical1, horizontal1);
        const __m256i green = W::add(W::sub(W::times(c, 4), far), W::add(near, near));
        const __m256i cross = W::add(W::sub(W::times(c, 12), W::times(far, 3)), W::times(diagonals, 4));
        first = W::template shr<3>(green);
        second = W::template shr<4>(cross);
    }
}

// The planes are read back by the calling thread once every task is done. Tasks on other threads
// stream them to memory, so that their lines are not then claimed from another core's cache;
// tasks on the calling thread leave them cached for it.
template <typename T>
LUMO_AVX2 void storeVector(T* at, __m256i v, bool stream) {
    if (stream)
        _mm256_stream_si256(reinterpret_cast<__m256i*>(at), v);
    else
        _mm256_store_si256(reinterpret_cast<__m256i*>(at), v);
}

template <typename T, BayerSiteKind Kind>
__attribute__((target("avx2"))) void wideColumns(const BayerTBBTask<T>& task) {
    const bool stream = std::this_thread::get_id() != task.gate->caller;
    using W = Wide<T>;
    constexpr bool greenSite = Kind == GreenOnRedRow || Kind == GreenOnBlueRow;
    constexpr std::uint64_t step = 2 * W::lanes;
    const std::uint64_t h = task.columnLength, w = task.columnCount, stride = task.padded.stride;
    const bool evenSites = task.firstRow == 2;
    const T* same = evenSites ? task.padded.even : task.padded.odd;
    const T* other = evenSites ? task.padded.odd : task.padded.even;
    const std::uint64_t above = evenSites ? 0 : 1;
    const std::uint64_t sites = evenSites ? (h + 1) / 2 : h / 2;
    const __m256i upper = W::bound(task.upper);
    std::uint64_t out = 0;
    for (std::uint64_t p = task.firstColumn; p < w + 2; p += 2, out += task.planeColumn) {
        const T* column = same + p * stride + 1;
        const T* otherRow = other + p * stride + above;
        for (std::uint64_t i = 0; i < sites; i += step) {
            __m256i a0, b0, a1, b1;
            wideSites<T, greenSite>(column + i, otherRow + i, stride, a0, b0);
            wideSites<T, greenSite>(column + i + W::lanes, otherRow + i + W::lanes, stride, a1, b1);
            // Whole vectors: the planes' columns are padded to whole cache lines.
            storeVector(task.planes[planeOfFirst(Kind)] + out + i, W::narrow(a0, a1, upper), stream);
            storeVector(task.planes[planeOfSecond(Kind)] + out + i, W::narrow(b0, b1, upper), stream);
        }
    }
    _mm_sfence();  // the streamed stores are visible before the task reports done
}

// The same on 512-bit vectors, for processors with AVX-512 BW: one vector of wide lanes per step,
// narrowed into a 256-bit vector of samples.

template <typename T>
struct Widest;

template <>
struct Widest<std::uint8_t> {
    static constexpr std::uint64_t lanes = 32;
    LUMO_AVX512 static __m512i load(const std::uint8_t* at) {
        return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)));
    }
    LUMO_AVX512 static __m512i add(__m512i a, __m512i b) { return _mm512_add_epi16(a, b); }
    LUMO_AVX512 static __m512i sub(__m512i a, __m512i b) { return _mm512_sub_epi16(a, b); }
    LUMO_AVX512 static __m512i times(__m512i a, int k) {
        return _mm512_mullo_epi16(a, _mm512_set1_epi16(static_cast<short>(k)));
    }
    template <int Bits>
    LUMO_AVX512 static __m512i shr(__m512i a) {
        return _mm512_srai_epi16(a, Bits);
    }
    LUMO_AVX512 static __m512i bound(std::int32_t upper) { return _mm512_set1_epi16(static_cast<short>(upper)); }
    LUMO_AVX512 static __m512i clamp(__m512i a, __m512i upper) {
        return _mm512_min_epi16(_mm512_max_epi16(a, _mm512_setzero_si512()), upper);
    }
    LUMO_AVX512 static __m256i narrow(__m512i a, __m512i upper) { return _mm512_cvtepi16_epi8(clamp(a, upper)); }
    // A wide lane holds a sample in its low half and zero above; shifted up by a sample for odd
    // rows, the lanes line up with a column's elements, and a mask picks the rows of one parity.
    using Mask = __mmask64;
    LUMO_AVX512 static __m512i place(__m512i a, bool oddRows) { return oddRows ? _mm512_slli_epi16(a, 8) : a; }
    LUMO_AVX512 static void storeRows(std::uint8_t* at, Mask mask, __m512i a) { _mm512_mask_storeu_epi8(at, mask, a); }
};

template <>
struct Widest<std::uint16_t> {
    static constexpr std::uint64_t lanes = 16;
    LUMO_AVX512 static __m512i load(const std::uint16_t* at) {
        return _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)));
    }
    LUMO_AVX512 static __m512i add(__m512i a, __m512i b) { return _mm512_add_epi32(a, b); }
    LUMO_AVX512 static __m512i sub(__m512i a, __m512i b) { return _mm512_sub_epi32(a, b); }
    LUMO_AVX512 static __m512i times(__m512i a, int k) { return _mm512_mullo_epi32(a, _mm512_set1_epi32(k)); }
    template <int Bits>
    LUMO_AVX512 static __m512i shr(__m512i a) {
        return _mm512_srai_epi32(a, Bits);
    }
    LUMO_AVX512 static __m512i bound(std::int32_t upper) { return _mm512_set1_epi32(upper); }
    LUMO_AVX512 static __m512i clamp(__m512i a, __m512i upper) {
        return _mm512_min_epi32(_mm512_max_epi32(a, _mm512_setzero_si512()), upper);
    }
    LUMO_AVX512 static __m256i narrow(__m512i a, __m512i upper) { return _mm512_cvtepi32_epi16(clamp(a, upper)); }
    using Mask = __mmask32;
    LUMO_AVX512 static __m512i place(__m512i a, bool oddRows) { return oddRows ? _mm512_slli_epi32(a, 16) : a; }
    LUMO_AVX512 static void storeRows(std::uint16_t* at, Mask mask, __m512i a) {
        _mm512_mask_storeu_epi16(at, mask, a);
    }
};

template <typename T, bool GreenSite>
LUMO_AVX512 void widestSites(const T* s, const T* o, std::uint64_t stride, __m512i& first, __m512i& second) {
    using W = Widest<T>;
    const __m512i c = W::load(s);
    const __m512i vertical2 = W::add(W::load(s - 1), W::load(s + 1));
    const __m512i horizontal2 = W::add(W::load(s - 2 * stride), W::load(s + 2 * stride));
    const __m512i vertical1 = W::add(W::load(o), W::load(o + 1));
    const __m512i horizontal1 = W::add(W::load(s - stride), W::load(s + stride));
    const __m512i diagonals = W::add(W::add(W::load(o - stride), W::load(o - stride + 1)),
                                     W::add(W::load(o + stride), W::load(o + stride + 1)));
    if constexpr (GreenSite) {
        const __m512i common = W::sub(W::times(c, 10), W::add(diagonals, diagonals));
        const __m512i v =
            W::add(W::sub(common, W::add(vertical2, vertical2)), W::add(horizontal2, W::times(vertical1, 8)));
        const __m512i h =
            W::add(W::sub(common, W::add(horizontal2, horizontal2)), W::add(vertical2, W::times(horizontal1, 8)));
        first = W::template shr<4>(h);
        second = W::template shr<4>(v);
    } else {
        const __m512i far = W::add(vertical2, horizontal2);
        const __m512i near = W::add(vertical1, horizontal1);
        const __m512i green = W::add(W::sub(W::times(c, 4), far), W::add(near, near));
        const __m512i cross = W::add(W::sub(W::times(c, 12), W::times(far, 3)), W::times(diagonals, 4));
        first = W::template shr<3>(green);
        second = W::template shr<4>(cross);
    }
}

// The mask of `count` sites of one row parity: every other element of a column, two mask bits
// (elements) per site.
template <typename Mask>
LUMO_AVX512 Mask rowMask(bool oddRows, std::uint64_t count, std::uint64_t lanes) {
    const auto rows = static_cast<Mask>(oddRows ? 0xAAAAAAAAAAAAAAAAull : 0x5555555555555555ull);
    return count >= lanes ? rows : static_cast<Mask>(rows & ((std::uint64_t{1} << (2 * count)) - 1));
}
// Writes `count` samples into every other element of a host column, from its first (even rows)
// or second (odd rows) element on.
template <typename T>
__attribute__((target("avx512f,avx512bw"))) void mergeRowsWidest(const T* sites, T* column, std::uint64_t count,
                                                                 bool oddRows) {
    using W = Widest<T>;
    for (std::uint64_t i = 0; i < count; i += W::lanes) {
        const std::uint64_t n = std::min<std::uint64_t>(W::lanes, count - i);
        // A whole vector is read: the task planes' and the padded copy's columns are padded to
        // whole cache lines.
        const __m512i v = W::load(sites + i);
        W::storeRows(column + 2 * i, rowMask<typename W::Mask>(oddRows, n, W::lanes), W::place(v, oddRows));
    }
}
template <typename T, BayerSiteKind Kind>
__attribute__((target("avx512f,avx512bw"))) void widestColumns(const BayerTBBTask<T>& task) {
    const bool stream = std::this_thread::get_id() != task.gate->caller;
    using W = Widest<T>;
    constexpr bool greenSite = Kind == GreenOnRedRow || Kind == GreenOnBlueRow;
    const std::uint64_t h = task.columnLength, w = task.columnCount, stride = task.padded.stride;
    const bool evenSites = task.firstRow == 2;
    const T* same = evenSites ? task.padded.even : task.padded.odd;
    const T* other = evenSites ? task.padded.odd : task.padded.even;
    const std::uint64_t above = evenSites ? 0 : 1;
    const std::uint64_t sites = evenSites ? (h + 1) / 2 : h / 2;
    const __m512i upper = W::bound(task.upper);
    // On the calling thread the task writes the host planes in place: the tasks there leave no
    // planes to interleave afterwards, and the other threads' tasks keep to planes of their own,
    // so no two cores write the same lines.
    const bool inPlace = !stream && task.hostPlanes[0] != nullptr;
    if (inPlace) *task.wroteInPlace = true;
    std::uint64_t out = 0;
    for (std::uint64_t p = task.firstColumn; p < w + 2; p += 2, out += task.planeColumn) {
        const T* column = same + p * stride + 1;
        const T* otherRow = other + p * stride + above;
        if (inPlace) {
            const std::uint64_t hostColumn = (p - 2) * h;
            for (std::uint64_t i = 0; i < sites; i += W::lanes) {
                __m512i first, second;
                widestSites<T, greenSite>(column + i, otherRow + i, stride, first, second);
                __m512i planes[3];
                planes[planeOfFirst(Kind)] = W::clamp(first, upper);
                planes[planeOfSecond(Kind)] = W::clamp(second, upper);
                planes[3 - planeOfFirst(Kind) - planeOfSecond(Kind)] = W::load(column + i);  // the site's own
                const auto mask = rowMask<typename W::Mask>(!evenSites, sites - i, W::lanes);
                for (int plane = 0; plane < 3; ++plane)
                    W::storeRows(task.hostPlanes[plane] + hostColumn + 2 * i, mask,
                                 W::place(planes[plane], !evenSites));
            }
            continue;
        }
        for (std::uint64_t i = 0; i < sites; i += W::lanes) {
            __m512i first, second;
            widestSites<T, greenSite>(column + i, otherRow + i, stride, first, second);
            storeVector(task.planes[planeOfFirst(Kind)] + out + i, W::narrow(first, upper), stream);
            storeVector(task.planes[planeOfSecond(Kind)] + out + i, W::narrow(second, upper), stream);
        }
    }
    _mm_sfence();  // the streamed stores are visible before the task reports done
}

template <typename T>
void runWidestTask(const BayerTBBTask<T>& task) {
    switch (task.kind) {
        case GreenOnRedRow: widestColumns<T, GreenOnRedRow>(task); break;
        case GreenOnBlueRow: widestColumns<T, GreenOnBlueRow>(task); break;
        case Red: widestColumns<T, Red>(task); break;
        case Blue: widestColumns<T, Blue>(task); break;
    }
}

template <typename T>
void runWideTask(const BayerTBBTask<T>& task) {
    switch (task.kind) {
        case GreenOnRedRow: wideColumns<T, GreenOnRedRow>(task); break;
        case GreenOnBlueRow: wideColumns<T, GreenOnBlueRow>(task); break;
        case Red: wideColumns<T, Red>(task); break;
        case Blue: wideColumns<T, Blue>(task); break;
    }
}

#endif

template <typename T>
void runAnyTask(const BayerTBBTask<T>& task) {
#if defined(__x86_64__)
    if (widestKernelsAvailable()) {
        runWidestTask(task);
        return;
    }
    if (wideKernelsAvailable()) {
        runWideTask(task);
        return;
    }
#endif
    switch (task.kind) {
        case GreenOnRedRow: portableColumns<T, GreenOnRedRow>(task); break;
        case GreenOnBlueRow: portableColumns<T, GreenOnBlueRow>(task); break;
        case Red: portableColumns<T, Red>(task); break;
        case Blue: portableColumns<T, Blue>(task); break;
    }
}

}  // namespace

template <typename T>
void runSiteTask(const BayerTBBTask<T>& task) {
    runAnyTask(task);
}

template void runSiteTask(const BayerTBBTask<std::uint8_t>&);
template void runSiteTask(const BayerTBBTask<std::uint16_t>&);

#if defined(__x86_64__)
template <typename T>
void mergeRows(const T* sites, T* column, std::uint64_t count, bool oddRows) {
    mergeRowsWidest(sites, column, count, oddRows);
}

template void mergeRows(const std::uint8_t*, std::uint8_t*, std::uint64_t, bool);
template void mergeRows(const std::uint16_t*, std::uint16_t*, std::uint64_t, bool);
#endif

}  // namespace BayerUtil
}  // namespace lumoframekit
