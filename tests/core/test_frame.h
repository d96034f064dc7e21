#pragma once
// A minimal frame over the common state, for exercising what every family inherits.
#include <cstring>
#include <vector>

#include "lumoframekit/frame_pool.h"
#include "lumoframekit/lumo_frame.h"

namespace lumotest {

class TestFrame : public lumoframekit::LUMOFrame {
public:
    TestFrame(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel, int* destroyed = nullptr)
        : LUMOFrame(width, height, bytesPerPixel, 1),
          dims{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), 1},
          destroyed_(destroyed) {}
    ~TestFrame() override {
        if (destroyed_) ++*destroyed_;
    }
    std::uint8_t* copyRegionToBuffer(const std::uint8_t*, std::uint32_t, std::uint32_t, std::uint32_t,
                                     std::uint32_t) override {
        return allocateBuffer();
    }
    void getData(void** dest) override {
        if (buffer) std::memcpy(dest[0], buffer, getBufferSize());
    }
    std::int32_t getDataType() const override { return 0; }
    std::int64_t getAlignedSize() const override { return 0; }
    std::uint32_t getBitsPerBand() const override { return 8; }
    const lumoframekit::FrameDims* getDimensions() const override { return &dims; }

private:
    lumoframekit::FrameDims dims;
    int* destroyed_;
};

// A pool that only records what frames tell it.
class RecordingPool : public lumoframekit::FramePool {
public:
    lumoframekit::IFrame* getFrame(std::uint32_t, std::int32_t, std::int32_t) override { return nullptr; }
    void returnFrame(lumoframekit::IFrame* frame) override { returned.push_back(frame); }
    void removeFrame(lumoframekit::IFrame* frame) override { removed.push_back(frame); }
    std::uint64_t getFreeFrameCount() override { return 0; }
    void clear() override {}
    void startReserver(std::uint64_t, std::uint64_t) override {}
    void stopReserver() override {}
    void destroy() override { delete this; }
    std::vector<lumoframekit::IFrame*> returned;
    std::vector<lumoframekit::IFrame*> removed;
};

}  // namespace lumotest
