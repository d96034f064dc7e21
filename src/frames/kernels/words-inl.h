// Packed RGB words unpacked into three samples, each sample an OR of masked and shifted fields.
#if defined(LUMO_KERNELS_WORDS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_WORDS_INL_H_
#undef LUMO_KERNELS_WORDS_INL_H_
#else
#define LUMO_KERNELS_WORDS_INL_H_
#endif

#include <hwy/highway.h>

#include <cstring>
#include <vector>

#include "frames/core/planes.h"
#include "frames/kernels/kernels.h"
#include "frames/kernels/transpose-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One field of a word, as a plain expression: masked, then shifted right (left when negative).
template <typename Word>
inline Word fieldOf(Word word, const WordField& f) {
    const auto masked = static_cast<Word>(word & f.mask);
    return static_cast<Word>(f.shift >= 0 ? masked >> f.shift : masked << -f.shift);
}

// The same on a vector of words.
template <class D>
HWY_INLINE hn::VFromD<D> fieldOf(D d, hn::VFromD<D> words, const WordField& f) {
    using Word = hn::TFromD<D>;
    const auto masked = hn::And(words, hn::Set(d, static_cast<Word>(f.mask)));
    return f.shift >= 0 ? hn::ShiftRightSame(masked, f.shift) : hn::ShiftLeftSame(masked, -f.shift);
}

// count words into three runs of samples; a sample keeps the low bits of its channel's value.
template <typename Word, typename Sample>
void unpackWordsKernel(const Word* words, std::size_t count, const WordFields& fields, Sample* const out[3]) {
    const hn::ScalableTag<Word> d;
    const hn::Rebind<Sample, decltype(d)> ds;
    const hn::RebindToSigned<decltype(d)> di;  // the narrowing takes signed lanes: the values fit
    const auto low = hn::Set(d, static_cast<Word>(static_cast<Sample>(~Sample{0})));
    const std::size_t lanes = hn::Lanes(d);
    // Local copies, which the stores through the sample pointers cannot alias: the loop keeps
    // them in registers instead of reading them again after every store.
    WordFields f;
    std::memcpy(&f, &fields, sizeof f);
    Sample* const to[3] = {out[0], out[1], out[2]};
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        const auto v = hn::LoadU(d, words + i);
        for (int c = 0; c < 3; ++c) {
            const auto value = hn::Or(fieldOf(d, v, f[c][0]), fieldOf(d, v, f[c][1]));
            hn::StoreU(hn::DemoteTo(ds, hn::BitCast(di, hn::And(value, low))), ds, to[c] + i);
        }
    }
    for (; i < count; ++i)
        for (int c = 0; c < 3; ++c)
            out[c][i] = static_cast<Sample>(fieldOf(words[i], fields[c][0]) | fieldOf(words[i], fields[c][1]));
}

// A whole image of packed words (rows width words apart, stored bottom-up with flip) into three
// column-major planes: bands of rows are transposed into column-major words, and each column's
// words then unpacked into its three planes, in order. Large images go out in whole lines: each
// tile of a band of rows by a strip of columns is unpacked into staging memory and streamed.
template <typename Word, typename Sample>
void unpackWordImageKernel(const std::uint8_t* src, std::size_t width, std::size_t height, bool flip,
                           const WordFields& fields, std::uint8_t* const planes[3], ColumnStores stores) {
    constexpr std::size_t N = sizeof(Word);
    // Rows r0 .. r0 + rows - 1 of the image, transposed into `to`, a column of rows words for
    // each of the columns from c0 on; the band's first stored row is its last with flip.
    auto transposeBand = [&](std::size_t r0, std::size_t rows, std::size_t c0, std::size_t cols, Word* to) {
        const std::uint8_t* first = src + (flip ? height - r0 - rows : r0) * width * N + c0 * N;
        transposeColumns<N>(
            first, width * N, [&](std::size_t c) { return reinterpret_cast<std::uint8_t*>(to + c * rows); }, rows, cols,
            flip, SampleOp::Copy, ColumnStores::Cached);
    };
    if (stores == ColumnStores::Streamed) {
        // Panels of columns whose band copies (1 KiB of each row) stay in the second-level cache.
        constexpr std::size_t bandBytes = 512, bandRows = bandBytes / sizeof(Sample), strip = 32;
        constexpr std::size_t panelColumns = 1024 / N / strip * strip;
        thread_local std::vector<Word> words;
        words.resize(strip * bandRows);
        for (std::size_t p0 = 0; p0 < width; p0 += panelColumns) {
            const std::size_t p1 = std::min(p0 + panelColumns, width);
            BandCopy band{};
            streamBands<sizeof(Sample), bandBytes>(
                3, [&](std::size_t c, std::size_t x) { return planes[c] + x * height * sizeof(Sample); }, height, p0,
                p1, strip,
                [&](std::size_t b0, std::size_t b1, std::size_t s0, std::size_t s1, std::uint8_t* stage) {
                    const std::size_t rows = b1 - b0;
                    if (s0 == p0)
                        band = copyBand(
                            src + (flip ? height - 1 - b0 : b0) * width * N + p0 * N,
                            flip ? -static_cast<std::ptrdiff_t>(width * N) : static_cast<std::ptrdiff_t>(width * N),
                            rows, (p1 - p0) * N);
                    transposeColumns<N>(
                        band.at + (s0 - p0) * N, band.stride,
                        [&](std::size_t c) { return reinterpret_cast<std::uint8_t*>(words.data() + c * rows); }, rows,
                        s1 - s0, false, SampleOp::Copy, ColumnStores::Cached);
                    for (std::size_t x = s0; x < s1; ++x) {
                        Sample* const out[3] = {reinterpret_cast<Sample*>(stage + (x - s0) * bandBytes),
                                                reinterpret_cast<Sample*>(stage + (strip + x - s0) * bandBytes),
                                                reinterpret_cast<Sample*>(stage + (2 * strip + x - s0) * bandBytes)};
                        unpackWordsKernel<Word, Sample>(words.data() + (x - s0) * rows, rows, fields, out);
                    }
                });
        }
        return;
    }
    constexpr std::size_t bandRows = 256;
    auto* band = reinterpret_cast<Word*>(threadScratch(bandRows * width * N));
    for (std::size_t r0 = 0; r0 < height; r0 += bandRows) {
        const std::size_t rows = std::min(bandRows, height - r0);
        transposeBand(r0, rows, 0, width, band);
        for (std::size_t x = 0; x < width; ++x) {
            Sample* const out[3] = {reinterpret_cast<Sample*>(planes[0]) + x * height + r0,
                                    reinterpret_cast<Sample*>(planes[1]) + x * height + r0,
                                    reinterpret_cast<Sample*>(planes[2]) + x * height + r0};
            unpackWordsKernel<Word, Sample>(band + x * rows, rows, fields, out);
        }
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
