#include "frames/bayer/bayer_util.h"

#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <cstring>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

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
#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
#endif
// A copy of an object whose last writer the thread checker cannot know.
template <typename Object>
Object unseenCopy(const Object& object) {
#if defined(__SANITIZE_THREAD__)
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    const Object copy = object;
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    return copy;
#else
    return object;
#endif
}
inline void takeOver(const void* token) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void*>(token));
#else
    (void)token;
#endif
}

inline void pause() {
#if defined(__x86_64__)
    _mm_pause();
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
            e = _mm_xor_si128(
                _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(ab, 16), 16), _mm_srai_epi32(_mm_slli_epi32(bb, 16), 16)),
                bias);
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

constexpr std::uint64_t lineBytes = 64;
constexpr std::uint64_t paddedSlack = 64;  // samples after the padded mosaic

// Rows of the padded columns kept per parity, with room for a vector read past the last column,
// rounded up to whole cache lines.
template <typename T>
std::uint64_t parityStride(std::uint64_t height) {
    constexpr std::uint64_t perLine = lineBytes / sizeof(T);
    return ((height + 4 + 1) / 2 + perLine - 1) / perLine * perLine;
}

// Working memory of the demosaics run on one thread, kept between calls: a stream of frames then
// reuses the same pages instead of faulting fresh ones in for every image. A demosaic that starts
// on a thread while another still holds that thread's memory (a nested call) takes a set of its
// own, so no call ever overwrites memory that another's tasks are reading.
class Workspace {
public:
    Workspace() : depth_(depth()) {
        std::deque<Set>& sets = setsOfThread();
        if (sets.size() <= depth_) sets.emplace_back();
        set_ = &sets[depth_];
        ++depth();
    }
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    ~Workspace() { --depth(); }

    // count elements of space `which` (0 or 1), starting on a cache line.
    template <typename T>
    T* get(std::uint64_t count, int which) {
        std::vector<std::uint8_t>& space = (*set_)[static_cast<std::size_t>(which)];
        const std::uint64_t bytes = count * sizeof(T) + lineBytes;
        if (space.size() < bytes) {
            space.clear();
            space.shrink_to_fit();
            space.resize(bytes);
        }
        const auto address = reinterpret_cast<std::uintptr_t>(space.data());
        const std::uint64_t skip = (lineBytes - address % lineBytes) % lineBytes;
        return reinterpret_cast<T*>(space.data() + skip);
    }

private:
    using Set = std::array<std::vector<std::uint8_t>, 2>;
    static std::deque<Set>& setsOfThread() {
        thread_local std::deque<Set> sets;
        return sets;
    }
    static std::size_t& depth() {
        thread_local std::size_t calls = 0;
        return calls;
    }

    std::size_t depth_;
    Set* set_;
};

#if defined(__x86_64__)
// The streamed transpose below on 512-bit vectors: blocks of one output line (64 bytes) of each
// of 4V columns. Each group of V rows is transposed in registers, with each 16-byte part of a
// vector kept apart; the four groups' parts for one column then make its line.
template <typename T>
__attribute__((target("avx512f,avx512bw"))) std::uint64_t transposeIntoLinesWidest(const std::uint8_t* src,
                                                                                   std::size_t srcRowBytes, T* dst,
                                                                                   std::uint64_t stride,
                                                                                   std::uint64_t rows,
                                                                                   std::uint64_t cols) {
    constexpr std::uint64_t V = 16 / sizeof(T), L = lineBytes / sizeof(T), G = L / V;  // G = 4 groups
    const std::uint64_t fullCols = cols / (4 * V) * (4 * V);
    for (std::uint64_t r0 = 0; r0 < rows; r0 += L)
        for (std::uint64_t c0 = 0; c0 < fullCols; c0 += 4 * V) {
            __m512i groups[G][V];
            for (std::uint64_t g = 0; g < G; ++g) {
                for (std::uint64_t i = 0; i < V; ++i) {
                    const std::uint64_t r = r0 + g * V + i;
                    groups[g][i] =
                        r < rows ? _mm512_loadu_si512(src + r * srcRowBytes + c0 * sizeof(T)) : _mm512_setzero_si512();
                }
                transposeVectors512<sizeof(T)>(groups[g]);
            }
            for (std::uint64_t k = 0; k < V; ++k) {
                // Part q of every group's vector k, gathered: the line of column c0 + q * V + k.
                const __m512i t0 = _mm512_shuffle_i64x2(groups[0][k], groups[1][k], 0x44);
                const __m512i t1 = _mm512_shuffle_i64x2(groups[0][k], groups[1][k], 0xEE);
                const __m512i t2 = _mm512_shuffle_i64x2(groups[2][k], groups[3][k], 0x44);
                const __m512i t3 = _mm512_shuffle_i64x2(groups[2][k], groups[3][k], 0xEE);
                const __m512i lines[4] = {_mm512_shuffle_i64x2(t0, t2, 0x88), _mm512_shuffle_i64x2(t0, t2, 0xDD),
                                          _mm512_shuffle_i64x2(t1, t3, 0x88), _mm512_shuffle_i64x2(t1, t3, 0xDD)};
                for (std::uint64_t q = 0; q < 4; ++q)
                    _mm512_stream_si512(reinterpret_cast<__m512i*>(dst + (c0 + q * V + k) * stride + r0), lines[q]);
            }
        }
    _mm_sfence();
    return fullCols;
}
#endif

