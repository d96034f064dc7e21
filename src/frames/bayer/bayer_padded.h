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

// Writes half `part` (0 or 1) of the padded mosaic with the demosaic's kernels k: the two halves
// touch different memory and may be written at once. fill(even, odd, stride, k, part) writes its
// half of padded columns 2 to width + 1, rows 0 to height + 3 (image row y, column x at padded row
// y + 2, column x + 2); reflectEdges then writes the columns either side from them.
template <typename T, typename Fill>
void fillHalf(const PaddedMosaic<T>& padded, std::uint64_t width, const SampleKernels<T>& k, const Fill& fill,
              int part) {
    T* even = const_cast<T*>(padded.even);
    T* odd = const_cast<T*>(padded.odd);
    const std::uint64_t stride = padded.stride, half = stride * (width + 4);
    // Vector reads run past a column's last site into the next column or this slack: never into
    // memory that was not written.
    if (part == 0) std::fill(even + 2 * half, even + 2 * half + paddedSlack, T{0});
    fill(even, odd, stride, k, part);
}

template <typename T>
void reflectEdges(const PaddedMosaic<T>& padded, std::uint64_t width) {
    T* even = const_cast<T*>(padded.even);
    T* odd = const_cast<T*>(padded.odd);
    const std::uint64_t stride = padded.stride;
    for (std::uint64_t p : {std::uint64_t{0}, std::uint64_t{1}, width + 2, width + 3}) {
        const std::uint64_t from = reflected(static_cast<std::int64_t>(p), static_cast<std::int64_t>(width)) + 2;
        std::memcpy(even + p * stride, even + from * stride, stride * sizeof(T));
        std::memcpy(odd + p * stride, odd + from * stride, stride * sizeof(T));
    }
}

// From a column-major mosaic: each column split by row parity; the halves are the left and the
// right columns.
template <typename T>
auto fromColumns(const T* mosaic, std::uint64_t height, std::uint64_t width) {
    return [=](T* even, T* odd, std::uint64_t stride, const SampleKernels<T>& k, int part) {
        for (std::uint64_t x = part == 0 ? 0 : width / 2; x < (part == 0 ? width / 2 : width); ++x) {
            const T* source = mosaic + x * height;
            T* e = even + (x + 2) * stride + 1;
            T* o = odd + (x + 2) * stride + 1;
            k.deinterleave(source, e, o, height / 2);
            if (height % 2 == 1) e[height / 2] = source[height - 1];
            padColumnEnds(e - 1, o - 1, height);
        }
    };
}

// The stores of a padded copy of `bytes` (samples of type T), which the tasks read as soon as it
// is written. An 8-bit copy of up to 16 MiB (an 8 MP mosaic) goes into the caches, where the
// tasks find it: they do little work a byte and wait on memory otherwise. Larger copies, and
// 16-bit ones at every size (whose tasks do twice the work a site and hide those reads), stream
// past the caches, which saves reading each line before writing it: measured faster there.
template <typename T>
constexpr ColumnStores paddedStoresFor(std::uint64_t bytes) {
    return sizeof(T) == 1 && bytes <= (std::uint64_t{16} << 20) ? ColumnStores::Cached : ColumnStores::Streamed;
}

// Half `part` of the padded columns from the image rows of that parity, image row r at rowAt(r)
// and each row of the parity `step` samples on from the one two above: transposed straight into
// the half, and the rows above and below in it from the image rows they reflect, so that the
// lines just written are not read back. Images of 3 rows or more reflect rows of the half's own
// parity only.
template <typename T, class RowAt>
void rowsIntoHalf(RowAt rowAt, std::uint64_t step, T* even, T* odd, std::uint64_t stride, const SampleKernels<T>& k,
                  int part, std::uint64_t height, std::uint64_t width) {
    const T* const first = rowAt(static_cast<std::uint64_t>(part));
    const std::uint64_t rows = part == 0 ? (height + 1) / 2 : height / 2;
    const ColumnStores stores = paddedStoresFor<T>(2 * stride * (width + 4) * sizeof(T));
    T* const halves[2] = {even, odd};
    k.transposeIntoLines(reinterpret_cast<const std::uint8_t*>(first), step * sizeof(T), halves[part] + 2 * stride + 1,
                         stride, rows, width, stores);
    for (int which = 0; which < 4; ++which) {
        const std::uint64_t q = borderRows(height, which);
        if (static_cast<int>(q % 2) != part) continue;
        const T* from = rowAt(reflected(static_cast<std::int64_t>(q), static_cast<std::int64_t>(height)));
        T* at = halves[part] + 2 * stride + q / 2;
        for (std::uint64_t x = 0; x < width; ++x) at[x * stride] = from[x];
    }
}

// From a row-major mosaic (rows rowSamples apart): the even rows and the odd rows, the two
// halves, each transposed straight into their half of the padded columns.
template <typename T>
auto fromRows(const T* rows, std::uint64_t rowSamples, std::uint64_t height, std::uint64_t width) {
    return [=](T* even, T* odd, std::uint64_t stride, const SampleKernels<T>& k, int part) {
        rowsIntoHalf([=](std::uint64_t r) { return rows + r * rowSamples; }, 2 * rowSamples, even, odd, stride, k, part,
                     height, width);
    };
}

// From a mosaic of 3 rows or more whose rows of each parity `make` writes, one after another,
// into scratch (the even rows first, then the odd): each half of them is made by the thread that
// writes its half of the padded columns, which reads no row of the other.
template <typename T>
auto fromParityRows(ParityRows16 make, const void* context, T* scratch, std::uint64_t height, std::uint64_t width) {
    return [=](T* even, T* odd, std::uint64_t stride, const SampleKernels<T>& k, int part) {
        T* const rows = scratch + (part == 0 ? 0 : (height + 1) / 2 * width);
        make(context, part, rows);
        rowsIntoHalf([=](std::uint64_t r) { return rows + r / 2 * width; }, width, even, odd, stride, k, part, height,
                     width);
    };
}

}  // namespace BayerUtil
}  // namespace lumoframekit
