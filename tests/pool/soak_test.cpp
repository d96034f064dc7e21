// A stream of acquisitions that never stops: host threads taking, filling, holding and releasing
// frames of changing formats while the reserver is started and stopped and a limiter refuses
// buffers at random; frames outlive the pool. Afterwards no byte of accounting and no frame is lost.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;

namespace {

// Counts exactly, and refuses about one allocation in four whatever the count.
class RefusingLimiter : public IMemoryLimiter {
public:
    std::uint64_t getMemoryUsed() const override { return used.load(); }
    void incMemoryUsed(std::uint64_t bytes) override { used += bytes; }
    void decMemoryUsed(std::uint64_t bytes) override { used -= bytes; }
    std::uint64_t getMemoryLimit() const override {
        std::lock_guard<std::mutex> guard(lock);
        return rng() % 4 == 0 ? 0 : ~0ull / 2;
    }
    void setMemoryLimit(std::uint64_t) override {}
    void reset() override {}
    std::atomic<std::uint64_t> used{0};

private:
    mutable std::mutex lock;
    mutable std::mt19937 rng{42};
};

int framesPerThread() {
    const char* configured = std::getenv("LUMO_SOAK_FRAMES");
    return configured != nullptr ? std::atoi(configured) : 400;
}

}  // namespace

TEST(PoolSoak, HostThreadsReserverRestartsAndFramesOutlivingThePool) {
    RefusingLimiter limiter;
    FramePool* pool = createFramePool(&limiter);
    const std::uint32_t codes[] = {0x11010000u, 0x11010004u, 0x06030003u, 0x01000000u};
    std::atomic<bool> running{true};
    std::vector<IFrame*> outliving;
    std::mutex outlivingLock;

    std::thread control([&] {
        std::mt19937 rng(7);
        while (running) {
            try {
                pool->startReserver(rng() % 4, 2 + rng() % 6);
                std::this_thread::sleep_for(std::chrono::microseconds(200 + rng() % 800));
                if (rng() % 3 == 0) pool->stopReserver();
            } catch (rigutil::RGException* error) {
                delete error;
                ADD_FAILURE() << "reserver start or stop failed";
            }
        }
    });
    std::vector<std::thread> hosts;
    for (int t = 0; t < 3; ++t)
        hosts.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t));
            std::vector<IFrame*> held;
            std::vector<std::uint8_t> pixels(32 * 24 * 4, static_cast<std::uint8_t>(t));
            std::vector<std::uint8_t> out(32 * 24 * 12);
            for (int i = 0; i < framesPerThread(); ++i) {
                const std::uint32_t code = codes[rng() % (i % 50 < 40 ? 1 : 4)];  // mostly one format
                IFrame* frame = pool->getFrame(code, 32, 24);
                ASSERT_NE(frame, nullptr);
                frame->incRefCount();
                frame->setBufferData(pixels.data());
                frame->setTimeStamp(i);
                if (frame->isBufferAllocated()) {
                    void* dest[] = {out.data(), nullptr};
                    frame->getData(dest);
                }
                held.push_back(frame);
                // Frames are held for a while, a few past the end of the pool.
                while (held.size() > rng() % 4) {
                    held.front()->decRefCount();
                    held.erase(held.begin());
                }
            }
            std::lock_guard<std::mutex> guard(outlivingLock);
            outliving.insert(outliving.end(), held.begin(), held.end());
        });
    for (auto& h : hosts) h.join();
    running = false;
    control.join();
    pool->destroy();
    for (IFrame* frame : outliving) {
        EXPECT_EQ(frame->getFramePool(), nullptr);
        frame->decRefCount();
    }
    EXPECT_EQ(limiter.used.load(), 0u);
}
