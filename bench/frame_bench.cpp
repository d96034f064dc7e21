// Copy-out speed at 1920 x 1080, in bytes of host output per second. Each frame's figure stands
// beside memcpy of the same output bytes, measured in the same run, as the floor.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench_support.h"
#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;
using namespace lumobench;

namespace {

struct FrameDeleter {
    void operator()(IFrame* f) const { delete f; }
};
using FramePtr = std::unique_ptr<IFrame, FrameDeleter>;

// Fills a frame with noise and times getData.
void runGetData(benchmark::State& state, FramePtr frame, std::size_t outBytes) {
    std::vector<std::uint8_t> raw = noise(frame->getBufferSize() + 64);
    frame->setBufferData(raw.data());
    std::vector<std::uint8_t> out(outBytes);
    void* dest[] = {out.data(), nullptr};
    for (auto _ : state) {
        frame->getData(dest);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(outBytes));
}

void frameGetData(benchmark::State& state, std::uint32_t code, int outBytesPerPixel) {
    runGetData(state, FramePtr(frameFactory(static_cast<frametypes::FRAMETYPE>(code), kWidth, kHeight)),
               static_cast<std::size_t>(kWidth) * kHeight * outBytesPerPixel);
}

// The 8-bit frame as the factory makes it is walked in cache-sized strips; made directly it is
// transposed as one image, which shows what the strips gain or cost.
void mono8Unblocked(benchmark::State& state) {
    runGetData(state, FramePtr(new MonochromeFrame8bitTopDown(kWidth, kHeight)),
               static_cast<std::size_t>(kWidth) * kHeight);
}

void memcpyOf(benchmark::State& state, int outBytesPerPixel) { copyOf(state, kPixels * outBytesPerPixel); }

// getDataInColorSpace into a new host array, released after each call.
void colorSpace(benchmark::State& state, std::uint32_t code, std::uint32_t request, int outBytesPerPixel) {
    FramePtr frame(frameFactory(static_cast<frametypes::FRAMETYPE>(code), kWidth, kHeight));
    std::vector<std::uint8_t> raw = noise(frame->getBufferSize());
    frame->setBufferData(raw.data());
    HostAllocator allocator;
    for (auto _ : state) {
        void* result = nullptr;
        FrameDims dims{};
        frame->getDataInColorSpace(&result, &dims, request, nullptr, 0, &allocator);
        benchmark::DoNotOptimize(result);
        allocator.release(result);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kWidth * kHeight * outBytesPerPixel);
}

// A steady acquisition: take a frame, fill its buffer, release it; frames per second.
void poolAcquisition(benchmark::State& state) {
    MemoryLimiter limiter(0, 1ull << 30);
    FramePool* pool = createFramePool(&limiter);
    pool->startReserver(2, 4);
    const std::vector<std::uint8_t> image = noise(static_cast<std::size_t>(kWidth) * kHeight);
    for (auto _ : state) {
        IFrame* frame = pool->getFrame(0x11010000u, kWidth, kHeight);
        frame->setBufferData(image.data());
        frame->release();
    }
    state.counters["frames_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    pool->destroy();
}

// The same without a pool: a new frame and buffer for every image.
void newFramePerImage(benchmark::State& state) {
    const std::vector<std::uint8_t> image = noise(static_cast<std::size_t>(kWidth) * kHeight);
    for (auto _ : state) {
        IFrame* frame = frameFactory(static_cast<frametypes::FRAMETYPE>(0x11010000u), kWidth, kHeight);
        frame->setBufferData(image.data());
        frame->release();
    }
    state.counters["frames_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(poolAcquisition)->UseRealTime();
BENCHMARK(newFramePerImage)->UseRealTime();
BENCHMARK_CAPTURE(memcpyOf, out_1_byte, 1);
BENCHMARK_CAPTURE(memcpyOf, out_2_bytes, 2);
BENCHMARK_CAPTURE(memcpyOf, out_4_bytes, 4);
BENCHMARK_CAPTURE(frameGetData, mono8_topdown_blocked, 0x11010000u, 1);
BENCHMARK(mono8Unblocked);
BENCHMARK_CAPTURE(frameGetData, mono8_bottomup_blocked, 0x11010100u, 1);
BENCHMARK_CAPTURE(frameGetData, mono16_be_bottomup, 0x11010108u, 2);
BENCHMARK_CAPTURE(frameGetData, float_le_topdown, 0x11010013u, 4);
BENCHMARK_CAPTURE(frameGetData, packed12_msb_first, 0x11010019u, 2);
BENCHMARK_CAPTURE(frameGetData, packed12_lsb_first, 0x11010024u, 2);
BENCHMARK_CAPTURE(frameGetData, packed10_4in5, 0x11010023u, 2);

BENCHMARK_CAPTURE(memcpyOf, out_3_bytes, 3);
BENCHMARK_CAPTURE(memcpyOf, out_6_bytes, 6);
BENCHMARK_CAPTURE(frameGetData, bayer8_rggb_to_rgb, 0x06030003u, 3);
BENCHMARK_CAPTURE(frameGetData, bayer12_rggb_to_rgb, 0x0603000Bu, 6);
BENCHMARK_CAPTURE(frameGetData, bayer12_packed_rggb_to_rgb, 0x0603001Bu, 6);
BENCHMARK_CAPTURE(colorSpace, mono8_to_rgb, 0x11010000u, COLORSPACE_RGB, 3);
BENCHMARK_CAPTURE(colorSpace, bayer8_rgb_to_yuv, 0x06030003u, COLORSPACE_YUV, 3);
BENCHMARK_CAPTURE(frameGetData, rgb24_rgb, 0x01000000u, 3);
BENCHMARK_CAPTURE(frameGetData, rgb32_bgrx, 0x01000003u, 3);
BENCHMARK_CAPTURE(frameGetData, rgb565, 0x05000001u, 3);
BENCHMARK_CAPTURE(frameGetData, planar_rgb8, 0x02000000u, 3);
BENCHMARK_CAPTURE(frameGetData, yuv422_packed, 0x03000000u, 3);
BENCHMARK_CAPTURE(frameGetData, yuv420_planar, 0x04000002u, 3);
BENCHMARK_CAPTURE(frameGetData, yuv420_semi_planar, 0x07000001u, 3);
BENCHMARK_CAPTURE(colorSpace, yuv422_to_rgb, 0x03000000u, COLORSPACE_RGB, 3);

BENCHMARK_MAIN();
