#include "frames/core/l1_cache.h"

#include <unistd.h>

#include <atomic>

namespace lumoframekit {

namespace {
// Written without a lock: concurrent first users may both query, and both store the same values.
std::atomic<std::int32_t> lineSizeSeen{0};
std::atomic<std::int32_t> cacheSizeSeen{0};
}  // namespace

L1DataCache l1DataCache() {
    std::int32_t line = lineSizeSeen.load(std::memory_order_relaxed);
    std::int32_t size = cacheSizeSeen.load(std::memory_order_relaxed);
    if (line == 0 && size == 0) {
        line = static_cast<std::int32_t>(sysconf(_SC_LEVEL1_DCACHE_LINESIZE));
        size = static_cast<std::int32_t>(sysconf(_SC_LEVEL1_DCACHE_SIZE));
        lineSizeSeen.store(line, std::memory_order_relaxed);
        cacheSizeSeen.store(size, std::memory_order_relaxed);
    }
    return {line, size};
}

}  // namespace lumoframekit
