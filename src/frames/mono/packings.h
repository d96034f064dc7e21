#pragma once
// The packings of 10- and 12-bit samples without unused bits, one row each: packed monochrome
// frames and the mosaics of packed Bayer frames read them.
#include <cstddef>
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

// The row of a packing.
constexpr const PackingFacts& factsOf(Packing packing) {
    for (const PackingFacts& facts : kPackings)
        if (facts.packing == packing) return facts;
    return kPackings[0];
}

static_assert(std::size(kPackings) == 4 && findPacking(10, true)->packing == Packing::Ten4in5);
static_assert(factsOf(Packing::Ten4in5).bytesPerGroup == 5);

// The byte of pixel c within a row: c * bytesPerGroup / pixelsPerGroup, rounded down for the
// 4-in-5 packing and up for the 2-in-3 packings (so an odd pixel lands on its group's third byte).
inline std::size_t byteOfPixel(Packing packing, std::size_t c) {
    return packing == Packing::Ten4in5 ? c * 5 / 4 : (c * 3 + 1) / 2;
}

// Pixel c of a row whose byte byteOfPixel(c) is at b.
template <Packing P>
inline std::uint16_t decode(const std::uint8_t* b, std::size_t c) {
    if constexpr (P == Packing::Ten4in5) {
        switch (c & 3) {
            case 0: return static_cast<std::uint16_t>(b[0] | (b[1] & 0x03) << 8);
            case 1: return static_cast<std::uint16_t>(b[0] >> 2 | (b[1] & 0x0F) << 6);
            case 2: return static_cast<std::uint16_t>(b[0] >> 4 | (b[1] & 0x3F) << 4);
            default: return static_cast<std::uint16_t>(b[0] >> 6 | b[1] << 2);
        }
    } else if (c & 1) {
        // Second pixel of a group: b[0] is the group's third byte, b[-1] the shared byte.
        if constexpr (P == Packing::Ten2in3)
            return static_cast<std::uint16_t>(b[0] << 2 | (b[-1] & 0x30) >> 4);
        else
            return static_cast<std::uint16_t>(b[0] << 4 | (b[-1] & 0xF0) >> 4);
    } else {
        if constexpr (P == Packing::Ten2in3)
            return static_cast<std::uint16_t>(b[0] << 2 | (b[1] & 0x03));
        else if constexpr (P == Packing::Twelve2in3)
            return static_cast<std::uint16_t>(b[0] << 4 | (b[1] & 0x0F));
        else
            return static_cast<std::uint16_t>((b[1] & 0x0F) << 8 | b[0]);
    }
}

}  // namespace lumoframekit
