#include "pool/lumo_frame_pool.h"

#include <algorithm>

#include "lumoframekit/lumo_frame.h"
#include "rigutil/rg_exception.h"

namespace lumoframekit {

namespace {

constexpr const char* kThreadError = "benchkit:LUMOFramePool:threadError";

// Posted whenever the free list may have changed; run on the reserver thread, it tops the free
// list up to the lower bound or trims it to the upper one.
class CheckListEvent : public rigutil::IEvent {
public:
    explicit CheckListEvent(LUMOFramePool* owner) : rigutil::IEvent(nullptr), pool(owner) {}

    bool execute() override {
        const auto [minFree, maxFree] = pool->bounds();
        const std::uint64_t freeCount = pool->getFreeFrameCount();
        if (freeCount < minFree)
            pool->reserveFrames(minFree - freeCount);
        else if (freeCount > maxFree)
            pool->discardFrames(freeCount - maxFree);
        return true;
    }

private:
    LUMOFramePool* pool;
};

// Removes every entry of frame; the number removed.
template <typename Entry>
std::uint64_t eraseAll(std::list<Entry>& entries, IFrame* frame) {
    return static_cast<std::uint64_t>(std::erase_if(entries, [frame](const Entry& e) { return e.frame == frame; }));
}

template <typename Entry>
auto findFrame(std::list<Entry>& entries, IFrame* frame) {
    return std::find_if(entries.begin(), entries.end(), [frame](const Entry& e) { return e.frame == frame; });
}

}  // namespace

LUMOFramePool::LUMOFramePool(IMemoryLimiter* limiter)
    : reserverThread(rigutil::StopDiscardPending), memoryLimiter(limiter) {}

LUMOFramePool::~LUMOFramePool() {
    stopReserver();
    clear();
}

void LUMOFramePool::destroy() { delete this; }

IFrame* LUMOFramePool::newFrame(const Format& format) {
    IFrame* frame = frameFactory(static_cast<frametypes::FRAMETYPE>(format.type),
                                 static_cast<std::int32_t>(format.width), static_cast<std::int32_t>(format.height));
    if (frame != nullptr) {
        frame->setFramePool(this);
        frame->setMemoryLimiter(memoryLimiter);
    }
    return frame;
}

void LUMOFramePool::discard(IFrame* frame) {
    frame->setFramePool(nullptr);
    delete frame;
}

IFrame* LUMOFramePool::getFrame(std::uint32_t type, std::int32_t width, std::int32_t height) {
    const Format format{type, static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
    IFrame* frame = nullptr;
    {
        rigutil::RGAutoCriticalSection guard(listLock);
        const bool sameFormat = format == Format{frameType, frameWidth, frameHeight};
        if (freeFrames.empty() || !sameFormat) {
            frame = newFrame(format);
        } else {
            frame = freeFrames.front().frame;
            freeFrames.pop_front();
            --freeCount;
            // Nothing of the last holder's reaches the next one, and the pool's limiter counts it.
            static_cast<LUMOFrame*>(frame)->prepareForReuse();
            frame->setMemoryLimiter(memoryLimiter);
        }
        // Recorded while the list lock is still held, so that host threads never change the list
        // at the same time. A null frame (a code the factory does not know) is not recorded.
        if (frame != nullptr) {
            usedFrames.push_back({frame, format});
            ++usedCount;
        }
    }
    postCheck();
    return frame;
}

void LUMOFramePool::returnFrame(IFrame* frame) {
    if (frame == nullptr) return;
    switch (addFreeFrame(frame)) {
        case Filed::Kept: postCheck(); return;
        case Filed::AlreadyFree: return;
        case Filed::Discard: break;
    }
    removeFrame(frame);
    discard(frame);
}

void LUMOFramePool::removeFrame(IFrame* frame) {
    rigutil::RGAutoCriticalSection guard(listLock);
    freeCount -= eraseAll(freeFrames, frame);
    usedCount -= eraseAll(usedFrames, frame);
}

std::uint64_t LUMOFramePool::getFreeFrameCount() {
    rigutil::RGAutoCriticalSection guard(listLock);
    return freeCount;
}

void LUMOFramePool::clear() {
    rigutil::RGAutoCriticalSection guard(listLock);
    for (const Entry& entry : freeFrames) discard(entry.frame);
    // Frames in use stay with their holders and delete themselves when released.
    for (const Entry& entry : usedFrames) entry.frame->setFramePool(nullptr);
    freeFrames.clear();
    usedFrames.clear();
    freeCount = usedCount = 0;
}

LUMOFramePool::Filed LUMOFramePool::addFreeFrame(IFrame* frame) {
    const bool keep = frame->isBufferAllocated() && reserverThread.getState() == rigutil::WorkThread::Running;
    rigutil::RGAutoCriticalSection guard(listLock);
    // A frame detached by a clear on another thread while it was being returned belongs to its
    // holder now: taking it back would let a later clear delete it under a new holder.
    if (frame->getFramePool() != this) return Filed::Discard;
    // A second release of a frame already filed changes nothing: it is handed out once.
    if (findFrame(freeFrames, frame) != freeFrames.end()) return Filed::AlreadyFree;
    const auto used = findFrame(usedFrames, frame);
    if (used == usedFrames.end()) return Filed::Discard;
    const Format format = used->format;
    // A frame retyped by its holder no longer delivers what its format's holders expect.
    if (!keep || frame->getFrameType() != format.type) return Filed::Discard;
    usedCount -= eraseAll(usedFrames, frame);
    if (!(format == Format{frameType, frameWidth, frameHeight})) {
        if (!freeFrames.empty()) clear();
        frameType = format.type;
        frameWidth = format.width;
        frameHeight = format.height;
    }
    freeFrames.push_front({frame, format});
    ++freeCount;
    return Filed::Kept;
}

void LUMOFramePool::reserveFrames(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        Format format;
        {
            rigutil::RGAutoCriticalSection guard(listLock);
            format = {frameType, frameWidth, frameHeight};
        }
        if (format.type == 0) return;
        // Made outside the pool's locks; the buffer comes when the frame is filled.
        IFrame* frame = newFrame(format);
        if (frame == nullptr) continue;
        rigutil::RGAutoCriticalSection guard(listLock);
        // The format may have changed while the frame was made.
        if (!(format == Format{frameType, frameWidth, frameHeight})) {
            discard(frame);
            return;
        }
        freeFrames.push_front({frame, format});
        ++freeCount;
    }
}

void LUMOFramePool::discardFrames(std::uint64_t count) {
    rigutil::RGAutoCriticalSection guard(listLock);
    if (frameType == 0) return;
    for (std::uint64_t n = std::min(freeCount, count); n > 0; --n) {
        IFrame* frame = freeFrames.front().frame;
        freeFrames.pop_front();
        --freeCount;
        discard(frame);
    }
}

std::pair<std::uint64_t, std::uint64_t> LUMOFramePool::bounds() {
    rigutil::RGAutoCriticalSection guard(limitsLock);
    return {minFreeFrames, maxFreeFrames};
}

void LUMOFramePool::postCheck() { reserverThread.postEvent(new CheckListEvent(this), nullptr, nullptr); }

void LUMOFramePool::startReserver(std::uint64_t minFree, std::uint64_t maxFree) {
    {
        rigutil::RGAutoCriticalSection guard(limitsLock);
        minFreeFrames = minFree;
        maxFreeFrames = maxFree;
    }
    {
        rigutil::RGAutoCriticalSection guard(threadLock);
        if (!reserverThread.start())
            throw new rigutil::RGException(kThreadError, "Unable to start the LUMOFramePool reserver thread.");
    }
    postCheck();
}

void LUMOFramePool::stopReserver() {
    {
        rigutil::RGAutoCriticalSection guard(threadLock);
        if (!reserverThread.stop())
            throw new rigutil::RGException(kThreadError, "Unable to stop the LUMOFramePool reserver thread.");
    }
    clear();
}

FramePool* createFramePool(IMemoryLimiter* limiter) { return new LUMOFramePool(limiter); }

}  // namespace lumoframekit
