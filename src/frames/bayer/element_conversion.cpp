#include "frames/bayer/element_conversion.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace lumoframekit {

namespace {

template <typename T>
constexpr int widthOf = 8 * static_cast<int>(sizeof(T));

// x shifted left by a positive amount or right (arithmetically) by a negative one; amounts past
// the 64 bits of x give 0 (or -1 for a negative x shifted right).
inline std::int64_t shifted(std::int64_t x, int amount) {
    if (amount >= 64) return 0;
    if (amount >= 0) return static_cast<std::int64_t>(static_cast<std::uint64_t>(x) << amount);
    if (amount <= -64) return x < 0 ? -1 : 0;
    return x >> -amount;
}

// Whether the top-bit offset applies for an integer source S going to integer target D. Unsigned
// sources get it for signed targets and wider signed sources for unsigned ones; int8 sources get it
// for signed targets, the other way round from int16 and int32.
template <typename S, typename D>
constexpr bool topBitOffset() {
    if constexpr (std::is_unsigned_v<S>)
        return std::is_signed_v<D>;
    else if constexpr (sizeof(S) == 1)
        return std::is_signed_v<D>;
    else
        return std::is_unsigned_v<D>;
}

template <typename D>
struct ByteFractions {
    D value[256];
    constexpr ByteFractions() : value() {
        for (int i = 0; i < 256; ++i) value[i] = static_cast<D>(i / 256.0);
    }
};

// The scaled value of a floating-point source in double precision, saturated to the target's
// range; NaN gives 0.
template <typename D>
inline D fromFloating(double v) {
    constexpr double scale = static_cast<double>(std::uint64_t{1} << widthOf<D>);
    double scaled = v * scale;
    if constexpr (std::is_signed_v<D>) scaled -= scale / 2;
    if (std::isnan(scaled)) return 0;
    if (scaled <= static_cast<double>(std::numeric_limits<D>::min())) return std::numeric_limits<D>::min();
    if (scaled >= static_cast<double>(std::numeric_limits<D>::max())) return std::numeric_limits<D>::max();
    return static_cast<D>(scaled);
}

template <typename S, typename D>
void convertRun(const S* in, D* out, std::uint64_t count, std::uint32_t bits) {
    const int b = static_cast<int>(bits > 64 ? 64 : bits);
    if constexpr (std::is_floating_point_v<D>) {
        if constexpr (std::is_floating_point_v<S>) {
            for (std::uint64_t i = 0; i < count; ++i) out[i] = static_cast<D>(in[i]);
        } else if constexpr (std::is_same_v<S, std::uint8_t>) {
            static constexpr ByteFractions<D> fractions;
            for (std::uint64_t i = 0; i < count; ++i) out[i] = fractions.value[in[i]];
        } else {
            // Integer sources: 8- and 16-bit ones over 2^bits (signed ones offset to be
            // non-negative first), 32-bit ones over 2^32 whatever the bits per band.
            const int scaleBits = sizeof(S) == 4 ? 32 : b;
            const double offset = std::is_signed_v<S> ? std::ldexp(1.0, widthOf<S> - 1) : 0.0;
            for (std::uint64_t i = 0; i < count; ++i)
                out[i] = static_cast<D>(std::ldexp(static_cast<double>(in[i]) + offset, -scaleBits));
        }
    } else if constexpr (std::is_floating_point_v<S>) {
        for (std::uint64_t i = 0; i < count; ++i) out[i] = fromFloating<D>(static_cast<double>(in[i]));
    } else {
        const int amount = widthOf<D> - b;
        const std::uint64_t offset = topBitOffset<S, D>() ? std::uint64_t{1} << (widthOf<D> - 1) : 0;
        using UD = std::make_unsigned_t<D>;
        for (std::uint64_t i = 0; i < count; ++i)
            out[i] = static_cast<D>(static_cast<UD>(static_cast<std::uint64_t>(shifted(in[i], amount)) + offset));
    }
}

template <typename S>
void convertFrom(const void* source, void* target, std::int32_t targetType, std::uint64_t count, std::uint32_t bits) {
    const S* in = static_cast<const S*>(source);
    switch (targetType) {
        case 0: convertRun(in, static_cast<std::uint8_t*>(target), count, bits); break;
        case 1: convertRun(in, static_cast<std::int8_t*>(target), count, bits); break;
        case 2: convertRun(in, static_cast<std::uint16_t*>(target), count, bits); break;
        case 3: convertRun(in, static_cast<std::int16_t*>(target), count, bits); break;
        case 4: convertRun(in, static_cast<std::uint32_t*>(target), count, bits); break;
        case 5: convertRun(in, static_cast<std::int32_t*>(target), count, bits); break;
        case 6: convertRun(in, static_cast<float*>(target), count, bits); break;
        case 7: convertRun(in, static_cast<double*>(target), count, bits); break;
        default: break;
    }
}

}  // namespace

std::uint32_t elementSize(std::int32_t dataType) {
    static constexpr std::uint32_t sizes[8] = {1, 1, 2, 2, 4, 4, 4, 8};
    return dataType >= 0 && dataType <= 7 ? sizes[dataType] : 1;
}

void convertElements(const void* source, std::int32_t sourceType, void* target, std::int32_t targetType,
                     std::uint64_t count, std::uint32_t bits) {
    switch (sourceType) {
        case 0: convertFrom<std::uint8_t>(source, target, targetType, count, bits); break;
        case 1: convertFrom<std::int8_t>(source, target, targetType, count, bits); break;
        case 2: convertFrom<std::uint16_t>(source, target, targetType, count, bits); break;
        case 3: convertFrom<std::int16_t>(source, target, targetType, count, bits); break;
        case 4: convertFrom<std::uint32_t>(source, target, targetType, count, bits); break;
        case 5: convertFrom<std::int32_t>(source, target, targetType, count, bits); break;
        case 6: convertFrom<float>(source, target, targetType, count, bits); break;
        case 7: convertFrom<double>(source, target, targetType, count, bits); break;
        default: break;
    }
}

}  // namespace lumoframekit
