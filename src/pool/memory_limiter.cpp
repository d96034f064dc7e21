#include "lumoframekit/memory_limiter.h"

#include <sys/sysinfo.h>

namespace lumoframekit {

IMemoryLimiter::~IMemoryLimiter() = default;

MemoryLimiter::MemoryLimiter(std::uint64_t reservedBytes, std::uint64_t limit)
    : reserved(reservedBytes), defaultLimit(limit), memoryUsed(0), memoryLimit(limit) {
    (void)reserved;
    MemoryLimiter::reset();
}

MemoryLimiter::~MemoryLimiter() = default;

std::uint64_t MemoryLimiter::getMemoryUsed() const { return memoryUsed.load(std::memory_order_relaxed); }

void MemoryLimiter::incMemoryUsed(std::uint64_t bytes) { memoryUsed.fetch_add(bytes, std::memory_order_relaxed); }

void MemoryLimiter::decMemoryUsed(std::uint64_t bytes) {
    std::uint64_t used = memoryUsed.load(std::memory_order_relaxed);
    while (!memoryUsed.compare_exchange_weak(used, used < bytes ? 0 : used - bytes, std::memory_order_relaxed)) {
    }
}

std::uint64_t MemoryLimiter::getMemoryLimit() const { return memoryLimit.load(std::memory_order_relaxed); }

void MemoryLimiter::setMemoryLimit(std::uint64_t limit) { memoryLimit.store(limit, std::memory_order_relaxed); }

void MemoryLimiter::reset() {
    memoryUsed.store(0, std::memory_order_relaxed);
    memoryLimit.store(defaultLimit, std::memory_order_relaxed);
}

namespace {

struct RamFigures {
    std::uint64_t total = 0;
    std::uint64_t free = 0;
};

RamFigures readRam() {
    struct sysinfo info {};
    RamFigures ram;
    if (sysinfo(&info) == 0) {
        ram.total = static_cast<std::uint64_t>(info.totalram) * info.mem_unit;
        ram.free = static_cast<std::uint64_t>(info.freeram) * info.mem_unit;
    }
    return ram;
}

// Double to unsigned 64-bit by truncation, with values of 2^63 and above converted as unsigned and
// values beyond the type's range held at its ends rather than left undefined.
std::uint64_t toUnsigned64(double value) {
    if (!(value > 0.0)) return 0;
    if (value >= 18446744073709551616.0) return UINT64_MAX;
    return static_cast<std::uint64_t>(value);
}

}  // namespace

PhysicalMemoryMemoryLimiter::PhysicalMemoryMemoryLimiter(std::uint64_t percentOfRam)
    : percent(0), totalPhysicalMemory(readRam().total), limitBytes(0) {
    PhysicalMemoryMemoryLimiter::setMemoryLimit(percentOfRam);
}

PhysicalMemoryMemoryLimiter::~PhysicalMemoryMemoryLimiter() = default;

std::uint64_t PhysicalMemoryMemoryLimiter::getMemoryUsed() const { return 0; }
void PhysicalMemoryMemoryLimiter::incMemoryUsed(std::uint64_t) {}
void PhysicalMemoryMemoryLimiter::decMemoryUsed(std::uint64_t) {}
void PhysicalMemoryMemoryLimiter::reset() {}

void PhysicalMemoryMemoryLimiter::setMemoryLimit(std::uint64_t percentOfRam) {
    percent = percentOfRam;
    limitBytes = toUnsigned64(static_cast<double>(totalPhysicalMemory) * (static_cast<double>(percentOfRam) / 100.0));
}

std::uint64_t PhysicalMemoryMemoryLimiter::getMemoryLimit() const {
    const std::uint64_t free = readRam().free;
    const std::uint64_t inUse = totalPhysicalMemory > free ? totalPhysicalMemory - free : 0;
    return limitBytes < inUse ? 0 : limitBytes - inUse;
}

}  // namespace lumoframekit
