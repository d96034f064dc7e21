#pragma once
// A host for GenICam cameras: buffers from a camera stack, mapped by their standard pixel format,
// copied into pooled frames under a memory limit and converted. The camera side uses Aravis.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <lumoframekit/lumoframekit.h>

namespace camerahost {

// One image buffer as the camera stack delivered it.
struct CameraBuffer {
    std::uint32_t pixelFormat;
    std::int32_t width;
    std::int32_t height;
    const void* data;
    std::size_t size;
};

// Converted host planes; released through the allocator that made them.
class Planes {
public:
    Planes() = default;
    Planes(void* data, const lumoframekit::FrameDims& dims, std::int32_t dataType, std::uint32_t bits,
           lumoframekit::HostAllocator* allocator);
    Planes(Planes&& other) noexcept;
    Planes& operator=(Planes&& other) noexcept;
    ~Planes();

    const void* data() const { return data_; }
    const lumoframekit::FrameDims& dims() const { return dims_; }
    std::int32_t dataType() const { return dataType_; }
    std::uint32_t bits() const { return bits_; }
    std::size_t bytes() const;

private:
    void* data_ = nullptr;
    lumoframekit::FrameDims dims_{};
    std::int32_t dataType_ = 0;
    std::uint32_t bits_ = 0;
    lumoframekit::HostAllocator* allocator_ = nullptr;
};

// What became of one buffer.
enum class Outcome { Converted, UnknownFormat, Refused, ShortBuffer, NotConverted };

// Copies camera buffers into frames of a pool whose reserver runs under a memory limit, and
// converts each: RGB for Bayer and color formats, the one band for monochrome.
class FrameSink {
public:
    // Throws rigutil::RGException* when the reserver cannot start.
    FrameSink(std::uint64_t memoryLimit, std::uint64_t minFree, std::uint64_t maxFree);
    ~FrameSink();
    FrameSink(const FrameSink&) = delete;
    FrameSink& operator=(const FrameSink&) = delete;

    // The view a host wants of a format: COLORSPACE_MONO for monochrome, COLORSPACE_RGB otherwise.
    static std::uint32_t defaultView(lumoframekit::frametypes::FRAMETYPE code);

    // Takes one buffer; colorSpace 0 asks for the format's default view. The planes are empty
    // unless the outcome is Converted.
    Outcome take(const CameraBuffer& buffer, Planes& planes, std::uint32_t colorSpace = 0);

    std::uint64_t memoryLimit() const { return limiter_.getMemoryLimit(); }
    std::uint64_t memoryUsed() const { return limiter_.getMemoryUsed(); }
    std::uint64_t freeFrames() const { return pool_->getFreeFrameCount(); }
    std::uint64_t maxFree() const { return maxFree_; }

private:
    lumoframekit::MemoryLimiter limiter_;
    lumoframekit::FramePool* pool_;
    lumoframekit::HostAllocator allocator_;
    std::uint64_t maxFree_;
};

// A GenICam camera opened through Aravis, acquiring into a stream of its own buffers.
class Camera {
public:
    struct Format {
        std::string name;
        std::uint32_t value;
    };
    // The camera of that device id, or the first one found when id is empty; simulated offers
    // the stack's built-in simulated camera alone (device id "Fake_1"), without looking on the
    // network or the bus. Null with a message when there is none.
    static std::unique_ptr<Camera> open(const std::string& id, bool simulated, std::string& error);
    ~Camera();

    // The device id it was opened by.
    const std::string& deviceId() const { return id_; }
    std::vector<Format> pixelFormats() const;
    bool setPixelFormat(const std::string& name, std::string& error);
    // Asks for a frame rate; the camera may not offer the control.
    void setFrameRate(double rate);

    struct Stats {
        int delivered = 0;  // complete buffers handed to the callback
        int failed = 0;     // buffers the stack reported incomplete or late
    };
    // Acquires count complete buffers (or gives up after count failures in a row), handing each
    // to deliver on this thread while the buffer is held.
    bool acquire(int count, const std::function<void(const CameraBuffer&)>& deliver, Stats& stats, std::string& error);

private:
    Camera(void* camera, std::string id) : camera_(camera), id_(std::move(id)) {}
    void* camera_;  // ArvCamera*
    std::string id_;
};

}  // namespace camerahost
