// The library as a host uses it, one thread at a time: buffers filled with memcpy of
// getBufferSize() bytes, destinations and host arrays of exactly the size the frame reports,
// setters between conversions, limiters swapped, pools passing frames between holders. Every
// code the factory accepts runs through each case, and the limiter's count is checked after
// every step.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using namespace lumotest;

namespace {

const std::vector<std::uint32_t>& codes() {
    static const std::vector<std::uint32_t> all = everyCode();
    return all;
}

// Fills the frame the way the README shows: memcpy of getBufferSize() bytes into the buffer.
bool fill(IFrame& frame, std::mt19937& rng) {
    std::uint8_t* buffer = frame.allocateBuffer();
    if (buffer == nullptr) return false;
    const auto bytes = noise(frame.getBufferSize(), rng);
    if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
    return true;
}

// A frame holding a buffer is charged at least the size it reports (the buffer holds that much),
// one without a buffer nothing.
void expectCharged(const MemoryLimiter& limiter, const IFrame& frame) {
    if (frame.isBufferAllocated())
        EXPECT_GE(limiter.getMemoryUsed(), frame.getBufferSize());
    else
        EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

}  // namespace

TEST(HostSafety, LimiterCountsExactlyWhatFramesHoldForEveryCode) {
    std::mt19937 rng(1);
    for (std::uint32_t code : codes())
        for (auto [w, h] : {std::pair{1, 1}, {3, 2}, {5, 3}, {8, 4}, {7, 5}}) {
            SCOPED_TRACE(testing::Message() << std::hex << code << std::dec << " " << w << "x" << h);
            MemoryLimiter first(0, 1u << 20), second(0, 1u << 20);
            FramePtr frame = make(code, w, h);
            frame->setMemoryLimiter(&first);
            ASSERT_TRUE(fill(*frame, rng));
            EXPECT_EQ(first.getMemoryUsed(), frame->getBufferSize());
            // Region copies at every phase of every packing group, each followed by a fill.
            const int srcW = w + 9, srcH = h + 2;
            const auto src = noise(sourceBytes(code, srcW, srcH), rng);
            for (std::uint32_t x = 0; x < 5; ++x) {
                frame->copyRegionToBuffer(src.data(), srcW, srcH, x, 1);
                expectCharged(first, *frame);
                ASSERT_TRUE(fill(*frame, rng));
                expectCharged(first, *frame);
                std::vector<std::uint8_t> out(dataBytes(*frame));
                void* dest[] = {out.data(), nullptr};
                frame->getData(dest);
            }
            // A limiter set while the buffer is held is not the one that was charged.
            frame->setMemoryLimiter(&second);
            frame.reset();
            EXPECT_EQ(first.getMemoryUsed(), 0u);
            EXPECT_EQ(second.getMemoryUsed(), 0u);
        }
}

TEST(HostSafety, TheLimitHoldsForPackedFrames) {
    // A limit sized for two of the demo's frames admits two, never a third.
    const std::uint32_t code = frametypes::BAYER12_PACKED_RGGB;
    const std::uint64_t frameBytes = sourceBytes(code, 1920, 1080);
    MemoryLimiter limiter(0, 2 * frameBytes + frameBytes / 2);
    FramePool* pool = createFramePool(&limiter);
    std::vector<IFrame*> held;
    int filled = 0;
    for (int i = 0; i < 3; ++i) {
        IFrame* frame = pool->getFrame(code, 1920, 1080);
        ASSERT_NE(frame, nullptr);
        frame->incRefCount();
        if (frame->allocateBuffer() != nullptr) ++filled;
        held.push_back(frame);
        EXPECT_LE(limiter.getMemoryUsed(), limiter.getMemoryLimit());
    }
    EXPECT_EQ(filled, 2);
    EXPECT_EQ(limiter.getMemoryUsed(), 2 * frameBytes);
    for (IFrame* frame : held) frame->decRefCount();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
    pool->destroy();
}

TEST(HostSafety, SetColorSpaceNeverMakesAConversionLeaveItsArrays) {
    std::mt19937 rng(2);
    for (std::uint32_t code : codes()) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        FramePtr frame = make(code, 6, 4);
        ASSERT_TRUE(fill(*frame, rng));
        const std::uint32_t made = frame->getColorSpace();
        for (std::uint32_t set : {1u, 2u, 4u, 3u, 0u, 8u}) {
            frame->setColorSpace(set);
            for (std::uint32_t requested : {1u, 2u, 4u, 8u}) {
                ExactAllocator allocator;
                void* result = nullptr;
                FrameDims dims{};
                const std::int32_t type = DATATYPE_DOUBLE;
                frame->getDataInColorSpace(&result, &dims, requested, requested == 2 ? &type : nullptr, 4, &allocator);
                if (result != nullptr) {
                    const std::size_t element = requested == 2 ? 8 : elementBytes(frame->getDataType());
                    EXPECT_EQ(allocator.last, std::uint64_t{dims.width} * dims.height * dims.bands * element);
                    allocator.release(result);
                }
                EXPECT_EQ(allocator.live, 0);
            }
            std::vector<std::uint8_t> out(dataBytes(*frame));
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
        }
        frame->setColorSpace(made);
    }
}

