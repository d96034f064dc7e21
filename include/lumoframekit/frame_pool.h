#pragma once
#include <cstdint>

#include "lumoframekit/export.h"
#include "lumoframekit/memory_limiter.h"

namespace lumoframekit {

class IFrame;

// Recycles frames of one format. Every operation may be called from any thread. The order of
// the virtual operations is part of the binary interface and never changes.
class LUMOFRAMEKIT_API FramePool {
public:
    // A free frame of the format, or a new one from frameFactory (null for an unknown code). A
    // recycled frame has no metadata, time stamp 0, reference count 0, its format's color space and
    // the pool's limiter; its buffer (if any) is kept.
    virtual IFrame* getFrame(std::uint32_t frameType, std::int32_t width, std::int32_t height) = 0;
    // Called by a frame's release(): keeps the frame while the reserver runs and the frame has a
    // buffer, filed under the format it was made for; deletes it otherwise, and when its holder
    // changed its frame type. A frame already on the free list stays there once.
    virtual void returnFrame(IFrame* frame) = 0;
    // Called by a frame's destructor: forgets the frame.
    virtual void removeFrame(IFrame* frame) = 0;
    virtual std::uint64_t getFreeFrameCount() = 0;
    // Deletes the free frames and detaches the frames in use.
    virtual void clear() = 0;
    // Starts the reserver thread, which keeps between minFree and maxFree free frames.
    // Throws rigutil::RGException* when the thread cannot start.
    virtual void startReserver(std::uint64_t minFree, std::uint64_t maxFree) = 0;
    // Stops the reserver and clears the pool. Throws rigutil::RGException* when it cannot stop.
    virtual void stopReserver() = 0;
    // Deletes the pool.
    virtual void destroy() = 0;
    virtual ~FramePool();
};

// A new pool that hands limiter to every frame it makes; the caller owns the pool.
LUMOFRAMEKIT_API FramePool* createFramePool(IMemoryLimiter* limiter);

}  // namespace lumoframekit
