// Standard camera formats: for each one a buffer is written from the standard's description of
// its layout (not from the frame code), filled into the frame the lookup names and converted.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using namespace lumoframekit;

// How the standard lays out one format.
enum class Layout {
    Interleaved,  // per pixel the channels of `order` (R, G, B, Y, U, V; 'a' a fourth byte)
    Planar,       // whole R, G and B planes, each row-major
    MsbPacked,    // "...Packed": 2 pixels in 3 bytes, high bits in bytes 0 and 2, low bits shared
    LsbStream,    // "...p": a little-endian bit stream of the samples
    Chroma,       // YUV groups: `order` spells one group, U and V shared by its pixels
};

struct Standard {
    const char* name;
    std::uint32_t value;
    Layout layout;
    int bits;           // significant bits of a sample
    const char* order;  // channel letters for Interleaved and Chroma; "M" for one band
    bool isSigned = false;
};

const Standard kStandards[] = {
    {"Mono8", 0x01080001, Layout::Interleaved, 8, "M"},
    {"Mono8s", 0x01080002, Layout::Interleaved, 8, "M", true},
    {"Mono10", 0x01100003, Layout::Interleaved, 10, "M"},
    {"Mono12", 0x01100005, Layout::Interleaved, 12, "M"},
    {"Mono14", 0x01100025, Layout::Interleaved, 14, "M"},
    {"Mono16", 0x01100007, Layout::Interleaved, 16, "M"},
    {"Mono10Packed", 0x010C0004, Layout::MsbPacked, 10, "M"},
    {"Mono12Packed", 0x010C0006, Layout::MsbPacked, 12, "M"},
    {"Mono10p", 0x010A0046, Layout::LsbStream, 10, "M"},
    {"Mono12p", 0x010C0047, Layout::LsbStream, 12, "M"},
    {"BayerGR8", 0x01080008, Layout::Interleaved, 8, "M"},
    {"BayerRG8", 0x01080009, Layout::Interleaved, 8, "M"},
    {"BayerGB8", 0x0108000A, Layout::Interleaved, 8, "M"},
    {"BayerBG8", 0x0108000B, Layout::Interleaved, 8, "M"},
    {"BayerGR10", 0x0110000C, Layout::Interleaved, 10, "M"},
    {"BayerRG10", 0x0110000D, Layout::Interleaved, 10, "M"},
    {"BayerGB10", 0x0110000E, Layout::Interleaved, 10, "M"},
    {"BayerBG10", 0x0110000F, Layout::Interleaved, 10, "M"},
    {"BayerGR12", 0x01100010, Layout::Interleaved, 12, "M"},
    {"BayerRG12", 0x01100011, Layout::Interleaved, 12, "M"},
    {"BayerGB12", 0x01100012, Layout::Interleaved, 12, "M"},
    {"BayerBG12", 0x01100013, Layout::Interleaved, 12, "M"},
    {"BayerGR14", 0x01100109, Layout::Interleaved, 14, "M"},
    {"BayerRG14", 0x0110010A, Layout::Interleaved, 14, "M"},
    {"BayerGB14", 0x0110010B, Layout::Interleaved, 14, "M"},
    {"BayerBG14", 0x0110010C, Layout::Interleaved, 14, "M"},
    {"BayerGR16", 0x0110002E, Layout::Interleaved, 16, "M"},
    {"BayerRG16", 0x0110002F, Layout::Interleaved, 16, "M"},
    {"BayerGB16", 0x01100030, Layout::Interleaved, 16, "M"},
    {"BayerBG16", 0x01100031, Layout::Interleaved, 16, "M"},
    {"BayerGR10Packed", 0x010C0026, Layout::MsbPacked, 10, "M"},
    {"BayerRG10Packed", 0x010C0027, Layout::MsbPacked, 10, "M"},
    {"BayerGB10Packed", 0x010C0028, Layout::MsbPacked, 10, "M"},
    {"BayerBG10Packed", 0x010C0029, Layout::MsbPacked, 10, "M"},
    {"BayerGR12Packed", 0x010C002A, Layout::MsbPacked, 12, "M"},
    {"BayerRG12Packed", 0x010C002B, Layout::MsbPacked, 12, "M"},
    {"BayerGB12Packed", 0x010C002C, Layout::MsbPacked, 12, "M"},
    {"BayerBG12Packed", 0x010C002D, Layout::MsbPacked, 12, "M"},
    {"BayerBG10p", 0x010A0052, Layout::LsbStream, 10, "M"},
    {"BayerGB10p", 0x010A0054, Layout::LsbStream, 10, "M"},
    {"BayerGR10p", 0x010A0056, Layout::LsbStream, 10, "M"},
    {"BayerRG10p", 0x010A0058, Layout::LsbStream, 10, "M"},
    {"BayerBG12p", 0x010C0053, Layout::LsbStream, 12, "M"},
    {"BayerGB12p", 0x010C0055, Layout::LsbStream, 12, "M"},
    {"BayerGR12p", 0x010C0057, Layout::LsbStream, 12, "M"},
    {"BayerRG12p", 0x010C0059, Layout::LsbStream, 12, "M"},
    {"RGB8", 0x02180014, Layout::Interleaved, 8, "RGB"},
    {"BGR8", 0x02180015, Layout::Interleaved, 8, "BGR"},
    {"RGBa8", 0x02200016, Layout::Interleaved, 8, "RGBa"},
    {"BGRa8", 0x02200017, Layout::Interleaved, 8, "BGRa"},
    {"RGB10", 0x02300018, Layout::Interleaved, 10, "RGB"},
    {"BGR10", 0x02300019, Layout::Interleaved, 10, "BGR"},
    {"RGB12", 0x0230001A, Layout::Interleaved, 12, "RGB"},
    {"BGR12", 0x0230001B, Layout::Interleaved, 12, "BGR"},
    {"RGB16", 0x02300033, Layout::Interleaved, 16, "RGB"},
    {"BGR16", 0x0230004B, Layout::Interleaved, 16, "BGR"},
    {"RGB8_Planar", 0x02180021, Layout::Planar, 8, "RGB"},
    {"RGB10_Planar", 0x02300022, Layout::Planar, 10, "RGB"},
    {"RGB12_Planar", 0x02300023, Layout::Planar, 12, "RGB"},
    {"RGB16_Planar", 0x02300024, Layout::Planar, 16, "RGB"},
    {"YUV422_8", 0x02100032, Layout::Chroma, 8, "YUYV"},
    {"YUV422_8_UYVY", 0x0210001F, Layout::Chroma, 8, "UYVY"},
    {"YUV411_8_UYYVYY", 0x020C001E, Layout::Chroma, 8, "UYYVYY"},
    {"YUV8_UYV", 0x02180020, Layout::Chroma, 8, "UYV"},
};

