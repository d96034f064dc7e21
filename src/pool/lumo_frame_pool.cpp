#include "pool/lumo_frame_pool.h"

#include <algorithm>

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
        if (freeCount < minFree) pool->reserveFrames(minFree - freeCount);
        else if (freeCount > maxFree) pool->discardFrames(freeCount - maxFree);
        return true;
    }

private:
    LUMOFramePool* pool;
};

// Removes every entry equal to frame; the number removed.
std::uint64_t eraseAll(std::list<IFrame*>& frames, IFrame* frame) {
    return static_cast<std::uint64_t>(std::erase(frames, frame));
}

}  // namespace

LUMOFramePool::LUMOFramePool(IMemoryLimiter* limiter) : reserverThread(rigutil::StopDiscardPending), memoryLimiter(limiter) {}

LUMOFramePool::~LUMOFramePool() {
    stopReserver();
    clear();
}

void LUMOFramePool::destroy() { delete this; }

IFrame* LUMOFramePool::newFrame(std::uint32_t type, std::int32_t width, std::int32_t height) {
    IFrame* frame = frameFactory(static_cast<frametypes::FRAMETYPE>(type), width, height);
    if (frame != nullptr) {
        frame->setFramePool(this);
        frame->setMemoryLimiter(memoryLimiter);
    }
    return frame;
}

IFrame* LUMOFramePool::getFrame(std::uint32_t type, std::int32_t width, std::int32_t height) {
    IFrame* frame;
    {
        rigutil::RGAutoCriticalSection guard(listLock);
        const bool sameFormat = type == frameType && static_cast<std::uint32_t>(width) == frameWidth &&
                                static_cast<std::uint32_t>(height) == frameHeight;
        if (freeFrames.empty() || !sameFormat) {
            frame = newFrame(type, width, height);
        } else {
            frame = freeFrames.front();
            freeFrames.pop_front();
            --freeCount;
        }
        // Recorded while the list lock is still held, so that host threads never change the list
        // at the same time.
        usedFrames.push_back(frame);
        ++usedCount;
    }
    postCheck();
    return frame;
}

void LUMOFramePool::returnFrame(IFrame* frame) {
    if (frame == nullptr) return;
    if (frame->isBufferAllocated() && reserverThread.getState() == rigutil::WorkThread::Running) {
        if (addFreeFrame(frame)) {
            postCheck();
            return;
        }
    }
    removeFrame(frame);
    frame->setFramePool(nullptr);
    delete frame;
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
    for (IFrame* frame : freeFrames) {
        frame->setFramePool(nullptr);
        delete frame;
    }
    // Frames in use stay with their holders and delete themselves when released.
    for (IFrame* frame : usedFrames)
        if (frame != nullptr) frame->setFramePool(nullptr);
    freeFrames.clear();
    usedFrames.clear();
    freeCount = usedCount = 0;
}

bool LUMOFramePool::addFreeFrame(IFrame* frame) {
    const std::uint32_t type = frame->getFrameType();
    const FrameDims dims = *frame->getDimensions();
    rigutil::RGAutoCriticalSection guard(listLock);
    // A frame detached by a clear on another thread while it was being returned belongs to its
    // holder now: taking it back would let a later clear delete it under a new holder.
    if (frame->getFramePool() != this) return false;
    usedCount -= eraseAll(usedFrames, frame);
    if (type != frameType || dims.width != frameWidth || dims.height != frameHeight) {
        if (!freeFrames.empty()) clear();
        frameType = type;
        frameWidth = dims.width;
        frameHeight = dims.height;
    }
    freeFrames.push_front(frame);
    ++freeCount;
    return true;
}

void LUMOFramePool::reserveFrames(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        std::uint32_t type, width, height;
        {
            rigutil::RGAutoCriticalSection guard(listLock);
            type = frameType, width = frameWidth, height = frameHeight;
        }
        if (type == 0) return;
        // Made outside the pool's locks; the buffer comes when the frame is filled.
        IFrame* frame = newFrame(type, static_cast<std::int32_t>(width), static_cast<std::int32_t>(height));
        if (frame != nullptr) addFreeFrame(frame);
    }
}

void LUMOFramePool::discardFrames(std::uint64_t count) {
    rigutil::RGAutoCriticalSection guard(listLock);
    if (frameType == 0) return;
    for (std::uint64_t n = std::min(freeCount, count); n > 0; --n) {
        IFrame* frame = freeFrames.front();
        frame->setFramePool(nullptr);
        delete frame;
        freeFrames.pop_front();
        --freeCount;
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