TEST(HostSafety, ConversionsFollowTheDataAfterSetColorSpace) {
    // An 8-bit monochrome frame told it holds RGB still converts its one band.
    std::mt19937 rng(3);
    FramePtr mono = make(frametypes::MONO8_TOPDOWN, 5, 3);
    ASSERT_TRUE(fill(*mono, rng));
    ExactAllocator allocator;
    void* before = nullptr;
    FrameDims dims{};
    mono->getDataInColorSpace(&before, &dims, COLORSPACE_RGB, nullptr, 0, &allocator);
    mono->setColorSpace(COLORSPACE_RGB);
    void* after = nullptr;
    mono->getDataInColorSpace(&after, &dims, COLORSPACE_RGB, nullptr, 0, &allocator);
    ASSERT_NE(before, nullptr);
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(std::memcmp(before, after, 3 * 15), 0);
    allocator.release(before);
    allocator.release(after);
}

TEST(HostSafety, FramesWithoutPixelsGiveNullAndAskNothingOfTheHost) {
    std::mt19937 rng(4);
    for (std::uint32_t code : codes()) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        FramePtr frame = make(code, 64, 48);
        if (frame->getBufferSize() == 0) continue;  // a subtype outside its family's table
        // Never filled, then refused by its limiter.
        MemoryLimiter none(0, 0);
        for (int attempt = 0; attempt < 2; ++attempt) {
            ExactAllocator allocator;
            void* result = &allocator;
            FrameDims dims{};
            frame->getDataInColorSpace(&result, &dims, COLORSPACE_RGB, nullptr, 0, &allocator);
            EXPECT_EQ(result, nullptr);
            EXPECT_EQ(allocator.calls, 0);
            frame->setMemoryLimiter(&none);
            EXPECT_EQ(frame->allocateBuffer(), nullptr);
        }
        // A host allocator that gives null gives a null result.
        frame->setMemoryLimiter(nullptr);
        ASSERT_TRUE(fill(*frame, rng));
        ExactAllocator empty;
        empty.giveNull = true;
        const std::int32_t type = DATATYPE_FLOAT;
        for (std::uint32_t requested : {1u, 2u, 4u, 8u}) {
            void* result = &empty;
            FrameDims dims{};
            frame->getDataInColorSpace(&result, &dims, requested, &type, 0, &empty);
            EXPECT_EQ(result, nullptr);
        }
    }
}