// The image a camera saw: per channel (in plane order) and pixel (row-major) its sample.
struct Image {
    int width, height, bands;
    std::vector<std::uint16_t> samples;  // channel * width * height + y * width + x
    std::uint16_t& at(int c, int x, int y) { return samples[(static_cast<std::size_t>(c) * height + y) * width + x]; }
};

int channelOf(char letter) {
    switch (letter) {
        case 'R':
        case 'Y':
        case 'M': return 0;
        case 'G':
        case 'U': return 1;
        case 'B':
        case 'V': return 2;
        default: return -1;
    }
}

// Pixels of one chroma group: the number of Y letters in it.
int groupPixels(const char* order) { return static_cast<int>(std::count(order, order + std::strlen(order), 'Y')); }

Image picture(const Standard& s, int width, int height, std::mt19937& rng) {
    Image img{width, height, s.order[0] == 'M' ? 1 : 3, {}};
    img.samples.resize(static_cast<std::size_t>(img.bands) * width * height);
    for (auto& v : img.samples) v = static_cast<std::uint16_t>(rng() & ((1u << s.bits) - 1));
    if (s.layout == Layout::Chroma)  // chroma is one value per group
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                for (int c = 1; c < 3; ++c) img.at(c, x, y) = img.at(c, x - x % groupPixels(s.order), y);
    return img;
}

void putSample(std::vector<std::uint8_t>& out, std::uint16_t v, int bits) {
    out.push_back(static_cast<std::uint8_t>(v));
    if (bits > 8) out.push_back(static_cast<std::uint8_t>(v >> 8));
}

