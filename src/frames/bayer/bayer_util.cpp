#include "frames/bayer/bayer_util.h"

#include <oneapi/tbb/task_group.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <memory>
#include <new>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
// Clones are chosen by a resolver that runs before the thread checker is set up; that build
// keeps the baseline kernels only.
#define LUMO_WIDEST_VECTORS
#else
#define LUMO_WIDEST_VECTORS __attribute__((target_clones("avx2", "default")))
#endif

// The vector helpers pass 32-byte vectors by value; they are always inlined, so no call ever does.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace lumoframekit {
namespace BayerUtil {

namespace {

// The task scheduler hands tasks over inside its own library, where ThreadSanitizer cannot see
// the synchronisation; these make the hand-over and the completion visible to it.
inline void handOver(const void* token) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(const_cast<void*>(token));
#else
    (void)token;
#endif
}
inline void takeOver(const void* token) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void*>(token));
#else
    (void)token;
#endif
}

// Image row or column of padded index p (image index p - 2), reflected about the edge sample
// without repeating it. Images shorter than 3 reach past the far edge: those reads are held at it.
std::uint64_t reflected(std::int64_t p, std::int64_t n) {
    std::int64_t i = p - 2;
    if (i < 0) i = -i;
    if (i >= n) i = 2 * (n - 1) - i;
    return static_cast<std::uint64_t>(std::clamp<std::int64_t>(i, 0, n - 1));
}

// Splits 2 * pairs samples into the even-indexed and odd-indexed ones.
template <typename T>
void deinterleave(const T* in, T* even, T* odd, std::uint64_t pairs) {
    std::uint64_t i = 0;
#if defined(__SSE2__)
    constexpr std::uint64_t perVector = 16 / sizeof(T);
    for (; i + perVector <= pairs; i += perVector) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 2 * i + perVector));
        __m128i e, o;
        if constexpr (sizeof(T) == 1) {
            const __m128i low = _mm_set1_epi16(0x00FF);
            e = _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low));
            o = _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
        } else {
            // Signed packing of values biased by 0x8000 keeps all 16 bits.
            const __m128i bias = _mm_set1_epi16(static_cast<short>(0x8000));
            const __m128i ab = _mm_xor_si128(a, bias), bb = _mm_xor_si128(b, bias);
            e = _mm_xor_si128(_mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(ab, 16), 16), _mm_srai_epi32(_mm_slli_epi32(bb, 16), 16)), bias);
            o = _mm_xor_si128(_mm_packs_epi32(_mm_srai_epi32(ab, 16), _mm_srai_epi32(bb, 16)), bias);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(even + i), e);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(odd + i), o);
    }
#endif
    for (; i < pairs; ++i) {
        even[i] = in[2 * i];
        odd[i] = in[2 * i + 1];
    }
}

// The reverse: even[i] and odd[i] to out[2i] and out[2i + 1].
template <typename T>
void interleavePairs(const T* even, const T* odd, T* out, std::uint64_t pairs) {
    std::uint64_t i = 0;
#if defined(__SSE2__)
    constexpr std::uint64_t perVector = 16 / sizeof(T);
    for (; i + perVector <= pairs; i += perVector) {
        const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(even + i));
        const __m128i o = _mm_loadu_si128(reinterpret_cast<const __m128i*>(odd + i));
        const __m128i lo = sizeof(T) == 1 ? _mm_unpacklo_epi8(e, o) : _mm_unpacklo_epi16(e, o);
        const __m128i hi = sizeof(T) == 1 ? _mm_unpackhi_epi8(e, o) : _mm_unpackhi_epi16(e, o);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i + perVector), hi);
    }
#endif
    for (; i < pairs; ++i) {
        out[2 * i] = even[i];
        out[2 * i + 1] = odd[i];
    }
}

// Rows of the padded columns kept per parity, with room for a vector read past the last column.
template <typename T>
std::uint64_t parityStride(std::uint64_t height) {
    return (height + 4 + 1) / 2;
}

// Working memory of the demosaics run on one thread, kept between calls: a stream of frames then
// reuses the same pages instead of faulting fresh ones in for every image.
template <typename T>
T* workspace(std::uint64_t count, int which) {
    thread_local std::vector<T> spaces[2];
    std::vector<T>& space = spaces[which];
    if (space.size() < count) {
        space.clear();
        space.shrink_to_fit();
        space.resize(count);
    }
    return space.data();
}

