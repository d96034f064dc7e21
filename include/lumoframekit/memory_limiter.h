#pragma once
#include <atomic>
#include <cstdint>

#include "lumoframekit/export.h"

namespace lumoframekit {

// Accounts for the bytes of frame buffers. A frame under a limiter checks
// getMemoryUsed() + size against getMemoryLimit() before it allocates, then charges the size with
// incMemoryUsed; it credits the size with decMemoryUsed when it frees the buffer. The check and
// the charge are separate calls, so two frames allocating at once may both pass the check.
// The library never owns a limiter: the host keeps it alive as long as any frame or pool uses it.
class LUMOFRAMEKIT_API IMemoryLimiter {
public:
    virtual ~IMemoryLimiter();
    virtual std::uint64_t getMemoryUsed() const = 0;
    virtual void incMemoryUsed(std::uint64_t bytes) = 0;
    virtual void decMemoryUsed(std::uint64_t bytes) = 0;
    // The ceiling that used + request is compared against (not what is left).
    virtual std::uint64_t getMemoryLimit() const = 0;
    virtual void setMemoryLimit(std::uint64_t limit) = 0;
    virtual void reset() = 0;
};

// A byte counter against a settable ceiling. The counts are atomic, so frames on several threads
// neither race nor lose counts.
class LUMOFRAMEKIT_API MemoryLimiter : public IMemoryLimiter {
public:
    // reserved is stored and never read; limit is the default ceiling that reset() restores.
    MemoryLimiter(std::uint64_t reserved, std::uint64_t limit);
    ~MemoryLimiter() override;

    std::uint64_t getMemoryUsed() const override;
    // Adds modulo 2^64, without checking the limit.
    void incMemoryUsed(std::uint64_t bytes) override;
    // Subtracts, stopping at 0: a surplus release never produces a huge count.
    void decMemoryUsed(std::uint64_t bytes) override;
    std::uint64_t getMemoryLimit() const override;
    // Changes the ceiling; the default restored by reset() stays.
    void setMemoryLimit(std::uint64_t limit) override;
    // Used count back to 0, ceiling back to the default.
    void reset() override;

private:
    std::uint64_t reserved;
    std::uint64_t defaultLimit;
    std::atomic<std::uint64_t> memoryUsed;
    std::atomic<std::uint64_t> memoryLimit;
};

// Answers from the machine's physical memory and ignores the counts: the limit is how many more
// bytes may be taken before the memory in use on the machine reaches a percentage of its RAM.
class LUMOFRAMEKIT_API PhysicalMemoryMemoryLimiter : public IMemoryLimiter {
public:
    explicit PhysicalMemoryMemoryLimiter(std::uint64_t percent);
    ~PhysicalMemoryMemoryLimiter() override;

    std::uint64_t getMemoryUsed() const override;      // always 0
    void incMemoryUsed(std::uint64_t bytes) override;  // no effect
    void decMemoryUsed(std::uint64_t bytes) override;  // no effect
    // percent of total RAM minus the RAM in use now, or 0 when more than that is in use.
    std::uint64_t getMemoryLimit() const override;
    // Takes a percentage (above 100 accepted as it stands).
    void setMemoryLimit(std::uint64_t percent) override;
    void reset() override;  // no effect

private:
    std::uint64_t percent;
    std::uint64_t totalPhysicalMemory;
    std::uint64_t limitBytes;
};

}  // namespace lumoframekit
