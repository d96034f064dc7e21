#pragma once
// What both benchmark programs share: the image size, reproducible noise, and memcpy as the floor.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

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

}  // namespace lumobench