// Transposes rows x cols samples of a row-major image (rows srcRowBytes apart) into columns
// stride samples apart, as transposeSamples does. The padded copy is read by the tasks on other
// threads, whose cached copies each store would otherwise first have to invalidate: where the
// columns start on cache lines, whole lines are streamed to memory instead, the last line of a
// column filled up with zeros (the caller owns each column up to rows rounded up to whole lines).
template <typename T>
void transposeIntoLines(const std::uint8_t* src, std::size_t srcRowBytes, T* dst, std::uint64_t stride,
                        std::uint64_t rows, std::uint64_t cols) {
    std::uint64_t doneCols = 0;
#if defined(__SSE2__)
    constexpr std::uint64_t V = 16 / sizeof(T), L = lineBytes / sizeof(T);  // samples per vector, per line
    if (vectorKernelsEnabled() && reinterpret_cast<std::uintptr_t>(dst) % lineBytes == 0 && stride % L == 0) {
#if defined(__x86_64__)
        if (widestKernelsAvailable()) doneCols = transposeIntoLinesWidest(src, srcRowBytes, dst, stride, rows, cols);
#endif
        const std::uint64_t first = doneCols;
        doneCols = cols / V * V;
        for (std::uint64_t r0 = 0; r0 < rows; r0 += L)
            for (std::uint64_t c0 = first; c0 < doneCols; c0 += V) {
                __m128i lines[L / V][V];  // [part of the line][column]
                for (std::uint64_t part = 0; part < L / V; ++part) {
                    for (std::uint64_t i = 0; i < V; ++i) {
                        const std::uint64_t r = r0 + part * V + i;
                        lines[part][i] = r < rows ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(
                                                        src + r * srcRowBytes + c0 * sizeof(T)))
                                                  : _mm_setzero_si128();
                    }
                    transposeVectors<sizeof(T)>(lines[part]);
                }
                for (std::uint64_t k = 0; k < V; ++k) {
                    auto* line = reinterpret_cast<__m128i*>(dst + (c0 + k) * stride + r0);
                    for (std::uint64_t part = 0; part < L / V; ++part) _mm_stream_si128(line + part, lines[part][k]);
                }
            }
        _mm_sfence();
    }
#endif
    // The columns right of the whole vectors.
    if (cols > doneCols)
        transposeSamples<sizeof(T)>(src + doneCols * sizeof(T), srcRowBytes,
                                    reinterpret_cast<std::uint8_t*>(dst + doneCols * stride), stride, rows,
                                    cols - doneCols, false, SampleOp::Copy);
}

// The padded rows above and below the image: padded row q lies in half q % 2 at index q / 2.
constexpr std::uint64_t borderRows(std::uint64_t height, int which) {
    return which < 2 ? static_cast<std::uint64_t>(which) : height + static_cast<std::uint64_t>(which);
}

