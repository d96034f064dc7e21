#pragma once
// The Bayer frame types: code 0x06030000 + 4 * group + pattern index, one row per group.
#include <cstdint>
#include <iterator>

namespace lumoframekit {

struct BayerGroup {
    std::uint32_t bits;
    bool packed = false;
    bool lsbFirst = false;  // the packing variant (see kPackings)
};

inline constexpr BayerGroup kBayerGroups[] = {
    {.bits = 8},
    {.bits = 10},
    {.bits = 12},
    {.bits = 14},
    {.bits = 16},
    {.bits = 10, .packed = true},
    {.bits = 12, .packed = true},
    {.bits = 10, .packed = true, .lsbFirst = true},
    {.bits = 12, .packed = true, .lsbFirst = true},
};

// The sensor pattern codes of pattern indexes 0..3: grbg, gbrg, bggr, rggb.
inline constexpr std::uint32_t kBayerPatterns[] = {0, 1, 2, 4};

inline constexpr std::uint32_t kFirstBayerCode = 0x06030000u;
inline constexpr std::uint32_t kBayerCodeCount = std::size(kBayerGroups) * std::size(kBayerPatterns);

}  // namespace lumoframekit