// The buffer as the standard describes the format.
std::vector<std::uint8_t> encode(const Standard& s, Image& img) {
    std::vector<std::uint8_t> out;
    const int w = img.width, h = img.height;
    switch (s.layout) {
        case Layout::Interleaved:
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    for (const char* c = s.order; *c; ++c)
                        channelOf(*c) < 0 ? out.push_back(0xA5) : putSample(out, img.at(channelOf(*c), x, y), s.bits);
            break;
        case Layout::Planar:
            for (int c = 0; c < 3; ++c)
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) putSample(out, img.at(c, x, y), s.bits);
            break;
        case Layout::MsbPacked:
            for (std::size_t i = 0; i < img.samples.size(); i += 2) {
                const int low = s.bits - 8, mask = (1 << low) - 1;
                const std::uint16_t a = img.samples[i], b = img.samples[i + 1];
                out.insert(out.end(), {static_cast<std::uint8_t>(a >> low),
                                       static_cast<std::uint8_t>((a & mask) | (b & mask) << 4),
                                       static_cast<std::uint8_t>(b >> low)});
            }
            break;
        case Layout::LsbStream: {
            std::uint64_t bitsHeld = 0;
            int count = 0;
            for (std::uint16_t v : img.samples) {
                bitsHeld |= std::uint64_t{v} << count;
                for (count += s.bits; count >= 8; count -= 8, bitsHeld >>= 8)
                    out.push_back(static_cast<std::uint8_t>(bitsHeld));
            }
            break;
        }
        case Layout::Chroma: {
            const int pixels = groupPixels(s.order);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; x += pixels) {
                    int nextY = x;
                    for (const char* c = s.order; *c; ++c)
                        out.push_back(
                            static_cast<std::uint8_t>(*c == 'Y' ? img.at(0, nextY++, y) : img.at(channelOf(*c), x, y)));
                }
            break;
        }
    }
    return out;
}

// The host planes the image should become: column-major, one plane per band.
std::vector<std::uint8_t> expectedPlanes(Image& img, std::size_t elementSize) {
    std::vector<std::uint8_t> out;
    for (int c = 0; c < img.bands; ++c)
        for (int x = 0; x < img.width; ++x)
            for (int y = 0; y < img.height; ++y) {
                const std::uint16_t v = img.at(c, x, y);
                out.push_back(static_cast<std::uint8_t>(v));
                if (elementSize == 2) out.push_back(static_cast<std::uint8_t>(v >> 8));
            }
    return out;
}

}  // namespace

TEST(PixelFormats, EveryStandardLayoutConvertsToItsSamples) {
    std::mt19937 rng(17);
    for (const Standard& s : kStandards) {
        const frametypes::FRAMETYPE code = frameTypeFromPixelFormat(s.value);
        ASSERT_NE(code, 0u) << s.name;
        for (auto [width, height] : {std::pair{8, 6}, std::pair{12, 5}, std::pair{64, 33}}) {
            SCOPED_TRACE(std::string(s.name) + " " + std::to_string(width) + "x" + std::to_string(height));
            Image img = picture(s, width, height, rng);
            const std::vector<std::uint8_t> buffer = encode(s, img);
            lumotest::FramePtr frame = lumotest::make(code, width, height);
            ASSERT_TRUE(frame);
            ASSERT_EQ(frame->getBufferSize(), buffer.size());
            std::memcpy(frame->allocateBuffer(), buffer.data(), buffer.size());
            EXPECT_EQ(frame->getBitsPerBand(), static_cast<std::uint32_t>(s.bits));
            // A mosaic is checked as the camera sent it: its one-band view.
            lumotest::ExactAllocator allocator;
            void* planes = nullptr;
            FrameDims dims{};
            const std::uint32_t space = img.bands == 1 ? COLORSPACE_MONO : frame->getColorSpace();
            frame->getDataInColorSpace(&planes, &dims, space, nullptr, 0, &allocator);
            ASSERT_NE(planes, nullptr);
            ASSERT_EQ(dims.bands, static_cast<std::uint32_t>(img.bands));
            const std::vector<std::uint8_t> want = expectedPlanes(img, s.bits > 8 ? 2 : 1);
            ASSERT_EQ(allocator.last, want.size());
            EXPECT_EQ(std::memcmp(planes, want.data(), want.size()), 0);
            allocator.release(planes);
            const std::int32_t type = frame->getDataType();
            EXPECT_EQ(type, s.bits > 8 ? DATATYPE_UINT16 : s.isSigned ? DATATYPE_INT8 : DATATYPE_UINT8);
        }
    }
}

