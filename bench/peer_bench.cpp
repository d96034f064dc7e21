// The copy-out and demosaic against peers measured in the same process, at 1920 x 1080. Each
// row of the table below pairs a measurement of this library with its peer and prints both
// times and their ratio against the row's target. Peers that are not installed are left out.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "lumoframekit/lumoframekit.h"

#if LUMO_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif
#if LUMO_HAVE_DC1394
#include <dc1394/conversions.h>
#endif

using namespace lumoframekit;
using namespace lumobench;

namespace {

void ours(benchmark::State& state, std::uint32_t code, std::size_t outBytes, std::uint16_t mask) {
    std::unique_ptr<IFrame> frame(frameFactory(static_cast<frametypes::FRAMETYPE>(code), kWidth, kHeight));
    std::vector<std::uint8_t> raw = noise(frame->getBufferSize());
    if (mask != 0)  // keep 16-bit samples within the frame's depth
        for (std::size_t i = 0; i + 1 < raw.size(); i += 2) raw[i + 1] &= static_cast<std::uint8_t>(mask >> 8);
    frame->setBufferData(raw.data());
    std::vector<std::uint8_t> out(outBytes);
    void* dest[] = {out.data(), nullptr};
    for (auto _ : state) {
        frame->getData(dest);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}

#if LUMO_HAVE_OPENCV
void cvTranspose(benchmark::State& state, int type) {
    cv::Mat src(kHeight, kWidth, type), dst;
    cv::randu(src, cv::Scalar::all(0), cv::Scalar::all(255));
    for (auto _ : state) {
        cv::transpose(src, dst);
        benchmark::DoNotOptimize(dst.data);
    }
}

void cvBayer(benchmark::State& state, int depth) {
    cv::setNumThreads(2);
    cv::Mat src(kHeight, kWidth, CV_MAKETYPE(depth, 1)), dst;
    cv::randu(src, cv::Scalar::all(0), cv::Scalar::all(depth == CV_8U ? 255 : 4095));
    for (auto _ : state) {
        cv::cvtColor(src, dst, cv::COLOR_BayerRG2RGB);
        benchmark::DoNotOptimize(dst.data);
    }
}
#endif

#if LUMO_HAVE_DC1394
void dcBayer(benchmark::State& state) {
    std::vector<std::uint8_t> src = noise(kPixels), dst(3 * kPixels);
    for (auto _ : state) {
        dc1394_bayer_decoding_8bit(src.data(), dst.data(), kWidth, kHeight, DC1394_COLOR_FILTER_RGGB,
                                   DC1394_BAYER_METHOD_HQLINEAR);
        benchmark::DoNotOptimize(dst.data());
    }
}
#endif

struct Row {
    std::string work, ours, peer;
    double target;  // largest allowed ours / peer
};

// Collects the mean time of each run for the table.
class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.iterations > 0) {
                std::string name = run.benchmark_name();
                if (const auto at = name.find("/real_time"); at != std::string::npos) name.erase(at);
                seconds[name] = run.GetAdjustedRealTime() / 1e9;
            }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> seconds;
};

}  // namespace

