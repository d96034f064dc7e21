// The demosaic's site kernels: every site of one kind computed by gradient-corrected
// interpolation, one lane per site.
#if defined(LUMO_KERNELS_SITES_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LUMO_KERNELS_SITES_INL_H_
#undef LUMO_KERNELS_SITES_INL_H_
#else
#define LUMO_KERNELS_SITES_INL_H_
#endif

#include <hwy/highway.h>

#include <type_traits>

#include "frames/bayer/bayer_util.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {

// Sites are computed in lanes wide enough for the sums (16-bit lanes for 8-bit samples, 32-bit
// lanes for 16-bit ones), a full vector of them per step, and narrowed to a half vector of samples.
template <typename T>
struct SiteLanes {
    using Wide = std::conditional_t<sizeof(T) == 1, std::int16_t, std::int32_t>;
    using D = hn::ScalableTag<Wide>;
    using Narrow = hn::Rebind<T, D>;        // as many samples as wide lanes
    using Samples = hn::Repartition<T, D>;  // two samples per wide lane
    using V = hn::VFromD<D>;
    static constexpr std::uint64_t lanes = hn::MaxLanes(D());

    static HWY_INLINE V load(const T* at) { return hn::PromoteTo(D(), hn::LoadU(Narrow(), at)); }
};

// The kernels, each as an integer multiple of the exact value (Gx in eighths, the chroma kernels in
// sixteenths) so that no rounding happens before the clamp; clamping the exact value at the
// fractional bound and truncating equals flooring it and capping the floor at the bound's integer
// part, negatives becoming 0. s points at the sites, o at the other parity's row above them; the
// results are the two computed values of each site (horizontal and vertical chroma at green sites,
// green and the diagonal chroma at red and blue ones), floored but not yet clamped.
template <typename T, bool GreenSite>
HWY_INLINE void computeSites(const T* s, const T* o, std::uint64_t stride, typename SiteLanes<T>::V& first,
                             typename SiteLanes<T>::V& second) {
    using L = SiteLanes<T>;
    const typename L::D d;
    auto times = [&](typename L::V v, int k) { return hn::Mul(v, hn::Set(d, static_cast<typename L::Wide>(k))); };
    const auto c = L::load(s);
    const auto vertical2 = hn::Add(L::load(s - 1), L::load(s + 1));                      // n2 + s2
    const auto horizontal2 = hn::Add(L::load(s - 2 * stride), L::load(s + 2 * stride));  // w2 + e2
    const auto vertical1 = hn::Add(L::load(o), L::load(o + 1));                          // n1 + s1
    const auto horizontal1 = hn::Add(L::load(s - stride), L::load(s + stride));          // w1 + e1
    const auto diagonals = hn::Add(hn::Add(L::load(o - stride), L::load(o - stride + 1)),
                                   hn::Add(L::load(o + stride), L::load(o + stride + 1)));
    if constexpr (GreenSite) {
        const auto common = hn::Sub(times(c, 10), hn::Add(diagonals, diagonals));
        const auto v =
            hn::Add(hn::Sub(common, hn::Add(vertical2, vertical2)), hn::Add(horizontal2, times(vertical1, 8)));
        const auto h =
            hn::Add(hn::Sub(common, hn::Add(horizontal2, horizontal2)), hn::Add(vertical2, times(horizontal1, 8)));
        first = hn::ShiftRight<4>(h);
        second = hn::ShiftRight<4>(v);
    } else {
        const auto far = hn::Add(vertical2, horizontal2);
        const auto near = hn::Add(vertical1, horizontal1);
        first = hn::ShiftRight<3>(hn::Add(hn::Sub(times(c, 4), far), hn::Add(near, near)));
        second = hn::ShiftRight<4>(hn::Add(hn::Sub(times(c, 12), times(far, 3)), times(diagonals, 4)));
    }
}

// A task writes the two planes it computes into memory of its own; the second task of a pair to
// write a chunk of columns merges the chunk into the host planes, on whichever thread it runs. The
// planes are stored into the caches, where that merge finds them. Streamed to memory from threads
// other than the caller's, the merges read them back from memory: cached, on a 2-core AMD EPYC with
// 256-bit vectors (two sittings of six alternating runs, best ns a pixel), 8-bit 1080p 1.02 -> 0.44
// and 0.91 -> 0.37, 8 MP 1.05 -> 0.65 and 0.98 -> 0.51; 12-bit 8 MP 2.22 -> 1.35 and 2.07 -> 1.29;
// packed 12-bit 8 MP 2.65 -> 1.57 and 2.52 -> 1.64. At 20 MP, whose planes outgrow the shared cache
// either way, the two sittings differed (8-bit 0.88 -> 0.79 and 0.71 -> 0.76).
template <typename T, BayerUtil::BayerSiteKind Kind>
void siteColumns(const BayerUtil::BayerTBBTask<T>& task) {
    using namespace BayerUtil;
    using L = SiteLanes<T>;
    const typename L::D d;
    const typename L::Narrow dn;
    constexpr bool greenSite = Kind == GreenOnRedRow || Kind == GreenOnBlueRow;
    constexpr int firstPlane = planeOfFirst(Kind), secondPlane = planeOfSecond(Kind);
    const std::uint64_t h = task.columnLength, w = task.columnCount, stride = task.padded.stride;
    const bool evenSites = task.firstRow == 2;
    const T* same = evenSites ? task.padded.even : task.padded.odd;
    const T* other = evenSites ? task.padded.odd : task.padded.even;
    const std::uint64_t above = evenSites ? 0 : 1;
    const std::uint64_t sites = evenSites ? (h + 1) / 2 : h / 2;
    const auto zero = hn::Zero(d), upper = hn::Set(d, static_cast<typename L::Wide>(task.upper));
    auto clamp = [&](typename L::V v) { return hn::Min(hn::Max(v, zero), upper); };
    std::uint64_t out = 0;
    for (std::uint64_t p = task.firstColumn; p < w + 2; p += 2, out += task.planeColumn) {
        const T* column = same + p * stride + 1;
        const T* otherRow = other + p * stride + above;
        // Whole vectors: the planes' columns are padded to whole cache lines.
        for (std::uint64_t i = 0; i < sites; i += L::lanes) {
            typename L::V first, second;
            computeSites<T, greenSite>(column + i, otherRow + i, stride, first, second);
            const auto firsts = hn::DemoteTo(dn, clamp(first)), seconds = hn::DemoteTo(dn, clamp(second));
            hn::Store(firsts, dn, task.planes[firstPlane] + out + i);
            hn::Store(seconds, dn, task.planes[secondPlane] + out + i);
        }
    }
}

template <typename T>
void sitesKernel(const BayerUtil::BayerTBBTask<T>& task) {
    switch (task.kind) {
        case BayerUtil::GreenOnRedRow: siteColumns<T, BayerUtil::GreenOnRedRow>(task); break;
        case BayerUtil::GreenOnBlueRow: siteColumns<T, BayerUtil::GreenOnBlueRow>(task); break;
        case BayerUtil::Red: siteColumns<T, BayerUtil::Red>(task); break;
        case BayerUtil::Blue: siteColumns<T, BayerUtil::Blue>(task); break;
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#endif
