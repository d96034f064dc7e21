#pragma once
#include <cstdint>

namespace lumoframekit {

// Bytes of one element of a host element type; 1 for codes above 7.
std::uint32_t elementSize(std::int32_t dataType);

// Converts count elements of host type sourceType into targetType. bits is the source frame's
// bits per band, which sets the scale of integer sources (32-bit sources going to floating point
// ignore it). Both codes must be 0..7.
void convertElements(const void* source, std::int32_t sourceType, void* target, std::int32_t targetType,
                     std::uint64_t count, std::uint32_t bits);

}  // namespace lumoframekit
