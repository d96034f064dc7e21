#pragma once
// The demosaic's site kernels: every site of one kind computed by gradient-corrected
// interpolation, on the widest vectors the processor offers.
#include <cstdint>

#include "frames/bayer/bayer_util.h"

namespace lumoframekit {
namespace BayerUtil {

// Where a task's two computed values go: the planes of the first (horizontal chroma at green
// sites, green at red and blue ones) and of the second (vertical chroma; the diagonal chroma). A
// site's own sample is not stored by its task: the planes take it from the padded copy.
constexpr int planeOfFirst(BayerSiteKind kind) { return kind == GreenOnRedRow ? 0 : kind == GreenOnBlueRow ? 2 : 1; }
constexpr int planeOfSecond(BayerSiteKind kind) { return kind == GreenOnRedRow || kind == Red ? 2 : 0; }

// Runs one task's sites.
template <typename T>
void runSiteTask(const BayerTBBTask<T>& task);

#if defined(__x86_64__)
// Writes `count` samples into every other element of a host column, from its first (even rows)
// or second (odd rows) element on. Needs the 512-bit kernels.
template <typename T>
void mergeRows(const T* sites, T* column, std::uint64_t count, bool oddRows);
#endif

}  // namespace BayerUtil
}  // namespace lumoframekit
