// Packed RGB words unpacked into three samples, each sample an OR of masked and shifted fields.
#if defined(LUMO_KERNELS_WORDS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_WORDS_INL_H_
#undef LUMO_KERNELS_WORDS_INL_H_
#else
#define LUMO_KERNELS_WORDS_INL_H_
#endif

#include <hwy/highway.h>

#include "frames/kernels/kernels.h"

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
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        const auto v = hn::LoadU(d, words + i);
        for (int c = 0; c < 3; ++c) {
            const auto value = hn::Or(fieldOf(d, v, fields[c][0]), fieldOf(d, v, fields[c][1]));
            hn::StoreU(hn::DemoteTo(ds, hn::BitCast(di, hn::And(value, low))), ds, out[c] + i);
        }
    }
    for (; i < count; ++i)
        for (int c = 0; c < 3; ++c)
            out[c][i] = static_cast<Sample>(fieldOf(words[i], fields[c][0]) | fieldOf(words[i], fields[c][1]));
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
