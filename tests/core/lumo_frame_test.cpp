#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <thread>
#include <tuple>
#include <vector>

#include "core/test_frame.h"
#include "lumoframekit/memory_limiter.h"

using lumoframekit::MemoryLimiter;
using lumotest::RecordingPool;
using lumotest::TestFrame;

TEST(LUMOFrame, BufferSizeWrapsAsASigned32BitProduct) {
    const struct {
        std::int32_t w, h, bpp;
        std::uint64_t size;
    } cases[] = {
        {0, 100, 2, 0},
        {65536, 32768, 1, 0xFFFFFFFF80000000ull},  // exactly 2^31
        {-1, 1, 1, 0xFFFFFFFFFFFFFFFFull},
        {65536, 65536, 1, 0},  // 2^32 wraps to 0
        {46341, 46341, 1, 0xFFFFFFFF80001219ull},
    };
    for (const auto& c : cases) EXPECT_EQ(TestFrame(c.w, c.h, c.bpp).getBufferSize(), c.size) << c.w << "x" << c.h;
}

TEST(LUMOFrame, WrappedSizeIsRefusedUnderALimiterAndThrowsWithoutOne) {
    MemoryLimiter limiter(0, ~0ull >> 1);
    TestFrame limited(65536, 32768, 1);
    limited.setMemoryLimiter(&limiter);
    EXPECT_EQ(limited.allocateBuffer(), nullptr);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
    TestFrame unlimited(65536, 32768, 1);
    EXPECT_THROW(unlimited.allocateBuffer(), std::bad_alloc);
    EXPECT_THROW(unlimited.setBufferData(nullptr), std::bad_alloc);
    EXPECT_FALSE(unlimited.isBufferAllocated());
}

TEST(LUMOFrame, LimiterIsChargedOnceAndCreditedOnce) {
    MemoryLimiter limiter(0, 1000);
    limiter.incMemoryUsed(400);
    {
        TestFrame exact(20, 30, 1);  // 600 bytes: used + size equals the limit
        exact.setMemoryLimiter(&limiter);
        ASSERT_NE(exact.allocateBuffer(), nullptr);
        std::uint8_t* first = exact.allocateBuffer();
        EXPECT_EQ(exact.allocateBuffer(), first);
        EXPECT_EQ(limiter.getMemoryUsed(), 1000u);
    }
    EXPECT_EQ(limiter.getMemoryUsed(), 400u);  // the destructor freed and credited once

    TestFrame tooBig(601, 1, 1);
    tooBig.setMemoryLimiter(&limiter);
    std::vector<std::uint8_t> src(601, 7);
    tooBig.setBufferData(src.data());
    EXPECT_FALSE(tooBig.isBufferAllocated());
    EXPECT_EQ(limiter.getMemoryUsed(), 400u);

    TestFrame empty(0, 5, 1);
    empty.setMemoryLimiter(&limiter);
    EXPECT_NE(empty.allocateBuffer(), nullptr);  // a zero-length array, charging nothing
    EXPECT_EQ(limiter.getMemoryUsed(), 400u);
}

TEST(LUMOFrame, BuffersOfAHugePageOrMoreStartOnOne) {
    constexpr std::uintptr_t hugePage = std::uintptr_t{2} << 20;
    MemoryLimiter limiter(0, ~0ull >> 1);
    for (const auto& [w, h, alignment] :
         {std::tuple{2048, 1023, std::uintptr_t{64}}, {2048, 1024, hugePage}, {5472, 3648, hugePage}}) {
        TestFrame frame(w, h, 1);
        frame.setMemoryLimiter(&limiter);
        std::uint8_t* buffer = frame.allocateBuffer();
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer) % alignment, 0u) << w << "x" << h;
        std::memset(buffer, 1, frame.getBufferSize());
        EXPECT_EQ(limiter.getMemoryUsed(), frame.getBufferSize());
    }
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

TEST(LUMOFrame, ReferenceCountReleasesAtZero) {
    int destroyed = 0;
    auto* frame = new TestFrame(2, 2, 1, &destroyed);
    frame->incRefCount();
    frame->incRefCount();
    EXPECT_EQ(frame->decRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
    frame->decRefCount();
    EXPECT_EQ(destroyed, 1);

    auto* fresh = new TestFrame(2, 2, 1, &destroyed);
    fresh->decRefCount();  // count goes to -1: released at once
    EXPECT_EQ(destroyed, 2);
}

TEST(LUMOFrame, ReleaseHandsPooledFramesBackAndDestructionTellsThePool) {
    RecordingPool pool;
    int destroyed = 0;
    auto* frame = new TestFrame(2, 2, 1, &destroyed);
    frame->setFramePool(&pool);
    frame->decRefCount();
    ASSERT_EQ(pool.returned.size(), 1u);
    EXPECT_EQ(pool.returned[0], frame);
    EXPECT_EQ(destroyed, 0);
    delete frame;
    ASSERT_EQ(pool.removed.size(), 1u);
    EXPECT_EQ(pool.removed[0], frame);

    auto* detached = new TestFrame(2, 2, 1, &destroyed);
    detached->setFramePool(&pool);
    detached->setFramePool(nullptr);
    delete detached;
    EXPECT_EQ(pool.removed.size(), 1u);
}

TEST(LUMOFrame, ConcurrentReferenceCountingKeepsTheFrameUntilTheLastRelease) {
    int destroyed = 0;
    auto* frame = new TestFrame(2, 2, 1, &destroyed);
    frame->incRefCount();  // held by this thread throughout
    std::vector<std::thread> holders;
    for (int t = 0; t < 4; ++t)
        holders.emplace_back([frame] {
            for (int i = 0; i < 1000; ++i) {
                frame->incRefCount();
                frame->decRefCount();
            }
        });
    for (auto& t : holders) t.join();
    EXPECT_EQ(destroyed, 0);
    frame->decRefCount();
    EXPECT_EQ(destroyed, 1);
}
