#include <gtest/gtest.h>

#include <sys/sysinfo.h>

#include <thread>
#include <vector>

#include "lumoframekit/memory_limiter.h"

using lumoframekit::MemoryLimiter;
using lumoframekit::PhysicalMemoryMemoryLimiter;

TEST(MemoryLimiter, CountsSaturateAtZeroAndResetRestoresTheDefault) {
    MemoryLimiter limiter(0, 1000);
    EXPECT_EQ(limiter.getMemoryLimit(), 1000u);
    limiter.incMemoryUsed(600);
    limiter.decMemoryUsed(700);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
    limiter.incMemoryUsed(~0ull);
    limiter.incMemoryUsed(2);  // wraps modulo 2^64
    EXPECT_EQ(limiter.getMemoryUsed(), 1u);
    limiter.setMemoryLimit(50);
    EXPECT_EQ(limiter.getMemoryLimit(), 50u);
    limiter.reset();
    EXPECT_EQ(limiter.getMemoryLimit(), 1000u);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

TEST(MemoryLimiter, ConcurrentChargesAndCreditsLoseNothing) {
    MemoryLimiter limiter(0, 1ull << 40);
    limiter.incMemoryUsed(1000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                limiter.incMemoryUsed(3);
                limiter.decMemoryUsed(3);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(limiter.getMemoryUsed(), 1000u);
}

TEST(PhysicalMemoryMemoryLimiter, AnswersFromTheMachinesMemory) {
    struct sysinfo info {};
    ASSERT_EQ(sysinfo(&info), 0);
    const std::uint64_t total = static_cast<std::uint64_t>(info.totalram) * info.mem_unit;

    PhysicalMemoryMemoryLimiter none(0);
    EXPECT_EQ(none.getMemoryLimit(), 0u);  // some memory is always in use

    PhysicalMemoryMemoryLimiter all(100);
    const std::uint64_t limit = all.getMemoryLimit();
    EXPECT_GT(limit, 0u);
    EXPECT_LE(limit, total);
    all.incMemoryUsed(12345);
    EXPECT_EQ(all.getMemoryUsed(), 0u);

    PhysicalMemoryMemoryLimiter twice(200);  // above 100 is taken as it stands
    EXPECT_GE(twice.getMemoryLimit(), total);
}
