// Every allocation getDataInColorSpace makes can fail: whichever one does, what was taken is
// released and the frame is left as it was.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <vector>

#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using namespace lumotest;

TEST(FaultInjection, EveryFailingAllocationReleasesWhatWasTaken) {
    const std::uint32_t codes[] = {0x11010000, 0x11010004, 0x11010017, 0x11010013, 0x11010019, 0x06030003, 0x0603001B,
                                   0x01000000, 0x05000003, 0x02000001, 0x03000000, 0x04000002, 0x07000001};
    const std::int32_t types[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 9};
    for (std::uint32_t code : codes) {
        std::unique_ptr<IFrame> frame(frameFactory(static_cast<frametypes::FRAMETYPE>(code), 6, 4));
        std::vector<std::uint8_t> raw(frame->getBufferSize(), 77);
        frame->setBufferData(raw.data());
        const FrameDims before = *frame->getDimensions();
        const std::uint32_t space = frame->getColorSpace();
        for (std::uint32_t request : {1u, 2u, 4u, 8u})
            for (std::int32_t type : types)
                for (int k = 1;; ++k) {
                    FailingAllocator allocator(k);
                    void* result = nullptr;
                    FrameDims dims{};
                    bool failed = false;
                    try {
                        frame->getDataInColorSpace(&result, &dims, request, type < 0 ? nullptr : &type, 4, &allocator);
                    } catch (const std::bad_alloc&) {
                        failed = true;
                    }
                    if (result != nullptr) allocator.release(result);
                    ASSERT_EQ(allocator.live, 0)
                        << std::hex << code << std::dec << " request " << request << " type " << type << " k " << k;
                    EXPECT_EQ(frame->getColorSpace(), space);
                    EXPECT_EQ(frame->getDimensions()->bands, before.bands);
                    if (!failed) break;  // every allocation of this call has been failed once
                }
    }
}