// Padded rows 0, 1, height + 2 and height + 3 of one padded column, reflected from the image
// rows the column already holds.
template <typename T>
void padColumnEnds(T* even, T* odd, std::uint64_t height) {
    T* const halves[2] = {even, odd};
    T values[4];
    for (int which = 0; which < 4; ++which) {
        const std::uint64_t inside =
            reflected(static_cast<std::int64_t>(borderRows(height, which)), static_cast<std::int64_t>(height)) + 2;
        values[which] = halves[inside % 2][inside / 2];
    }
    for (int which = 0; which < 4; ++which) {
        const std::uint64_t q = borderRows(height, which);
        halves[q % 2][q / 2] = values[which];
    }
}

// Working memory for the padded mosaic, laid out but not yet written.
template <typename T>
PaddedMosaic<T> paddedStorage(Workspace& workspace, std::uint64_t height, std::uint64_t width) {
    const std::uint64_t stride = parityStride<T>(height);
    const std::uint64_t half = stride * (width + 4);
    // Each column's rows from padded row 2 on start on a cache line.
    T* padded = workspace.get<T>(2 * half + paddedSlack + lineBytes / sizeof(T), 0) + lineBytes / sizeof(T) - 1;
    return {padded, padded + half, stride};
}

// Writes the padded mosaic. fill(even, odd, stride) writes padded columns 2 to width + 1, rows 0
// to height + 3 (image row y, column x at padded row y + 2, column x + 2); the columns either side
// are reflected from them here.
template <typename T, typename Fill>
void fillPadded(const PaddedMosaic<T>& padded, std::uint64_t width, Fill fill) {
    T* even = const_cast<T*>(padded.even);
    T* odd = const_cast<T*>(padded.odd);
    const std::uint64_t stride = padded.stride, half = stride * (width + 4);
    // Vector reads run past a column's last site into the next column or this slack: never into
    // memory that was not written.
    std::fill(even + 2 * half, even + 2 * half + paddedSlack, T{0});
    fill(even, odd, stride);
    for (std::uint64_t p : {std::uint64_t{0}, std::uint64_t{1}, width + 2, width + 3}) {
        const std::uint64_t from = reflected(static_cast<std::int64_t>(p), static_cast<std::int64_t>(width)) + 2;
        std::memcpy(even + p * stride, even + from * stride, stride * sizeof(T));
        std::memcpy(odd + p * stride, odd + from * stride, stride * sizeof(T));
    }
}

// From a column-major mosaic: each column split by row parity.
template <typename T>
auto fromColumns(const T* mosaic, std::uint64_t height, std::uint64_t width) {
    return [=](T* even, T* odd, std::uint64_t stride) {
        for (std::uint64_t x = 0; x < width; ++x) {
            const T* source = mosaic + x * height;
            T* e = even + (x + 2) * stride + 1;
            T* o = odd + (x + 2) * stride + 1;
            deinterleave(source, e, o, height / 2);
            if (height % 2 == 1) e[height / 2] = source[height - 1];
            padColumnEnds(e - 1, o - 1, height);
        }
    };
}

// From a row-major mosaic (rows rowSamples apart): the even rows and the odd rows each
// transposed straight into their half.
template <typename T>
auto fromRows(const T* rows, std::uint64_t rowSamples, std::uint64_t height, std::uint64_t width) {
    return [=](T* even, T* odd, std::uint64_t stride) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(rows);
        const std::size_t rowBytes = rowSamples * sizeof(T);
        const std::uint64_t evenRows = (height + 1) / 2, oddRows = height / 2;
        transposeIntoLines(bytes, 2 * rowBytes, even + 2 * stride + 1, stride, evenRows, width);
        transposeIntoLines(bytes + rowBytes, 2 * rowBytes, odd + 2 * stride + 1, stride, oddRows, width);
        // The rows above and below, from the source rows they reflect: the streamed lines are not
        // read back.
        T* const halves[2] = {even, odd};
        for (int which = 0; which < 4; ++which) {
            const std::uint64_t q = borderRows(height, which);
            const T* source =
                rows + reflected(static_cast<std::int64_t>(q), static_cast<std::int64_t>(height)) * rowSamples;
            T* at = halves[q % 2] + 2 * stride + q / 2;
            for (std::uint64_t x = 0; x < width; ++x) at[x * stride] = source[x];
        }
    };
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

