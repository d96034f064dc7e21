// Uses the installed public interface the way a host does; exits non-zero on any surprise.
#include <lumoframekit/lumoframekit.h>

#include <cstdio>
#include <cstring>

int main() {
    using namespace lumoframekit;
    MemoryLimiter limiter(0, 1 << 20);
    FramePool* pool = createFramePool(&limiter);
    pool->startReserver(1, 2);
    IFrame* frame = pool->getFrame(frametypes::BAYER8_RGGB, 4, 4);
    const std::uint8_t mosaic[16] = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
    frame->setBufferData(mosaic);
    frame->addDoubleMetaData("exposure", 0.5);
    void* rgb = nullptr;
    FrameDims dims{};
    frame->getDataInColorSpace(&rgb, &dims, COLORSPACE_RGB, nullptr, 0, nullptr);
    const bool ok = rgb != nullptr && dims.bands == 3 && static_cast<std::uint8_t*>(rgb)[47] == 9 &&
                    dynamic_cast<BayerFrame*>(frame) != nullptr &&
                    dynamic_cast<DoubleMetaDataItem*>(frame->getMetaData("exposure")) != nullptr;
    delete[] static_cast<std::uint8_t*>(rgb);
    frame->release();
    try {
        pool->destroy();
    } catch (rigutil::RGException* error) {
        delete error;
        return 1;
    }
    // The library loaded is the one the headers describe.
    const bool sameVersion = std::strcmp(versionString(), LUMOFRAMEKIT_VERSION_STRING) == 0;
    std::printf("consumer: lumoframekit %s: %s\n", versionString(), ok && sameVersion ? "ok" : "wrong result");
    return ok && sameVersion ? 0 : 1;
}