TEST(HostSafety, ExtremeSizesStayDefined) {
    // Every code at sizes whose products overflow: the frame reports sizes, refuses buffers under a
    // limiter, and converts nothing.
    const std::int32_t sizes[] = {INT32_MIN, -1, 0, 1, 3, 1 << 30, INT32_MAX - 17, INT32_MAX};
    MemoryLimiter limiter(0, 1u << 20);
    for (std::uint32_t code : codes())
        for (std::int32_t w : sizes)
            for (std::int32_t h : sizes) {
                SCOPED_TRACE(testing::Message() << std::hex << code << std::dec << " " << w << "x" << h);
                FramePtr frame;
                try {
                    frame = make(code, w, h);
                } catch (const std::exception&) {
                    continue;  // a family may refuse a geometry outright
                }
                if (!frame) continue;
                frame->getAlignedSize();
                // Without a limiter, a size no memory holds is refused by std::bad_alloc before
                // the allocator is asked (which under AddressSanitizer would abort).
                if (frame->getBufferSize() > (1ull << 40)) {
                    EXPECT_THROW(make(code, w, h)->allocateBuffer(), std::bad_alloc);
                }
                frame->setMemoryLimiter(&limiter);
                if (frame->allocateBuffer() == nullptr) continue;
                ExactAllocator allocator;
                void* result = nullptr;
                FrameDims dims{};
                frame->getDataInColorSpace(&result, &dims, COLORSPACE_RGB, nullptr, 0, &allocator);
                if (result != nullptr) allocator.release(result);
                EXPECT_EQ(allocator.live, 0);
            }
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}

TEST(HostSafety, PoolsHandEachFrameToOneHolderInItsOwnFormat) {
    std::mt19937 rng(5);
    MemoryLimiter limiter(0, 64u << 20);
    FramePool* pool = createFramePool(&limiter);
    pool->startReserver(0, 8);
    const std::uint32_t bayer = frametypes::BAYER8_RGGB, mono16 = 0x11010004u;

    // A frame retyped by its holder is not handed out for the type it was given.
    IFrame* retyped = pool->getFrame(bayer, 16, 8);
    ASSERT_TRUE(fill(*retyped, rng));
    retyped->setFrameType(mono16);
    retyped->decRefCount();
    EXPECT_EQ(pool->getFreeFrameCount(), 0u);
    IFrame* mono = pool->getFrame(mono16, 16, 8);
    ASSERT_TRUE(fill(*mono, rng));
    std::vector<std::uint8_t> exact(dataBytes(*mono));
    void* dest[] = {exact.data(), nullptr};
    mono->getData(dest);
    mono->decRefCount();

    // A second release of a frame already filed files it once: two holders get two frames.
    IFrame* frame = pool->getFrame(mono16, 16, 8);
    ASSERT_TRUE(fill(*frame, rng));
    frame->decRefCount();
    frame->decRefCount();
    EXPECT_EQ(pool->getFreeFrameCount(), 1u);
    IFrame* a = pool->getFrame(mono16, 16, 8);
    IFrame* b = pool->getFrame(mono16, 16, 8);
    EXPECT_NE(a, b);
    EXPECT_EQ(a, frame);

    // Nothing of a holder's reaches the next one.
    ASSERT_TRUE(fill(*a, rng));
    a->addIntegerMetaData("frameNumber", 7);
    a->setTimeStamp(12.5);
    a->setColorSpace(COLORSPACE_RGB);
    a->incRefCount();
    a->decRefCount();
    IFrame* next = pool->getFrame(mono16, 16, 8);
    EXPECT_EQ(next, a);
    EXPECT_EQ(next->getMetaDataCount(), 0u);
    EXPECT_EQ(next->getTimeStamp(), 0.0);
    EXPECT_EQ(next->getColorSpace(), static_cast<std::uint32_t>(COLORSPACE_MONO));

    // Unknown codes give null, however often.
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(pool->getFrame(0xDEADBEEFu, 4, 4), nullptr);
    b->decRefCount();
    next->decRefCount();
    pool->destroy();
    EXPECT_EQ(limiter.getMemoryUsed(), 0u);
}
