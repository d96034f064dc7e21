#pragma once
// Format tables: one constexpr row per subtype of a family.
#include <cstddef>
#include <cstdint>

namespace lumoframekit {

// The row of a table for a subtype, or null for a subtype outside it.
template <typename Row, std::size_t N>
constexpr const Row* rowOf(const Row (&table)[N], std::int32_t subtype) {
    return subtype >= 0 && static_cast<std::size_t>(subtype) < N ? &table[subtype] : nullptr;
}

}  // namespace lumoframekit