template <typename T>
T* paddedCopy(const T* mosaic, std::uint64_t height, std::uint64_t width, std::uint64_t stride) {
    constexpr std::uint64_t slack = 64;
    const std::uint64_t used = 2 * stride * (width + 4);
    T* padded = workspace<T>(used + slack, 0);
    // Vector reads run past a column's last site into the next column or this slack: never into
    // memory that was not written.
    std::fill(padded + used, padded + used + slack, T{0});
    T* even = padded;
    T* odd = padded + stride * (width + 4);
    for (std::uint64_t p = 0; p < width + 4; ++p) {
        const T* source = mosaic + reflected(static_cast<std::int64_t>(p), static_cast<std::int64_t>(width)) * height;
        T* e = even + p * stride;
        T* o = odd + p * stride;
        // Image row y is padded row y + 2: even image rows to the even half, odd ones to the odd.
        deinterleave(source, e + 1, o + 1, height / 2);
        if (height % 2 == 1) e[1 + height / 2] = source[height - 1];
        o[stride - 1] = e[stride - 1] = 0;
        // Padded rows 0 and 1 and the two below the image, reflected from inside it.
        const auto row = [&](std::uint64_t q) {
            return source[reflected(static_cast<std::int64_t>(q), static_cast<std::int64_t>(height))];
        };
        e[0] = row(0);
        o[0] = row(1);
        const std::uint64_t below = height + 2;  // even when the height is
        if (below % 2 == 0) {
            e[below / 2] = row(below);
            o[below / 2] = row(below + 1);
        } else {
            o[below / 2] = row(below);
            e[(below + 1) / 2] = row(below + 1);
        }
    }
    return padded;
}

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
// at index first + i), `other` the other half; `above` is 1 when the other half's row above a site
// shares its index (odd sites) and 0 when it is one lower (even sites).
template <typename T>
LUMO_VECTOR_KERNEL inline void siteColumn(const BayerTBBTask<T>& task, const T* same, const T* other,
                                                      std::uint64_t stride, std::uint64_t first, std::uint64_t above,
                                                      std::uint64_t sites, std::uint64_t outIndex) {
    using L = Lanes<T>;
    using V = typename L::Vector;
    const auto wide = static_cast<typename L::Wide>(task.upper);
    for (std::uint64_t i = 0; i < sites; i += L::count) {
        const std::uint64_t k = first + i;
        const T* s = same + k;
        const T* o = other + k - 1 + above;  // the other parity's row above
        const V c = L::load(s), n2 = L::load(s - 1), s2 = L::load(s + 1);
        const V n1 = L::load(o), s1 = L::load(o + 1);
        const V w1 = L::load(s - stride), e1 = L::load(s + stride);
        const V w2 = L::load(s - 2 * stride), e2 = L::load(s + 2 * stride);
        const V diagonals = L::load(o - stride) + L::load(o - stride + 1) + L::load(o + stride) + L::load(o + stride + 1);
        V r, g, b;
        switch (task.kind) {
            case GreenOnRedRow:
            case GreenOnBlueRow: {
                const V vertical = L::clamp(10 * c - 2 * diagonals - 2 * (n2 + s2) + (w2 + e2) + 8 * (n1 + s1), 4, wide);
                const V horizontal = L::clamp(10 * c - 2 * diagonals - 2 * (w2 + e2) + (n2 + s2) + 8 * (w1 + e1), 4, wide);
                g = c;
                r = task.kind == GreenOnRedRow ? horizontal : vertical;
                b = task.kind == GreenOnRedRow ? vertical : horizontal;
                break;
            }
            default: {
                const V green = L::clamp(4 * c - (n2 + s2 + w2 + e2) + 2 * (n1 + s1 + w1 + e1), 3, wide);
                const V cross = L::clamp(12 * c - 3 * (n2 + s2 + w2 + e2) + 4 * diagonals, 4, wide);
                g = green;
                r = task.kind == Red ? c : cross;
                b = task.kind == Red ? cross : c;
            }
        }
        // The task's own column of sites, contiguous; the last vector of a column may be short.
        const typename L::Narrow planes[3] = {__builtin_convertvector(r, typename L::Narrow),
                                              __builtin_convertvector(g, typename L::Narrow),
                                              __builtin_convertvector(b, typename L::Narrow)};
        if (sites - i >= static_cast<std::uint64_t>(L::count)) {
            for (int plane = 0; plane < 3; ++plane)
                std::memcpy(task.planes[plane] + outIndex + i, &planes[plane], sizeof(typename L::Narrow));
        } else {
            const std::size_t bytes = (sites - i) * sizeof(T);
            for (int plane = 0; plane < 3; ++plane) std::memcpy(task.planes[plane] + outIndex + i, &planes[plane], bytes);
        }
    }
}

template <typename T>
LUMO_VECTOR_KERNEL inline void runTask(const BayerTBBTask<T>& task) {
    const std::uint64_t h = task.columnLength, w = task.columnCount, stride = task.padded.stride;
    const bool evenSites = task.firstRow == 2;
    const T* same = evenSites ? task.padded.even : task.padded.odd;
    const T* other = evenSites ? task.padded.odd : task.padded.even;
    const std::uint64_t sites = evenSites ? (h + 1) / 2 : h / 2;
    std::uint64_t column = 0;
    for (std::uint64_t p = task.firstColumn; p < w + 2; p += 2, ++column)
        siteColumn(task, same + p * stride, other + p * stride, stride, 1, evenSites ? 0 : 1, sites, column * sites);
}

// Built for the widest vectors the processor has, chosen when the library is loaded.
LUMO_WIDEST_VECTORS void runTask8(const BayerTBBTask<std::uint8_t>& task) { runTask(task); }
LUMO_WIDEST_VECTORS void runTask16(const BayerTBBTask<std::uint16_t>& task) { runTask(task); }

}  // namespace

