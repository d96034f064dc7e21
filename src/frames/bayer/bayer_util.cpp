#include "frames/bayer/bayer_util.h"

#include <oneapi/tbb/task_group.h>

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

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

template <typename T>
std::unique_ptr<T[]> paddedCopy(const T* mosaic, std::uint64_t height, std::uint64_t width) {
    const std::uint64_t column = height + 4;
    std::unique_ptr<T[]> padded(new T[column * (width + 4)]);
    for (std::uint64_t p = 0; p < width + 4; ++p) {
        const T* source = mosaic + reflected(static_cast<std::int64_t>(p), static_cast<std::int64_t>(width)) * height;
        T* target = padded.get() + p * column;
        std::copy(source, source + height, target + 2);
        for (std::uint64_t q : {std::uint64_t{0}, std::uint64_t{1}, height + 2, height + 3})
            target[q] = source[reflected(static_cast<std::int64_t>(q), static_cast<std::int64_t>(height))];
    }
    return padded;
}

// The kernels, each as an integer multiple of the exact value: Gx counts eighths, the chroma
// kernels sixteenths, so no rounding happens before the clamp.
struct Neighbours {
    std::int64_t c, n1, s1, w1, e1, n2, s2, w2, e2, nw, ne, sw, se;
};

inline std::int64_t greenEighths(const Neighbours& v) {
    return 4 * v.c - (v.n2 + v.s2 + v.w2 + v.e2) + 2 * (v.n1 + v.s1 + v.w1 + v.e1);
}
inline std::int64_t crossSixteenths(const Neighbours& v) {
    return 12 * v.c - 3 * (v.n2 + v.s2 + v.w2 + v.e2) + 4 * (v.nw + v.ne + v.sw + v.se);
}
inline std::int64_t verticalSixteenths(const Neighbours& v) {
    return 10 * v.c - 2 * (v.nw + v.ne + v.sw + v.se) - 2 * (v.n2 + v.s2) + (v.w2 + v.e2) + 8 * (v.n1 + v.s1);
}
inline std::int64_t horizontalSixteenths(const Neighbours& v) {
    return 10 * v.c - 2 * (v.nw + v.ne + v.sw + v.se) - 2 * (v.w2 + v.e2) + (v.n2 + v.s2) + 8 * (v.w1 + v.e1);
}

// Clamping the exact value at the fractional bound and truncating equals flooring it and capping
// the floor at the bound's integer part; negative values become 0.
template <typename T>
inline T clamped(std::int64_t scaled, int fractionBits, std::int64_t upper) {
    if (scaled < 0) return 0;
    return static_cast<T>(std::min<std::int64_t>(scaled >> fractionBits, upper));
}

}  // namespace

template <typename T>
void BayerTBBTask<T>::operator()() const {
    takeOver(padded);
    const std::uint64_t h = columnLength, w = columnCount;
    const std::int64_t col = static_cast<std::int64_t>(h + 4);
    std::uint64_t index = firstIndex;
    for (std::uint64_t p = firstColumn; p < w + 2; p += 2) {
        const T* at = padded + p * (h + 4) + firstRow;
        for (std::uint64_t q = firstRow; q < h + 2; q += 2, at += 2, index += 2) {
            const Neighbours v{at[0],       at[-1],       at[1],       at[-col],    at[col],
                               at[-2],      at[2],        at[-2 * col], at[2 * col], at[-col - 1],
                               at[col - 1], at[-col + 1], at[col + 1]};
            T r, g, b;
            switch (kind) {
                case GreenOnRedRow:
                    r = clamped<T>(horizontalSixteenths(v), 4, upper), g = at[0];
                    b = clamped<T>(verticalSixteenths(v), 4, upper);
                    break;
                case GreenOnBlueRow:
                    r = clamped<T>(verticalSixteenths(v), 4, upper), g = at[0];
                    b = clamped<T>(horizontalSixteenths(v), 4, upper);
                    break;
                case Red:
                    r = at[0], g = clamped<T>(greenEighths(v), 3, upper);
                    b = clamped<T>(crossSixteenths(v), 4, upper);
                    break;
                default:
                    r = clamped<T>(crossSixteenths(v), 4, upper), g = clamped<T>(greenEighths(v), 3, upper);
                    b = at[0];
                    break;
            }
            planes[0][index] = r;
            planes[1][index] = g;
            planes[2][index] = b;
        }
        // On to the first site of the column two to the right.
        index = (p - 2 + 2) * h + (firstRow - 2);
    }
    handOver(padded);
}

namespace {

struct Site {
    BayerSiteKind kind;
    std::uint64_t row, column;  // padded coordinates of the first site
};

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
    const std::int64_t upper = ((std::int64_t{1} << sampleBits) - 1) >> shift;

    std::unique_ptr<T[]> padded = paddedCopy(mosaic, height, width);
    oneapi::tbb::task_group group;
    const Site sites[4] = {{layouts[alignment][0], 2, 2},
                           {layouts[alignment][1], 2, 3},
                           {layouts[alignment][2], 3, 2},
                           {layouts[alignment][3], 3, 3}};
    for (const Site& site : sites) {
        const BayerTBBTask<T> task{height, width, site.column, site.row, (site.column - 2) * height + (site.row - 2),
                                   upper, {red, green, blue}, padded.get(), site.kind};
        handOver(padded.get());
        group.run(task);
    }
    group.wait();
    takeOver(padded.get());
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
