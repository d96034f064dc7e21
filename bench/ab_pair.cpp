// Two builds of the library against each other, loaded into one process: each call of one
// build's copy-out alternates with the other's on the same frame bytes, and the ratio of each
// pair of calls is taken. The shared cache and memory of these machines are shared with others,
// and their speed drifts from one second to the next; adjacent calls meet the same state, so the
// median ratio of the pairs holds still where the best times of whole runs do not.
//   ab_pair LIB_A LIB_B [--pairs N] [--size WxH]... [FAMILY-SUBSTRING]
// prints, per family and size, the median time of B over A with its quartiles, each build's best
// and median ns a pixel, and whether the two builds' arrays differ.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;

namespace {

using Factory = IFrame* (*)(frametypes::FRAMETYPE, std::int32_t, std::int32_t);
// frameFactory's name in the library's symbol table.
constexpr const char* kFactorySymbol = "_ZN12lumoframekit12frameFactoryENS_10frametypes9FRAMETYPEEii";

Factory factoryOf(const char* path) {
    // Local, so that each build's calls bind to its own code.
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(2);
    }
    return reinterpret_cast<Factory>(dlsym(library, kFactorySymbol));
}

double quantile(std::vector<double> v, double q) {
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "ab_pair LIB_A LIB_B [--pairs N] [--size WxH]... [FAMILY-SUBSTRING]\n");
        return 2;
    }
    const Factory factories[2] = {factoryOf(argv[1]), factoryOf(argv[2])};
    if (factories[0] == nullptr || factories[1] == nullptr) {
        std::fprintf(stderr, "no frame factory in a library\n");
        return 2;
    }
    int pairs = 100;
    std::string only;
    std::vector<lumobench::LadderSize> sizes;
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--pairs" && i + 1 < argc)
            pairs = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--size" && i + 1 < argc) {
            if (!lumobench::parseSize(argv[++i], sizes)) return 2;
        } else
            only = arg;
    }
    if (sizes.empty()) sizes.assign(std::begin(lumobench::kLadder), std::end(lumobench::kLadder));
    std::printf("%-22s %-10s %8s %15s %18s %18s\n", "family", "size", "B / A", "quartiles", "A best / median",
                "B best / median");
    for (const lumobench::Family& family : lumobench::kFamilies) {
        if (!only.empty() && std::string(family.name).find(only) == std::string::npos) continue;
        for (const lumobench::LadderSize& size : sizes) {
            IFrame* frames[2] = {factories[0](family.code, size.width, size.height),
                                 factories[1](family.code, size.width, size.height)};
            const std::size_t pixels = static_cast<std::size_t>(size.width) * size.height;
            const std::vector<std::uint8_t> raw = lumobench::noise(frames[0]->getBufferSize());
            std::vector<std::uint8_t> out[2];
            double seconds[2] = {0, 0};
            auto call = [&](int k) {
                void* dest[] = {out[k].data(), nullptr};
                const auto start = std::chrono::steady_clock::now();
                frames[k]->getData(dest);
                seconds[k] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            };
            for (int k = 0; k < 2; ++k) {
                frames[k]->setBufferData(raw.data());
                out[k].assign(pixels * static_cast<std::size_t>(family.outBytesPerPixel), 0);
                call(k);  // pages faulted in, working memory made
            }
            std::vector<double> ratio, a, b;
            for (int p = 0; p < pairs; ++p) {
                // Either build first in turn.
                call(p % 2);
                call(1 - p % 2);
                ratio.push_back(seconds[1] / seconds[0]);
                a.push_back(seconds[0] * 1e9 / static_cast<double>(pixels));
                b.push_back(seconds[1] * 1e9 / static_cast<double>(pixels));
            }
            std::printf("%-22s %-10s %8.3f %7.3f - %5.3f %8.3f / %7.3f %8.3f / %7.3f%s\n", family.name,
                        size.name.c_str(), quantile(ratio, 0.5), quantile(ratio, 0.25), quantile(ratio, 0.75),
                        quantile(a, 0), quantile(a, 0.5), quantile(b, 0), quantile(b, 0.5),
                        out[0] == out[1] ? "" : "  arrays differ");
            std::fflush(stdout);
            frames[0]->release();
            frames[1]->release();
        }
    }
    return 0;
}
