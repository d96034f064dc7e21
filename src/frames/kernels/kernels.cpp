// The kernel tables, one per instruction set, and the choice among them: the only place that
// asks what the processor has.

// Instruction sets the kernels are built for: every one the compiler can target, bar those whose
// vector length is not known when the code is built, and SSSE3 (every processor with it but no
// SSE4 is older than 2008: those take the portable build). The portable build is the emulated
// 128-bit one, which supports every operation; GCC before 12.3 may miscompile it on some
// architectures, so every test suite also runs on it.
#define HWY_COMPILE_ALL_ATTAINABLE
#define HWY_BROKEN_EMU128 0
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "frames/kernels/kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "frames/kernels/gather-inl.h"
#include "frames/kernels/kernels.h"
#include "frames/kernels/packed-inl.h"
#include "frames/kernels/sites-inl.h"
#include "frames/kernels/transpose-inl.h"
#include "frames/kernels/words-inl.h"

HWY_BEFORE_NAMESPACE();
namespace lumoframekit {
namespace HWY_NAMESPACE {

template <typename T>
constexpr SampleKernels<T> sampleKernels() {
    return {.sites = sitesKernel<T>,
            .deinterleave = deinterleaveKernel<T>,
            .interleave = interleaveKernel<T>,
            .transposeIntoLines = transposeIntoLinesKernel<T>};
}

template <std::size_t... Packings>
Kernels tableOf(std::index_sequence<Packings...>) {
    return {.name = hwy::TargetName(HWY_TARGET),
            .vectorBits = HWY_TARGET == HWY_EMU128 ? 0 : static_cast<int>(8 * hn::MaxLanes(Bytes())),
            .transpose = {transposeSamplesKernel<1>, transposeSamplesKernel<2>, transposeSamplesKernel<4>,
                          transposeSamplesKernel<8>},
            .transposePixels = transposePixelsKernel,
            .streamCopy = streamCopyKernel,
            .unpackWordImage16 = unpackByteImage,
            .unpackWordImage32 = unpackWordImageKernel<std::uint32_t, std::uint16_t>,
            .splitInterleaved = splitInterleavedKernel,
            .unpack = {unpackKernel<kPackings[Packings].packing>...},
            .unpackRows = {unpackRowsKernel<kPackings[Packings].packing>...},
            .u8 = sampleKernels<std::uint8_t>(),
            .u16 = sampleKernels<std::uint16_t>()};
}

const Kernels* targetKernels() {
    static const Kernels table = tableOf(std::make_index_sequence<std::size(kPackings)>{});
    return &table;
}

}  // namespace HWY_NAMESPACE
}  // namespace lumoframekit
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include <atomic>
#include <cstdlib>

namespace lumoframekit {

namespace {

struct Candidate {
    std::int64_t target;
    const Kernels* (*table)();
};

// Best first; the portable build last.
constexpr Candidate kCandidates[] = {
    {HWY_AVX3, HWY_CHOOSE_AVX3(targetKernels)},       {HWY_AVX2, HWY_CHOOSE_AVX2(targetKernels)},
    {HWY_SSE4, HWY_CHOOSE_SSE4(targetKernels)},       {HWY_NEON, HWY_CHOOSE_NEON(targetKernels)},
    {HWY_EMU128, HWY_CHOOSE_FALLBACK(targetKernels)},
};

// The widest table the processor runs within `bits`.
const Kernels* chooseKernels(int bits) {
    const std::int64_t supported = hwy::SupportedTargets();
    for (const Candidate& candidate : kCandidates) {
        if (candidate.table == nullptr || (candidate.target != HWY_EMU128 && (supported & candidate.target) == 0))
            continue;
        const Kernels* table = candidate.table();
        if (table->vectorBits <= bits || candidate.target == HWY_EMU128) return table;
    }
    return (HWY_CHOOSE_FALLBACK(targetKernels))();
}

// LUMO_VECTOR_BITS in the environment sets the starting limit, so that a whole program (a test
// suite, a host chasing a difference) can run on narrower kernels.
int initialWidthLimit() {
    const char* bits = std::getenv("LUMO_VECTOR_BITS");
    return bits != nullptr && *bits != '\0' ? std::atoi(bits) : 512;
}

std::atomic<const Kernels*> current{chooseKernels(initialWidthLimit())};

}  // namespace

const Kernels& kernels() { return *current.load(std::memory_order_acquire); }

int limitVectorWidth(int bits) {
    const Kernels* table = chooseKernels(bits);
    current.store(table, std::memory_order_release);
    return table->vectorBits;
}

template <int N>
void transposeSamples(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                      std::size_t rows, std::size_t cols, bool flipRows, SampleOp op, ColumnStores stores) {
    constexpr int index = N == 1 ? 0 : N == 2 ? 1 : N == 4 ? 2 : 3;
    kernels().transpose[index](src, srcRowBytes, dst, dstColumn, rows, cols, flipRows, op, stores);
}

template void transposeSamples<1>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp, ColumnStores);
template void transposeSamples<2>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp, ColumnStores);
template void transposeSamples<4>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp, ColumnStores);
template void transposeSamples<8>(const std::uint8_t*, std::size_t, std::uint8_t*, std::size_t, std::size_t,
                                  std::size_t, bool, SampleOp, ColumnStores);

void splitInterleaved(const std::uint8_t* src, std::size_t stride, const std::uint8_t* end, std::size_t width,
                      std::size_t height, bool flipRows, const PixelBlock& block, std::uint8_t* const planes[3]) {
    // The split writes a strip of 64 columns of each plane at once.
    kernels().splitInterleaved(
        src, stride, end, width, height, flipRows, block, planes,
        unlessColumnsCollide(columnStoresFor(3 * std::uint64_t{width} * height, height), height, 3 * 64));
}

}  // namespace lumoframekit
#endif
