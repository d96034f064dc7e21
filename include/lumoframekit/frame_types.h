#pragma once
#include <cstdint>

#include "lumoframekit/export.h"

namespace lumoframekit {
namespace frametypes {

// A frame-type code, read as four bytes, most significant first:
//   bits 31..24  family: 0x11 monochrome, 0x01 RGB24, 0x02 planar RGB, 0x03 packed YUV,
//                0x04 planar YUV, 0x05 RGB16, 0x06 Bayer, 0x07 hybrid YUV
//   bits 23..16  sub-family: 0x01 for monochrome, 0x03 for Bayer; not examined for the others
//   bits 15..8   monochrome: 0x00 top-down, 0x01 bottom-up; RGB24 and RGB16: bit 8 set for rows
//                stored bottom-up; Bayer: 0x00
//   bits 7..0    the format within the family
// Any 32-bit value may be held; frameFactory returns null for codes it does not accept. The RGB
// and YUV families accept every code of their family byte: the names below cover the formats
// those families define.
enum FRAMETYPE : std::uint32_t {
    // Monochrome, rows stored top-down and bottom-up.
    MONO8_TOPDOWN = 0x11010000u,
    MONO8_BOTTOMUP = 0x11010100u,
    MONO10_LE_TOPDOWN = 0x11010001u,
    MONO10_LE_BOTTOMUP = 0x11010101u,
    MONO12_LE_TOPDOWN = 0x11010002u,
    MONO12_LE_BOTTOMUP = 0x11010102u,
    MONO14_LE_TOPDOWN = 0x11010003u,
    MONO14_LE_BOTTOMUP = 0x11010103u,
    MONO16_LE_TOPDOWN = 0x11010004u,
    MONO16_LE_BOTTOMUP = 0x11010104u,
    MONO10_BE_TOPDOWN = 0x11010005u,
    MONO10_BE_BOTTOMUP = 0x11010105u,
    MONO12_BE_TOPDOWN = 0x11010006u,
    MONO12_BE_BOTTOMUP = 0x11010106u,
    MONO14_BE_TOPDOWN = 0x11010007u,
    MONO14_BE_BOTTOMUP = 0x11010107u,
    MONO16_BE_TOPDOWN = 0x11010008u,
    MONO16_BE_BOTTOMUP = 0x11010108u,
    MONO_INT16_LE_TOPDOWN = 0x11010009u,
    MONO_INT16_LE_BOTTOMUP = 0x11010109u,
    MONO_INT32_LE_TOPDOWN = 0x11010010u,
    MONO_INT32_LE_BOTTOMUP = 0x11010110u,
    MONO_INT16_BE_TOPDOWN = 0x11010011u,
    MONO_INT16_BE_BOTTOMUP = 0x11010111u,
    MONO_INT32_BE_TOPDOWN = 0x11010012u,
    MONO_INT32_BE_BOTTOMUP = 0x11010112u,
    MONO_FLOAT_LE_TOPDOWN = 0x11010013u,
    MONO_FLOAT_LE_BOTTOMUP = 0x11010113u,
    MONO_DOUBLE_LE_TOPDOWN = 0x11010014u,
    MONO_DOUBLE_LE_BOTTOMUP = 0x11010114u,
    MONO_FLOAT_BE_TOPDOWN = 0x11010015u,
    MONO_FLOAT_BE_BOTTOMUP = 0x11010115u,
    MONO_DOUBLE_BE_TOPDOWN = 0x11010016u,
    MONO_DOUBLE_BE_BOTTOMUP = 0x11010116u,
    MONO_INT8_TOPDOWN = 0x11010017u,
    MONO_INT8_BOTTOMUP = 0x11010117u,
    MONO9_LE_TOPDOWN = 0x1101001Bu,
    MONO9_LE_BOTTOMUP = 0x1101011Bu,
    MONO11_LE_TOPDOWN = 0x1101001Cu,
    MONO11_LE_BOTTOMUP = 0x1101011Cu,
    MONO13_LE_TOPDOWN = 0x1101001Du,
    MONO13_LE_BOTTOMUP = 0x1101011Du,
    MONO15_LE_TOPDOWN = 0x1101001Eu,
    MONO15_LE_BOTTOMUP = 0x1101011Eu,
    MONO9_BE_TOPDOWN = 0x1101001Fu,
    MONO9_BE_BOTTOMUP = 0x1101011Fu,
    MONO11_BE_TOPDOWN = 0x11010020u,
    MONO11_BE_BOTTOMUP = 0x11010120u,
    MONO13_BE_TOPDOWN = 0x11010021u,
    MONO13_BE_BOTTOMUP = 0x11010121u,
    MONO15_BE_TOPDOWN = 0x11010022u,
    MONO15_BE_BOTTOMUP = 0x11010122u,
    // Monochrome formats that exist only top-down.
    MONO10_PACKED = 0x11010018u,
    MONO12_PACKED = 0x11010019u,
    MONO8_INVERTED = 0x1101001Au,
    MONO10_PACKED_LSB = 0x11010023u,
    MONO12_PACKED_LSB = 0x11010024u,
    // Bayer mosaics: depth and packing, then the colors of the top-left 2 x 2 cell.
    BAYER8_GRBG = 0x06030000u,
    BAYER8_GBRG = 0x06030001u,
    BAYER8_BGGR = 0x06030002u,
    BAYER8_RGGB = 0x06030003u,
    BAYER10_GRBG = 0x06030004u,
    BAYER10_GBRG = 0x06030005u,
    BAYER10_BGGR = 0x06030006u,
    BAYER10_RGGB = 0x06030007u,
    BAYER12_GRBG = 0x06030008u,
    BAYER12_GBRG = 0x06030009u,
    BAYER12_BGGR = 0x0603000Au,
    BAYER12_RGGB = 0x0603000Bu,
    BAYER14_GRBG = 0x0603000Cu,
    BAYER14_GBRG = 0x0603000Du,
    BAYER14_BGGR = 0x0603000Eu,
    BAYER14_RGGB = 0x0603000Fu,
    BAYER16_GRBG = 0x06030010u,
    BAYER16_GBRG = 0x06030011u,
    BAYER16_BGGR = 0x06030012u,
    BAYER16_RGGB = 0x06030013u,
    BAYER10_PACKED_GRBG = 0x06030014u,
    BAYER10_PACKED_GBRG = 0x06030015u,
    BAYER10_PACKED_BGGR = 0x06030016u,
    BAYER10_PACKED_RGGB = 0x06030017u,
    BAYER12_PACKED_GRBG = 0x06030018u,
    BAYER12_PACKED_GBRG = 0x06030019u,
    BAYER12_PACKED_BGGR = 0x0603001Au,
    BAYER12_PACKED_RGGB = 0x0603001Bu,
    BAYER10_PACKED_LSB_GRBG = 0x0603001Cu,
    BAYER10_PACKED_LSB_GBRG = 0x0603001Du,
    BAYER10_PACKED_LSB_BGGR = 0x0603001Eu,
    BAYER10_PACKED_LSB_RGGB = 0x0603001Fu,
    BAYER12_PACKED_LSB_GRBG = 0x06030020u,
    BAYER12_PACKED_LSB_GBRG = 0x06030021u,
    BAYER12_PACKED_LSB_BGGR = 0x06030022u,
    BAYER12_PACKED_LSB_RGGB = 0x06030023u,
    // Interleaved RGB; OR in FRAMETYPE_BOTTOMUP_FLAG for rows stored bottom-up.
    RGB24 = 0x01000000u,
    BGR24 = 0x01000001u,
    RGBX32 = 0x01000002u,
    BGRX32 = 0x01000003u,
    XRGB32 = 0x01000004u,
    XBGR32 = 0x01000005u,
    RGB48_LE = 0x01000006u,
    BGR48_LE = 0x01000007u,
    RGB48_BE = 0x01000008u,
    BGR48_BE = 0x01000009u,
    RGB48_SIGNED_LE = 0x0100000Au,
    BGR48_SIGNED_LE = 0x0100000Bu,
    RGB48_SIGNED_BE = 0x0100000Cu,
    BGR48_SIGNED_BE = 0x0100000Du,
    RGB30_IN48_LE = 0x0100000Eu,
    BGR30_IN48_LE = 0x0100000Fu,
    RGB36_IN48_LE = 0x01000010u,
    BGR36_IN48_LE = 0x01000011u,
    // Packed RGB words; OR in FRAMETYPE_BOTTOMUP_FLAG for rows stored bottom-up.
    RGB555 = 0x05000000u,
    RGB565 = 0x05000001u,
    RGB444 = 0x05000002u,
    RGB10_R_HIGH = 0x05000003u,
    RGB10_R_LOW = 0x05000004u,
    RGB10_R_TOP = 0x05000005u,
    RGB10_B_TOP = 0x05000006u,
    RGB10_LOW_BITS_TOP = 0x05000007u,
    RGB10_LOW_BITS_BOTTOM = 0x05000008u,
    // Planar RGB.
    PLANAR_RGB8 = 0x02000000u,
    PLANAR_RGB16_LE = 0x02000001u,
    PLANAR_RGB16_BE = 0x02000002u,
    PLANAR_RGB16_SIGNED_LE = 0x02000003u,
    PLANAR_RGB16_SIGNED_BE = 0x02000004u,
    PLANAR_RGB10_LE = 0x02000005u,
    PLANAR_RGB12_LE = 0x02000006u,
    PLANAR_RGB14_LE = 0x02000007u,
    PLANAR_RGB8_SIGNED = 0x02000008u,
    // Packed YUV.
    YUV422_YUYV = 0x03000000u,
    YUV422_UYVY = 0x03000001u,
    YUV422_YVYU = 0x03000002u,
    YUV411_UYYVYY = 0x03000003u,
    YUV444_UYV = 0x03000004u,
    YUV411_GROUPED8 = 0x03000005u,
    YUV444_UVY = 0x03000006u,
    // Planar YUV.
    YUV410_PLANAR_YVU = 0x04000000u,
    YUV420_PLANAR_YVU = 0x04000001u,
    YUV420_PLANAR_YUV = 0x04000002u,
    // Hybrid YUV 4:2:0.
    YUV420_LINE_INTERLEAVED = 0x07000000u,
    YUV420_SEMI_PLANAR = 0x07000001u,
};

// Bit 8 of an RGB24 or RGB16 code: rows stored bottom-up.
inline constexpr std::uint32_t FRAMETYPE_BOTTOMUP_FLAG = 0x100u;

}  // namespace frametypes

// Color-space values, kept by every frame and used as request flags by getDataInColorSpace.
enum ColorSpace : std::uint32_t {
    COLORSPACE_UNKNOWN = 0,
    COLORSPACE_MONO = 1,  // one band: monochrome or a raw mosaic
    COLORSPACE_RGB = 2,
    COLORSPACE_YUV = 4,
    COLORSPACE_DEMOSAIC = 8,  // request only: demosaic a one-band mosaic into RGB
};

// Host element types, as getDataType returns them and getDataInColorSpace accepts them.
enum DataType : std::int32_t {
    DATATYPE_UINT8 = 0,
    DATATYPE_INT8 = 1,
    DATATYPE_UINT16 = 2,
    DATATYPE_INT16 = 3,
    DATATYPE_UINT32 = 4,
    DATATYPE_INT32 = 5,
    DATATYPE_FLOAT = 6,
    DATATYPE_DOUBLE = 7,
};

// The color space a code belongs to, from its family byte alone: 1 for any 0x11 code, 2 for the
// RGB and Bayer families, 4 for the YUV families, 0 otherwise. It does not check whether the
// factory accepts the code.
LUMOFRAMEKIT_API std::uint32_t getFrameTypeColorSpace(frametypes::FRAMETYPE code);

}  // namespace lumoframekit
