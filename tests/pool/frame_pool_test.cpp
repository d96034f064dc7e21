#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;

namespace {

constexpr std::uint32_t kMono8 = 0x11010000;

struct PoolDeleter {
    void operator()(FramePool* p) const { p->destroy(); }
};
using PoolPtr = std::unique_ptr<FramePool, PoolDeleter>;

// Waits (bounded) until the reserver has brought the free list to the expected size.
bool freeCountReaches(FramePool& pool, std::uint64_t expected) {
    for (int i = 0; i < 5000; ++i) {
        if (pool.getFreeFrameCount() == expected) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

IFrame* filled(FramePool& pool, std::uint32_t code, int w, int h) {
    IFrame* frame = pool.getFrame(code, w, h);
    if (frame != nullptr) frame->allocateBuffer();
    return frame;
}

}  // namespace

TEST(FramePool, WithoutTheReserverEveryReturnedFrameIsDeleted) {
    MemoryLimiter limiter(0, 1 << 20);
    PoolPtr pool(createFramePool(&limiter));
    IFrame* frame = filled(*pool, kMono8, 64, 32);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->getFramePool(), pool.get());
    EXPECT_EQ(frame->getMemoryLimiter(), &limiter);
    EXPECT_EQ(limiter.getMemoryUsed(), 64u * 32u);
    frame->release();
    EXPECT_EQ(pool->getFreeFrameCount(), 0u);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
    EXPECT_EQ(pool->getFrame(0x08000000, 4, 4), nullptr);
    EXPECT_EQ(pool->getFrame(0x1101000A, 4, 4), nullptr);
}

TEST(FramePool, KeepsBufferedFramesWhileTheReserverRunsAndStopClearsThem) {
    MemoryLimiter limiter(0, 1 << 24);
    PoolPtr pool(createFramePool(&limiter));
    pool->startReserver(0, 10);
    IFrame* a = filled(*pool, kMono8, 16, 16);
    IFrame* b = filled(*pool, kMono8, 16, 16);
    IFrame* bare = pool->getFrame(kMono8, 16, 16);  // no buffer: deleted when returned
    a->release();
    b->release();
    bare->release();
    EXPECT_EQ(pool->getFreeFrameCount(), 2u);
    // The most recently returned frame comes out first, with its pool and limiter.
    IFrame* again = pool->getFrame(kMono8, 16, 16);
    EXPECT_EQ(again, b);
    EXPECT_TRUE(again->isBufferAllocated());
    again->release();
    pool->stopReserver();
    EXPECT_EQ(pool->getFreeFrameCount(), 0u);
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
    IFrame* late = filled(*pool, kMono8, 16, 16);
    late->release();
    EXPECT_EQ(pool->getFreeFrameCount(), 0u);
}

TEST(FramePool, AFrameOfANewFormatReplacesTheFreeList) {
    MemoryLimiter limiter(0, 1ull << 30);
    PoolPtr pool(createFramePool(&limiter));
    pool->startReserver(0, 100);
    std::vector<IFrame*> big;
    for (int i = 0; i < 3; ++i) big.push_back(filled(*pool, kMono8, 1280, 1024));
    IFrame* small = filled(*pool, kMono8, 640, 480);
    for (IFrame* f : big) f->release();
    EXPECT_EQ(pool->getFreeFrameCount(), 3u);
    small->release();
    EXPECT_EQ(pool->getFreeFrameCount(), 1u);
    EXPECT_EQ(limiter.getMemoryUsed(), 640u * 480u);
}

TEST(FramePool, ReserverFillsToTheMinimumOnceAFormatIsKnownAndTrimsToTheMaximum) {
    MemoryLimiter limiter(0, 1 << 24);
    PoolPtr pool(createFramePool(&limiter));
    pool->startReserver(4, 8);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(pool->getFreeFrameCount(), 0u);  // no format learned yet
    IFrame* frame = filled(*pool, 0x11010004, 32, 8);
    frame->release();
    EXPECT_TRUE(freeCountReaches(*pool, 4));
    // Reserved frames have no buffer yet; the limiter counts only the returned one.
    EXPECT_EQ(limiter.getMemoryUsed(), 32u * 8u * 2u);

    pool->startReserver(0, 0);  // while running: new bounds and a check
    EXPECT_TRUE(freeCountReaches(*pool, 0));
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

TEST(FramePool, FramesHeldPastThePoolDeleteThemselves) {
    MemoryLimiter limiter(0, 1 << 20);
    IFrame* held;
    {
        PoolPtr pool(createFramePool(&limiter));
        pool->startReserver(1, 2);
        held = filled(*pool, kMono8, 10, 10);
        IFrame* other = filled(*pool, kMono8, 10, 10);
        pool->removeFrame(other);  // a frame in neither list afterwards: removing again changes nothing
        pool->removeFrame(other);
        other->setFramePool(nullptr);
        other->release();
    }
    EXPECT_EQ(held->getFramePool(), nullptr);
    held->incRefCount();
    held->decRefCount();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

namespace {

// Host threads acquiring frames under a limiter that admits only some buffers.
void acquire(FramePool& pool, int thread, int frames, bool switchFormats) {
    std::mt19937 rng(static_cast<unsigned>(thread));
    std::vector<std::uint8_t> pixels(64 * 48 * 2, static_cast<std::uint8_t>(thread));
    for (int i = 0; i < frames; ++i) {
        const bool wide = switchFormats && (rng() % 4 == 0);
        const std::uint32_t code = wide ? 0x11010004u : kMono8;
        IFrame* frame = pool.getFrame(code, wide ? 32 : 64, wide ? 24 : 48);
        ASSERT_NE(frame, nullptr);
        frame->incRefCount();
        frame->setBufferData(pixels.data());  // may be refused by the limiter
        frame->addIntegerMetaData("frame", i);
        if (frame->isBufferAllocated()) {
            std::vector<std::uint8_t> out(64 * 48 * 2);
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
        }
        frame->decRefCount();
    }
}

void stress(bool switchFormats) {
    MemoryLimiter limiter(0, 64 * 48 * 6);  // room for about six buffers
    PoolPtr pool(createFramePool(&limiter));
    pool->startReserver(2, 5);
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t) hosts.emplace_back(acquire, std::ref(*pool), t, 300, switchFormats);
    for (auto& h : hosts) h.join();
    pool.reset();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

}  // namespace

TEST(FramePoolStress, FourHostThreadsOneFormat) { stress(false); }
TEST(FramePoolStress, FourHostThreadsSwitchingFormats) { stress(true); }
