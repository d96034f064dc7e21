#include "lumoframekit/pixel_formats.h"

#include <cstring>
#include <iterator>

namespace lumoframekit {

namespace {

using namespace frametypes;

// One row per standard format: its value, its standard name, the older GigE Vision name where
// it had another, and the frame type with the same byte layout.
struct PixelFormat {
    std::uint32_t value;
    const char* name;
    const char* olderName;
    FRAMETYPE code;
};

// Bayer names give the colors of the top-left 2 x 2 cell's first row: GR is grbg, RG rggb, GB
// gbrg, BG bggr. The "...Packed" formats put the high bits of each pixel in its own byte and share
// the third byte's nibbles (the 2-in-3 MSB packings); "...p" formats are little-endian bit streams
// (4 pixels in 5 bytes at 10 bits, 2 in 3 at 12).
constexpr PixelFormat kFormats[] = {
    {0x01080001u, "Mono8", nullptr, MONO8_TOPDOWN},
    {0x01080002u, "Mono8s", "Mono8Signed", MONO_INT8_TOPDOWN},
    {0x01100003u, "Mono10", nullptr, MONO10_LE_TOPDOWN},
    {0x01100005u, "Mono12", nullptr, MONO12_LE_TOPDOWN},
    {0x01100025u, "Mono14", nullptr, MONO14_LE_TOPDOWN},
    {0x01100007u, "Mono16", nullptr, MONO16_LE_TOPDOWN},
    {0x010C0004u, "Mono10Packed", nullptr, MONO10_PACKED},
    {0x010C0006u, "Mono12Packed", nullptr, MONO12_PACKED},
    {0x010A0046u, "Mono10p", nullptr, MONO10_PACKED_LSB},
    {0x010C0047u, "Mono12p", nullptr, MONO12_PACKED_LSB},

    {0x01080008u, "BayerGR8", nullptr, BAYER8_GRBG},
    {0x0108000Au, "BayerGB8", nullptr, BAYER8_GBRG},
    {0x0108000Bu, "BayerBG8", nullptr, BAYER8_BGGR},
    {0x01080009u, "BayerRG8", nullptr, BAYER8_RGGB},
    {0x0110000Cu, "BayerGR10", nullptr, BAYER10_GRBG},
    {0x0110000Eu, "BayerGB10", nullptr, BAYER10_GBRG},
    {0x0110000Fu, "BayerBG10", nullptr, BAYER10_BGGR},
    {0x0110000Du, "BayerRG10", nullptr, BAYER10_RGGB},
    {0x01100010u, "BayerGR12", nullptr, BAYER12_GRBG},
    {0x01100012u, "BayerGB12", nullptr, BAYER12_GBRG},
    {0x01100013u, "BayerBG12", nullptr, BAYER12_BGGR},
    {0x01100011u, "BayerRG12", nullptr, BAYER12_RGGB},
    {0x01100109u, "BayerGR14", nullptr, BAYER14_GRBG},
    {0x0110010Bu, "BayerGB14", nullptr, BAYER14_GBRG},
    {0x0110010Cu, "BayerBG14", nullptr, BAYER14_BGGR},
    {0x0110010Au, "BayerRG14", nullptr, BAYER14_RGGB},
    {0x0110002Eu, "BayerGR16", nullptr, BAYER16_GRBG},
    {0x01100030u, "BayerGB16", nullptr, BAYER16_GBRG},
    {0x01100031u, "BayerBG16", nullptr, BAYER16_BGGR},
    {0x0110002Fu, "BayerRG16", nullptr, BAYER16_RGGB},
    {0x010C0026u, "BayerGR10Packed", nullptr, BAYER10_PACKED_GRBG},
    {0x010C0028u, "BayerGB10Packed", nullptr, BAYER10_PACKED_GBRG},
    {0x010C0029u, "BayerBG10Packed", nullptr, BAYER10_PACKED_BGGR},
    {0x010C0027u, "BayerRG10Packed", nullptr, BAYER10_PACKED_RGGB},
    {0x010C002Au, "BayerGR12Packed", nullptr, BAYER12_PACKED_GRBG},
    {0x010C002Cu, "BayerGB12Packed", nullptr, BAYER12_PACKED_GBRG},
    {0x010C002Du, "BayerBG12Packed", nullptr, BAYER12_PACKED_BGGR},
    {0x010C002Bu, "BayerRG12Packed", nullptr, BAYER12_PACKED_RGGB},
    {0x010A0056u, "BayerGR10p", nullptr, BAYER10_PACKED_LSB_GRBG},
    {0x010A0054u, "BayerGB10p", nullptr, BAYER10_PACKED_LSB_GBRG},
    {0x010A0052u, "BayerBG10p", nullptr, BAYER10_PACKED_LSB_BGGR},
    {0x010A0058u, "BayerRG10p", nullptr, BAYER10_PACKED_LSB_RGGB},
    {0x010C0057u, "BayerGR12p", nullptr, BAYER12_PACKED_LSB_GRBG},
    {0x010C0055u, "BayerGB12p", nullptr, BAYER12_PACKED_LSB_GBRG},
    {0x010C0053u, "BayerBG12p", nullptr, BAYER12_PACKED_LSB_BGGR},
    {0x010C0059u, "BayerRG12p", nullptr, BAYER12_PACKED_LSB_RGGB},

    {0x02180014u, "RGB8", "RGB8Packed", RGB24},
    {0x02180015u, "BGR8", "BGR8Packed", BGR24},
    {0x02200016u, "RGBa8", "RGBA8Packed", RGBX32},
    {0x02200017u, "BGRa8", "BGRA8Packed", BGRX32},
    {0x02300018u, "RGB10", "RGB10Packed", RGB30_IN48_LE},
    {0x02300019u, "BGR10", "BGR10Packed", BGR30_IN48_LE},
    {0x0230001Au, "RGB12", "RGB12Packed", RGB36_IN48_LE},
    {0x0230001Bu, "BGR12", "BGR12Packed", BGR36_IN48_LE},
    {0x02300033u, "RGB16", nullptr, RGB48_LE},
    {0x0230004Bu, "BGR16", nullptr, BGR48_LE},
    {0x02180021u, "RGB8_Planar", "RGB8Planar", PLANAR_RGB8},
    {0x02300022u, "RGB10_Planar", "RGB10Planar", PLANAR_RGB10_LE},
    {0x02300023u, "RGB12_Planar", "RGB12Planar", PLANAR_RGB12_LE},
    {0x02300024u, "RGB16_Planar", "RGB16Planar", PLANAR_RGB16_LE},

    {0x02100032u, "YUV422_8", "YUV422_YUYV_Packed", YUV422_YUYV},
    {0x0210001Fu, "YUV422_8_UYVY", "YUV422Packed", YUV422_UYVY},
    {0x020C001Eu, "YUV411_8_UYYVYY", "YUV411Packed", YUV411_UYYVYY},
    {0x02180020u, "YUV8_UYV", "YUV444Packed", YUV444_UYV},
};

template <typename Match>
const PixelFormat* find(Match match) {
    for (const PixelFormat& format : kFormats)
        if (match(format)) return &format;
    return nullptr;
}

}  // namespace

FRAMETYPE frameTypeFromPixelFormat(std::uint32_t pfncValue) {
    const PixelFormat* format = find([&](const PixelFormat& f) { return f.value == pfncValue; });
    return format != nullptr ? format->code : FRAMETYPE{};
}

FRAMETYPE frameTypeFromPixelFormatName(const char* pfncName) {
    if (pfncName == nullptr) return FRAMETYPE{};
    const PixelFormat* format = find([&](const PixelFormat& f) {
        return std::strcmp(f.name, pfncName) == 0 ||
               (f.olderName != nullptr && std::strcmp(f.olderName, pfncName) == 0);
    });
    return format != nullptr ? format->code : FRAMETYPE{};
}

const char* pixelFormatName(FRAMETYPE code) {
    const PixelFormat* format = find([&](const PixelFormat& f) { return f.code == code; });
    return format != nullptr ? format->name : nullptr;
}

std::uint32_t pixelFormatValue(FRAMETYPE code) {
    const PixelFormat* format = find([&](const PixelFormat& f) { return f.code == code; });
    return format != nullptr ? format->value : 0;
}

}  // namespace lumoframekit
