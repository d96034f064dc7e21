#pragma once
// What the benchmark programs share: the image size, reproducible noise, memcpy as the floor, and
// the families and sizes of the size ladder.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "lumoframekit/lumoframekit.h"

namespace lumobench {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr std::size_t kPixels = static_cast<std::size_t>(kWidth) * kHeight;

inline std::vector<std::uint8_t> noise(std::size_t bytes) {
    std::vector<std::uint8_t> v(bytes);
    std::mt19937 rng(1);
    for (auto& b : v) b = static_cast<std::uint8_t>(rng());
    return v;
}

// memcpy of `bytes`, reported in bytes per second.
inline void copyOf(benchmark::State& state, std::size_t bytes) {
    std::vector<std::uint8_t> src = noise(bytes), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(bytes));
}

// The size ladder's families: name, frame type and output bytes a pixel.
struct Family {
    const char* name;
    lumoframekit::frametypes::FRAMETYPE code;
    int outBytesPerPixel;
};

// clang-format off
inline constexpr Family kFamilies[] = {
    {"mono8",                lumoframekit::frametypes::MONO8_TOPDOWN,           1},
    {"mono8 bottom-up",      lumoframekit::frametypes::MONO8_BOTTOMUP,          1},
    {"mono16 BE bottom-up",  lumoframekit::frametypes::MONO16_BE_BOTTOMUP,      2},
    {"mono float",           lumoframekit::frametypes::MONO_FLOAT_LE_TOPDOWN,   4},
    {"mono double",          lumoframekit::frametypes::MONO_DOUBLE_LE_TOPDOWN,  8},
    {"packed 12-bit",        lumoframekit::frametypes::MONO12_PACKED,           2},
    {"packed 10-bit 4in5",   lumoframekit::frametypes::MONO10_PACKED_LSB,       2},
    {"RGB24",                lumoframekit::frametypes::RGB24,                   3},
    {"RGB48 LE",             lumoframekit::frametypes::RGB48_LE,                6},
    {"BGRX32",               lumoframekit::frametypes::BGRX32,                  3},
    {"RGB565",               lumoframekit::frametypes::RGB565,                  3},
    {"planar RGB8",          lumoframekit::frametypes::PLANAR_RGB8,             3},
    {"YUV 4:2:2 packed",     lumoframekit::frametypes::YUV422_UYVY,             3},
    {"YUV 4:2:0 planar",     lumoframekit::frametypes::YUV420_PLANAR_YUV,       3},
    {"YUV 4:2:0 semi-planar", lumoframekit::frametypes::YUV420_SEMI_PLANAR,     3},
    {"Bayer 8-bit",          lumoframekit::frametypes::BAYER8_RGGB,             3},
    {"Bayer 12-bit",         lumoframekit::frametypes::BAYER12_RGGB,            6},
    {"Bayer 12-bit packed",  lumoframekit::frametypes::BAYER12_PACKED_RGGB,     6},
};
// clang-format on

struct LadderSize {
    std::string name;
    int width, height;
};
inline const LadderSize kLadder[] = {{"1080p", 1920, 1080}, {"8 MP", 3840, 2160}, {"20 MP", 5472, 3648}};

// A --size argument, WIDTHxHEIGHT, added to sizes; false (with a message) where it is not one.
inline bool parseSize(const char* text, std::vector<LadderSize>& sizes) {
    int w = 0, h = 0;
    if (std::sscanf(text, "%dx%d", &w, &h) != 2 || w <= 0 || h <= 0) {
        std::fprintf(stderr, "--size takes WIDTHxHEIGHT, not %s\n", text);
        return false;
    }
    sizes.push_back({text, w, h});
    return true;
}

}  // namespace lumobench
