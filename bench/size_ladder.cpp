// The copy-out and demosaic speed over the size ladder: each family at 1920 x 1080, 3840 x 2160
// and 5472 x 3648, in nanoseconds per pixel and as a ratio to memcpy of the same output bytes,
// measured in the same run; then the time per pixel at 20 MP over that at 8 MP, and the same for
// memcpy, whose own growth shows how much of it the memory brings. --size measures the given
// sizes instead (repeat it for several), e.g. a square sensor's 1024x1024.
//   size_ladder [--csv] [--repeats N] [--size WxH]... [FAMILY-SUBSTRING]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;
using lumobench::Family;
using lumobench::LadderSize;

namespace {

// The best of `repeats` timed runs of each call, each run of enough calls to last about 50 ms, in
// ns per call. The runs of the calls alternate, so that both meet the same state of a shared
// cache and memory.
template <typename First, typename Second>
std::pair<double, double> bestTimes(First first, Second second, int repeats) {
    using Clock = std::chrono::steady_clock;
    auto callsFor = [](auto call) {
        call();  // pages faulted in, caches warm
        const auto start = Clock::now();
        call();
        const double once = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
        return std::clamp(static_cast<int>(5e7 / std::max(once, 1.0)), 1, 1000);
    };
    auto run = [](auto call, int calls) {
        const auto t0 = Clock::now();
        for (int i = 0; i < calls; ++i) call();
        return std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / calls;
    };
    const int firstCalls = callsFor(first), secondCalls = callsFor(second);
    std::pair<double, double> best{1e300, 1e300};
    for (int r = 0; r < repeats; ++r) {
        best.first = std::min(best.first, run(first, firstCalls));
        best.second = std::min(best.second, run(second, secondCalls));
    }
    return best;
}

struct Result {
    double nsPerPixel, memcpyNsPerPixel;
};

Result measure(const Family& family, const LadderSize& size, int repeats) {
    IFrame* frame = frameFactory(family.code, size.width, size.height);
    const std::size_t pixels = static_cast<std::size_t>(size.width) * size.height;
    const std::size_t outBytes = pixels * static_cast<std::size_t>(family.outBytesPerPixel);
    std::vector<std::uint8_t> raw = lumobench::noise(frame->getBufferSize() + 64);
    frame->setBufferData(raw.data());
    std::vector<std::uint8_t> out(outBytes), src = lumobench::noise(outBytes), copy(outBytes);
    void* dest[] = {out.data(), nullptr};
    const auto [frameNs, copyNs] = bestTimes([&] { frame->getData(dest); },
                                             [&] {
                                                 std::memcpy(copy.data(), src.data(), outBytes);
                                                 asm volatile("" : : "r"(copy.data()) : "memory");
                                             },
                                             repeats);
    frame->release();
    return {frameNs / static_cast<double>(pixels), copyNs / static_cast<double>(pixels)};
}

}  // namespace

int main(int argc, char** argv) {
    bool csv = false;
    int repeats = 5;
    std::string only;
    std::vector<LadderSize> sizes;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--csv")
            csv = true;
        else if (arg == "--repeats" && i + 1 < argc)
            repeats = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--size" && i + 1 < argc) {
            if (!lumobench::parseSize(argv[++i], sizes)) return 2;
        } else
            only = arg;
    }
    const bool ladder = sizes.empty();
    if (ladder) sizes.assign(std::begin(lumobench::kLadder), std::end(lumobench::kLadder));
    if (csv)
        std::printf("family,size,ns_per_pixel,memcpy_ns_per_pixel,ratio_to_memcpy\n");
    else
        std::printf("%-22s %-6s %10s %10s %8s\n", "family", "size", "ns/pixel", "memcpy", "ratio");
    for (const Family& family : lumobench::kFamilies) {
        if (!only.empty() && std::string(family.name).find(only) == std::string::npos) continue;
        std::vector<Result> results(sizes.size());
        for (std::size_t s = 0; s < sizes.size(); ++s) {
            const Result r = results[s] = measure(family, sizes[s], repeats);
            if (csv)
                std::printf("%s,%s,%.4f,%.4f,%.3f\n", family.name, sizes[s].name.c_str(), r.nsPerPixel,
                            r.memcpyNsPerPixel, r.nsPerPixel / r.memcpyNsPerPixel);
            else
                std::printf("%-22s %-6s %10.3f %10.3f %7.2fx\n", family.name, sizes[s].name.c_str(), r.nsPerPixel,
                            r.memcpyNsPerPixel, r.nsPerPixel / r.memcpyNsPerPixel);
        }
        if (!csv && ladder)
            std::printf("%-22s 20 MP / 8 MP per pixel: %.2fx (memcpy %.2fx)\n", family.name,
                        results[2].nsPerPixel / results[1].nsPerPixel,
                        results[2].memcpyNsPerPixel / results[1].memcpyNsPerPixel);
        std::fflush(stdout);
    }
    return 0;
}