TEST(PixelFormats, NamesValuesAndCodesAgreeBothWays) {
    std::vector<std::uint32_t> codes;
    for (const Standard& s : kStandards) {
        const frametypes::FRAMETYPE code = frameTypeFromPixelFormat(s.value);
        EXPECT_EQ(frameTypeFromPixelFormatName(s.name), code) << s.name;
        EXPECT_STREQ(pixelFormatName(code), s.name);
        EXPECT_EQ(pixelFormatValue(code), s.value) << s.name;
        EXPECT_EQ(std::count(codes.begin(), codes.end(), code), 0) << s.name << " shares its frame type";
        codes.push_back(code);
    }
    // The older GigE Vision names of the same layouts.
    EXPECT_EQ(frameTypeFromPixelFormatName("RGB8Packed"), frametypes::RGB24);
    EXPECT_EQ(frameTypeFromPixelFormatName("YUV422Packed"), frametypes::YUV422_UYVY);
    EXPECT_EQ(frameTypeFromPixelFormatName("BGRA8Packed"), frametypes::BGRX32);
    // What no frame type reproduces, and what is not a format.
    for (std::uint32_t value : {0u, 0x01100109u + 0x1000u, 0x02100035u /* RGB565p */, 0x010E0104u /* Mono14p */,
                                0x021E005Cu /* RGB10p */, 0x0210003Bu /* YCbCr422_8 */, 0xFFFFFFFFu})
        EXPECT_EQ(frameTypeFromPixelFormat(value), 0u) << std::hex << value;
    for (const char* name : {"", "mono8", "Mono8 ", "RGB565p", "Mono14p", "Coord3D_C16"})
        EXPECT_EQ(frameTypeFromPixelFormatName(name), 0u) << name;
    EXPECT_EQ(frameTypeFromPixelFormatName(nullptr), 0u);
    EXPECT_EQ(pixelFormatName(frametypes::MONO8_BOTTOMUP), nullptr);
    EXPECT_EQ(pixelFormatName(frametypes::FRAMETYPE{0}), nullptr);
    EXPECT_EQ(pixelFormatValue(frametypes::YUV420_SEMI_PLANAR), 0u);
}

// A Bayer name gives the colors of the first row's first two sites ("BayerGR": green, red; the
// next row then blue, green). A flat colored scene seen through that filter demosaics back to
// its color only when the frame type has the same pattern.
TEST(PixelFormats, BayerNamesGiveTheirFramesPattern) {
    const std::uint16_t scene[3] = {200, 100, 50};  // R, G, B at 8 bits
    for (const Standard& s : kStandards) {
        if (std::strncmp(s.name, "Bayer", 5) != 0 || s.bits != 8) continue;
        const int first = channelOf(s.name[5]), second = channelOf(s.name[6]);
        const int sites[2][2] = {{first, second}, {first == 1 ? 2 - second : 1, first == 1 ? 1 : 2 - first}};
        const int w = 8, h = 8;
        std::vector<std::uint8_t> mosaic(w * h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) mosaic[y * w + x] = static_cast<std::uint8_t>(scene[sites[y % 2][x % 2]]);
        lumotest::FramePtr frame = lumotest::make(frameTypeFromPixelFormat(s.value), w, h);
        ASSERT_TRUE(frame) << s.name;
        frame->setBufferData(mosaic.data());
        const std::vector<std::uint8_t> rgb = lumotest::planesOf(*frame, 3 * w * h);
        for (int c = 0; c < 3; ++c)  // an inner pixel of each plane
            EXPECT_EQ(rgb[c * w * h + 3 * h + 3], scene[c]) << s.name << " plane " << c;
    }
}
