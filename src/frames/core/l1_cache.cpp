#include "frames/core/l1_cache.h"
#include "frames/core/transpose.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

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

namespace {
// 0 until first asked for; a threshold of 0 itself is stored as 1 (every whole-line array streams).
std::atomic<std::uint64_t> streamingAbove{0};
}  // namespace

std::uint64_t streamingThresholdFrom(const char* mebibytes, long sharedCacheBytes) {
    if (mebibytes != nullptr && *mebibytes >= '0' && *mebibytes <= '9') {
        char* end = nullptr;
        const unsigned long long value = std::strtoull(mebibytes, &end, 10);
        if (*end == '\0' && value <= (std::uint64_t{1} << 40)) return std::uint64_t{value} << 20;
    }
    return sharedCacheBytes > 0 ? static_cast<std::uint64_t>(sharedCacheBytes) / 4 : std::uint64_t{8} << 20;
}

std::uint64_t streamingThreshold() {
    std::uint64_t threshold = streamingAbove.load(std::memory_order_relaxed);
    if (threshold == 0) {
        threshold = std::max<std::uint64_t>(
            streamingThresholdFrom(std::getenv("LUMO_STREAM_ABOVE_MIB"), sysconf(_SC_LEVEL3_CACHE_SIZE)), 1);
        streamingAbove.store(threshold, std::memory_order_relaxed);
    }
    return threshold;
}

std::uint64_t setStreamingThreshold(std::uint64_t bytes) {
    const std::uint64_t before = streamingThreshold();
    streamingAbove.store(std::max<std::uint64_t>(bytes, 1), std::memory_order_relaxed);
    return before;
}

ColumnStores transposeStoresFor(std::uint64_t bytes, std::uint64_t rows) {
    return bytes > streamingThreshold() ? columnStoresFor(bytes, rows) : ColumnStores::Cached;
}

}  // namespace lumoframekit
