#pragma once
#include <cstdint>
#include <list>
#include <utility>

#include "lumoframekit/frame.h"
#include "lumoframekit/frame_pool.h"
#include "rigutil/event_thread.h"
#include "rigutil/rg_critical_section.h"

namespace lumoframekit {

// Recycles frames of one format (frame type, width, height), learned from the frames given back.
// While its reserver thread runs it keeps returned frames that have a buffer, and the reserver
// holds the number of free frames between the bounds; while stopped, every returned frame is
// deleted.
//
// Locks: listLock (recursive) guards the lists, counts and format; limitsLock the bounds;
// threadLock the start and stop of the reserver. listLock and limitsLock are never held
// together, and any pool lock is taken before a frame's own lock.
class LUMOFramePool final : public FramePool {
public:
    explicit LUMOFramePool(IMemoryLimiter* limiter);

    IFrame* getFrame(std::uint32_t frameType, std::int32_t width, std::int32_t height) override;
    void returnFrame(IFrame* frame) override;
    void removeFrame(IFrame* frame) override;
    std::uint64_t getFreeFrameCount() override;
    void clear() override;
    void startReserver(std::uint64_t minFree, std::uint64_t maxFree) override;
    void stopReserver() override;
    void destroy() override;
    // Stops the reserver and clears the pool; a failure here ends the process, since a pool
    // cannot be left half destroyed.
    ~LUMOFramePool() override;

    // The format a frame was made for: frame type code, width and height.
    struct Format {
        std::uint32_t type = 0;
        std::uint32_t width = 0;
        std::uint32_t height = 0;
        bool operator==(const Format&) const = default;
    };
    // What became of a frame given back.
    enum class Filed { Kept, AlreadyFree, Discard };
    // Takes a returned frame into the free list, most recent first, filed under the format it was
    // made for; a frame of another format first empties the free list and becomes the pool's
    // format. A frame the pool does not hold in use (detached, or one it never handed out), one
    // without a buffer, one returned while the reserver is stopped and one whose type was changed
    // since are to be discarded; a frame already on the free list stays there once.
    Filed addFreeFrame(IFrame* frame);
    // Makes count frames of the pool's format, without buffers, for the free list.
    void reserveFrames(std::uint64_t count);
    // Deletes up to count free frames, most recently returned first.
    void discardFrames(std::uint64_t count);
    // (minFreeFrames, maxFreeFrames).
    std::pair<std::uint64_t, std::uint64_t> bounds();

private:
    struct Entry {
        IFrame* frame;
        Format format;
    };

    void postCheck();
    IFrame* newFrame(const Format& format);
    // Deletes a frame the pool holds no longer.
    static void discard(IFrame* frame);

    rigutil::EventThread reserverThread;
    std::list<Entry> freeFrames;
    std::uint64_t freeCount = 0;
    std::list<Entry> usedFrames;
    std::uint64_t usedCount = 0;
    std::uint32_t frameWidth = 0;
    std::uint32_t frameHeight = 0;
    std::uint32_t frameType = 0;  // 0: no format learned yet
    std::uint64_t maxFreeFrames = 0;
    std::uint64_t minFreeFrames = 0;
    rigutil::RGCriticalSection listLock;
    rigutil::RGCriticalSection threadLock;
    rigutil::RGCriticalSection limitsLock;
    IMemoryLimiter* memoryLimiter;
};

}  // namespace lumoframekit