int main(int argc, char** argv) {
    const std::size_t one = kPixels, two = 2 * kPixels, four = 4 * kPixels, eight = 8 * kPixels;
    std::vector<Row> rows;
    auto add = [](const std::string& name, auto fn) { benchmark::RegisterBenchmark(name.c_str(), fn)->UseRealTime(); };
    add("ours/mono8_topdown", [=](benchmark::State& s) { ours(s, 0x11010000u, one, 0); });
    add("ours/mono8_bottomup", [=](benchmark::State& s) { ours(s, 0x11010100u, one, 0); });
    add("ours/mono16_le_topdown", [=](benchmark::State& s) { ours(s, 0x11010004u, two, 0); });
    add("ours/mono16_be_bottomup", [=](benchmark::State& s) { ours(s, 0x11010108u, two, 0); });
    add("ours/float_le", [=](benchmark::State& s) { ours(s, 0x11010013u, four, 0); });
    add("ours/double_le", [=](benchmark::State& s) { ours(s, 0x11010014u, eight, 0); });
    add("ours/packed12", [=](benchmark::State& s) { ours(s, 0x11010019u, two, 0); });
    add("ours/packed10_4in5", [=](benchmark::State& s) { ours(s, 0x11010023u, two, 0); });
    add("ours/bayer8_rgb", [=](benchmark::State& s) { ours(s, 0x06030003u, 3 * one, 0); });
    add("ours/bayer12_rgb", [=](benchmark::State& s) { ours(s, 0x0603000Bu, 3 * two, 0x0FFF); });
    add("ours/rgb24", [=](benchmark::State& s) { ours(s, 0x01000000u, 3 * one, 0); });
    add("ours/yuv422", [=](benchmark::State& s) { ours(s, 0x03000000u, 3 * one, 0); });
    add("memcpy/1_byte", [=](benchmark::State& s) { copyOf(s, one); });
    add("memcpy/2_bytes", [=](benchmark::State& s) { copyOf(s, two); });
    add("memcpy/3_bytes", [=](benchmark::State& s) { copyOf(s, 3 * one); });
    rows.push_back({"8-bit mono top-down / memcpy", "ours/mono8_topdown", "memcpy/1_byte", 4.0});
    rows.push_back({"8-bit mono bottom-up / memcpy", "ours/mono8_bottomup", "memcpy/1_byte", 4.0});
    rows.push_back({"packed 12-bit / memcpy of uint16", "ours/packed12", "memcpy/2_bytes", 4.0});
    rows.push_back({"packed 10-bit 4-in-5 / memcpy of uint16", "ours/packed10_4in5", "memcpy/2_bytes", 4.0});
    rows.push_back({"RGB24 subtype 0 / memcpy of planes", "ours/rgb24", "memcpy/3_bytes", 4.0});
    rows.push_back({"YUV packed subtype 0 / memcpy of planes", "ours/yuv422", "memcpy/3_bytes", 4.0});
#if LUMO_HAVE_OPENCV
    add("peer/transpose_8u", [](benchmark::State& s) { cvTranspose(s, CV_8UC1); });
    add("peer/transpose_16u", [](benchmark::State& s) { cvTranspose(s, CV_16UC1); });
    add("peer/transpose_32f", [](benchmark::State& s) { cvTranspose(s, CV_32FC1); });
    add("peer/transpose_64f", [](benchmark::State& s) { cvTranspose(s, CV_64FC1); });
    add("peer/bayer_bilinear_8u", [](benchmark::State& s) { cvBayer(s, CV_8U); });
    add("peer/bayer_bilinear_16u", [](benchmark::State& s) { cvBayer(s, CV_16U); });
    rows.push_back({"8-bit mono top-down / transpose 8U", "ours/mono8_topdown", "peer/transpose_8u", 0.5});
    rows.push_back({"8-bit mono bottom-up / transpose 8U", "ours/mono8_bottomup", "peer/transpose_8u", 0.5});
    rows.push_back({"16-bit mono LE top-down / transpose 16U", "ours/mono16_le_topdown", "peer/transpose_16u", 0.5});
    rows.push_back({"16-bit mono BE bottom-up / transpose 16U", "ours/mono16_be_bottomup", "peer/transpose_16u", 0.5});
    rows.push_back({"float mono / transpose 32F", "ours/float_le", "peer/transpose_32f", 0.75});
    rows.push_back({"double mono / transpose 64F", "ours/double_le", "peer/transpose_64f", 0.75});
    rows.push_back({"Bayer 8-bit to RGB / bilinear 8U", "ours/bayer8_rgb", "peer/bayer_bilinear_8u", 1.5});
    rows.push_back({"Bayer 12-bit to RGB / bilinear 16U", "ours/bayer12_rgb", "peer/bayer_bilinear_16u", 1.5});
#endif
#if LUMO_HAVE_DC1394
    add("peer/hq_linear_8u", [](benchmark::State& s) { dcBayer(s); });
    rows.push_back({"Bayer 8-bit to RGB / high-quality linear", "ours/bayer8_rgb", "peer/hq_linear_8u", 1.0 / 8.0});
#endif
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("\n%-44s %12s %12s %8s %8s\n", "work", "ours (ms)", "peer (ms)", "ratio", "target");
    for (const Row& row : rows) {
        const auto a = collector.seconds.find(row.ours), b = collector.seconds.find(row.peer);
        if (a == collector.seconds.end() || b == collector.seconds.end()) continue;
        const double ratio = a->second / b->second;
        std::printf("%-44s %12.3f %12.3f %8.2f %8.3f %s\n", row.work.c_str(), a->second * 1e3, b->second * 1e3, ratio,
                    row.target, ratio <= row.target ? "met" : "MISSED");
    }
    benchmark::Shutdown();
    return 0;
}
