#pragma once
#include <cstdint>

namespace lumoframekit {

// Line size and total size of the first-level data cache, in bytes.
struct L1DataCache {
    std::int32_t lineSize;
    std::int32_t cacheSize;
};

// The process-wide cache figures. They are queried from the system while both are still 0; a line
// size of 0 with a known cache size is kept as it is and disables cache blocking.
L1DataCache l1DataCache();

}  // namespace lumoframekit
