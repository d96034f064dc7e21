#include <gtest/gtest.h>

#include <cstring>

#include "lumoframekit/frame.h"
#include "lumoframekit/frame_pool.h"
#include "lumoframekit/memory_limiter.h"
#include "lumoframekit/monochrome_frame.h"

using namespace lumoframekit;

namespace {

// Under the Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte offset of
// its slot in the virtual table.
template <typename F>
std::size_t slotOf(F member) {
    struct Raw {
        std::uintptr_t ptr;
        std::ptrdiff_t adj;
    } raw;
    static_assert(sizeof(raw) == sizeof(member));
    std::memcpy(&raw, &member, sizeof(raw));
    EXPECT_EQ(raw.ptr % sizeof(void*), 1u) << "not a virtual function";
    return (raw.ptr - 1) / sizeof(void*);
}

}  // namespace

TEST(Abi, FrameSlotsFollowTheHostContract) {
    // Slots 0 and 1 are the two destructor entries.
    EXPECT_EQ(slotOf(&IFrame::incRefCount), 2u);
    EXPECT_EQ(slotOf(&IFrame::decRefCount), 3u);
    EXPECT_EQ(slotOf(&IFrame::release), 4u);
    EXPECT_EQ(slotOf(&IFrame::getTimeStamp), 5u);
    EXPECT_EQ(slotOf(&IFrame::setTimeStamp), 6u);
    EXPECT_EQ(slotOf(&IFrame::getBufferSize), 7u);
    EXPECT_EQ(slotOf(&IFrame::allocateBuffer), 8u);
    EXPECT_EQ(slotOf(&IFrame::setBufferData), 9u);
    EXPECT_EQ(slotOf(&IFrame::copyRegionToBuffer), 10u);
    EXPECT_EQ(slotOf(&IFrame::isBufferAllocated), 11u);
    EXPECT_EQ(slotOf(&IFrame::getData), 12u);
    EXPECT_EQ(slotOf(&IFrame::getDataFromBuffer), 13u);
    EXPECT_EQ(slotOf(&IFrame::getDataInColorSpace), 14u);
    EXPECT_EQ(slotOf(&IFrame::getDataType), 15u);
    EXPECT_EQ(slotOf(&IFrame::getAlignedSize), 16u);
    EXPECT_EQ(slotOf(&IFrame::getColorSpace), 17u);
    EXPECT_EQ(slotOf(&IFrame::setColorSpace), 18u);
    EXPECT_EQ(slotOf(&IFrame::getFrameType), 19u);
    EXPECT_EQ(slotOf(&IFrame::setFrameType), 20u);
    EXPECT_EQ(slotOf(&IFrame::getBitsPerBand), 21u);
    EXPECT_EQ(slotOf(&IFrame::getMetaDataCount), 22u);
    EXPECT_EQ(slotOf(&IFrame::getDimensions), 23u);
    EXPECT_EQ(slotOf(&IFrame::getMetaDataNames), 24u);
    EXPECT_EQ(slotOf(&IFrame::getMetaData), 25u);
    EXPECT_EQ(slotOf(&IFrame::addDoubleMetaData), 26u);
    EXPECT_EQ(slotOf(&IFrame::addTimeVectorMetaData), 27u);
    EXPECT_EQ(slotOf(&IFrame::addCStrMetaData), 28u);
    EXPECT_EQ(slotOf(&IFrame::addDoubleArrayMetaData), 29u);
    EXPECT_EQ(slotOf(&IFrame::addDouble2DArrayMetaData), 30u);
    EXPECT_EQ(slotOf(&IFrame::addDouble3DArrayMetaData), 31u);
    EXPECT_EQ(slotOf(&IFrame::addBooleanArrayMetaData), 32u);
    EXPECT_EQ(slotOf(&IFrame::addIntegerMetaData), 33u);
    EXPECT_EQ(slotOf(&IFrame::setFramePool), 34u);
    EXPECT_EQ(slotOf(&IFrame::getFramePool), 35u);
    EXPECT_EQ(slotOf(&IFrame::setMemoryLimiter), 36u);
    EXPECT_EQ(slotOf(&IFrame::getMemoryLimiter), 37u);
}

TEST(Abi, MonochromeAddsFourSlotsAfterTheFrameInterface) {
    EXPECT_EQ(slotOf(&MonochromeFrame::getDisplayRow), 38u);
    EXPECT_EQ(slotOf(&MonochromeFrame::copyColumn), 39u);
    EXPECT_EQ(slotOf(&MonochromeFrame::copyColumnBlock), 40u);
    EXPECT_EQ(slotOf(&MonochromeFrame::copyRawData), 41u);
    EXPECT_EQ(slotOf(&MonochromeFrame::getMemoryLimiter), 37u);
}

TEST(Abi, LimiterSlotsFollowTheHostContract) {
    EXPECT_EQ(slotOf(&IMemoryLimiter::getMemoryUsed), 2u);
    EXPECT_EQ(slotOf(&IMemoryLimiter::incMemoryUsed), 3u);
    EXPECT_EQ(slotOf(&IMemoryLimiter::decMemoryUsed), 4u);
    EXPECT_EQ(slotOf(&IMemoryLimiter::getMemoryLimit), 5u);
    EXPECT_EQ(slotOf(&IMemoryLimiter::setMemoryLimit), 6u);
    EXPECT_EQ(slotOf(&IMemoryLimiter::reset), 7u);
}

TEST(Abi, PoolSlotsFollowTheHostContract) {
    EXPECT_EQ(slotOf(&FramePool::getFrame), 0u);
    EXPECT_EQ(slotOf(&FramePool::returnFrame), 1u);
    EXPECT_EQ(slotOf(&FramePool::removeFrame), 2u);
    EXPECT_EQ(slotOf(&FramePool::getFreeFrameCount), 3u);
    EXPECT_EQ(slotOf(&FramePool::clear), 4u);
    EXPECT_EQ(slotOf(&FramePool::startReserver), 5u);
    EXPECT_EQ(slotOf(&FramePool::stopReserver), 6u);
    EXPECT_EQ(slotOf(&FramePool::destroy), 7u);
    // The destructor entries follow at 8 and 9: a class derived with one more virtual operation
    // places it at slot 10.
    struct Probe : FramePool {
        virtual void next() {}
    };
    EXPECT_EQ(slotOf(&Probe::next), 10u);
}