// Where a task's two computed values go: the planes of the first (horizontal chroma at green
// sites, green at red and blue ones) and of the second (vertical chroma; the diagonal chroma). A
// site's own sample is not stored by its task: the planes take it from the padded copy.
constexpr int planeOfFirst(BayerSiteKind kind) { return kind == GreenOnRedRow ? 0 : kind == GreenOnBlueRow ? 2 : 1; }
constexpr int planeOfSecond(BayerSiteKind kind) { return kind == GreenOnRedRow || kind == Red ? 2 : 0; }

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
__attribute__((target("avx512f,avx512bw"))) void mergeRows(const T* sites, T* column, std::uint64_t count,
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
void BayerTBBTask<T>::operator()() const {
    // The scheduler recycles task objects across threads inside its own library, where the thread
    // checker cannot see the hand-over: the fields are copied with that one read unchecked, and
    // everything the task does afterwards is checked.
    const BayerTBBTask task = unseenCopy(*this);
    task.run();
}

template <typename T>
void BayerTBBTask<T>::run() const {
    takeOver(padded.even);
    int spins = 0;
    int state;
    while ((state = gate->state.load(std::memory_order_acquire)) == PaddedGate::writing) {
        if (++spins < 256)
            pause();
        else
            std::this_thread::yield();
    }
    if (state == PaddedGate::written) runAnyTask(*this);
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

template <typename T, typename Fill>
void demosaic(Fill fill, T* red, T* green, T* blue, std::pair<std::uint32_t, std::uint32_t> dims,
              std::uint32_t alignment, std::uint32_t bits, int sampleBits) {
    // The four site kinds at padded (2,2), (2,3), (3,2), (3,3) for each pattern.
    static constexpr BayerSiteKind layouts[5][4] = {
        {GreenOnRedRow, Red, Blue, GreenOnBlueRow}, {GreenOnBlueRow, Blue, Red, GreenOnRedRow},
        {Blue, GreenOnBlueRow, GreenOnRedRow, Red}, {},
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

    Workspace workspace;
    const PaddedMosaic<T> padded = paddedStorage<T>(workspace, height, width);
    // A task writes the two planes it computes, column by column, into storage of its own (unless
    // it writes the host planes in place, below); once all have finished, those rows go into the
    // host planes, with the sites' own samples taken straight from the padded copy. Tasks on
    // different threads thus never write the same cache lines. Columns of sites are padded to
    // whole cache lines, so vector kernels store whole vectors.
    constexpr std::uint64_t perLine = lineBytes / sizeof(T);
    const std::uint64_t evenSites = (height + 1) / 2, oddSites = height / 2;
    const std::uint64_t columnOf[2] = {(evenSites + perLine - 1) / perLine * perLine,
                                       (oddSites + perLine - 1) / perLine * perLine};
    const std::uint64_t columns[2] = {(width + 1) / 2, width / 2};
    T* regions[4][3] = {};
    T* next =
        workspace.get<T>(2 * columnOf[0] * (columns[0] + columns[1]) + 2 * columnOf[1] * (columns[0] + columns[1]), 1);
    const Site sites[4] = {{layouts[alignment][0], 2, 2},
                           {layouts[alignment][1], 2, 3},
                           {layouts[alignment][2], 3, 2},
                           {layouts[alignment][3], 3, 3}};
    for (int t = 0; t < 4; ++t) {
        const std::uint64_t size = columnOf[t / 2] * columns[t % 2];
        for (int plane : {planeOfFirst(sites[t].kind), planeOfSecond(sites[t].kind)}) {
            regions[t][plane] = next;
            next += size;
        }
    }
    // The tasks are spawned before the padded copy is written, so that threads waking up to run
    // them do so while this thread writes it; they start on it once the gate opens. Should a
    // spawn fail, the gate is abandoned and the tasks already spawned return at once.
    PaddedGate gate;
    // Tasks on this thread may write the host planes in place where the 512-bit kernels run, for
    // 8-bit samples. With 16-bit ones the host planes are twice the size and the in-place writes,
    // which reach each of their lines twice, cost more than the planes they save.
    const bool inPlace = sizeof(T) == 1 && widestKernelsAvailable();
    bool wroteInPlace[4] = {false, false, false, false};
    // The wait is isolated: while it waits, this thread runs only these four tasks, never another
    // of the host's own tasks, which could start a demosaic of its own on this thread.
    oneapi::tbb::this_task_arena::isolate([&] {
        oneapi::tbb::task_group group;
        struct Abandon {
            PaddedGate& gate;
            ~Abandon() {
                int writing = PaddedGate::writing;
                gate.state.compare_exchange_strong(writing, PaddedGate::abandoned, std::memory_order_release);
            }
        } abandon{gate};
        for (int t = 0; t < 4; ++t) {
            const Site& site = sites[t];
            const BayerTBBTask<T> task{height,
                                       width,
                                       site.column,
                                       site.row,
                                       0,
                                       upper,
                                       {regions[t][0], regions[t][1], regions[t][2]},
                                       columnOf[t / 2],
                                       padded,
                                       site.kind,
                                       &gate,
                                       {inPlace ? red : nullptr, inPlace ? green : nullptr, inPlace ? blue : nullptr},
                                       &wroteInPlace[t]};
            handOver(padded.even);
            group.run(task);
        }
        fillPadded(padded, width, fill);
        gate.state.store(PaddedGate::written, std::memory_order_release);
        group.wait();
        takeOver(padded.even);
    });
    T* const out[3] = {red, green, blue};
    for (int plane = 0; plane < 3; ++plane)
        for (std::uint64_t x = 0; x < width; ++x) {
            const int parity = static_cast<int>(x & 1);
            const T* rows[2];
            for (int rowParity = 0; rowParity < 2; ++rowParity) {
                const T* computed = regions[2 * rowParity + parity][plane];
                const T* own = (rowParity == 0 ? padded.even : padded.odd) + (x + 2) * padded.stride + 1;
                rows[rowParity] = computed != nullptr ? computed + x / 2 * columnOf[rowParity] : own;
            }
            // Both rows interleaved, or those of one task between the rows written in place.
            const bool written[2] = {wroteInPlace[parity], wroteInPlace[2 + parity]};
            if (!written[0] && !written[1]) {
                interleave(rows[0], rows[1], out[plane] + x * height, height);
                continue;
            }
#if defined(__x86_64__)
            const std::uint64_t sitesOf[2] = {evenSites, oddSites};
            for (int rowParity = 0; rowParity < 2; ++rowParity)
                if (!written[rowParity])
                    mergeRows(rows[rowParity], out[plane] + x * height, sitesOf[rowParity], rowParity == 1);
#endif
        }
}

}  // namespace

void demosaic8(const std::uint8_t* mosaic, std::uint8_t* red, std::uint8_t* green, std::uint8_t* blue, std::uint64_t,
               std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment, std::uint32_t bits) {
    demosaic(fromColumns(mosaic, dims.first, dims.second), red, green, blue, dims, alignment, bits, 8);
}

void demosaic16(const std::uint16_t* mosaic, std::uint16_t* red, std::uint16_t* green, std::uint16_t* blue,
                std::uint64_t, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                std::uint32_t bits) {
    demosaic(fromColumns(mosaic, dims.first, dims.second), red, green, blue, dims, alignment, bits, 16);
}

void demosaicRows8(const std::uint8_t* rows, std::uint64_t rowSamples, std::uint8_t* red, std::uint8_t* green,
                   std::uint8_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                   std::uint32_t bits) {
    demosaic(fromRows(rows, rowSamples, dims.first, dims.second), red, green, blue, dims, alignment, bits, 8);
}

void demosaicRows16(const std::uint16_t* rows, std::uint64_t rowSamples, std::uint16_t* red, std::uint16_t* green,
                    std::uint16_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                    std::uint32_t bits) {
    demosaic(fromRows(rows, rowSamples, dims.first, dims.second), red, green, blue, dims, alignment, bits, 16);
}

template struct BayerTBBTask<std::uint8_t>;
template struct BayerTBBTask<std::uint16_t>;

}  // namespace BayerUtil
}  // namespace lumoframekit
