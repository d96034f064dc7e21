#include "frames/core/l1_cache.h"
#include "frames/core/transpose.h"
#include "frames/kernels/kernels.h"

#include <unistd.h>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <numeric>

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

bool intelProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned int highest = 0, b = 0, c = 0, d = 0;
    // The vendor's name is 12 characters in ebx, edx, ecx.
    return __get_cpuid(0, &highest, &b, &c, &d) != 0 && b == 0x756E6547u && d == 0x49656E69u && c == 0x6C65746Eu;
#else
    return false;
#endif
}
// The processor's answer, taken when the library loads; tests change it.
std::atomic<bool> wideStaged{intelProcessor()};
}  // namespace

bool wideSamplesStaged() { return wideStaged.load(std::memory_order_relaxed); }

std::uint64_t arraysStreamAbove() {
    constexpr std::uint64_t MiB = std::uint64_t{1} << 20;
    return wideSamplesStaged() ? MiB : kernels().vectorBits < 512 ? 4 * MiB : 8 * MiB;
}

bool setWideSamplesStaged(bool staged) { return wideStaged.exchange(staged, std::memory_order_relaxed); }

std::uint64_t streamingThresholdFrom(const char* mebibytes, long sharedCacheBytes, bool wideSamples) {
    if (mebibytes != nullptr && *mebibytes >= '0' && *mebibytes <= '9') {
        char* end = nullptr;
        const unsigned long long value = std::strtoull(mebibytes, &end, 10);
        if (*end == '\0' && value <= (std::uint64_t{1} << 40)) return std::uint64_t{value} << 20;
    }
    if (wideSamples) return std::uint64_t{16} << 20;
    return sharedCacheBytes > 0 ? static_cast<std::uint64_t>(sharedCacheBytes) / 4 : std::uint64_t{8} << 20;
}

std::uint64_t streamingThreshold() {
    std::uint64_t threshold = streamingAbove.load(std::memory_order_relaxed);
    if (threshold == 0) {
        threshold = std::max<std::uint64_t>(streamingThresholdFrom(std::getenv("LUMO_STREAM_ABOVE_MIB"),
                                                                   sysconf(_SC_LEVEL3_CACHE_SIZE), wideSamplesStaged()),
                                            1);
        streamingAbove.store(threshold, std::memory_order_relaxed);
    }
    return threshold;
}

std::uint64_t setStreamingThreshold(std::uint64_t bytes) {
    const std::uint64_t before = streamingThreshold();
    streamingAbove.store(std::max<std::uint64_t>(bytes, 1), std::memory_order_relaxed);
    return before;
}

bool columnsCollide(std::uint64_t columnBytes, std::uint64_t columns, std::uint64_t lineBytes, std::uint64_t sets,
                    std::uint64_t ways) {
    if (lineBytes == 0 || sets == 0 || ways == 0) return false;
    // Column starts fall on multiples of the common divisor of the stride and the span of one
    // way; below a line apart they spread over every set.
    const std::uint64_t span = sets * lineBytes, apart = std::gcd(columnBytes, span);
    const std::uint64_t setsUsed = apart < lineBytes ? sets : span / apart;
    return setsUsed * ways < columns;
}

namespace {
// The first-level data cache's line size, sets and ways, queried once (zeros where unknown).
struct CacheShape {
    std::uint64_t line, sets, ways;
};
CacheShape firstLevelShape() {
    static const CacheShape shape = [] {
        const L1DataCache cache = l1DataCache();
        const long ways = sysconf(_SC_LEVEL1_DCACHE_ASSOC);
        if (cache.lineSize <= 0 || cache.cacheSize <= 0 || ways <= 0) return CacheShape{0, 0, 0};
        const auto line = static_cast<std::uint64_t>(cache.lineSize), w = static_cast<std::uint64_t>(ways);
        return CacheShape{line, static_cast<std::uint64_t>(cache.cacheSize) / (line * w), w};
    }();
    return shape;
}
}  // namespace

ColumnStores unlessColumnsCollide(ColumnStores stores, std::uint64_t columnBytes, std::uint64_t columns) {
    const CacheShape cache = firstLevelShape();
    return columnsCollide(columnBytes, columns, cache.line, cache.sets, cache.ways) ? ColumnStores::Streamed : stores;
}

ColumnStores transposeStoresFor(std::uint64_t bytes, std::uint64_t rows, std::uint64_t sampleBytes) {
    ColumnStores stores = ColumnStores::Cached;
    const bool narrowWords = kernels().vectorBits < 512 && sampleBytes == 2 && bytes > (std::uint64_t{5} << 19);
    if (narrowWords || columnStoresFor(bytes, rows) == ColumnStores::Streamed) {
        if (kernels().vectorBits < 512)
            stores = ColumnStores::Streamed;
        else if (sampleBytes == 1)
            stores = ColumnStores::Lines;
        else if ((sampleBytes == 4 || wideSamplesStaged()) && bytes > streamingThreshold())
            stores = ColumnStores::Streamed;
        else if (sampleBytes == 2)
            stores = ColumnStores::Lines;
    }
    return unlessColumnsCollide(stores, rows * sampleBytes, 64 / sampleBytes);
}

}  // namespace lumoframekit