template <typename T>
void BayerTBBTask<T>::operator()() const {
    takeOver(padded.even);
    if constexpr (sizeof(T) == 1) runTask8(*this);
    else runTask16(*this);
    handOver(padded.even);
}

namespace {

struct Site {
    BayerSiteKind kind;
    std::uint64_t row, column;  // padded coordinates of the first site
};

// A task writes its sites column by column into planes of its own, contiguously; the rows of the
// two tasks that share a column are then interleaved into the host planes. Tasks thus never
// write the same cache lines.
template <typename T>
void interleave(const T* evenRows, const T* oddRows, T* out, std::uint64_t height) {
    interleavePairs(evenRows, oddRows, out, height / 2);
    if (height % 2 == 1) out[height - 1] = evenRows[height / 2];
}

template <typename T>
void demosaic(const T* mosaic, T* red, T* green, T* blue, std::pair<std::uint32_t, std::uint32_t> dims,
              std::uint32_t alignment, std::uint32_t bits, int sampleBits) {
    // The four site kinds at padded (2,2), (2,3), (3,2), (3,3) for each pattern.
    static constexpr BayerSiteKind layouts[5][4] = {
        {GreenOnRedRow, Red, Blue, GreenOnBlueRow},
        {GreenOnBlueRow, Blue, Red, GreenOnRedRow},
        {Blue, GreenOnBlueRow, GreenOnRedRow, Red},
        {},
        {Red, GreenOnRedRow, GreenOnBlueRow, Blue},
    };
    if (alignment > 4 || alignment == 3) return;
    const std::uint64_t height = dims.first, width = dims.second;
    if (height == 0 || width == 0) return;
    if (static_cast<double>(height + 4) * static_cast<double>(width + 4) * sizeof(T) > static_cast<double>(PTRDIFF_MAX))
        throw std::bad_array_new_length();
    // The bound is (2^sampleBits - 1) / 2^(sampleBits - bits); its integer part is what reaches the
    // planes.
    const int shift = std::clamp(sampleBits - static_cast<int>(std::min<std::uint32_t>(bits, 64)), 0, sampleBits);
    const std::int32_t upper = ((std::int32_t{1} << sampleBits) - 1) >> shift;

    const std::uint64_t stride = parityStride<T>(height);
    T* storage = paddedCopy(mosaic, height, width, stride);
    const PaddedMosaic<T> padded{storage, storage + stride * (width + 4), stride};
    // Sites per column for even and odd rows, columns per parity.
    const std::uint64_t evenSites = (height + 1) / 2, oddSites = height / 2;
    const std::uint64_t evenColumns = (width + 1) / 2, oddColumns = width / 2;
    const std::uint64_t pixels = height * width;
    T* siteStorage = workspace<T>(3 * pixels, 1);
    // Each task's three planes, in the order of the sites below: (row, column) parities
    // (0, 0), (0, 1), (1, 0), (1, 1).
    const std::uint64_t regionSizes[4] = {evenSites * evenColumns, evenSites * oddColumns, oddSites * evenColumns,
                                          oddSites * oddColumns};
    T* regions[4][3];
    T* next = siteStorage;
    for (int plane = 0; plane < 3; ++plane)
        for (int t = 0; t < 4; ++t) {
            regions[t][plane] = next;
            next += regionSizes[t];
        }
    {
        oneapi::tbb::task_group group;
        const Site sites[4] = {{layouts[alignment][0], 2, 2},
                               {layouts[alignment][1], 2, 3},
                               {layouts[alignment][2], 3, 2},
                               {layouts[alignment][3], 3, 3}};
        for (int t = 0; t < 4; ++t) {
            const Site& site = sites[t];
            const BayerTBBTask<T> task{height, width, site.column, site.row, 0, upper,
                                       {regions[t][0], regions[t][1], regions[t][2]}, padded, site.kind};
            handOver(padded.even);
            group.run(task);
        }
        group.wait();
        takeOver(padded.even);
    }
    T* const out[3] = {red, green, blue};
    for (int plane = 0; plane < 3; ++plane)
        for (std::uint64_t x = 0; x < width; ++x) {
            const int parity = static_cast<int>(x & 1);
            const std::uint64_t column = x / 2;
            interleave(regions[parity][plane] + column * evenSites, regions[2 + parity][plane] + column * oddSites,
                       out[plane] + x * height, height);
        }
}

}  // namespace

void demosaic8(const std::uint8_t* mosaic, std::uint8_t* red, std::uint8_t* green, std::uint8_t* blue,
               std::uint64_t, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
               std::uint32_t bits) {
    demosaic(mosaic, red, green, blue, dims, alignment, bits, 8);
}

void demosaic16(const std::uint16_t* mosaic, std::uint16_t* red, std::uint16_t* green, std::uint16_t* blue,
                std::uint64_t, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                std::uint32_t bits) {
    demosaic(mosaic, red, green, blue, dims, alignment, bits, 16);
}

template struct BayerTBBTask<std::uint8_t>;
template struct BayerTBBTask<std::uint16_t>;

}  // namespace BayerUtil
}  // namespace lumoframekit
