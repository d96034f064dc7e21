#pragma once
// The padded mosaic the demosaic tasks read: the image with two reflected samples on every side,
// each padded column split by row parity, in working memory kept per thread; and the splitting
// and merging of row parities.
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <vector>

#include "frames/bayer/bayer_util.h"
#include "frames/core/transpose.h"
#include "frames/core/vector_transpose.h"

namespace lumoframekit {
namespace BayerUtil {

// Image row or column of padded index p (image index p - 2), reflected about the edge sample
// without repeating it. Images shorter than 3 reach past the far edge: those reads are held at it.
inline std::uint64_t reflected(std::int64_t p, std::int64_t n) {
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

}  // namespace BayerUtil
}  // namespace lumoframekit
