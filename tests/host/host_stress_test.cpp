// Several host threads at once: the host's own oneTBB loop converting Bayer frames of mixed sizes
// in an arena wider than the machine, several threads reading one frame, and a pool handing frames
// from a camera thread to converting threads. Each result is compared with one made serially.
#include <gtest/gtest.h>

#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using namespace lumotest;

namespace {

struct Sample {
    FramePtr frame;
    std::vector<std::uint8_t> rgb;     // the demosaic, made on one thread before the race
    std::vector<std::uint8_t> mosaic;  // the one-band delivery
};

std::vector<std::uint8_t> deliver(IFrame& frame, std::uint32_t space) {
    ExactAllocator allocator;
    void* result = nullptr;
    FrameDims dims{};
    frame.getDataInColorSpace(&result, &dims, space, nullptr, 0, &allocator);
    if (result == nullptr) return {};
    const auto* bytes = static_cast<const std::uint8_t*>(result);
    std::vector<std::uint8_t> out(bytes, bytes + allocator.last);
    allocator.release(result);
    return out;
}

// Frames of every depth and packing, of sizes from the smallest to ones whose tasks run long
// enough for the waiting thread to look for other work.
std::vector<Sample> bayerSamples(int count) {
    std::mt19937 rng(11);
    const std::uint32_t codes[] = {frametypes::BAYER8_RGGB, 0x06030000u, 0x06030009u, 0x0603001Bu, 0x06030021u};
    const std::pair<int, int> sizes[] = {{3, 3}, {17, 9}, {130, 67}, {640, 480}, {801, 601}};
    std::vector<Sample> samples;
    for (int i = 0; i < count; ++i) {
        const auto [w, h] = sizes[i % 5 == 0 ? i / 5 % 5 : i % 5];
        Sample s{make(codes[i % 5], w, h), {}, {}};
        const auto bytes = noise(s.frame->getBufferSize(), rng);
        std::memcpy(s.frame->allocateBuffer(), bytes.data(), bytes.size());
        s.rgb = deliver(*s.frame, COLORSPACE_RGB);
        s.mosaic = deliver(*s.frame, COLORSPACE_MONO);
        samples.push_back(std::move(s));
    }
    return samples;
}

}  // namespace

TEST(HostStress, DemosaicsInsideTheHostsOwnParallelLoop) {
    std::vector<Sample> samples = bayerSamples(20);
    std::atomic<int> wrong{0};
    // The scheduler's own library hands work between threads where the thread checker cannot see
    // it; this hand-over before and after the loop shows it the order the loop guarantees.
    std::atomic<int> ready{0}, finished{0};
    ready.store(1, std::memory_order_release);
    oneapi::tbb::task_arena arena(16);
    arena.execute([&] {
        for (int round = 0; round < 3; ++round)
            oneapi::tbb::parallel_for(std::size_t{0}, samples.size(), [&](std::size_t i) {
                (void)ready.load(std::memory_order_acquire);
                // Nested: an inner loop of the host's own inside each iteration.
                oneapi::tbb::parallel_for(0, 2, [&](int) {
                    (void)ready.load(std::memory_order_acquire);
                    if (deliver(*samples[i].frame, COLORSPACE_RGB) != samples[i].rgb) ++wrong;
                    finished.fetch_add(1, std::memory_order_release);
                });
            });
    });
    EXPECT_EQ(finished.load(std::memory_order_acquire), 3 * 2 * static_cast<int>(samples.size()));
    EXPECT_EQ(wrong.load(), 0);
}

TEST(HostStress, ThreadsReadOneFrameAtOnce) {
    std::vector<Sample> samples = bayerSamples(5);
    for (Sample& s : samples) {
        std::atomic<int> wrong{0};
        std::vector<std::thread> readers;
        for (int t = 0; t < 4; ++t)
            readers.emplace_back([&, t] {
                for (int i = 0; i < 6; ++i) {
                    // Half the readers ask for the mosaic while the others ask for RGB.
                    if (t % 2 == 0 && deliver(*s.frame, COLORSPACE_MONO) != s.mosaic) ++wrong;
                    if (t % 2 == 1 && deliver(*s.frame, COLORSPACE_RGB) != s.rgb) ++wrong;
                    std::vector<std::uint8_t> planes(dataBytes(*s.frame));
                    void* dest[] = {planes.data(), nullptr};
                    s.frame->getData(dest);
                    if (planes != s.rgb) ++wrong;
                }
            });
        for (auto& r : readers) r.join();
        EXPECT_EQ(wrong.load(), 0);
        EXPECT_EQ(s.frame->getColorSpace(), static_cast<std::uint32_t>(COLORSPACE_RGB));
    }
}

TEST(HostStress, PoolHandsFramesFromACameraToConverters) {
    const std::uint32_t code = 0x0603001Bu;  // 12-bit packed RGGB
    const int w = 96, h = 64;
    std::mt19937 rng(12);
    std::vector<std::vector<std::uint8_t>> shots;
    std::vector<std::vector<std::uint8_t>> expected;
    for (int i = 0; i < 4; ++i) {
        FramePtr probe = make(code, w, h);
        shots.push_back(noise(probe->getBufferSize(), rng));
        std::memcpy(probe->allocateBuffer(), shots.back().data(), shots.back().size());
        expected.push_back(deliver(*probe, COLORSPACE_RGB));
    }
    MemoryLimiter limiter(0, 6 * shots[0].size());
    FramePool* pool = createFramePool(&limiter);
    pool->startReserver(2, 4);
    std::mutex lock;
    std::deque<IFrame*> queue;
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, converted{0};
    std::thread camera([&] {
        for (int i = 0; i < 120; ++i) {
            IFrame* frame = pool->getFrame(code, w, h);
            frame->incRefCount();
            if (std::uint8_t* buffer = frame->allocateBuffer()) {
                std::memcpy(buffer, shots[i % 4].data(), frame->getBufferSize());
                frame->addIntegerMetaData("shot", i % 4);
                if (limiter.getMemoryUsed() > limiter.getMemoryLimit()) ++wrong;
                std::lock_guard<std::mutex> guard(lock);
                queue.push_back(frame);
            } else {
                frame->decRefCount();  // dropped: the limit held
            }
        }
        done = true;
    });
    std::vector<std::thread> converters;
    for (int t = 0; t < 2; ++t)
        converters.emplace_back([&] {
            for (;;) {
                IFrame* frame = nullptr;
                {
                    std::lock_guard<std::mutex> guard(lock);
                    if (!queue.empty()) {
                        frame = queue.front();
                        queue.pop_front();
                    }
                }
                if (frame == nullptr) {
                    if (done) break;
                    std::this_thread::yield();
                    continue;
                }
                auto* shot = dynamic_cast<IntegerMetaDataItem*>(frame->getMetaData("shot"));
                if (shot == nullptr ||
                    deliver(*frame, COLORSPACE_RGB) != expected[static_cast<std::size_t>(shot->value)])
                    ++wrong;
                ++converted;
                frame->decRefCount();
            }
        });
    camera.join();
    for (auto& c : converters) c.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(converted.load(), 0);
    pool->destroy();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}
