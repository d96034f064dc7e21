#include "frames/mono/monochrome_factory.h"

#include "frames/mono/monochrome_variant_impl.h"
#include "lumoframekit/monochrome_frame.h"
#include "lumoframekit/packed_monochrome_frame.h"

namespace lumoframekit {

namespace {

using Maker = IFrame* (*)(std::int32_t, std::int32_t);

template <typename Frame>
IFrame* make(std::int32_t width, std::int32_t height) {
    return new Frame(width, height);
}

// The 8-bit classes are the only ones whose copy-out is cache-blocked.
template <typename Frame>
IFrame* makeBlocked(std::int32_t width, std::int32_t height) {
    auto* frame = new Frame(width, height);
    try {
        frame->setUpBlocking();
    } catch (...) {
        delete frame;
        throw;
    }
    return frame;
}

template <std::uint32_t Bits, std::int32_t LsbFirst>
IFrame* makePacked(std::int32_t width, std::int32_t height) {
    return new PackedMonochromeFrame(width, height, Bits, LsbFirst);
}

// Classes by variant byte (bits 7..0 of the code), top-down and bottom-up; null where the code is
// not accepted.
struct MonoEntry {
    Maker topDown;
    Maker bottomUp;
};

constexpr MonoEntry monoTable[0x25] = {
    /* 0x00 */ {makeBlocked<MonochromeFrame8bitTopDown>, makeBlocked<MonochromeFrame8bitBottomUp>},
    /* 0x01 */ {make<MonochromeFrame10bitLETopDown>, make<MonochromeFrame10bitLEBottomUp>},
    /* 0x02 */ {make<MonochromeFrame12bitLETopDown>, make<MonochromeFrame12bitLEBottomUp>},
    /* 0x03 */ {make<MonochromeFrame14bitLETopDown>, make<MonochromeFrame14bitLEBottomUp>},
    /* 0x04 */ {make<MonochromeFrame16bitLETopDown>, make<MonochromeFrame16bitLEBottomUp>},
    /* 0x05 */ {make<MonochromeFrame10bitBETopDown>, make<MonochromeFrame10bitBEBottomUp>},
    /* 0x06 */ {make<MonochromeFrame12bitBETopDown>, make<MonochromeFrame12bitBEBottomUp>},
    /* 0x07 */ {make<MonochromeFrame14bitBETopDown>, make<MonochromeFrame14bitBEBottomUp>},
    /* 0x08 */ {make<MonochromeFrame16bitBETopDown>, make<MonochromeFrame16bitBEBottomUp>},
    /* 0x09 */
    {make<MonochromeFrameINTLETopDown<short, unsigned short>>,
     make<MonochromeFrameINTLEBottomUp<short, unsigned short>>},
    /* 0x0A..0x0F are unassigned */ {},
    {},
    {},
    {},
    {},
    {},
    /* 0x10 */
    {make<MonochromeFrameINTLETopDown<int, unsigned int>>, make<MonochromeFrameINTLEBottomUp<int, unsigned int>>},
    /* 0x11 */
    {make<MonochromeFrameINTBETopDown<short, unsigned short>>,
     make<MonochromeFrameINTBEBottomUp<short, unsigned short>>},
    /* 0x12 */
    {make<MonochromeFrameINTBETopDown<int, unsigned int>>, make<MonochromeFrameINTBEBottomUp<int, unsigned int>>},
    /* 0x13 */ {make<MonochromeFrameFloatLETopDown<float>>, make<MonochromeFrameFloatLEBottomUp<float>>},
    /* 0x14 */ {make<MonochromeFrameFloatLETopDown<double>>, make<MonochromeFrameFloatLEBottomUp<double>>},
    /* 0x15 */ {make<MonochromeFrameFloatBETopDown<float>>, make<MonochromeFrameFloatBEBottomUp<float>>},
    /* 0x16 */ {make<MonochromeFrameFloatBETopDown<double>>, make<MonochromeFrameFloatBEBottomUp<double>>},
    /* 0x17 */
    {make<MonochromeFrameINTLETopDown<signed char, unsigned char>>,
     make<MonochromeFrameINTLEBottomUp<signed char, unsigned char>>},
    /* 0x18 */ {makePacked<10, 0>, nullptr},
    /* 0x19 */ {makePacked<12, 0>, nullptr},
    /* 0x1A */ {makeBlocked<MonochromeFrame8bitInv>, nullptr},
    /* 0x1B */ {make<MonochromeFrame9bitLETopDown>, make<MonochromeFrame9bitLEBottomUp>},
    /* 0x1C */ {make<MonochromeFrame11bitLETopDown>, make<MonochromeFrame11bitLEBottomUp>},
    /* 0x1D */ {make<MonochromeFrame13bitLETopDown>, make<MonochromeFrame13bitLEBottomUp>},
    /* 0x1E */ {make<MonochromeFrame15bitLETopDown>, make<MonochromeFrame15bitLEBottomUp>},
    /* 0x1F */ {make<MonochromeFrame9bitBETopDown>, make<MonochromeFrame9bitBEBottomUp>},
    /* 0x20 */ {make<MonochromeFrame11bitBETopDown>, make<MonochromeFrame11bitBEBottomUp>},
    /* 0x21 */ {make<MonochromeFrame13bitBETopDown>, make<MonochromeFrame13bitBEBottomUp>},
    /* 0x22 */ {make<MonochromeFrame15bitBETopDown>, make<MonochromeFrame15bitBEBottomUp>},
    /* 0x23 */ {makePacked<10, 1>, nullptr},
    /* 0x24 */ {makePacked<12, 1>, nullptr},
};

}  // namespace

IFrame* makeMonochromeFrame(std::uint32_t code, std::int32_t width, std::int32_t height) {
    if ((code & 0xFFFF0000u) != 0x11010000u) return nullptr;
    const std::uint32_t rows = (code >> 8) & 0xFFu;
    const std::uint32_t variant = code & 0xFFu;
    if (rows > 1 || variant >= std::size(monoTable)) return nullptr;
    const Maker maker = rows == 0 ? monoTable[variant].topDown : monoTable[variant].bottomUp;
    return maker == nullptr ? nullptr : maker(width, height);
}

// Every format once, with its members emitted here for hosts that name the classes directly.
template class MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, false>;
template class MonochromeVariant<std::uint8_t, MonoStorage::Unsigned8, true>;
template class MonochromeVariant<std::uint8_t, MonoStorage::Inverted8, false>;
template class MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, false>;
template class MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16LE, true>;
template class MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, false>;
template class MonochromeVariant<std::uint16_t, MonoStorage::Unsigned16BE, true>;
template class MonochromeVariant<signed char, MonoStorage::SignedLE, false>;
template class MonochromeVariant<signed char, MonoStorage::SignedLE, true>;
template class MonochromeVariant<short, MonoStorage::SignedLE, false>;
template class MonochromeVariant<short, MonoStorage::SignedLE, true>;
template class MonochromeVariant<short, MonoStorage::SignedBE, false>;
template class MonochromeVariant<short, MonoStorage::SignedBE, true>;
template class MonochromeVariant<int, MonoStorage::SignedLE, false>;
template class MonochromeVariant<int, MonoStorage::SignedLE, true>;
template class MonochromeVariant<int, MonoStorage::SignedBE, false>;
template class MonochromeVariant<int, MonoStorage::SignedBE, true>;
template class MonochromeVariant<float, MonoStorage::FloatLE, false>;
template class MonochromeVariant<float, MonoStorage::FloatLE, true>;
template class MonochromeVariant<float, MonoStorage::FloatBE, false>;
template class MonochromeVariant<float, MonoStorage::FloatBE, true>;
template class MonochromeVariant<double, MonoStorage::FloatLE, false>;
template class MonochromeVariant<double, MonoStorage::FloatLE, true>;
template class MonochromeVariant<double, MonoStorage::FloatBE, false>;
template class MonochromeVariant<double, MonoStorage::FloatBE, true>;

}  // namespace lumoframekit
