#pragma once
// The packings of 10- and 12-bit samples without unused bits, one row each: packed monochrome
// frames and the mosaics of packed Bayer frames read them.
#include <cstdint>
#include <iterator>

namespace lumoframekit {

enum class Packing { Ten2in3, Twelve2in3, Twelve2in3LsbFirst, Ten4in5 };

struct PackingFacts {
    Packing packing;
    std::int32_t bits;
    bool lsbFirst;  // the variant flag of the frame types
    std::int32_t bytesPerGroup;
    std::int32_t pixelsPerGroup;
    std::int32_t padUnit;  // pixels a lead or trail pad adds to a row
};

// clang-format off
inline constexpr PackingFacts kPackings[] = {
    {.packing = Packing::Ten2in3,            .bits = 10, .lsbFirst = false, .bytesPerGroup = 3, .pixelsPerGroup = 2, .padUnit = 1},
    {.packing = Packing::Twelve2in3,         .bits = 12, .lsbFirst = false, .bytesPerGroup = 3, .pixelsPerGroup = 2, .padUnit = 1},
    {.packing = Packing::Twelve2in3LsbFirst, .bits = 12, .lsbFirst = true,  .bytesPerGroup = 3, .pixelsPerGroup = 2, .padUnit = 1},
    {.packing = Packing::Ten4in5,            .bits = 10, .lsbFirst = true,  .bytesPerGroup = 5, .pixelsPerGroup = 4, .padUnit = 3},
};
// clang-format on

// The packing of `bits` in variant lsbFirst, or null when there is none.
constexpr const PackingFacts* findPacking(std::int32_t bits, bool lsbFirst) {
    for (const PackingFacts& facts : kPackings)
        if (facts.bits == bits && facts.lsbFirst == lsbFirst) return &facts;
    return nullptr;
}

static_assert(std::size(kPackings) == 4 && findPacking(10, true)->packing == Packing::Ten4in5);

}  // namespace lumoframekit
